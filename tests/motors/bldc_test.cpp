// SPDX-License-Identifier: Apache-2.0
// The motor controller module against the virtual vehicle's controller,
// through genuine libiio.
#include <gmock/gmock.h>
#include <sensors/motors.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "platform/iio_helper.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "support/device_fixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using bldc_ptr = std::unique_ptr<bldc_cypress_ctx, decltype(&bldc_cypress_destroy)>;

class BldcTest : public device_test {
protected:
    bldc_ptr make()
    {
        return {bldc_cypress_new(&config_, iio_.get(), spin_dir_, nullptr, &data_.motors, &data_.motors_info),
                bldc_cypress_destroy};
    }
    void start()
    {
        bldc_ = make();
        ASSERT_TRUE(bldc_);
        ASSERT_EQ(bldc_cypress_start(bldc_.get()), 0);
    }
    // Starts the motors and waits until they spin at idle; forgets the
    // messages of it.
    void spin_up()
    {
        start();
        ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.status[0] == 1; }));
        command(BLDC_ACTION_START);
        ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.spinning == 1; }));
        messages("bldc");
    }

    // One read with the current time as the IMU's; returns the mask.
    uint32_t read()
    {
        timespec now;
        monotonic_now(&now);
        uint32_t mask = 0;
        EXPECT_EQ(bldc_cypress_read(bldc_.get(), &mask, &now), 0);
        return mask;
    }
    // Reads until the condition holds on the motors sub-record (3 s at
    // most); last_mask_ is the mask of the last read.
    bool read_until(const std::function<bool(const sensors_motors_data &)> &done)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        while (std::chrono::steady_clock::now() < deadline) {
            last_mask_ = read();
            if (done(data_.motors))
                return true;
        }
        return false;
    }
    void command(uint32_t action, uint32_t stop_code = 0, uint16_t speed = 0)
    {
        sensors_motor_command c{action, {speed, speed, speed, speed}, stop_code};
        EXPECT_EQ(bldc_cypress_write(bldc_.get(), &c), 0);
    }

    // The messages of "bldc" that contain one of the words (keep), or none of them.
    std::vector<std::string> filtered(std::initializer_list<const char *> words, bool keep)
    {
        std::vector<std::string> out;
        for (const std::string &m : messages("bldc")) {
            bool found = false;
            for (const char *w : words)
                found |= m.find(w) != std::string::npos;
            if (found == keep)
                out.push_back(m);
        }
        return out;
    }

    sensors_bldc_config config_{1, 0, "orlune-esc", "orlune-esc-trig", 200, 0};
    sensors_data data_{};
    uint8_t spin_dir_[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    bldc_ptr bldc_{nullptr, bldc_cypress_destroy};
    uint32_t last_mask_ = 0;
};

TEST_F(BldcTest, CreationFillsInfoSpinDirectionsAndSection)
{
    bldc_ = make();
    ASSERT_TRUE(bldc_);
    const sensors_motors_info &info = data_.motors_info;
    EXPECT_EQ(info.fw_major, 2u);
    EXPECT_EQ(info.fw_minor, 7u);
    EXPECT_EQ(info.fw_type, 'R');
    EXPECT_EQ(info.fw_build, 1312u);
    EXPECT_EQ(info.hw_version, 5u);
    EXPECT_EQ(info.info_extra[0], 17u);
    EXPECT_EQ(info.info_extra[1], 4242u);
    EXPECT_EQ(info.flight_time, 3600u);
    EXPECT_EQ(info.last_error, 0u);
    EXPECT_THAT(spin_dir_, ElementsAre(0, 1, 0, 1, 9, 9, 9, 9));
    tlm_section_view view;
    ASSERT_EQ(tlm_view_open("sensors_motors", &view), 0);
    EXPECT_EQ(view.sample_count, 400u);
    EXPECT_EQ(view.period_us, 5000u);
    tlm_view_close(&view);
}

