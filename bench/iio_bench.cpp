// SPDX-License-Identifier: Apache-2.0
// How many IMU scans per second the iiod transport carries: the limit that
// the IMU path's performance is measured against. The simulated IMU runs at
// 1 MHz so that the transport, not the device, sets the pace.
#include <benchmark/benchmark.h>
#include <iio.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <array>
#include <memory>
#include <string>

#include "platform/iio_helper.h"
#include "sim/iiod_server.h"

extern char **environ;

namespace {

std::unique_ptr<sim::iiod_server> fast_imu()
{
    sim::scenario s = sim::default_scenario();
    s.devices.resize(1);
    s.devices[0].sampling_frequency = 1000000;
    s.devices[0].rate_divider = 1;
    std::string error;
    auto server = sim::iiod_server::start(s, {}, &error);
    if (!server)
        std::abort();
    return server;
}

// iio_readdev pulling scans of all eight channels, batch size as the argument.
void BM_ReaddevImu(benchmark::State &state)
{
    auto server = fast_imu();
    const std::string batch = std::to_string(state.range(0));
    constexpr long kScans = 200000;
    const std::string count = std::to_string(kScans);
    const std::string uri = server->uri();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        const char *argv[] = {"/usr/bin/iio_readdev", "-u", uri.c_str(), "-t", "orlune-imu-trig", "-b",
                              batch.c_str(), "-s", count.c_str(), "orlune-imu", nullptr};
        pid_t pid;
        if (posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char **>(argv), environ) != 0) {
            state.SkipWithError("iio_readdev cannot be started");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("iio_readdev failed");
            break;
        }
    }
    posix_spawn_file_actions_destroy(&actions);
    state.counters["scans_per_s"] =
        benchmark::Counter(static_cast<double>(kScans) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ReaddevImu)->Arg(5)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime();

// The plug-in's own path: one refill per batch through iio_helper's buffer.
void BM_RefillImu(benchmark::State &state)
{
    auto server = fast_imu();
    setenv("IIOD_REMOTE", server->uri().c_str(), 1);
    iio_context *ctx = iio_create_default_context();
    iio_device *imu = device_init(ctx, "orlune-imu", 1);
    iio_device *trigger = trigger_init(ctx, "orlune-imu-trig", imu);
    std::array<iio_channel *, 8> channels{};
    const char *names[] = {"accel_x", "accel_y", "accel_z", "anglvel_x", "anglvel_y", "anglvel_z", "temp0", "timestamp"};
    std::array<iio_channel_binding, 8> bindings;
    for (size_t i = 0; i < 8; i++)
        bindings[i] = {names[i], &channels[i]};
    const size_t batch = static_cast<size_t>(state.range(0));
    iio_buffer *buffer = buffer_create(imu, bindings.data(), 8, batch * 4, batch, 1);
    if (!buffer || device_enable(imu, trigger, buffer) < 0) {
        state.SkipWithError("no IMU buffer");
        return;
    }
    float sum = 0;
    for (auto _ : state) {
        if (iio_buffer_refill(buffer) < 0) {
            state.SkipWithError("refill failed");
            break;
        }
        sum += buffer_first_float(buffer, channels[2]);
    }
    benchmark::DoNotOptimize(sum);
    state.counters["scans_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>(batch), benchmark::Counter::kIsRate);
    device_deinit(imu, trigger, buffer);
    iio_context_destroy(ctx);
}
BENCHMARK(BM_RefillImu)->Arg(5)->Arg(256)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
