// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's vision and gimbal producers read back through the
// plug-in's own telemetry-fed sensors: the truth comes out as the modules
// convert it, and each scripted fault shows as the modules report it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "platform/telemetry_test_util.h"
#include "platform/time_helpers.h"
#include "sim/vision.h"
#include "tlm_producer.h"

using namespace std::chrono_literals;

namespace {

int64_t mono_ns()
{
    timespec t;
    monotonic_now(&t);
    return int64_t(t.tv_sec) * kNsPerSec + t.tv_nsec;
}

// A flight that climbs 2 m and turns 0.5 rad in its first second, then holds.
sim::scenario held_flight()
{
    sim::scenario s = sim::default_scenario();
    s.ground_altitude_m = 100.0;
    s.initial_heading_rad = 0.0;
    s.phases = {{"climb-turn", 1.0, 0.0, 0.0, 0.5, 2.0}};
    return s;
}

// Each fault in its own window of 1.5 s; states are judged only in the
// middle of a window, so a busy machine shifts nothing that is checked.
TEST(VisionSim, FaultsShowAsTheModulesReportThem)
{
    tlm_root root;
    sim::vision_settings settings;
    std::string error;
    // 100 Hz leaves a busy machine 54 ms to deliver each flow sample fresh.
    ASSERT_EQ(sim::vision_settings_parse(R"(simulator = { vision = {
        rate = 100.0;
        carpet-position = [3.0, 0.0];
        faults = (
          { at = 1.5; kind = "late-start"; producer = "position"; },
          { at = 1.5; kind = "stop";       producer = "optical-flow"; duration = 1.5; },
          { at = 4.5; kind = "stale";      producer = "optical-flow"; duration = 1.5; age = 0.3; },
          { at = 1.5; kind = "pause";      producer = "gimbal"; duration = 1.5; },
          { at = 4.5; kind = "restart";    producer = "gimbal"; }
        ); }; };)",
                                         &settings, &error),
              0)
        << error;
    log_capture cap;
    const int64_t epoch = mono_ns();
    auto producers = sim::vision_producers::start(held_flight(), settings, epoch, &error);
    ASSERT_TRUE(producers) << error;
    modules m;

    struct window_state {
        int cycles = 0, position_updates = 0, flow_defined = 0, gimbal_updates = 0;
        int64_t gimbal_newest_ns = 0;
    };
    // Windows: [0.25, 1.25] before, [1.75, 2.75] during, [3.25, 4.25] between, [4.75, 5.75] stale/restart, [6.25, 7.25] after.
    window_state w[5];
    int64_t gimbal_first_newest[5] = {};
    while (true) {
        const double t = double(mono_ns() - epoch) / 1e9;
        if (t > 7.25)
            break;
        const uint32_t bits = m.cycle();
        const int i = int(std::floor(t / 1.5));
        const double in = t - 1.5 * i;
        if (i < 5 && in >= 0.25 && in <= 1.25) {
            window_state &s = w[i];
            s.cycles++;
            s.position_updates += (bits & SENSORS_UPDATED_VISION_POSITION) != 0;
            s.flow_defined += m.record.optical_flow.defined;
            s.gimbal_updates += (bits & SENSORS_UPDATED_FCAM_GIMBAL) != 0;
            int64_t newest = 0;
            timespec_to_ns(&m.record.fcam_gimbal.timestamps[0], &newest);
            if (!gimbal_first_newest[i])
                gimbal_first_newest[i] = newest;
            s.gimbal_newest_ns = newest;
        }
        std::this_thread::sleep_for(10ms);
    }
    for (int i = 0; i < 5; i++)
        ASSERT_GT(w[i].cycles, 10) << "window " << i;

    // Position starts late: silent before, updating after.
    EXPECT_EQ(w[0].position_updates, 0);
    EXPECT_GT(w[1].position_updates, 0);
    // Optical flow: valid, gone, valid, stale, valid. A loaded machine may
    // deliver a sample late now and then; a fault invalidates every cycle.
    EXPECT_GT(w[0].flow_defined, w[0].cycles / 2);
    EXPECT_EQ(w[1].flow_defined, 0);
    EXPECT_GT(w[2].flow_defined, w[2].cycles / 2);
    EXPECT_EQ(w[3].flow_defined, 0);
    EXPECT_GT(w[4].flow_defined, w[4].cycles / 2);
    // The gimbal's samples stop moving while it pauses, and follow its restart.
    EXPECT_EQ(gimbal_first_newest[1], w[1].gimbal_newest_ns);
    EXPECT_GT(w[3].gimbal_newest_ns, gimbal_first_newest[3]);
    EXPECT_EQ(w[3].gimbal_updates, w[3].cycles);

    std::vector<std::string> flow_texts = cap.texts("vision_optical_flow");
    auto count = [&](const std::string &prefix) {
        return std::count_if(flow_texts.begin(), flow_texts.end(),
                             [&](const std::string &t) { return t.rfind(prefix, 0) == 0; });
    };
    EXPECT_EQ(count("Optical flow measure unavailable"), 1);
    // The stale window says so at least once, the throttle at most once in 10 s.
    EXPECT_EQ(count("Optical flow measure too old: "), 1);
    EXPECT_EQ(count("VISION_OPTICAL_FLOW_DEFECTIVE_TIMEOUT"), 0);

    // Past its first second the flight holds 2 m up at heading 0.5 rad: every
    // module recovers that truth.
    const uint32_t all = SENSORS_UPDATED_VISION_POSITION | SENSORS_UPDATED_OPTICAL_FLOW | SENSORS_UPDATED_FCAM_GIMBAL;
    uint32_t seen = 0;
    ASSERT_TRUE(eventually([&] {
        seen |= m.cycle();
        return seen == all && m.record.fcam_gimbal.count == 4 && m.record.optical_flow.defined;
    })) << std::hex << seen;
    const double yaw = 0.5;
    EXPECT_NEAR(m.record.carpet.position_x, 3.0 * std::cos(yaw), 1e-3);
    EXPECT_NEAR(m.record.carpet.position_y, -3.0 * std::sin(yaw), 1e-3);
    EXPECT_NEAR(m.record.carpet.position_z, 2.0, 1e-3);
    EXPECT_NEAR(m.record.carpet.orientation, -yaw, 1e-6);
    EXPECT_EQ(m.record.carpet.nb_targets, 1);
    EXPECT_NEAR(m.record.vision_position.z, -2.0, 1e-5);
    EXPECT_EQ(m.record.vision_position.x, 0.0f);
    EXPECT_EQ(m.record.optical_flow.defined, 1);
    EXPECT_EQ(m.record.optical_flow.defective, 0);
    EXPECT_EQ(m.record.optical_flow.flow_z, 0.0f);
    EXPECT_EQ(m.record.optical_flow.corr_cam_z_m_s, 0.0f);
    for (int k = 0; k < SENSORS_GIMBAL_MAX_SAMPLES; k++) {
        EXPECT_NEAR(m.record.fcam_gimbal.ef_q_w[k], std::cos(yaw / 2), 1e-6);
        EXPECT_NEAR(m.record.fcam_gimbal.ef_q_z[k], std::sin(yaw / 2), 1e-6);
        EXPECT_EQ(m.record.fcam_gimbal.ef_rate[k][2], 0.0f);
    }
    // Five distinct samples, the latest first.
    for (int k = 1; k < SENSORS_GIMBAL_MAX_SAMPLES; k++)
        EXPECT_GT(timespec_compare(&m.record.fcam_gimbal.timestamps[k - 1], &m.record.fcam_gimbal.timestamps[k]), 0);
}

