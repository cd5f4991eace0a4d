// SPDX-License-Identifier: Apache-2.0
// The front-camera gimbal's five-sample reads, its creation failures, and
// the driver frame's once-a-second report of its read failures.
#include <gtest/gtest.h>

#include <sensors/tlm_sensors.h>

#include <cerrno>

#include "platform/failpoint.h"
#include "platform/telemetry_test_util.h"
#include "tlm_producer.h"
#include "tlm_sensors/throttle.h"

namespace {

TEST(FcamGimbal, DeliversTheLatestFiveSamplesAndItsBitOnEverySuccess)
{
    tlm_root root;
    const sensors_enabled_config config{1};
    sensors_fcam_gimbal_data gimbal{};
    fcam_gimbal_ctx *ctx = fcam_gimbal_new(&config, nullptr, &gimbal);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(fcam_gimbal_start(ctx), 0);

    uint32_t updated = 0;
    EXPECT_EQ(fcam_gimbal_read(ctx, &updated), -EAGAIN); // no section: any error is "try again"
    test_producer<gimbal_sample> stab("gimbal_stab", gimbal_fields(), "est.state");
    EXPECT_EQ(fcam_gimbal_read(ctx, &updated), -EAGAIN); // a section without a sample
    EXPECT_EQ(updated, 0u);

    stab.record = {{0.5f, -0.5f, 0.25f}, 1.0f, 0.0f, 0.0f, 0.0f};
    stab.put({100, 0});
    updated = SENSORS_UPDATED_IMU;
    ASSERT_EQ(fcam_gimbal_read(ctx, &updated), 0);
    EXPECT_EQ(updated, SENSORS_UPDATED_IMU | SENSORS_UPDATED_FCAM_GIMBAL);
    EXPECT_EQ(gimbal.count, 0u);
    EXPECT_EQ(gimbal.ef_rate[0][2], 0.25f);
    EXPECT_EQ(gimbal.ef_q_w[0], 1.0f);

    for (int i = 1; i <= 6; i++) {
        stab.record = {{float(i), 0.0f, -float(i)}, 0.0f, 0.1f * float(i), 0.2f * float(i), 0.3f * float(i)};
        stab.put({100 + i, 0});
    }
    updated = 0;
    ASSERT_EQ(fcam_gimbal_read(ctx, &updated), 0);
    EXPECT_EQ(updated, SENSORS_UPDATED_FCAM_GIMBAL);
    EXPECT_EQ(gimbal.count, 4u);
    for (int k = 0; k < SENSORS_GIMBAL_MAX_SAMPLES; k++) { // latest first
        SCOPED_TRACE(k);
        const float i = float(6 - k);
        EXPECT_EQ(gimbal.ef_rate[k][0], i);
        EXPECT_EQ(gimbal.ef_rate[k][2], -i);
        EXPECT_EQ(gimbal.ef_q_x[k], 0.1f * i);
        EXPECT_EQ(gimbal.ef_q_y[k], 0.2f * i);
        EXPECT_EQ(gimbal.ef_q_z[k], 0.3f * i);
        EXPECT_EQ(gimbal.timestamps[k].tv_sec, 106 - k);
    }
    updated = 0;
    ASSERT_EQ(fcam_gimbal_read(ctx, &updated), 0); // nothing new: still marked
    EXPECT_EQ(updated, SENSORS_UPDATED_FCAM_GIMBAL);

    stab.stop();
    updated = 0;
    EXPECT_EQ(fcam_gimbal_read(ctx, &updated), -EAGAIN);
    EXPECT_EQ(updated, 0u);
    EXPECT_EQ(gimbal.ef_rate[0][0], 6.0f); // kept from the last success
    fcam_gimbal_destroy(ctx);
}

TEST(FcamGimbal, ACreationThatFailsSaysWhereAndLeavesNothing)
{
    tlm_root root;
    const sensors_enabled_config config{1};
    sensors_fcam_gimbal_data gimbal{};
    const struct row {
        const char *point;
        int err;
        const char *text;
    } rows[] = {
        {"shm_consumer_create", -ENOMEM, "Unable to create shm_consumer"},
        {"shm_consumer_register", -EIO, "Unable to register telemetry array: Input/output error"},
        {"shm_consumer_complete", -ENOMEM, "Unable to complete telemetry consumer registration"},
    };
    log_capture cap;
    for (const row &r : rows) {
        SCOPED_TRACE(r.point);
        failpoint_arm(r.point, r.err, 1);
        EXPECT_EQ(fcam_gimbal_new(&config, nullptr, &gimbal), nullptr);
        EXPECT_EQ(cap.texts("fcam_gimbal"), std::vector<std::string>{r.text});
    }
    EXPECT_EQ(fcam_gimbal_new(&config, nullptr, nullptr), nullptr);
    EXPECT_TRUE(cap.texts("fcam_gimbal").empty());
}

TEST(FcamGimbalReport, ElevenFailuresATenthOfASecondApartGiveTwoReports)
{
    constexpr log_tag kFrame{"sensors_orlune"};
    log_capture cap;
    msg_throttle throttle{};
    const uint64_t start_ms = monotonic_ms();
    std::vector<std::string> texts;
    for (int i = 0; i < 11; i++) {
        fcam_gimbal_report_read_failure(kFrame, &throttle, -EAGAIN, start_ms + 100u * uint64_t(i));
        for (std::string &t : cap.texts("sensors_orlune"))
            texts.push_back(std::to_string(i) + " " + t);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"0 fcam_gimbal read failed: Resource temporarily unavailable",
                                               "10 [9] fcam_gimbal read failed: Resource temporarily unavailable"}));
    // 999 ms after a report is still within its second.
    fcam_gimbal_report_read_failure(kFrame, &throttle, -EIO, start_ms + 1999);
    EXPECT_TRUE(cap.texts("sensors_orlune").empty());
    fcam_gimbal_report_read_failure(kFrame, &throttle, -EIO, start_ms + 2000);
    EXPECT_EQ(cap.texts("sensors_orlune"), std::vector<std::string>{"[1] fcam_gimbal read failed: Input/output error"});
}

} // namespace
