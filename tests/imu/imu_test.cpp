// SPDX-License-Identifier: Apache-2.0
// The IMU module against the virtual vehicle's IMU, through genuine libiio.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iio.h>
#include <sensors/config.h>
#include <sensors/imu.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "platform/sched_config.h"
#include "support/device_fixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using imu_ptr = std::unique_ptr<imu_ctx, decltype(&imu_destroy)>;

class ImuTest : public device_test {
protected:
    void SetUp() override
    {
        device_test::SetUp();
        config_.enabled = 1;
        config_.device = "orlune-imu";
        config_.trigger = "orlune-imu-trig";
        config_.sampling_frequency = 1000;
        config_.sampling_rate_div = 5;
        const float flip[9] = {1, 0, 0, 0, -1, 0, 0, 0, -1};
        memcpy(config_.rotation_matrix, flip, sizeof flip);
        config_.rotation_enabled = 1;
        config_.tlm_section = "sensors_imu";
    }

    imu_ptr make(void *sched = nullptr) { return {imu_new(&config_, iio_.get(), sched, &data_), imu_destroy}; }

    // A module made and started, or none.
    imu_ptr start()
    {
        imu_ptr imu = make();
        if (imu && imu_start(imu.get()) != 0)
            imu.reset();
        return imu;
    }

    // Mean accel y over ten batches of a new module.
    double mean_accel_y()
    {
        imu_ptr imu = start();
        EXPECT_TRUE(imu);
        double sum = 0;
        int n = 0;
        for (int b = 0; imu && b < 10; b++) {
            uint32_t mask = 0;
            EXPECT_EQ(imu_wait(imu.get()), 0);
            EXPECT_EQ(imu_read(imu.get(), &mask), 0);
            for (int i = 0; i < data_.nb_samples; i++, n++)
                sum += data_.accel[i][1];
        }
        return n ? sum / n : 0;
    }

    sensors_imu_config config_{};
    sensors_imu_data data_{};
};

// Every refusal of creation, with the one message it leaves.
TEST_F(ImuTest, CreationFailures)
{
    sched_config *imu_only = sched_config_new();
    sched_config *empty = sched_config_new();
    sched_entry e{};
    ASSERT_EQ(sched_config_parse_line("imu other 0 - self", &e), 0);
    ASSERT_EQ(sched_config_add(imu_only, e), 0);
    const char *names[] = {"imu", "vcam"};
    struct row {
        std::function<void()> arrange;
        std::string message;
        sched_config *sched = nullptr;
    };
    const row rows[] = {
        {[&] { config_.sampling_frequency = 0; }, "3 invalid imu sampling-frequency 0: must be positive"},
        {[&] { config_.sampling_frequency = -100; }, "3 invalid imu sampling-frequency -100: must be positive"},
        {[&] { config_.sampling_rate_div = 6; },
         "3 invalid imu sampling-rate-div 6: a batch holds 0 (for 5) to 5 samples"},
        {[&] { config_.sampling_rate_div = -1; },
         "3 invalid imu sampling-rate-div -1: a batch holds 0 (for 5) to 5 samples"},
        {[&] {
             config_.sampling_frequency = 2000000;
             config_.sampling_rate_div = 1;
         },
         "3 invalid imu sampling-frequency 2000000: a batch of 1 would last less than 1 us"},
        // The default thread names: "imu" is configured, "imu_spi" is not.
        {[] {}, "3 imu_new:L: can't reconfigure spi imu thread err=2(No such file or directory)", imu_only},
        {[] {}, "3 imu_new:L: can't reconfigure imu thread: err=2(No such file or directory)", empty},
        // Configured names replace the defaults.
        {[&] {
             config_.thread_cfg = names;
             config_.thread_cfg_count = 2;
         },
         "3 imu_new:L: can't reconfigure vcam thread err=2(No such file or directory)", imu_only},
        {[&] { root_.write("/factory/flight_imu_thermal_bias", "Temp_0_K nonsense\n"); }, "3 can't init calibration"},
        {[&] { config_.tlm_section = "not a/section"; }, "3 failed to create sensors_imu tlm"},
    };
    const sensors_imu_config good = config_;
    for (const row &r : rows) {
        SCOPED_TRACE(r.message);
        config_ = good;
        r.arrange();
        EXPECT_FALSE(make(r.sched));
        EXPECT_THAT(messages("imu"), ElementsAre(r.message));
        std::filesystem::remove(root_.at("/factory/flight_imu_thermal_bias"));
    }

    ASSERT_EQ(sched_config_parse_line("vcam other 0 - self", &e), 0);
    ASSERT_EQ(sched_config_add(imu_only, e), 0);
    config_ = good;
    config_.thread_cfg = names;
    config_.thread_cfg_count = 2;
    EXPECT_TRUE(make(imu_only));
    EXPECT_THAT(messages("imu"), IsEmpty());
    sched_config_destroy(empty);
    sched_config_destroy(imu_only);
}

