// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's GPS daemon and ultrasound service, read through the
// plug-in's own modules.
#include <sensors/gps_us.h>

#include <gmock/gmock.h>

#include "gps_us_env.h"
#include "platform/time_helpers.h"
#include "sim/gps_daemon.h"
#include "sim/ultrasound.h"
#include "sim/vehicle.h"

namespace {

using ::testing::HasSubstr;

// Climbs 2 m in its first second from the ground at 100 m, then hovers.
sim::scenario climb_then_hover()
{
    sim::scenario s = sim::default_scenario();
    s.ground_altitude_m = 100.0;
    s.phases = {{"climb", 1.0, 0, 0, 0, 2.0}, {"hover", 600.0, 0, 0, 0, 0}};
    return s;
}

class SimServices : public gps_us_env {};

TEST_F(SimServices, SettingsComeFromTheScenarioFile)
{
    const std::string path = root_.at("/scenario.cfg");
    write_file(path, R"(simulator = {
  gps = { loc-rate = 20; latitude = 10.5; firmware = "fw-9";
          faults = ( { at = 4.0; kind = "kill"; }, { at = 2; kind = "restart"; duration = 0.5; } ); };
  ultrasound = { enabled = false; max-range = 5; short-range-limit = 1.5;
                 faults = ( { at = 6; kind = "kill"; }, { at = 0; kind = "restart"; duration = 2.5; } ); };
};
)");
    sim::gps_settings gps;
    std::string error;
    ASSERT_EQ(sim::gps_settings_load(path, &gps, &error), 0) << error;
    EXPECT_EQ(gps.loc_rate_hz, 20.0);
    EXPECT_EQ(gps.latitude_deg, 10.5);
    EXPECT_EQ(gps.firmware, "fw-9");
    ASSERT_EQ(gps.outages.size(), 2u);
    EXPECT_EQ(gps.outages[0].at_s, 2.0);
    EXPECT_EQ(gps.outages[0].duration_s, 0.5);
    EXPECT_LT(gps.outages[1].duration_s, 0.0);
    sim::ultrasound_settings us;
    ASSERT_EQ(sim::ultrasound_settings_load(path, &us, &error), 0) << error;
    EXPECT_FALSE(us.enabled);
    EXPECT_EQ(us.max_range_m, 5.0);
    EXPECT_EQ(us.short_range_limit_m, 1.5);
    EXPECT_EQ(us.outages.size(), 2u); // read as the GPS daemon's are

    write_file(path, "simulator = {\n gps = {\n faults = ( { at = 1.0; kind = \"explode\"; } ); };\n};\n");
    EXPECT_EQ(sim::gps_settings_load(path, &gps, &error), -EINVAL);
    EXPECT_THAT(error, HasSubstr("unknown fault kind 'explode'"));
    EXPECT_THAT(error, HasSubstr("line 3"));
    const struct {
        const char *group;
        const char *error;
    } refused[] = {
        {"noise = \"loud\";", "noise must be a number"},
        {"faults = ( { at = 1.0; kind = \"echo\"; } );", "unknown fault kind 'echo' (restart, kill) (line 1)"},
        {"faults = ( { at = 1.0; kind = \"restart\"; duration = -1.0; } );", "duration must not be negative"},
        {"faults = ( { at = -1.0; kind = \"kill\"; } );", "time must not be negative"},
    };
    for (const auto &r : refused) {
        write_file(path, std::string("simulator = { ultrasound = { ") + r.group + " }; };\n");
        EXPECT_EQ(sim::ultrasound_settings_load(path, &us, &error), -EINVAL) << r.group;
        EXPECT_THAT(error, HasSubstr(r.error)) << r.group;
    }
    EXPECT_EQ(sim::gps_settings_load(root_.at("/missing.cfg"), &gps, &error), -ENOENT);
}

TEST_F(SimServices, GpsFixesFollowTheTruthThroughARestart)
{
    const sim::scenario s = climb_then_hover();
    sim::gps_settings settings;
    settings.loc_rate_hz = 50;
    settings.altitude_noise_m = 0;
    settings.outages = {{0.4, 0.4}};
    std::string error;
    auto daemon = sim::gps_daemon::start(settings, s, monotonic_ns(), &error);
    ASSERT_NE(daemon, nullptr) << error;
    EXPECT_EQ(sim::gps_daemon::start(settings, s, monotonic_ns(), &error), nullptr);
    EXPECT_THAT(error, HasSubstr("cannot listen on \"gps\""));

    sensors_gps_data data{};
    gps_ctx *gps = gps_new(&data);
    ASSERT_NE(gps, nullptr);
    ASSERT_EQ(gps_start(gps), 0);
    const sim::vehicle truth(s);
    std::vector<std::string> events;
    int fixes = 0;
    ASSERT_TRUE(eventually([&] {
        uint32_t mask = 0;
        gps_read(gps, &mask);
        for (auto &t : cap_.texts("gps"))
            events.push_back(t);
        if (data.updated & SENSORS_GPS_UPDATED_LOC) {
            fixes++;
            // Value 5 is the fix's time into the scenario, in ms.
            EXPECT_NEAR(data.loc_values[2], truth.at(double(data.loc_extra) / 1000.0).altitude_m, 0.01);
            EXPECT_EQ(data.loc_values[0], settings.latitude_deg);
        }
        return events.size() >= 3 && fixes > 60;
    }));
    EXPECT_THAT(events, ::testing::ElementsAre("connected to gpsd", "disconnected from gpsd", "connected to gpsd"));
    EXPECT_STREQ(data.fw_text_1, settings.firmware.c_str());
    gps_destroy(gps);
}

TEST_F(SimServices, UltrasoundMeasuresTheHeightAboveTheGround)
{
    sim::ultrasound_settings settings;
    settings.noise_m = 0;
    settings.short_range_limit_m = 3.0;
    std::string error;
    // Ten seconds into the scenario: hovering 2 m above the ground.
    auto service = sim::ultrasound_service::start(settings, climb_then_hover(), monotonic_ns() - 10 * kNsPerSec, &error);
    ASSERT_NE(service, nullptr) << error;
    sensors_us_data data{};
    us_ctx *us = us_new(&data);
    ASSERT_NE(us, nullptr);
    ASSERT_EQ(us_start(us), 0);
    ASSERT_TRUE(eventually([&] {
        uint32_t mask = 0;
        us_read(us, &mask);
        return data.index >= 3;
    }));
    EXPECT_EQ(service->ranging_clients(), 1u);
    EXPECT_NEAR(data.altitude, 2.0, 1e-5);
    EXPECT_NEAR(data.altitude_v2, 2.0, 1e-5);
    EXPECT_EQ(data.range_mode, 1u);
    EXPECT_EQ(data.status, 0);
    us_destroy(us);
}

} // namespace
