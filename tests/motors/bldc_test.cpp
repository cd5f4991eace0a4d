// SPDX-License-Identifier: Apache-2.0
// The motor controller module against the virtual vehicle's controller,
// through genuine libiio.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iio.h>
#include <sensors/motors.h>
#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "platform/failpoint.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "sim/iiod_server.h"
#include "support/sim_iio.h"
#include "support/test_env.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

struct bldc_deleter {
    void operator()(bldc_cypress_ctx *c) const { bldc_cypress_destroy(c); }
};
using bldc_ptr = std::unique_ptr<bldc_cypress_ctx, bldc_deleter>;

class BldcTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("ORLUNE_TLM_DIR", (root_.path() + "/tlm").c_str(), 1);
        ASSERT_EQ(connect_sim(sim::default_scenario(), &server_, &iio_), "");
        config_ = {1, 0, "orlune-esc", "orlune-esc-trig", 200, 0};
    }
    void TearDown() override
    {
        bldc_.reset();
        iio_.reset();
        server_.reset();
        failpoint_disarm_all();
        unsetenv("IIOD_REMOTE");
    }

    bldc_ptr make()
    {
        return bldc_ptr(bldc_cypress_new(&config_, iio_.get(), spin_dir_, nullptr, &data_.motors, &data_.motors_info));
    }
    void start()
    {
        bldc_ = make();
        ASSERT_TRUE(bldc_);
        ASSERT_EQ(bldc_cypress_start(bldc_.get()), 0);
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
    // "bldc_cypress_new:123: ..." as "bldc_cypress_new:L: ...".
    static std::string without_line(const std::string &text)
    {
        const std::string fn = "bldc_cypress_new:";
        const size_t colon = text.find(':', fn.size());
        if (text.rfind(fn, 0) != 0 || colon == std::string::npos ||
            text.find_first_not_of("0123456789", fn.size()) != colon)
            return text;
        return fn + "L" + text.substr(colon);
    }
    // Messages of the tag "bldc" as "priority text", creation's line numbers as "L".
    std::vector<std::string> messages()
    {
        std::vector<std::string> out;
        for (const log_record &r : cap_.take())
            if (r.tag == "bldc")
                out.push_back(std::to_string(r.priority) + " " + without_line(r.text));
        return out;
    }

    // The messages of the status and error rules: without the warnings of
    // samples that a slow reader let queue up, which depend on timing.
    std::vector<std::string> rule_messages()
    {
        std::vector<std::string> out;
        for (const std::string &m : messages())
            if (m.find("samples flushed") == std::string::npos)
                out.push_back(m);
        return out;
    }

    test_root root_;
    log_capture cap_;
    std::unique_ptr<sim::iiod_server> server_;
    iio_ptr iio_;
    sensors_bldc_config config_{};
    sensors_data data_{};
    uint8_t spin_dir_[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    bldc_ptr bldc_;
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
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(BldcTest, CreationRefusals)
{
    for (int32_t hz : {0, -200, 1000001}) {
        config_.tlm_frequency = hz;
        EXPECT_FALSE(make()) << hz;
    }
    EXPECT_THAT(messages(), IsEmpty());
    config_.tlm_frequency = 1; // two samples of one second
    EXPECT_TRUE(make());

    config_.tlm_frequency = 200;
    EXPECT_EQ(bldc_cypress_new(nullptr, iio_.get(), spin_dir_, nullptr, &data_.motors, &data_.motors_info), nullptr);
    EXPECT_EQ(bldc_cypress_new(&config_, iio_.get(), spin_dir_, nullptr, nullptr, &data_.motors_info), nullptr);
    EXPECT_EQ(bldc_cypress_new(&config_, iio_.get(), spin_dir_, nullptr, &data_.motors, nullptr), nullptr);
    config_.trigger = "orlune-nothing-trig";
    EXPECT_FALSE(make());
    config_.trigger = "orlune-esc-trig";
    config_.device = "orlune-nothing";
    EXPECT_FALSE(make());
    config_.device = "orlune-esc";
    messages();

    struct row {
        const char *failpoint;
        std::string message;
    };
    for (const row &r : {row{"sched_config_apply", "3 can't reconfigure thread bldc: Operation not permitted"},
                         row{"shm_producer_create", "3 failed to create sensors_bldc tlm"},
                         row{"shm_producer_register_struct",
                             "3 bldc_cypress_new:L: failed to register tlm bldc struct err=1(Operation not permitted)"},
                         row{"shm_producer_complete", "3 bldc_cypress_new:L: producer_complete err=1(Operation not permitted)"}}) {
        failpoint_arm(r.failpoint, -EPERM, 1);
        EXPECT_FALSE(make()) << r.failpoint;
        EXPECT_THAT(messages(), ElementsAre(r.message));
    }
}

TEST_F(BldcTest, FirstReadFlushesQuietlyAndReports)
{
    start();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS | SENSORS_UPDATED_MOTORS_INFO);
    EXPECT_THAT(messages(), ElementsAre("6 orlune-esc: Motors controller HW 5 / FW 2.7.R.1312",
                                        "5 EVT:ESC;flight_time=3600;last_error='none';device='orlune-esc'"));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS);
    // Samples stamped on the monotonic clock, at most a period apart from the limit.
    timespec now;
    monotonic_now(&now);
    int64_t now_ns = 0, stamp_ns = 0;
    timespec_to_ns(&now, &now_ns);
    timespec_to_ns(&data_.motors.timestamp, &stamp_ns);
    EXPECT_LT(std::llabs(now_ns - stamp_ns), 100000000LL);
    EXPECT_EQ(data_.motors.idle, 1u);
    EXPECT_NEAR(data_.motors.voltage, 12.6f, 0.001f);

    messages();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS);
    const std::vector<std::string> warned = messages();
    ASSERT_EQ(warned.size(), 1u);
    // About 100 ms of samples at 200 Hz, less the one kept.
    unsigned flushed = 0;
    ASSERT_EQ(sscanf(warned[0].c_str(), "4 orlune-esc: %u samples flushed", &flushed), 1) << warned[0];
    EXPECT_EQ(warned[0], "4 orlune-esc: " + std::to_string(flushed) + " samples flushed");
    EXPECT_GE(flushed, 18u);
    EXPECT_LE(flushed, 22u);
}

