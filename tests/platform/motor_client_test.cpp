// SPDX-License-Identifier: Apache-2.0
// motor_client against the virtual vehicle's motor controller.
#include <gtest/gtest.h>
#include <iio.h>
#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "platform/iio_helper.h"
#include "platform/motor_client.h"
#include "platform/time_helpers.h"
#include "sim/iiod_server.h"
#include "support/sim_iio.h"
#include "support/test_env.h"

namespace {

constexpr int64_t kPeriodNs = 5000000; // the controller's 200 Hz

class MotorClientTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(connect_sim(sim::default_scenario(), &server_, &iio_), "");
        trigger_ = trigger_init(iio_.get(), "orlune-esc-trig", nullptr);
        ASSERT_TRUE(trigger_);
        client_.reset(controller_open(trigger_, iio_.get(), "orlune-esc", 1, 1));
        ASSERT_TRUE(client_);
    }
    void TearDown() override
    {
        client_.reset();
        iio_.reset();
        server_.reset();
        unsetenv("IIOD_REMOTE");
    }

    int64_t current_stamp()
    {
        timespec t{};
        EXPECT_EQ(sample_timestamp(client_.get(), &t), 0);
        int64_t ns = 0;
        timespec_to_ns(&t, &ns);
        return ns;
    }
    std::string attr(const char *name)
    {
        char text[64] = {};
        iio_device *dev = iio_context_find_device(iio_.get(), "orlune-esc");
        EXPECT_GE(iio_device_attr_read(dev, name, text, sizeof text), 0);
        return text;
    }

    test_root root_;
    std::unique_ptr<sim::iiod_server> server_;
    iio_ptr iio_;
    iio_device *trigger_ = nullptr;
    std::unique_ptr<motor_client, decltype(&controller_close)> client_{nullptr, controller_close};
};

TEST_F(MotorClientTest, FlushKeepsTheNewestSampleUpToTheLimitAndHoldsLaterOnesBack)
{
    uint32_t count = 7;
    EXPECT_EQ(sample_read(client_.get()), -ENODATA);
    sensors_motor_speed speeds[4];
    EXPECT_EQ(sample_speeds(client_.get(), speeds), -EINVAL);

    // The first sample is taken a period after the stream starts, after this
    // limit: it is held back for a later flush.
    ASSERT_GE(controller_enable(client_.get()), 0);
    const timespec before = ns_to_timespec(monotonic_ns());
    EXPECT_EQ(samples_flush(client_.get(), &before, &count), -EAGAIN);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(sample_read(client_.get()), -ENODATA);

    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    const int64_t limit_ns = monotonic_ns() - 50000000;
    const timespec limit = ns_to_timespec(limit_ns);
    ASSERT_EQ(samples_flush(client_.get(), &limit, &count), 0);
    // About 100 ms of samples up to the limit, the held one among them, all
    // dropped but the newest.
    EXPECT_GE(count, 19u);
    EXPECT_LE(count, 22u);
    // Not read yet: a second flush finds the kept sample again and nothing more.
    uint32_t again = 0;
    ASSERT_EQ(samples_flush(client_.get(), &limit, &again), 0);
    EXPECT_EQ(again, 1u);
    ASSERT_EQ(sample_read(client_.get()), 0);
    const int64_t kept = current_stamp();
    EXPECT_LE(kept, limit_ns);
    EXPECT_GT(kept, limit_ns - kPeriodNs);

    // Nothing new up to the same limit: the next sample belongs to a later
    // flush, and none was taken from the device for it...
    EXPECT_EQ(samples_flush(client_.get(), &limit, &count), -EAGAIN);
    EXPECT_EQ(count, 0u);
    // ... so the next limit finds it, and only it.
    const timespec next = ns_to_timespec(kept + kPeriodNs);
    ASSERT_EQ(samples_flush(client_.get(), &next, &count), 0);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(sample_read(client_.get()), 0);
    EXPECT_EQ(current_stamp(), kept + kPeriodNs);

    // A zero limit takes the oldest sample not read: the one after.
    const timespec zero{};
    ASSERT_EQ(samples_flush(client_.get(), &zero, &count), 0);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(sample_read(client_.get()), 0);
    EXPECT_EQ(current_stamp(), kept + 2 * kPeriodNs);

    // A limit ahead of the stream waits for the samples due up to it.
    const int64_t ahead_ns = monotonic_ns() + 30000000;
    const timespec ahead = ns_to_timespec(ahead_ns);
    ASSERT_EQ(samples_flush(client_.get(), &ahead, &count), 0);
    ASSERT_EQ(sample_read(client_.get()), 0);
    EXPECT_LE(current_stamp(), ahead_ns);
    EXPECT_GT(current_stamp(), ahead_ns - kPeriodNs);
    EXPECT_GE(monotonic_ns(), current_stamp());

    uint32_t status[5];
    uint32_t detail = 9;
    ASSERT_EQ(sample_statuses(client_.get(), status, &detail), 0);
    EXPECT_EQ(status[0], 1u); // ready, motors at rest
    EXPECT_EQ(detail, 0u);
    float volts = 0;
    ASSERT_EQ(sample_voltage(client_.get(), &volts), 0);
    EXPECT_FLOAT_EQ(volts, 12.6f);

    // A sample queued but not read is forgotten when the stream is enabled
    // again: the next one read comes after it.
    const int64_t last = current_stamp();
    ASSERT_EQ(samples_flush(client_.get(), &zero, &count), 0);
    ASSERT_EQ(count, 1u);
    ASSERT_GE(controller_disable(client_.get()), 0);
    ASSERT_GE(controller_enable(client_.get()), 0);
    ASSERT_EQ(samples_flush(client_.get(), &zero, &count), 0);
    ASSERT_EQ(sample_read(client_.get()), 0);
    EXPECT_GT(current_stamp(), last + kPeriodNs);
}