// Every refusal of creation, with what it says under "bldc".
TEST_F(BldcTest, CreationRefusals)
{
    EXPECT_FALSE(bldc_cypress_new(nullptr, iio_.get(), spin_dir_, nullptr, &data_.motors, &data_.motors_info));
    EXPECT_FALSE(bldc_cypress_new(&config_, iio_.get(), spin_dir_, nullptr, nullptr, &data_.motors_info));
    EXPECT_FALSE(bldc_cypress_new(&config_, iio_.get(), spin_dir_, nullptr, &data_.motors, nullptr));
    auto arm = [](const char *point) { return [point] { failpoint_arm(point, -EPERM, 1); }; };
    const struct row {
        const char *what;
        std::function<void()> arrange;
        std::vector<std::string> messages;
    } rows[] = {
        {"0 Hz", [&] { config_.tlm_frequency = 0; }, {}},
        {"-200 Hz", [&] { config_.tlm_frequency = -200; }, {}},
        {"1000001 Hz", [&] { config_.tlm_frequency = 1000001; }, {}},
        {"no trigger", [&] { config_.trigger = "orlune-nothing-trig"; }, {}},
        {"no device", [&] { config_.device = "orlune-nothing"; }, {}},
        {"scheduling", arm("sched_config_apply"), {"3 can't reconfigure thread bldc: Operation not permitted"}},
        {"producer", arm("shm_producer_create"), {"3 failed to create sensors_bldc tlm"}},
        {"layout", arm("shm_producer_register_struct"),
         {"3 bldc_cypress_new:L: failed to register tlm bldc struct err=1(Operation not permitted)"}},
        {"completion", arm("shm_producer_complete"),
         {"3 bldc_cypress_new:L: producer_complete err=1(Operation not permitted)"}},
    };
    const sensors_bldc_config good = config_;
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        config_ = good;
        r.arrange();
        EXPECT_FALSE(make());
        EXPECT_EQ(messages("bldc"), r.messages);
    }
    config_.tlm_frequency = 1; // two samples of one second
    EXPECT_TRUE(make());
}

TEST_F(BldcTest, FirstReadFlushesQuietlyAndReports)
{
    start();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS | SENSORS_UPDATED_MOTORS_INFO);
    EXPECT_THAT(messages("bldc"), ElementsAre("6 orlune-esc: Motors controller HW 5 / FW 2.7.R.1312",
                                              "5 EVT:ESC;flight_time=3600;last_error='none';device='orlune-esc'"));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS);
    // Samples stamped on the monotonic clock, at most a period apart from the limit.
    timespec now;
    monotonic_now(&now);
    EXPECT_TRUE(age_within(&now, &data_.motors.timestamp, 100000, nullptr));
    EXPECT_EQ(data_.motors.idle, 1u);
    EXPECT_NEAR(data_.motors.voltage, 12.6f, 0.001f);

    messages("bldc");
    const auto slept_from = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const double slept_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - slept_from).count();
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS);
    const std::vector<std::string> warned = messages("bldc");
    ASSERT_EQ(warned.size(), 1u);
    // The samples of the time slept (100 ms or a loaded machine's more) at
    // 200 Hz, less the one kept.
    unsigned flushed = 0;
    ASSERT_EQ(sscanf(warned[0].c_str(), "4 orlune-esc: %u samples flushed", &flushed), 1) << warned[0];
    EXPECT_EQ(warned[0], "4 orlune-esc: " + std::to_string(flushed) + " samples flushed");
    const long due = std::lround(slept_s * 200);
    EXPECT_GE(long(flushed), due - 2) << slept_s << " s slept";
    EXPECT_LE(long(flushed), due + 2) << slept_s << " s slept";

    // Without an IMU time the oldest sample not read is taken: nothing dropped, nothing said.
    // A timeout the host set on the context is in force again after the flush's.
    ASSERT_EQ(context_timeout_set(iio_.get(), 1000), 0);
    uint32_t mask = 0;
    EXPECT_EQ(bldc_cypress_read(bldc_.get(), &mask, nullptr), 0);
    EXPECT_EQ(mask, SENSORS_UPDATED_MOTORS);
    EXPECT_EQ(context_timeout(iio_.get()), 1000u);
    context_timeout_forget(iio_.get()); // the context goes with the test, its address may come back
    EXPECT_THAT(messages("bldc"), IsEmpty());
}

