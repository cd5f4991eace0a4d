// SPDX-License-Identifier: Apache-2.0
// Carpet detection and vision position against real telemetry sections.
#include <gmock/gmock.h>

#include <sensors/tlm_sensors.h>

#include <cerrno>
#include <cstring>

#include "platform/failpoint.h"
#include "platform/telemetry_test_util.h"
#include "tlm_producer.h"

namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

TEST(CarpetDetection, ConvertsOnlyWhileActiveAndEachActivationReopensTheSection)
{
    tlm_root root;
    log_capture cap;
    sensors_carpet_data carpet;
    memset(&carpet, 0x5a, sizeof carpet);
    carpet_detection_ctx *cd = carpet_detection_new(&carpet);
    ASSERT_NE(cd, nullptr);
    EXPECT_EQ(carpet.active, 0);
    EXPECT_EQ(carpet_detection_start(cd), 0);

    // Inactive: nothing is read or written.
    sensors_carpet_data before = carpet;
    uint32_t updated = 0;
    EXPECT_EQ(carpet_detection_read(cd, &updated), 0);
    EXPECT_EQ(memcmp(&before, &carpet, sizeof carpet), 0);
    EXPECT_EQ(carpet_detection_read(cd, nullptr), -EINVAL); // like every module's read

    // An activation that cannot open the section leaves detection inactive.
    failpoint_arm("shm_consumer_create", -ENOMEM, 1);
    EXPECT_EQ(carpet_detection_activate(cd), -ENOMEM);
    EXPECT_EQ(carpet.active, 0);
    EXPECT_THAT(cap.texts("carpet_detect"),
                ElementsAre(MatchesRegex(
                    "carpet_detection_activate:[0-9]+: sensor_tlm_start err=12\\(Cannot allocate memory\\)")));

    ASSERT_EQ(carpet_detection_activate(cd), 0);
    EXPECT_EQ(carpet.active, 1);
    EXPECT_EQ(carpet_detection_start(cd), -EINVAL); // activated before start
    EXPECT_EQ(carpet_detection_read(cd, &updated), -EAGAIN);
    EXPECT_THAT(cap.texts("carpet_detect"),
                ElementsAre(MatchesRegex("carpet_detection_read:[0-9]+: sensor_tlm_read_latest "
                                         "err=11\\(Resource temporarily unavailable\\)")));

    auto estimator = std::make_unique<test_producer<carpet_sample>>("vision_carpet_estimation", carpet_fields());
    estimator->record = {1500.0f, 200.0f, -3000.0f, 0.0f, 2};
    estimator->put({40, 5});
    for (int cycle = 0; cycle < 2; cycle++) { // the same sample twice is converted once each time
        ASSERT_EQ(carpet_detection_read(cd, &updated), 0);
        EXPECT_EQ(carpet.position_x, 1.5f);
        EXPECT_EQ(carpet.position_y, -0.2f);
        EXPECT_EQ(carpet.position_z, 3.0f);
        EXPECT_EQ(carpet.orientation, -1.5707964f);
        EXPECT_EQ(carpet.nb_targets, 2);
        EXPECT_EQ(carpet.timestamp.tv_sec, 40);
    }
    EXPECT_EQ(updated, 0u); // carpet detection never marks the record

    EXPECT_EQ(carpet_detection_activate(cd), 0);
    EXPECT_EQ(carpet_detection_deactivate(cd), 0);
    EXPECT_EQ(carpet.active, 0);
    EXPECT_EQ(carpet_detection_deactivate(cd), 0);
    EXPECT_EQ(cap.texts("carpet_detect"),
              (std::vector<std::string>{"carpet detection already active", "carpet detection already deactivated"}));

    estimator->record.px = 3000.0f;
    estimator->put({41, 0});
    before = carpet;
    EXPECT_EQ(carpet_detection_read(cd, &updated), 0); // deactivated: the new sample is not read
    EXPECT_EQ(memcmp(&before, &carpet, sizeof carpet), 0);
    ASSERT_EQ(carpet_detection_activate(cd), 0);
    ASSERT_EQ(carpet_detection_read(cd, &updated), 0);
    EXPECT_EQ(carpet.position_x, 3.0f);

    carpet_detection_stop(cd); // stopping an active detection deactivates it
    EXPECT_EQ(carpet.active, 0);
    EXPECT_TRUE(cap.texts("carpet_detect").empty());
    carpet_detection_destroy(cd);
}

