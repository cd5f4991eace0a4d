// SPDX-License-Identifier: Apache-2.0
// The virtual motor controller: its scenario keys and its status machine.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "sim/motor_device.h"
#include "sim/scenario.h"

namespace {

TEST(MotorScenario, KeysAndFaultsParseAndAreChecked)
{
    const std::string head = "simulator = { devices = ( { kind = \"motors\"; name = \"esc\"; trigger = \"esc-trig\"; "
                             "supply-voltage = 16.8; flight-time = 42; } ); faults = ( ";
    sim::scenario s;
    std::string error;
    // A scenario whose one fault is a motor error with these keys.
    auto parse = [&](const std::string &keys) {
        const std::string text = head + "{ at = 1.0; kind = \"motor-error\"; device = \"esc\"; " + keys + " } ); };";
        return sim::scenario_parse(text.c_str(), &s, &error);
    };
    ASSERT_EQ(parse("motor = 3; code = 11;"), 0) << error;
    ASSERT_EQ(s.devices.size(), 1u);
    EXPECT_EQ(s.devices[0].kind, sim::device_kind::motors);
    EXPECT_EQ(s.devices[0].supply_voltage, 16.8);
    EXPECT_EQ(s.devices[0].flight_time_s, 42);
    ASSERT_EQ(s.faults.size(), 1u);
    EXPECT_EQ(s.faults[0].kind, sim::fault_kind::motor_error);
    EXPECT_EQ(s.faults[0].motor, 3);
    EXPECT_EQ(s.faults[0].code, 11);
    for (const char *bad : {"motor = 4; code = 2;", "motor = -1; code = 2;", "motor = 0; code = 256;"}) {
        EXPECT_EQ(parse(bad), -EINVAL) << bad;
        EXPECT_EQ(error, "motor-error: motor must be 0..3 and code 0..255") << bad;
    }
}

// Channel values of one scan: speed0..3, pwm0..3, error0..3, status, detail, mV.
struct scan {
    int64_t raw[16];
    int64_t speed(int m) const { return raw[m]; }
    int64_t error(int m) const { return raw[8 + m]; }
    int64_t status() const { return raw[12]; }
    int64_t detail() const { return raw[13]; }
    int64_t millivolts() const { return raw[14]; }
};

class MotorModel : public ::testing::Test {
protected:
    MotorModel() : model_(setup(), 1), truth_(sim::scenario{}) {}
    static sim::scenario_device setup()
    {
        sim::scenario_device d;
        d.kind = sim::device_kind::motors;
        d.flight_time_s = 100;
        return d;
    }
    scan at(double t)
    {
        scan s{};
        model_.sample(truth_, t, 0, s.raw);
        return s;
    }
    sim::motor_model model_;
    sim::vehicle truth_;
};

TEST_F(MotorModel, StartRampSpinStopBrake)
{
    EXPECT_EQ(at(0.05).status(), sim::MOTOR_STATUS_BOOT);
    EXPECT_EQ(model_.write_attr("spin", "1", 0.05), -EBUSY);
    EXPECT_EQ(at(0.2).status(), sim::MOTOR_STATUS_IDLE);
    EXPECT_EQ(at(0.2).millivolts(), 12600);
    EXPECT_EQ(model_.write_attr("spin", "1", 0.2), 0);
    EXPECT_EQ(at(0.3).status(), sim::MOTOR_STATUS_RAMPING);
    const scan spinning = at(1.0);
    EXPECT_EQ(spinning.status(), sim::MOTOR_STATUS_SPINNING);
    EXPECT_NEAR(double(spinning.speed(0)), sim::motor_model::kIdleSpeed, 5);
    EXPECT_EQ(model_.write_attr("speeds", "9000 9000 9000 12000", 1.0), 0);
    const scan flying = at(2.0);
    EXPECT_EQ(flying.status(), sim::MOTOR_STATUS_FLYING);
    EXPECT_NEAR(double(flying.speed(0)), 9000, 5);
    EXPECT_NEAR(double(flying.speed(3)), 12000, 5);
    EXPECT_LT(flying.millivolts(), 11400); // the supply sags under load
    EXPECT_EQ(model_.write_attr("stop", "0", 2.0), 0);
    EXPECT_EQ(at(2.1).status(), sim::MOTOR_STATUS_BRAKING);
    const scan stopped = at(3.0);
    EXPECT_EQ(stopped.status(), sim::MOTOR_STATUS_IDLE);
    EXPECT_EQ(stopped.speed(0), 0);
    std::string flight_time;
    ASSERT_TRUE(model_.read_attr("flight_time", 3.0, &flight_time));
    EXPECT_EQ(flight_time, "101"); // 1.8 s of ramping and spinning
    for (const char *bad : {"2", "", "1x"})
        EXPECT_EQ(model_.write_attr("spin", bad, 3.0), -EINVAL) << bad;
    EXPECT_EQ(model_.write_attr("speeds", "1 2 3", 3.0), -EINVAL);
    EXPECT_EQ(model_.write_attr("fw_major", "3", 3.0), -EACCES);
}

TEST_F(MotorModel, MotorErrorStopsTheControllerUnlessSingleStallInFlight)
{
    sim::scenario_fault f{.kind = sim::fault_kind::motor_error, .duration_s = 1.0, .motor = 1, .code = 2};
    ASSERT_EQ(model_.write_attr("spin", "1", 0.2), 0);
    ASSERT_EQ(model_.write_attr("speeds", "6000 6000 6000 6000", 1.0), 0);
    ASSERT_EQ(model_.write_attr("single_stall", "1", 1.0), 0);
    ASSERT_EQ(model_.arm_fault(f, 1.5), 0);
    const scan stalled = at(2.0);
    EXPECT_EQ(stalled.status(), sim::MOTOR_STATUS_FLYING);
    EXPECT_EQ(stalled.error(1), 2);
    EXPECT_LT(stalled.speed(1), 20); // coasting down
    EXPECT_NEAR(double(stalled.speed(0)), 6000, 5);

    ASSERT_EQ(model_.write_attr("single_stall", "0", 2.0), 0);
    EXPECT_EQ(at(2.01).status(), sim::MOTOR_STATUS_FAULT);
    EXPECT_EQ(at(2.01).detail(), sim::MOTOR_DETAIL_FAULT_BRAKING);
    EXPECT_EQ(at(2.4).detail(), sim::MOTOR_DETAIL_FAULT_STOPPED);
    const scan cleared = at(2.6);
    EXPECT_EQ(cleared.status(), sim::MOTOR_STATUS_IDLE);
    EXPECT_EQ(cleared.error(1), 0);
    std::string last;
    ASSERT_TRUE(model_.read_attr("last_error", 2.6, &last));
    EXPECT_EQ(last, "2");
    f.kind = sim::fault_kind::stall;
    EXPECT_EQ(model_.arm_fault(f, 3.0), -EINVAL);
}

} // namespace
