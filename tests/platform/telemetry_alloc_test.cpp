// SPDX-License-Identifier: Apache-2.0
// Publishing and reading samples is on the acquisition cycle: it must not
// allocate. This binary counts every malloc, calloc and realloc of the process.
#include <gtest/gtest.h>

#include <sensors/data.h>

#include <atomic>

#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"
#include "platform/telemetry_test_util.h"

#if !defined(__SANITIZE_ADDRESS__)
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

namespace {
std::atomic<uint64_t> g_allocations{0};
}

extern "C" void *malloc(size_t n)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
extern "C" void *calloc(size_t n, size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, size_t n)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(p, n);
}
#endif

namespace {

TEST(TelemetryAllocations, PublishingAndReadingAllocateNothing)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer owns malloc";
#else
    tlm_root root;
    sensors_imu_data imu{};
    shm_producer *p = producer_create("sensors_imu", 8, 5000);
    ASSERT_EQ(producer_register_struct(p, &imu, nullptr, layout_of(tlm_kind::imu)), 0);
    ASSERT_EQ(producer_complete(p), 0);

    sensors_imu_data copy{};
    uint64_t before_setup = g_allocations.load();
    shm_consumer *latest = consumer_create();
    EXPECT_GT(g_allocations.load(), before_setup); // the counter sees the plug-in's allocations
    ASSERT_EQ(consumer_register_struct(latest, &copy, "sensors_imu", layout_of(tlm_kind::imu)), 0);
    ASSERT_EQ(consumer_complete(latest), 0);
    float temperatures[5][5];
    timespec times[5];
    const tlm_array_entry entry{temperatures, "sensors_imu.temperature", TLM_TYPE_FLOAT, 0, 4, 5, 5, times};
    shm_consumer *history = consumer_create();
    ASSERT_EQ(consumer_register_array(history, &entry, 1), 0);
    ASSERT_EQ(consumer_complete(history), 0);

    uint64_t before_cycles = g_allocations.load();
    for (int i = 1; i <= 1000; i++) {
        imu.temperature[0] = float(i);
        imu.nb_samples = uint8_t(i);
        timespec ts{i, 0};
        ASSERT_EQ(producer_put_sample(p, &ts), 0);
        timespec got{};
        ASSERT_EQ(consumer_get_sample_at(latest, nullptr, 0, &got), 0);
        ASSERT_EQ(copy.temperature[0], float(i));
        uint32_t earlier = 0;
        uint32_t later = 0;
        ASSERT_EQ(consumer_get_samples(history, nullptr, 0, 4, 0, &earlier, &later), 0);
        ASSERT_EQ(temperatures[0][0], float(i));
    }
    EXPECT_EQ(g_allocations.load() - before_cycles, 0u);
    consumer_destroy(history);
    consumer_destroy(latest);
    producer_destroy(p);
#endif
}

} // namespace
