// SPDX-License-Identifier: Apache-2.0
// The simulated pack, read by the plug-in's own battery module.
#include <gmock/gmock.h>
#include <sensors/battery.h>

#include <chrono>
#include <thread>

#include "sim/battery.h"
#include "support/test_env.h"

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr const char *kDir = "/sys/class/power_supply/smartbattery";

TEST(BatterySettings, AreReadFromTheScenarioFile)
{
    sim::battery_settings s;
    std::string error;
    ASSERT_EQ(sim::battery_settings_parse(R"(simulator = { name = "x";
  battery = { capacity = 1500; charge = 50.0; cells = 3; rate = 10.0; authenticated = false;
    events = ( { at = 2.0; kind = "insert"; }, { at = 1.0; kind = "remove"; },
               { at = 3; kind = "garbage"; attribute = "rsoc"; text = "??"; duration = 0.5; } ); };
};)",
                                          &s, &error),
              0)
        << error;
    EXPECT_EQ(s.capacity_mah, 1500);
    EXPECT_EQ(s.charge_pct, 50);
    EXPECT_EQ(s.cells, 3);
    EXPECT_FALSE(s.authenticated);
    ASSERT_EQ(s.events.size(), 3u);
    EXPECT_EQ(s.events[0].kind, sim::battery_event_kind::remove); // sorted by time
    EXPECT_EQ(s.events[2].text, "??");

    ASSERT_EQ(sim::battery_settings_parse("simulator = { name = \"no battery\"; };", &s, &error), 0);
    EXPECT_EQ(s.cells, 2);
    EXPECT_TRUE(s.events.empty());

    const std::pair<const char *, const char *> bad[] = {
        {"cells = 0;", "cells must be 1..16"},
        {"events = ( { at = 1.0; kind = \"explode\"; } );", "unknown event kind 'explode'"},
        {"events = ( { at = 1.0; kind = \"garbage\"; attribute = \"name\"; } );", "garbage needs the 'attribute'"},
    };
    for (const auto &[text, message] : bad) {
        SCOPED_TRACE(text);
        std::string scenario = std::string("simulator = { battery = { ") + text + " }; };";
        EXPECT_EQ(sim::battery_settings_parse(scenario.c_str(), &s, &error), -EINVAL);
        EXPECT_THAT(error, HasSubstr(message));
    }
}

class BatterySim : public ::testing::Test {
protected:
    void TearDown() override { battery_destroy(battery_); }

    void start(const std::string &battery_group, double current_a = 20.0)
    {
        sim::battery_settings settings;
        std::string error;
        std::string text = "simulator = { battery = { rate = 50.0; " + battery_group + " }; };";
        ASSERT_EQ(sim::battery_settings_parse(text.c_str(), &settings, &error), 0) << error;
        sim_ = sim::battery_sim::start(settings, [current_a](double) { return current_a; }, root_.at(kDir), &error);
        ASSERT_TRUE(sim_) << error;
    }

    // Reads at 20 Hz until done says so or two seconds pass.
    template <typename Done>
    void read_until(Done done)
    {
        auto end = std::chrono::steady_clock::now() + 2s;
        while (std::chrono::steady_clock::now() < end) {
            uint32_t mask = 0;
            if (done(battery_read(battery_, &mask)))
                return;
            std::this_thread::sleep_for(10ms);
        }
        FAIL() << "deadline";
    }

    test_root root_;
    log_capture log_;
    std::unique_ptr<sim::battery_sim> sim_;
    sensors_battery_config config_{1, 0, kDir, 20, 0};
    sensors_battery_data data_{};
    battery_ctx *battery_ = nullptr;
};

TEST_F(BatterySim, ThePluginReadsTheDrainingPackThroughRemovalAndReinsertion)
{
    start("events = ( { at = 0.4; kind = \"remove\"; }, { at = 0.8; kind = \"insert\"; } );");
    battery_ = battery_new(&config_, &data_);
    ASSERT_NE(battery_, nullptr);
    ASSERT_EQ(battery_read(battery_, nullptr), -EINVAL);
    uint32_t mask = 0;
    ASSERT_EQ(battery_read(battery_, &mask), 0);
    // 95 % of 2700 mAh, 2 cells at 3.3 + 0.9 x 0.95 V less 20 A x 15 mOhm.
    EXPECT_NEAR(data_.remaining_cap, 2.565, 0.002);
    EXPECT_NEAR(data_.voltage, 2 * (3.3 + 0.9 * 0.95 - 0.3), 0.01);
    EXPECT_FLOAT_EQ(data_.current, -20.0f);
    EXPECT_EQ(data_.rsoc, 95u);
    EXPECT_FLOAT_EQ(data_.full_charge_cap, 2.7f);
    const float first_remaining = data_.remaining_cap;

    for (int expected : {0, -ENODEV, 0})
        read_until([&](int r) { return r == expected; });
    EXPECT_EQ(battery_is_present(battery_), 1);
    // 20 A for about half a second (nothing flows while the pack is out): 2.5 mAh.
    EXPECT_LT(data_.remaining_cap, first_remaining - 0.0015f);
    EXPECT_NEAR(data_.voltage, sim_->voltage_v(), 0.01);
}

TEST_F(BatterySim, ScriptedAlertsReachTheFlightLog)
{
    start(R"(events = (
      { at = 0.1; kind = "fault"; code = 2; },
      { at = 0.1; kind = "temperature-alert"; code = 1; },
      { at = 0.2; kind = "usb"; connected = 1; data-role = 0; power-role = 1; },
      { at = 0.3; kind = "anomaly"; code = 8; },
      { at = 0.4; kind = "garbage"; attribute = "voltage_now"; text = "volts?"; duration = 0.2; },
      { at = 0.7; kind = "cells"; code = 3; } );)",
          0.0);
    battery_ = battery_new(&config_, &data_);
    ASSERT_NE(battery_, nullptr);
    std::vector<std::string> said;
    bool saw_garbage = false;
    read_until([&](int) {
        for (const std::string &s : log_.texts("battery"))
            said.push_back(s);
        // Unparsable text reads as 0 V; three cells raise the pack's voltage.
        saw_garbage |= data_.voltage == 0.0f;
        return saw_garbage && said.size() > 6 && data_.voltage > 3 * 3.3f;
    });
    EXPECT_THAT(said, Contains("EVT:SMARTBATTERY;fault='gauge'"));
    EXPECT_THAT(said, Contains("EVT:SMARTBATTERY;temperature_alert='high critical';temperature=25"));
    EXPECT_THAT(said, Contains("EVT:SMARTBATTERY;data_role='DEVICE';power_role='SINK'"));
    EXPECT_THAT(said, Contains("EVT:SMARTBATTERY;anomaly='gauge'"));
    EXPECT_THAT(said, Contains("No voltage"));
    EXPECT_THAT(said, Not(Contains("No Time To Empty"))); // idle pack: the gauge says 65535 min
}

TEST_F(BatterySim, AThreeCellPackIsRefused)
{
    start("cells = 3;");
    EXPECT_EQ(battery_new(&config_, &data_), nullptr);
    EXPECT_THAT(log_.texts("battery"), Contains("Cannot log cell voltage (cell count=3 max=2)"));
}

} // namespace
