// SPDX-License-Identifier: Apache-2.0
// Publishing and reading samples is on the acquisition cycle: it must not
// allocate. This binary counts every malloc, calloc and realloc of the test thread.
#include <gtest/gtest.h>

#include <sensors/data.h>

#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"
#include "platform/telemetry_test_util.h"
#include "support/alloc_counter.h"

namespace {

TEST(TelemetryAllocations, PublishingAndReadingAllocateNothing)
{
    if (!alloc_counting_available())
        GTEST_SKIP() << "the sanitizer owns the allocator";
    tlm_root root;
    sensors_imu_data imu{};
    shm_producer *p = producer_create("sensors_imu", 8, 5000);
    ASSERT_EQ(producer_register_struct(p, &imu, nullptr, layout_of(tlm_kind::imu)), 0);
    ASSERT_EQ(producer_complete(p), 0);

    sensors_imu_data copy{};
    alloc_count setup;
    shm_consumer *latest = consumer_create();
    EXPECT_GT(setup.value(), 0); // the counter sees the plug-in's allocations
    ASSERT_EQ(consumer_register_struct(latest, &copy, "sensors_imu", layout_of(tlm_kind::imu)), 0);
    ASSERT_EQ(consumer_complete(latest), 0);
    float temperatures[5][5];
    timespec times[5];
    const tlm_array_entry entry{temperatures, "sensors_imu.temperature", TLM_TYPE_FLOAT, 0, 4, 5, 5, times};
    shm_consumer *history = consumer_create();
    ASSERT_EQ(consumer_register_array(history, &entry, 1), 0);
    ASSERT_EQ(consumer_complete(history), 0);

    alloc_count cycles;
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
    EXPECT_EQ(cycles.value(), 0);
    consumer_destroy(history);
    consumer_destroy(latest);
    producer_destroy(p);
}

} // namespace