TEST(VisionSim, SettingsAreCheckedWithTheirLine)
{
    const struct row {
        const char *text;
        const char *error; // empty: accepted
    } rows[] = {
        {"simulator = { name = \"x\"; };", ""},
        {"simulator = { vision = { rate = 15; gimbal-rate = 200.0; carpet-position = [1.5, -2.0]; enabled = false; }; };",
         ""},
        {"simulator = { vision = { rate = 0.0; }; };", "vision: 'rate' and 'gimbal-rate' must lie in (0, 1000] Hz (line 1)"},
        {"simulator = { vision = { carpet-position = [\"north\", \"east\"]; }; };",
         "vision: 'carpet-position' must be [north, east] in metres (line 1)"},
        {"simulator = { vision = { faults = ( { at = 1; kind = \"melt\"; producer = \"all\"; } ); }; };",
         "vision: unknown fault kind 'melt' (line 1)"},
        {"simulator = { vision = {\n faults = ( { kind = \"stop\"; producer = \"all\"; } ); }; };",
         "vision: missing 'at' (line 2)"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.text);
        sim::vision_settings s;
        std::string error;
        EXPECT_EQ(sim::vision_settings_parse(r.text, &s, &error), *r.error ? -EINVAL : 0);
        EXPECT_EQ(error, r.error);
    }
    sim::vision_settings s;
    std::string error;
    ASSERT_EQ(sim::vision_settings_parse(rows[1].text, &s, &error), 0);
    EXPECT_FALSE(s.enabled);
    EXPECT_EQ(s.rate_hz, 15.0);
    EXPECT_EQ(s.gimbal_rate_hz, 200.0);
    EXPECT_EQ(s.carpet_ne_m[1], -2.0);
    EXPECT_EQ(sim::vision_settings_load("/nonexistent/scenario.cfg", &s, &error), -ENOENT);
}

} // namespace