TEST(VisionPosition, SetsItsBitOnlyForANewSampleAndIsSilentBeforeTheFirst)
{
    tlm_root root;
    log_capture cap;
    sensors_vision_position_data pos{};
    vision_position_ctx *vp = vision_position_new(&pos, "vcam_position", SENSORS_UPDATED_VISION_POSITION);
    ASSERT_NE(vp, nullptr);
    ASSERT_EQ(vision_position_start(vp), 0);

    uint32_t updated = 0x3;
    EXPECT_EQ(vision_position_read(vp, nullptr), -EINVAL); // like every module's read
    for (int cycle = 0; cycle < 3; cycle++) // no section: nothing, and no word of it
        EXPECT_EQ(vision_position_read(vp, &updated), 0);
    test_producer<position_sample> vision("vcam_position", position_fields());
    EXPECT_EQ(vision_position_read(vp, &updated), 0); // a section without a sample
    EXPECT_EQ(updated, 0x3u);

    vision.record = {1.25f, -2.5f, 0.75f, 0.5f, 3, 0, 123456789012LL};
    vision.put({70, 1});
    EXPECT_EQ(vision_position_read(vp, &updated), 0);
    EXPECT_EQ(updated, 0x3u | SENSORS_UPDATED_VISION_POSITION);
    EXPECT_EQ(pos.x, 1.25f);
    EXPECT_EQ(pos.y, -2.5f);
    EXPECT_EQ(pos.z, 0.75f);
    EXPECT_EQ(pos.discriminable_ft_ratio, 0.5f);
    EXPECT_EQ(pos.status, 3);
    EXPECT_EQ(pos.last_ref_image_ts, 123456789012LL);
    EXPECT_EQ(pos.timestamp.tv_sec, 70);
    EXPECT_EQ(pos.timestamp.tv_nsec, 1);

    updated = 0;
    EXPECT_EQ(vision_position_read(vp, &updated), 0); // the same sample again
    EXPECT_EQ(updated, 0u);
    vision.record.x = 2.0f;
    vision.put({70, 2});
    EXPECT_EQ(vision_position_read(vp, &updated), 0);
    EXPECT_EQ(updated, SENSORS_UPDATED_VISION_POSITION);
    EXPECT_EQ(pos.x, 2.0f);
    EXPECT_TRUE(cap.texts("vision_position").empty());

    // After a first sample, a producer that has gone is a failure.
    vision.stop();
    updated = 0;
    EXPECT_EQ(vision_position_read(vp, &updated), -ENOENT);
    EXPECT_EQ(updated, 0u);
    EXPECT_EQ(pos.x, 2.0f);
    EXPECT_THAT(cap.texts("vision_position"),
                ElementsAre(MatchesRegex(
                    "vision_position_read:[0-9]+: sensor_tlm_read_latest err=2\\(No such file or directory\\)")));
    vision_position_destroy(vp);
}

// Every operation on a missing context or sub-record says so in its own words.
TEST(TelemetryFedSensors, UnusableContextsAreRefusedWithTheirMessages)
{
    tlm_root root;
    log_capture cap;
    uint32_t updated = 0;
    const struct row {
        const char *tag;
        int result; // 1: no result
        std::vector<std::string> texts;
        std::function<int()> call;
    } rows[] = {
        {"carpet_detect", 0, {"carpet_detection_new: data=(nil)"}, [] { return carpet_detection_new(nullptr) ? 1 : 0; }},
        {"carpet_detect", -EINVAL, {"carpet_detection_start: cd=(nil), data=(nil)"},
         [] { return carpet_detection_start(nullptr); }},
        {"carpet_detect", -EINVAL, {"carpet_detection_read: cd=(nil), data=(nil)"},
         [&] { return carpet_detection_read(nullptr, &updated); }},
        {"carpet_detect", 1, {"carpet_detection_destroy: cd=(nil), data=(nil)"},
         [] { return carpet_detection_destroy(nullptr), 1; }},
        {"vision_position", 0, {"vision_position_new: data=(nil), section=(nil)"},
         [] { return vision_position_new(nullptr, nullptr, 0x400) ? 1 : 0; }},
        {"vision_position", -EINVAL, {"vision_position_read: sensor=(nil), data=(nil)"},
         [&] { return vision_position_read(nullptr, &updated); }},
        {"vision_position", 1, {"vision_position_destroy: sensor=(nil), data=(nil)"},
         [] { return vision_position_destroy(nullptr), 1; }},
        {"vision_optical_flow", 0, {"data=(nil)"}, [] { return vision_optical_flow_new(nullptr) ? 1 : 0; }},
        {"vision_optical_flow", -EINVAL, {"vcam=(nil), data=(nil)"},
         [] { return vision_optical_flow_start(nullptr); }},
        {"vision_optical_flow", 1, {"vcam=(nil), data=(nil)"},
         [] { return vision_optical_flow_destroy(nullptr), 1; }},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.texts.empty() ? r.tag : r.texts[0]);
        EXPECT_EQ(r.call(), r.result);
        EXPECT_EQ(cap.texts(r.tag), r.texts);
    }
    // The optical flow's read names its own line.
    EXPECT_EQ(vision_optical_flow_read(nullptr, &updated), -EINVAL);
    EXPECT_THAT(cap.texts("vision_optical_flow"),
                ElementsAre(MatchesRegex("vision_optical_flow_read:[0-9]+ vcam=\\(nil\\)")));
    EXPECT_EQ(updated, 0u);
}

} // namespace
