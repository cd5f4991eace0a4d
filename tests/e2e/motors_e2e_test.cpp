// SPDX-License-Identifier: Apache-2.0
// The motors driven by orlune-host's command script on the virtual vehicle:
// start, ramp, spin, stop, brake and the controller's flight-log events,
// with the battery sub-record carrying the controller's voltage.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sensors/data.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

#include "platform/shm_telemetry.h"
#include "flight.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

using MotorsEndToEnd = flight;

TEST_F(MotorsEndToEnd, HostScriptSpinsAndStopsTheMotors)
{
    start_sim();
    // The IMU alone plus the motor controller.
    configure({{"bldc", "bldc = { enabled = true; device = \"orlune-esc\"; trigger = \"orlune-esc-trig\"; "
                        "tlm_frequency = 200; };"}});
    // Spin and stop, then spin again under load until the host ends.
    auto h = host({"--duration", "4.5", "--motors", "0.3:start,1:speeds=9000,2.2:stop,3:start,3.6:speeds=9000"});
    // Follow the section while the host runs: ramp, spin at speed, brake, stop.
    bool ramping = false, at_speed = false, braking = false, stopped = false;
    sensors_motors_data last{};
    tlm_section_view view{};
    uint64_t next = 0;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (h->running() && std::chrono::steady_clock::now() < deadline) {
        if (!view.base && tlm_view_open("sensors_motors", &view) != 0) {
            std::this_thread::sleep_for(20ms);
            continue;
        }
        const uint64_t written = tlm_view_written(&view);
        for (; next < written; next++) {
            sensors_motors_data s{};
            timespec stamp{};
            if (tlm_view_read(&view, next, &s, view.sample_size, &stamp) != 0)
                continue; // overwritten already
            EXPECT_EQ(stamp.tv_nsec, s.timestamp.tv_nsec);
            ramping = ramping || (s.ramp_state == 3 && s.status[0] == 2);
            at_speed = at_speed || (s.spinning == 1 && s.ramp_state == 1 && s.motor[0].speed > 8500);
            braking = braking || (s.brake_state == 3 && s.status[0] == 5);
            stopped = stopped || (braking && s.brake_state == 1 && s.idle == 1 && s.spinning == 2);
            last = s;
        }
        std::this_thread::sleep_for(50ms);
    }
    tlm_view_close(&view);
    ASSERT_EQ(h->wait(5s), 0) << h->err();
    EXPECT_TRUE(ramping);
    EXPECT_TRUE(at_speed);
    EXPECT_TRUE(braking);
    EXPECT_TRUE(stopped);
    EXPECT_EQ(last.status[0], 4u); // spinning again when the host ended
    EXPECT_EQ(last.brake_state, 0u);

    const std::string log = host_log();
    // One first report, one flight-time event after the stop, with a counter
    // that grew while the motors spun.
    EXPECT_THAT(log, HasSubstr("N bldc: EVT:ESC;flight_time=3600;last_error='none';device='orlune-esc'"));
    std::smatch ft;
    ASSERT_TRUE(std::regex_search(log, ft, std::regex("N bldc: EVT:ESC;flight_time=([0-9]+);device='orlune-esc'")))
        << log;
    EXPECT_GE(std::stoi(ft[1]), 3601);
    EXPECT_THAT(log, Not(HasSubstr("E bldc:")));
    EXPECT_THAT(log, Not(HasSubstr("E motor_client:")));
    EXPECT_THAT(log, Not(HasSubstr("E sensors_orlune:")));

    // The last record: the battery's voltage is the loaded controller's.
    const std::string out = h->out();
    std::smatch volts;
    ASSERT_TRUE(std::regex_search(out, volts, std::regex("motors .* ([0-9.]+) V\\n"))) << out;
    EXPECT_LT(std::stod(volts[1]), 12.2);
    EXPECT_THAT(out, HasSubstr("battery        " + volts[1].str() + " V (from the motor controller)"));
    EXPECT_THAT(out, HasSubstr("motor commands   5 (0 failed)"));
    // The summary counts the log's events by kind.
    const std::regex esc("EVT:ESC;");
    const auto esc_events = std::distance(std::sregex_iterator(log.begin(), log.end(), esc), std::sregex_iterator());
    EXPECT_GE(esc_events, 2);
    EXPECT_THAT(out, HasSubstr("flight-log events " + std::to_string(esc_events) + ": ESC " +
                               std::to_string(esc_events) + "\n"));
}

} // namespace
