// SPDX-License-Identifier: Apache-2.0
// The four telemetry-fed reads allocate nothing, whether their sections
// deliver, repeat, go stale or are missing.
#include <gtest/gtest.h>

#include <sensors/tlm_sensors.h>

#include "platform/telemetry_test_util.h"
#include "support/alloc_counter.h"
#include "tlm_producer.h"

namespace {

TEST(TelemetryFedSensors, AThousandReadsAllocateNothing)
{
    if (!alloc_counting_available())
        GTEST_SKIP() << "the sanitizer owns the allocator";
    tlm_root root;
    sensors_data record{};
    const sensors_enabled_config enabled{1};
    carpet_detection_ctx *carpet = carpet_detection_new(&record.carpet);
    vision_position_ctx *position = vision_position_new(&record.vision_position, "vcam_position", 0x400);
    vision_optical_flow_ctx *flow = vision_optical_flow_new(&record.optical_flow);
    fcam_gimbal_ctx *gimbal = fcam_gimbal_new(&enabled, nullptr, &record.fcam_gimbal);
    ASSERT_EQ(carpet_detection_activate(carpet), 0);
    ASSERT_EQ(vision_position_start(position), 0);
    ASSERT_EQ(vision_optical_flow_start(flow), 0);

    // Every section delivers; the flow goes stale two cycles in four, and its
    // throttled warnings are formatted on the stack.
    test_producer<carpet_sample> carpet_est("vision_carpet_estimation", carpet_fields());
    test_producer<position_sample> position_est("vcam_position", position_fields());
    test_producer<flow_sample> flow_est("vcam_optical_flow", flow_fields());
    test_producer<gimbal_sample> gimbal_est("gimbal_stab", gimbal_fields(), "est.state");
    auto publish = [&](int cycle) {
        timespec now;
        monotonic_now(&now);
        carpet_est.put(now);
        position_est.put(now);
        gimbal_est.put(now);
        flow_est.put_aged(now, cycle % 4 < 2 ? 100000 : 1000); // two stale cycles in four
    };
    auto read = [&] {
        carpet_detection_read(carpet, &record.updated_sensors);
        vision_position_read(position, &record.updated_sensors);
        vision_optical_flow_read(flow, &record.updated_sensors);
        fcam_gimbal_read(gimbal, &record.updated_sensors);
    };
    publish(1); // the first cycle attaches the sections and writes the first message
    read();
    alloc_count counted;
    for (int cycle = 0; cycle < 1000; cycle++) {
        counted.pause();
        publish(cycle);
        counted.resume();
        read();
    }
    EXPECT_EQ(counted.value(), 0);
    EXPECT_EQ(record.updated_sensors & 0x1c00u, 0x1c00u); // every module delivered
    carpet_detection_destroy(carpet);
    vision_position_destroy(position);
    vision_optical_flow_destroy(flow);
    fcam_gimbal_destroy(gimbal);
}

} // namespace
