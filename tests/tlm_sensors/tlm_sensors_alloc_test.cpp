// SPDX-License-Identifier: Apache-2.0
// The four telemetry-fed reads allocate nothing, whether their sections
// deliver, repeat, go stale or are missing.
#include <gtest/gtest.h>

#include "platform/telemetry_test_util.h"
#include "support/alloc_counter.h"
#include "tlm_producer.h"

namespace {

TEST(TelemetryFedSensors, AThousandReadsAllocateNothing)
{
    if (!alloc_counting_available())
        GTEST_SKIP() << "the sanitizer owns the allocator";
    tlm_root root;
    modules m;

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
    publish(1); // the first cycle attaches the sections and writes the first message
    m.cycle();
    alloc_count counted;
    uint32_t delivered = 0;
    for (int cycle = 0; cycle < 1000; cycle++) {
        counted.pause();
        publish(cycle);
        counted.resume();
        delivered |= m.cycle();
    }
    EXPECT_EQ(counted.value(), 0);
    EXPECT_EQ(delivered, SENSORS_UPDATED_VISION_POSITION | SENSORS_UPDATED_OPTICAL_FLOW | SENSORS_UPDATED_FCAM_GIMBAL);
}

} // namespace