TEST_F(BldcTest, NoSampleLeavesTheRecordAlone)
{
    start();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    read();
    sim::scenario_fault stall;
    stall.kind = sim::fault_kind::stall;
    stall.device = "orlune-esc";
    stall.duration_s = 10;
    ASSERT_EQ(server_->inject(stall), 0);
    messages();
    // The stall empties the queue: the flush waits in vain for the samples
    // due up to a limit a second ahead.
    timespec later;
    monotonic_now(&later);
    later.tv_sec += 1;
    std::memset(&data_.motors, 0xA5, sizeof data_.motors);
    const sensors_motors_data before = data_.motors;
    uint32_t mask = 0x100;
    EXPECT_EQ(bldc_cypress_read(bldc_.get(), &mask, &later), 0);
    EXPECT_EQ(mask, 0x100u);
    EXPECT_EQ(std::memcmp(&before, &data_.motors, sizeof before), 0);
    EXPECT_THAT(messages(), IsEmpty());
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

    std::vector<std::string> seen;
    for (const std::string &m : messages())
        if (m.find("BLDC_ACTION") != std::string::npos || m.find("write speeds") != std::string::npos)
            seen.push_back(m);
    EXPECT_THAT(seen, ElementsAre("7 BLDC_ACTION_START", "7 write speeds : 9000 9000 9000 9000"));

    command(BLDC_ACTION_STOP);
    command(BLDC_ACTION_STOP_CODE, 240); // a stop already pending: ignored
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.brake_state == 3; }));
    EXPECT_EQ(data_.motors.ramp_state, 0u);
    EXPECT_EQ(data_.motors.idle, 3u);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.brake_state == 1; }));
    EXPECT_EQ(last_mask_, SENSORS_UPDATED_MOTORS | SENSORS_UPDATED_MOTORS_INFO);
    EXPECT_EQ(data_.motors.idle, 1u);
    EXPECT_EQ(data_.motors.spinning, 2u);
    EXPECT_GE(data_.motors_info.flight_time, 3601u);
    std::vector<std::string> events;
    for (const std::string &m : messages())
        if (m.find("EVT:ESC") != std::string::npos || m.find("BLDC_ACTION") != std::string::npos ||
            m.find("Retrieving") != std::string::npos)
            events.push_back(m);
    EXPECT_THAT(events, ElementsAre("7 BLDC_ACTION_STOP", "7 Retrieving motor infos",
                                    "5 EVT:ESC;flight_time=" + std::to_string(data_.motors_info.flight_time) +
                                        ";device='orlune-esc'"));
    // The stop's outcome stays while nothing is pending.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(read(), SENSORS_UPDATED_MOTORS);
    EXPECT_EQ(data_.motors.brake_state, 1u);
}

TEST_F(BldcTest, StopCodesAndUnknownActions)
{
    start();
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.status[0] == 1; }));
    command(BLDC_ACTION_START);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.ramp_state == 1; }));
    messages();
    for (uint32_t action : {0u, 2u, 6u, 7u, 10u, 0xFFFFFFFFu})
        command(action, 7, 9000);
    for (int i = 0; i < 40; i++)
        read();
    EXPECT_EQ(data_.motors.status[0], 3u); // no speeds taken, no stop
    EXPECT_THAT(rule_messages(), IsEmpty());

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
    start();
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.status[0] == 1; }));
    command(BLDC_ACTION_START);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.spinning == 1; }));
    messages();
    sim::scenario_fault f;
    f.kind = sim::fault_kind::motor_error;
    f.device = "orlune-esc";
    f.motor = 2;
    f.code = 2;
    // Long enough for a loaded machine's reads to see the controller at rest
    // on the fault (status 6, detail 5) before the error clears.
    f.duration_s = 1.5;
    ASSERT_EQ(server_->inject(f), 0);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.error[2] == 2; }));
    EXPECT_EQ(data_.motors.nominal, 2u);
    command(BLDC_ACTION_STOP);
    // The controller stops on the fault; the stop ends once it is at rest.
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.brake_state == 1; }));
    EXPECT_EQ(data_.motors.status[0], 6u);
    EXPECT_EQ(data_.motors.status[1], 5u);
    ASSERT_TRUE(read_until([](const sensors_motors_data &m) { return m.error[2] == 0; }));
    // Flight-time reports depend on timing, not on the error rules.
    std::vector<std::string> got;
    for (const std::string &m : rule_messages())
        if (m.find("flight_time") == std::string::npos)
            got.push_back(m);
    EXPECT_THAT(got, ElementsAre("5 EVT:ESC;error_m2='stall';can_clear='yes';device='orlune-esc'",
                                 "6 orlune-esc: motor(2) error cleared"));
    EXPECT_EQ(data_.motors_info.last_error, 2u);
}

} // namespace