TEST_F(MotorClientTest, FlushWithoutSamplesTimesOut)
{
    const timespec zero{};
    uint32_t count = 5;
    // Never enabled: nothing ever comes.
    iio_context_set_timeout(iio_.get(), 400);
    EXPECT_EQ(samples_flush(client_.get(), &zero, &count), -ETIMEDOUT);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(sample_read(client_.get()), -ENODATA);
}

// The information and spin directions the controller gives are checked
// through the motors module (BldcTest).
TEST_F(MotorClientTest, CommandsReachTheControllersAttributes)
{
    EXPECT_EQ(spin_dir_read(client_.get(), nullptr), 0);
    const uint16_t speeds[4] = {100, 2000, 30000, 65535};
    EXPECT_EQ(speeds_set(client_.get(), speeds), 0);
    EXPECT_EQ(attr("speeds"), "100 2000 30000 65535");
    EXPECT_EQ(single_stall_set(client_.get(), 1), 0);
    EXPECT_EQ(attr("single_stall"), "1");
    EXPECT_EQ(single_stall_set(client_.get(), 0), 0);
    EXPECT_EQ(attr("single_stall"), "0");
    EXPECT_EQ(spin_stop(client_.get(), "7"), 0);
    EXPECT_EQ(spin_stop(client_.get(), "300"), -EINVAL);
    EXPECT_EQ(spin_stop(nullptr, nullptr), -EINVAL);
    std::this_thread::sleep_for(std::chrono::milliseconds(150)); // past the controller's boot
    EXPECT_EQ(spin_start(client_.get(), nullptr), 0);
    EXPECT_EQ(attr("spin"), "1");
}

TEST_F(MotorClientTest, OpenRefusesWhatIsNotThere)
{
    EXPECT_EQ(controller_open(trigger_, iio_.get(), "orlune-nothing", 1, 1), nullptr);
    EXPECT_EQ(controller_open(nullptr, iio_.get(), "orlune-esc", 1, 1), nullptr);
    // The IMU has none of the controller's channels.
    iio_device *imu_trigger = trigger_init(iio_.get(), "orlune-imu-trig", nullptr);
    EXPECT_EQ(controller_open(imu_trigger, iio_.get(), "orlune-imu", 1, 1), nullptr);
    controller_close(nullptr);
}

} // namespace