TEST_F(BldcTest, NoSampleLeavesTheRecordAlone)
{
    start();
    // The first sample taken, and with it the controller's first report.
    ASSERT_TRUE(read_until([&](const sensors_motors_data &) { return (last_mask_ & SENSORS_UPDATED_MOTORS) != 0; }));
    ASSERT_EQ(server_->inject({.kind = sim::fault_kind::stall, .device = "orlune-esc", .duration_s = 10}), 0);
    messages("bldc");
    // The stall empties the queue: the flush waits in vain for the samples
    // due up to a limit a second ahead.
    timespec later;
    monotonic_now(&later);
    later.tv_sec += 1;
    std::memset(&data_.motors, 0xA5, sizeof data_.motors);
    const sensors_motors_data before = data_.motors;
    uint32_t mask = 0x100;
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(bldc_cypress_read(bldc_.get(), &mask, &later), 0);
    // The wait is the flush's 5 s timeout (over the network the server gives
    // up after half of it), not a board backend's default of 1 s.
    EXPECT_GE(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
    EXPECT_EQ(mask, 0x100u);
    EXPECT_EQ(std::memcmp(&before, &data_.motors, sizeof before), 0);
    EXPECT_THAT(messages("bldc"), IsEmpty());
}

TEST_F(BldcTest, StartRampSpinStopBrakeAndFlightTime)
{
    log_set_levels("info,bldc=debug");
    start();
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.status[0] == 1; }));
    command(BLDC_ACTION_START);
    command(BLDC_ACTION_START); // still pending: ignored
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.ramp_state == 3; }));
    EXPECT_EQ(data_.motors.status[0], 2u);
    EXPECT_EQ(data_.motors.brake_state, 0u);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.ramp_state == 1; }));
    EXPECT_EQ(data_.motors.spinning, 1u);
    EXPECT_EQ(data_.motors.nominal, 1u);

    command(BLDC_ACTION_SET_SPEEDS, 0, 9000);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.motor[3].speed > 8900; }));
    EXPECT_EQ(data_.motors.status[0], 4u);
    EXPECT_GT(data_.motors.motor[0].pwm, 180);
    EXPECT_LT(data_.motors.voltage, 11.8f); // the supply sags under load
    std::this_thread::sleep_for(std::chrono::milliseconds(700));

    EXPECT_THAT(filtered({"BLDC_ACTION", "write speeds"}, true),
                ElementsAre("7 BLDC_ACTION_START", "7 write speeds : 9000 9000 9000 9000"));

    command(BLDC_ACTION_STOP_CODE, 240); // the normal stop's code: a plain stop
    command(BLDC_ACTION_STOP_CODE, 240); // a stop already pending: ignored,
    command(BLDC_ACTION_START);          // and so is a start
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.brake_state == 3; }));
    EXPECT_EQ(data_.motors.ramp_state, 0u);
    EXPECT_EQ(data_.motors.idle, 3u);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.brake_state == 1; }));
    EXPECT_EQ(last_mask_, SENSORS_UPDATED_MOTORS | SENSORS_UPDATED_MOTORS_INFO);
    EXPECT_EQ(data_.motors.idle, 1u);
    EXPECT_EQ(data_.motors.spinning, 2u);
    EXPECT_GE(data_.motors_info.flight_time, 3601u);
    EXPECT_THAT(filtered({"EVT:ESC", "BLDC_ACTION", "Retrieving"}, true),
                ElementsAre("7 BLDC_ACTION_STOP", "7 Retrieving motor infos",
                            "5 EVT:ESC;flight_time=" + std::to_string(data_.motors_info.flight_time) +
                                ";device='orlune-esc'"));
    // The stop's outcome stays while nothing is pending.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS);
    EXPECT_EQ(data_.motors.brake_state, 1u);
}

TEST_F(BldcTest, StopCodesAndUnknownActions)
{
    ASSERT_NO_FATAL_FAILURE(spin_up());
    for (uint32_t action : {0u, 2u, 6u, 7u, 10u, 0xFFFFFFFFu})
        command(action, 7, 9000);
    for (int i = 0; i < 40; i++)
        read();
    EXPECT_EQ(data_.motors.status[0], 3u); // no speeds taken, no stop
    // Samples that the reads let queue up are flushed with a warning.
    EXPECT_THAT(filtered({"samples flushed"}, false), IsEmpty());

    // A coded stop stops the motors without a pending request.
    command(BLDC_ACTION_STOP_CODE, 0x307);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.status[0] == 1; }));
    EXPECT_EQ(data_.motors.brake_state, 0u);
    EXPECT_EQ(data_.motors.ramp_state, 1u);
    EXPECT_EQ(bldc_cypress_write(bldc_.get(), nullptr), -EINVAL);
    EXPECT_EQ(bldc_cypress_write(nullptr, nullptr), -EINVAL);
}

TEST_F(BldcTest, MotorErrorEventsAndFaultStop)
{
    ASSERT_NO_FATAL_FAILURE(spin_up());
    // Long enough for a loaded machine's reads to see the controller at rest
    // on the fault (status 6, detail 5) before the error clears.
    ASSERT_EQ(server_->inject({.kind = sim::fault_kind::motor_error, .device = "orlune-esc", .duration_s = 1.5,
                               .motor = 2, .code = 2}),
              0);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.error[2] == 2; }));
    EXPECT_EQ(data_.motors.nominal, 2u);
    command(BLDC_ACTION_STOP);
    // The controller stops on the fault; the stop ends once it is at rest.
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.brake_state == 1; }));
    EXPECT_EQ(data_.motors.status[0], 6u);
    EXPECT_EQ(data_.motors.status[1], 5u);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.error[2] == 0; }));
    // Flushes and flight-time reports depend on timing, not on the error rules.
    EXPECT_THAT(filtered({"samples flushed", "flight_time"}, false),
                ElementsAre("5 EVT:ESC;error_m2='stall';can_clear='yes';device='orlune-esc'",
                            "6 orlune-esc: motor(2) error cleared"));
    EXPECT_EQ(data_.motors_info.last_error, 2u);
}

} // namespace
