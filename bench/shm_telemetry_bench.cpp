// SPDX-License-Identifier: Apache-2.0
// Publishing a sample and reading the latest one, each beside a plain memcpy
// of the same record as the baseline: the cost of the sequence counters, the
// ring and the field-by-field copy.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <sensors/data.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"

namespace {

struct kind_case {
    tlm_kind kind;
    const char *section;
    size_t size;
};

// Arg 0: baro (32 bytes), 1: imu (232 bytes), 2: gps (768 bytes).
constexpr kind_case kCases[] = {
    {tlm_kind::baro, "bench_baro", sizeof(sensors_baro_data)},
    {tlm_kind::imu, "bench_imu", sizeof(sensors_imu_data)},
    {tlm_kind::gps, "bench_gps", sizeof(sensors_gps_data)},
};

char g_dir[] = "/tmp/tlm-bench-XXXXXX";

// A private section directory for the run, removed at exit (the producers
// remove their files when destroyed).
void private_dir()
{
    static const bool done = [] {
        if (!mkdtemp(g_dir))
            return false;
        setenv(kTlmDirEnv, g_dir, 1);
        atexit([] { rmdir(g_dir); });
        return true;
    }();
    (void)done;
}

void BM_PutSample(benchmark::State &state)
{
    private_dir();
    const kind_case &k = kCases[state.range(0)];
    std::vector<uint8_t> record(k.size, 0x5a);
    shm_producer *p = producer_create(k.section, 400, 5000);
    producer_register_struct(p, record.data(), nullptr, layout_of(k.kind));
    if (producer_complete(p) < 0) {
        state.SkipWithError("producer_complete failed");
        producer_destroy(p);
        return;
    }
    timespec ts{1, 0};
    for (auto _ : state) {
        ts.tv_nsec++;
        benchmark::DoNotOptimize(producer_put_sample(p, &ts));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(k.size));
    producer_destroy(p);
}
BENCHMARK(BM_PutSample)->Arg(0)->Arg(1)->Arg(2);

void BM_ReadLatest(benchmark::State &state)
{
    private_dir();
    const kind_case &k = kCases[state.range(0)];
    std::vector<uint8_t> record(k.size, 0x5a);
    std::vector<uint8_t> dest(k.size, 0);
    shm_producer *p = producer_create(k.section, 400, 5000);
    producer_register_struct(p, record.data(), nullptr, layout_of(k.kind));
    producer_complete(p);
    timespec ts{1, 0};
    producer_put_sample(p, &ts);
    shm_consumer *c = consumer_create();
    consumer_register_struct(c, dest.data(), k.section, layout_of(k.kind));
    consumer_complete(c);
    timespec got{};
    if (consumer_get_sample_at(c, nullptr, 0, &got) < 0) {
        state.SkipWithError("first read failed");
    } else {
        for (auto _ : state) {
            benchmark::DoNotOptimize(consumer_get_sample_at(c, nullptr, 0, &got));
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(k.size));
    consumer_destroy(c);
    producer_destroy(p);
}
BENCHMARK(BM_ReadLatest)->Arg(0)->Arg(1)->Arg(2);

void BM_Memcpy(benchmark::State &state)
{
    const kind_case &k = kCases[state.range(0)];
    std::vector<uint8_t> from(k.size, 0x5a);
    std::vector<uint8_t> to(k.size, 0);
    for (auto _ : state) {
        memcpy(to.data(), from.data(), k.size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(k.size));
}
BENCHMARK(BM_Memcpy)->Arg(0)->Arg(1)->Arg(2);

} // namespace

BENCHMARK_MAIN();
