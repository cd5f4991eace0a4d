// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's pack read by the plug-in under orlune-host: draining
// under load, pulled out and put back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sensors/data.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

#include "platform/shm_telemetry.h"
#include "flight.h"

using namespace std::chrono_literals;

namespace {

size_t count(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
        n++;
    return n;
}

// 30 A hovering drains about 8 mAh a second; the pack is out from 3 s to 5 s.
constexpr const char *kScenario = R"(simulator = {
  name = "battery";
  devices = (
    { kind = "imu"; name = "orlune-imu"; trigger = "orlune-imu-trig";
      sampling-frequency = 1000; rate-divider = 5; }
  );
  phases = ( { name = "hover"; duration = 60.0; } );
  battery = {
    hover-current = 30.0; rate = 10.0;
    events = ( { at = 3.0; kind = "remove"; }, { at = 5.0; kind = "insert"; },
               { at = 6.0; kind = "fault"; code = 3; } );
  };
};
)";

using BatteryEndToEnd = flight;

TEST_F(BatteryEndToEnd, ThePackDrainsLeavesAndComesBack)
{
    start_sim(kScenario);
    configure({{"battery", "battery = { enabled = true; device = \"/sys/class/power_supply/smartbattery\"; "
                           "frequency = 4; };"}});
    auto h = host({"--duration", "7"});

    // The latest sample of "sensors_battery", every 20 ms, while the host runs.
    std::vector<sensors_battery_data> seen;
    auto end = std::chrono::steady_clock::now() + 9s;
    while (h->running() && std::chrono::steady_clock::now() < end) {
        tlm_section_view view{};
        if (tlm_view_open("sensors_battery", &view) == 0 && tlm_view_written(&view) > 0) {
            sensors_battery_data d{};
            timespec stamp{};
            if (tlm_view_read(&view, tlm_view_written(&view) - 1, &d, sizeof d, &stamp) == 0)
                seen.push_back(d);
        }
        tlm_view_close(&view);
        std::this_thread::sleep_for(20ms);
    }
    ASSERT_EQ(h->wait(10s), 0) << h->err();
    const std::string log = host_log();
    EXPECT_EQ(count(log, "N sensors_orlune: EVT:SMARTBATTERY;event='present'"), 2u) << log;
    EXPECT_EQ(count(log, "N sensors_orlune: EVT:SMARTBATTERY;event='absent'"), 1u) << log;
    EXPECT_EQ(count(log, "N battery: EVT:SMARTBATTERY;fault='charger'"), 1u) << log;

    // Present, then the fallback (no pack: rsoc unknown), then present again,
    // with less charge left after than before.
    ASSERT_FALSE(seen.empty());
    auto absent = std::find_if(seen.begin(), seen.end(), [](const sensors_battery_data &d) { return !d.present; });
    ASSERT_NE(absent, seen.end());
    ASSERT_NE(absent, seen.begin());
    EXPECT_EQ(absent->rsoc, SENSORS_BATTERY_RSOC_UNKNOWN);
    auto back = std::find_if(absent, seen.end(), [](const sensors_battery_data &d) { return d.present != 0; });
    ASSERT_NE(back, seen.end());
    const sensors_battery_data &first = seen.front();
    const sensors_battery_data &last = seen.back();
    EXPECT_EQ(first.present, 1u);
    EXPECT_EQ(last.present, 1u);
    EXPECT_LT(last.remaining_cap, first.remaining_cap - 0.02f); // at least 20 mAh in about 5 s at 30 A
    EXPECT_LT(last.voltage, first.voltage);
    EXPECT_LT(last.current, -29.0f);

    sim_->signal(SIGTERM);
    EXPECT_EQ(sim_->wait(5s), 0);
}

} // namespace
