// SPDX-License-Identifier: Apache-2.0
// The telemetry-fed sensors end to end: orlune-sim's vision and gimbal
// producers, orlune-host and the plug-in as processes, through a scripted
// vision outage.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "flight.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace {

// Climbs 2 m while turning 0.5 rad in the first second, then hovers. The
// optical flow's producer starts at once and stops from 3 s to 14 s: more
// than the 10 s after which the plug-in calls the sensor defective. The
// position producer starts 1 s late; the gimbal pauses for a second.
constexpr const char *kScenario = R"(simulator = {
  name = "e2e-vision";
  devices = (
    { kind = "imu"; name = "orlune-imu"; trigger = "orlune-imu-trig";
      sampling-frequency = 1000; rate-divider = 5; noise = 2.0; }
  );
  phases = (
    { name = "climb-turn"; duration = 1.0; climb-rate = 2.0; yaw-rate = 0.5; },
    { name = "hover"; duration = 60.0; }
  );
  vision = {
    carpet-position = [3.0, 0.0];
    faults = (
      { at = 1.0; kind = "late-start"; producer = "position"; },
      { at = 3.0; kind = "stop"; producer = "optical-flow"; duration = 11.0; },
      { at = 5.0; kind = "pause"; producer = "gimbal"; duration = 1.0; }
    );
  };
};
)";

class VisionEndToEnd : public flight {
protected:
    void SetUp() override
    {
        start_sim(kScenario);
        // The minimal IMU configuration with the four telemetry-fed sensors enabled.
        std::vector<std::pair<std::string, std::string>> sections;
        for (const std::string section : {"carpet_detection", "vcam_position", "vcam_optical_flow", "fcam_gimbal"})
            sections.emplace_back(section, section + " = { enabled = true; };");
        configure(sections);
    }
};

// Position of needle in text at or after from; npos when absent.
size_t find_after(const std::string &text, const std::string &needle, size_t from)
{
    return from == std::string::npos ? std::string::npos : text.find(needle, from);
}

TEST_F(VisionEndToEnd, SubRecordsFollowTheFlightAndTheOutageComesAndGoes)
{
    auto h = host({"--duration", "17"});
    ASSERT_EQ(h->wait(40s), 0) << h->err() << host_log();
    const std::string log = host_log();

    // Valid, unavailable when the producer stops, defective 10 s after the
    // last accepted sample, valid again when it returns; each said once.
    const size_t valid = log.find("I vision_optical_flow: Got valid input sample");
    const size_t gone = find_after(log, "W vision_optical_flow: Optical flow measure unavailable", valid);
    const size_t defective = find_after(log, "E vision_optical_flow: VISION_OPTICAL_FLOW_DEFECTIVE_TIMEOUT", gone);
    const size_t back = find_after(log, "I vision_optical_flow: Got valid input sample", defective);
    EXPECT_NE(back, std::string::npos) << log;
    auto count = [&](const std::string &needle) {
        size_t n = 0;
        for (size_t at = log.find(needle); at != std::string::npos; at = log.find(needle, at + 1))
            n++;
        return n;
    };
    EXPECT_EQ(count("Got valid input sample"), 2u) << log;
    EXPECT_EQ(count("Optical flow measure unavailable"), 1u) << log;
    EXPECT_EQ(count("VISION_OPTICAL_FLOW_DEFECTIVE_TIMEOUT"), 1u) << log;
    // The late position producer and the paused gimbal are no failures.
    EXPECT_THAT(log, ::testing::Not(HasSubstr("vcam_position read failed")));
    EXPECT_THAT(log, ::testing::Not(HasSubstr("fcam_gimbal read failed")));

    // The latest values: 2 m above the ground, heading 0.5 rad (the gimbal's
    // quaternion is cos 0.25, 0, 0, sin 0.25), hovering still, flow valid again.
    const std::string summary = h->out();
    EXPECT_THAT(summary, HasSubstr("vision_position +0.000 +0.000 -2.000  status 1")) << summary;
    EXPECT_THAT(summary, HasSubstr("optical_flow   flow +0.000 +0.000 +0.000  quality 1.00  defined")) << summary;
    EXPECT_THAT(summary, HasSubstr("fcam_gimbal    q +0.969 +0.000 +0.000 +0.247  count 4")) << summary;
}

// Needs the host's carpet switch: "--activate carpet_detection" activates
// after start, and the summary's latest values show the carpet.
TEST_F(VisionEndToEnd, AnActivatedCarpetIsSeenFromTheVehicle)
{
    auto h = host({"--duration", "3", "--activate", "carpet_detection"});
    ASSERT_EQ(h->wait(20s), 0) << h->err() << host_log();
    EXPECT_THAT(host_log(), ::testing::Not(HasSubstr("carpet read failed: Invalid"))) << host_log();
    // 3 m north, seen from a vehicle heading 0.5 rad, 2 m above it.
    EXPECT_THAT(h->out(), HasSubstr("carpet         +2.633 -1.438 +2.000 m  -0.500 rad  targets 1  active"))
        << h->out();
}

} // namespace