TEST_F(ImuTest, NullArgumentsAndHandles)
{
    EXPECT_FALSE(imu_new(nullptr, iio_.get(), nullptr, &data_));
    EXPECT_FALSE(imu_new(&config_, nullptr, nullptr, &data_));
    EXPECT_FALSE(imu_new(&config_, iio_.get(), nullptr, nullptr));
    uint32_t mask = 0;
    for (int r : {imu_start(nullptr), imu_stop(nullptr), imu_wait(nullptr), imu_read(nullptr, &mask),
                  imu_tlm_push(nullptr)})
        EXPECT_EQ(r, -EINVAL);
    imu_destroy(nullptr);
    EXPECT_THAT(messages("imu"), IsEmpty());
}

TEST_F(ImuTest, RateDividerIsWrittenOnlyWhenConfigured)
{
    iio_device *trigger = iio_context_find_device(iio_.get(), "orlune-imu-trig");
    ASSERT_NE(trigger, nullptr);
    ASSERT_EQ(iio_device_attr_write_longlong(trigger, "rate_divider", 3), 0);
    long long div = 0;
    config_.sampling_rate_div = 0; // batches of 5, divider left alone
    imu_ptr imu = make();
    ASSERT_TRUE(imu);
    ASSERT_EQ(iio_device_attr_read_longlong(trigger, "rate_divider", &div), 0);
    EXPECT_EQ(div, 3);
    imu.reset();

    config_.sampling_rate_div = 1;
    imu = start();
    ASSERT_TRUE(imu);
    ASSERT_EQ(iio_device_attr_read_longlong(trigger, "rate_divider", &div), 0);
    EXPECT_EQ(div, 1);
    uint32_t mask = 0x80;
    ASSERT_EQ(imu_wait(imu.get()), 0);
    ASSERT_EQ(imu_read(imu.get(), &mask), 0);
    EXPECT_EQ(mask, 0x81u);
    EXPECT_EQ(data_.nb_samples, 1);
    EXPECT_EQ(imu_stop(imu.get()), 0);
}

TEST_F(ImuTest, ShortBatchIsPublishedWithAWarning)
{
    imu_ptr imu = start();
    ASSERT_TRUE(imu);
    uint32_t mask = 0;
    ASSERT_EQ(imu_wait(imu.get()), 0);
    ASSERT_EQ(imu_read(imu.get(), &mask), 0);
    ASSERT_EQ(data_.nb_samples, 5);
    EXPECT_THAT(messages("imu"), IsEmpty());

    sim::scenario_fault fault;
    fault.kind = sim::fault_kind::short_batch;
    fault.device = "orlune-imu";
    fault.scans = 3;
    fault.count = 1;
    ASSERT_EQ(server_->inject(fault), 0);
    bool seen = false;
    sensors_imu_data before{};
    for (int i = 0; i < 10 && !seen; i++) {
        before = data_;
        ASSERT_EQ(imu_wait(imu.get()), 0);
        ASSERT_EQ(imu_read(imu.get(), &mask), 0);
        seen = data_.nb_samples == 3;
    }
    ASSERT_TRUE(seen);
    EXPECT_THAT(messages("imu"), ElementsAre("4 samples count mismatch: nb_read:3, fifo_size:5"));
    // The mounting matrix (y and z negated) turns all five slots, the two
    // that the short batch left from the one before included.
    auto expect_turned = [&](const sensors_imu_data &was, int from) {
        for (int i = from; i < 5; i++) {
            SCOPED_TRACE(i);
            EXPECT_THAT(data_.accel[i], ElementsAre(was.accel[i][0], -was.accel[i][1], -was.accel[i][2]));
            EXPECT_THAT(data_.gyro[i], ElementsAre(was.gyro[i][0], -was.gyro[i][1], -was.gyro[i][2]));
        }
    };
    expect_turned(before, 3);
    EXPECT_EQ(imu_tlm_push(imu.get()), 0);
    // Turning the record again on request turns every slot.
    before = data_;
    imu_rotate_data(imu.get());
    expect_turned(before, 0);
    imu_rotate_data(nullptr);
}

