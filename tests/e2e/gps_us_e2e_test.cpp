// SPDX-License-Identifier: Apache-2.0
// The GPS daemon and the ultrasound service of the virtual vehicle, read by
// the plug-in under the sensor host: the data follow the flight, and the
// host goes on through a restart of the GPS daemon and through an ultrasound
// service that starts after it and restarts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sensors/data.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <thread>

#include "platform/shm_telemetry.h"
#include "flight.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace {

// Stays on the ground for 4 s, climbs 2 m in 2 s, then hovers 2 m up.
// The ultrasound service listens from 2.5 s on (after the host started) and
// is down from 7.0 s to 7.5 s; the GPS daemon is down from 4.5 s to 5.5 s.
constexpr const char *kScenario = R"(simulator = {
  name = "e2e-gps-us";
  ground-altitude = 100.0;
  devices = (
    { kind = "imu"; name = "orlune-imu"; trigger = "orlune-imu-trig";
      sampling-frequency = 1000; rate-divider = 5; noise = 2.0; }
  );
  phases = (
    { name = "ground"; duration = 4.0; },
    { name = "climb"; duration = 2.0; climb-rate = 1.0; },
    { name = "hover"; duration = 60.0; }
  );
  gps = { loc-rate = 10; altitude-noise = 0.0;
          faults = ( { at = 4.5; kind = "restart"; duration = 1.0; } ); };
  ultrasound = { noise = 0.0; short-range-limit = 1.5;
                 faults = ( { at = 0.0; kind = "restart"; duration = 2.5; },
                            { at = 7.0; kind = "restart"; duration = 0.5; } ); };
};
)";

double altitude_at(double t_s)
{
    return 100.0 + std::clamp(t_s - 4.0, 0.0, 2.0);
}

// The newest sample of a section, or false.
template <typename T>
bool latest(const char *section, T *out)
{
    tlm_section_view view{};
    if (tlm_view_open(section, &view) != 0)
        return false;
    uint64_t n = tlm_view_written(&view);
    bool ok = n > 0 && tlm_view_read(&view, n - 1, out, sizeof *out, nullptr) == 0;
    tlm_view_close(&view);
    return ok;
}

// How many times pattern occurs in text.
long occurrences(const std::string &text, const std::string &pattern)
{
    std::regex re(pattern);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator());
}

using GpsUltrasoundEndToEnd = flight;

TEST_F(GpsUltrasoundEndToEnd, DataFollowTheFlightThroughLateAndRestartingServices)
{
    start_sim(kScenario);
    configure({{"gps", "gps = { enabled = true; };"}, {"ultrasound", "ultrasound = { enabled = true; };"}});
    auto h = host({"--duration", "9"});

    // Watch the sections while the host runs: the GPS fix's own time (value
    // 5, ms into the scenario) dates what the ultrasound should read.
    int fixes_checked = 0, fixes_before_us = 0, grounded = 0, hovering = 0;
    uint64_t last_fix_ms = 0;
    auto end = std::chrono::steady_clock::now() + 15s;
    while (h->running() && std::chrono::steady_clock::now() < end) {
        sensors_gps_data gps{};
        sensors_us_data us{};
        if (latest("sensors_gps", &gps) && gps.loc_extra > last_fix_ms) {
            last_fix_ms = gps.loc_extra;
            const double t = double(gps.loc_extra) / 1000.0;
            // The fix's time is in whole ms: up to 1 mm of climb at 1 m/s.
            EXPECT_NEAR(gps.loc_values[2], altitude_at(t), 1.5e-3) << "fix at " << t << " s";
            fixes_checked++;
            const bool us_delivered = latest("sensors_us", &us) && us.index > 0;
            if (t < 2.3) {
                // The absent ultrasound holds up nothing else.
                EXPECT_FALSE(us_delivered) << "an echo before the service listens, fix at " << t << " s";
                fixes_before_us++;
            }
            if (us_delivered) {
                // 50 ms between echoes, 100 ms between fixes: compare away from the climb.
                if (t > 2.8 && t < 3.8) {
                    EXPECT_NEAR(us.altitude, 0.0, 1e-4);
                    EXPECT_EQ(us.range_mode, 1u) << "short range near the ground";
                    grounded++;
                }
                if (t > 6.3) {
                    EXPECT_NEAR(us.altitude, 2.0, 1e-4);
                    EXPECT_EQ(us.range_mode, 0u) << "long range above the limit";
                    hovering++;
                }
            }
        }
        std::this_thread::sleep_for(50ms);
    }
    ASSERT_EQ(h->wait(10s), 0) << h->err();
    sim_->signal(SIGTERM);
    sim_->wait(5s);

    EXPECT_GT(fixes_checked, 20);
    EXPECT_GT(fixes_before_us, 5);
    EXPECT_GT(grounded, 3);
    EXPECT_GT(hovering, 5);
    EXPECT_GT(last_fix_ms, 6000u) << "fixes after the daemon came back";
    std::string log = host_log();
    EXPECT_EQ(occurrences(log, "I gps: connected to gpsd"), 2) << log;
    EXPECT_THAT(log, HasSubstr("I gps: disconnected from gpsd"));
    // Absent at the start, back, gone at the restart, back: each told once.
    EXPECT_EQ(occurrences(log, "W us: ultrasound service not available: retrying\n"), 2) << log;
    EXPECT_EQ(occurrences(log, "I us: connected to the ultrasound service\n"), 2) << log;
    EXPECT_THAT(h->out(), HasSubstr("failed reads     0"));
    EXPECT_TRUE(std::regex_search(h->out(), std::regex("\ngps +[0-9]+"))) << h->out();
    EXPECT_TRUE(std::regex_search(h->out(), std::regex("\nus +[0-9]+"))) << h->out();
}

} // namespace