TEST_F(ImuTest, CalibrationActsOnVehicleAxesUnlessRotationComesAfterIt)
{
    // A constant accel y bias of 1 m/s^2; the mounting matrix negates y.
    root_.write("/factory/flight_imu_thermal_bias",
                "Temp_0_K 318.15\nTemp_Min_Max_K 303.15 333.15\nPoly_AccY_bias_m_s2_K 1 1.0\n");
    config_.rotation_after_calib = 0;
    const double vehicle_axes = mean_accel_y(); // -raw - 1
    config_.rotation_after_calib = 1;
    const double sensor_axes = mean_accel_y(); // -(raw - 1)
    EXPECT_NEAR(sensor_axes - vehicle_axes, 2.0, 0.05);
    config_.rotation_enabled = 0; // calibrated only: raw - 1
    EXPECT_NEAR(mean_accel_y() + sensor_axes, 0.0, 0.05);
    // The same order when each batch is logged as read before it is settled.
    ASSERT_EQ(log_set_levels("info,imu=debug"), 0);
    config_.rotation_enabled = 1;
    config_.rotation_after_calib = 1;
    EXPECT_NEAR(mean_accel_y(), sensor_axes, 0.05);
}

} // namespace

namespace {

// A die that warms by about two kelvin in the forty batches of a test.
class ImuWarmingTest : public ImuTest {
protected:
    sim::scenario scenario() const override
    {
        sim::scenario s = sim::default_scenario();
        for (sim::scenario_device &d : s.devices)
            if (d.kind == sim::device_kind::imu)
                d.warm = {20.0, 2.0};
        return s;
    }
};

// Each batch is corrected at its own temperature, however little it moved
// since the batch before.
TEST_F(ImuWarmingTest, CorrectionFollowsTheDieBatchByBatch)
{
    // 0.5 m/s^2 of accel y bias per kelvin; the unit itself has none, so
    // accel y + 0.5 (T - T0) is the unit's own reading, which does not move.
    root_.write("/factory/flight_imu_thermal_bias",
                "Temp_0_K 293.15\nTemp_Min_Max_K 283.15 343.15\nPoly_AccY_bias_m_s2_K 2 0 0.5\n");
    config_.rotation_enabled = 0;
    imu_ptr imu = start();
    ASSERT_TRUE(imu);
    double first_temperature = 0, first_reading = 0, temperature = 0;
    for (int b = 0; b < 40; b++) {
        uint32_t mask = 0;
        ASSERT_EQ(imu_wait(imu.get()), 0);
        ASSERT_EQ(imu_read(imu.get(), &mask), 0);
        ASSERT_GT(data_.nb_samples, 0);
        double accel_y = 0;
        temperature = 0;
        for (int i = 0; i < data_.nb_samples; i++) {
            accel_y += data_.accel[i][1] / data_.nb_samples;
            temperature += double(data_.temperature[i]) / data_.nb_samples;
        }
        const double reading = accel_y + 0.5 * (temperature - 293.15);
        if (b == 0) {
            first_temperature = temperature;
            first_reading = reading;
        }
        EXPECT_NEAR(reading, first_reading, 0.1) << "batch " << b << " at " << temperature << " K";
    }
    EXPECT_GT(temperature - first_temperature, 0.5) << "the die warmed";
}

} // namespace
