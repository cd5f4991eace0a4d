// SPDX-License-Identifier: Apache-2.0
// The IMU module against the virtual vehicle's IMU, through genuine libiio.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iio.h>
#include <sensors/config.h>
#include <sensors/imu.h>
#include <stdlib.h>

#include <cerrno>
#include <memory>
#include <regex>
#include <string>

#include "platform/sched_config.h"
#include "sim/iiod_server.h"
#include "support/sim_iio.h"
#include "support/test_env.h"

using ::testing::ElementsAre;

namespace {

struct imu_deleter {
    void operator()(imu_ctx *c) const { imu_destroy(c); }
};
using imu_ptr = std::unique_ptr<imu_ctx, imu_deleter>;

class ImuTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("ORLUNE_TLM_DIR", (root_.path() + "/tlm").c_str(), 1);
        ASSERT_EQ(connect_sim(sim::default_scenario(), &server_, &iio_), "");

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
    void TearDown() override
    {
        iio_.reset();
        server_.reset();
        unsetenv("IIOD_REMOTE");
    }

    imu_ptr make(void *sched = nullptr) { return imu_ptr(imu_new(&config_, iio_.get(), sched, &data_)); }

    // imu_new messages with the source line replaced by "L".
    std::vector<std::string> messages()
    {
        std::vector<std::string> out;
        for (const std::string &t : cap_.texts("imu"))
            out.push_back(std::regex_replace(t, std::regex("^imu_new:[0-9]+:"), "imu_new:L:"));
        return out;
    }

    // Mean accel y over a few batches.
    double mean_accel_y(imu_ctx *imu)
    {
        double sum = 0;
        int n = 0;
        for (int b = 0; b < 10; b++) {
            uint32_t mask = 0;
            EXPECT_EQ(imu_wait(imu), 0);
            EXPECT_EQ(imu_read(imu, &mask), 0);
            for (int i = 0; i < data_.nb_samples; i++, n++)
                sum += data_.accel[i][1];
        }
        return n ? sum / n : 0;
    }

    test_root root_;
    log_capture cap_;
    std::unique_ptr<sim::iiod_server> server_;
    iio_ptr iio_;
    sensors_imu_config config_{};
    sensors_imu_data data_{};
};

TEST_F(ImuTest, SettingsTheDeviceCannotHonourAreRefusedUpFront)
{
    struct row {
        int frequency;
        int div;
        const char *message;
    };
    const row rows[] = {
        {0, 5, "invalid imu sampling-frequency 0: must be positive"},
        {-100, 5, "invalid imu sampling-frequency -100: must be positive"},
        {1000, 6, "invalid imu sampling-rate-div 6: a batch holds 0 (for 5) to 5 samples"},
        {1000, -1, "invalid imu sampling-rate-div -1: a batch holds 0 (for 5) to 5 samples"},
        {2000000, 1, "invalid imu sampling-frequency 2000000: a batch of 1 would last less than 1 us"},
    };
    for (const row &r : rows) {
        config_.sampling_frequency = r.frequency;
        config_.sampling_rate_div = r.div;
        EXPECT_FALSE(make()) << r.message;
        EXPECT_THAT(messages(), ElementsAre(r.message));
    }
}

TEST_F(ImuTest, NullArgumentsAndHandles)
{
    EXPECT_EQ(imu_new(nullptr, iio_.get(), nullptr, &data_), nullptr);
    EXPECT_EQ(imu_new(&config_, nullptr, nullptr, &data_), nullptr);
    EXPECT_EQ(imu_new(&config_, iio_.get(), nullptr, nullptr), nullptr);
    EXPECT_EQ(imu_start(nullptr), -EINVAL);
    EXPECT_EQ(imu_stop(nullptr), -EINVAL);
    EXPECT_EQ(imu_wait(nullptr), -EINVAL);
    uint32_t mask = 0;
    EXPECT_EQ(imu_read(nullptr, &mask), -EINVAL);
    EXPECT_EQ(imu_tlm_push(nullptr), -EINVAL);
    imu_destroy(nullptr);
    EXPECT_TRUE(messages().empty());
}

TEST_F(ImuTest, SchedulingNamesAreAppliedInOrderAndTheirFailureIsFatal)
{
    sched_config *sched = sched_config_new();
    ASSERT_NE(sched, nullptr);
    sched_entry e{};
    ASSERT_EQ(sched_config_parse_line("imu other 0 - self", &e), 0);
    ASSERT_EQ(sched_config_add(sched, e), 0);

    // The default names: "imu" is there, "imu_spi" is not.
    EXPECT_FALSE(make(sched));
    EXPECT_THAT(messages(), ElementsAre("imu_new:L: can't reconfigure spi imu thread err=2(No such file or directory)"));

    // The configured names replace the defaults.
    const char *names[] = {"imu", "vcam"};
    config_.thread_cfg = names;
    config_.thread_cfg_count = 2;
    EXPECT_FALSE(make(sched));
    EXPECT_THAT(messages(), ElementsAre("imu_new:L: can't reconfigure vcam thread err=2(No such file or directory)"));
    ASSERT_EQ(sched_config_parse_line("vcam other 0 - self", &e), 0);
    ASSERT_EQ(sched_config_add(sched, e), 0);
    EXPECT_TRUE(make(sched));
    EXPECT_TRUE(messages().empty());

    config_.thread_cfg = nullptr;
    config_.thread_cfg_count = 0;
    sched_config *empty = sched_config_new();
    EXPECT_FALSE(make(empty));
    EXPECT_THAT(messages(), ElementsAre("imu_new:L: can't reconfigure imu thread: err=2(No such file or directory)"));
    sched_config_destroy(empty);
    sched_config_destroy(sched);
}

TEST_F(ImuTest, CalibrationAndTelemetryFailuresAreFatal)
{
    root_.write("/factory/flight_imu_thermal_bias", "Temp_0_K nonsense\n");
    EXPECT_FALSE(make());
    auto texts = messages();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), "can't init calibration");
    cap_.take();

    root_.write("/factory/flight_imu_thermal_bias", "Temp_0_K 318.15\nTemp_Min_Max_K 303.15 333.15\n");
    config_.tlm_section = "not a/section";
    EXPECT_FALSE(make());
    EXPECT_THAT(cap_.texts("imu"), ElementsAre("failed to create sensors_imu tlm"));
}

TEST_F(ImuTest, RateDividerIsWrittenOnlyWhenConfigured)
{
    iio_device *trigger = iio_context_find_device(iio_.get(), "orlune-imu-trig");
    ASSERT_NE(trigger, nullptr);
    ASSERT_EQ(iio_device_attr_write_longlong(trigger, "rate_divider", 3), 0);

    config_.sampling_rate_div = 0; // batches of 5, divider left alone
    imu_ptr imu = make();
    ASSERT_TRUE(imu);
    long long div = 0;
    ASSERT_EQ(iio_device_attr_read_longlong(trigger, "rate_divider", &div), 0);
    EXPECT_EQ(div, 3);
    imu.reset();

    config_.sampling_rate_div = 1;
    imu = make();
    ASSERT_TRUE(imu);
    ASSERT_EQ(iio_device_attr_read_longlong(trigger, "rate_divider", &div), 0);
    EXPECT_EQ(div, 1);
    ASSERT_EQ(imu_start(imu.get()), 0);
    uint32_t mask = 0x80;
    ASSERT_EQ(imu_wait(imu.get()), 0);
    ASSERT_EQ(imu_read(imu.get(), &mask), 0);
    EXPECT_EQ(mask, 0x81u);
    EXPECT_EQ(data_.nb_samples, 1);
    EXPECT_EQ(imu_stop(imu.get()), 0);
}

TEST_F(ImuTest, ShortBatchIsPublishedWithAWarning)
{
    imu_ptr imu = make();
    ASSERT_TRUE(imu);
    ASSERT_EQ(imu_start(imu.get()), 0);
    uint32_t mask = 0;
    ASSERT_EQ(imu_wait(imu.get()), 0);
    ASSERT_EQ(imu_read(imu.get(), &mask), 0);
    ASSERT_EQ(data_.nb_samples, 5);
    EXPECT_TRUE(messages().empty());

    sim::scenario_fault fault;
    fault.kind = sim::fault_kind::short_batch;
    fault.device = "orlune-imu";
    fault.scans = 3;
    fault.count = 1;
    ASSERT_EQ(server_->inject(fault), 0);
    bool seen = false;
    for (int i = 0; i < 10 && !seen; i++) {
        ASSERT_EQ(imu_wait(imu.get()), 0);
        ASSERT_EQ(imu_read(imu.get(), &mask), 0);
        seen = data_.nb_samples == 3;
    }
    ASSERT_TRUE(seen);
    EXPECT_THAT(messages(), ElementsAre("samples count mismatch: nb_read:3, fifo_size:5"));
    EXPECT_EQ(imu_tlm_push(imu.get()), 0);
}

TEST_F(ImuTest, CalibrationActsOnVehicleAxesUnlessRotationComesAfterIt)
{
    // A constant accel y bias of 1 m/s^2; the mounting matrix negates y.
    root_.write("/factory/flight_imu_thermal_bias",
                "Temp_0_K 318.15\nTemp_Min_Max_K 303.15 333.15\nPoly_AccY_bias_m_s2_K 1 1.0\n");
    config_.rotation_after_calib = 0;
    imu_ptr imu = make();
    ASSERT_TRUE(imu);
    ASSERT_EQ(imu_start(imu.get()), 0);
    double vehicle_axes = mean_accel_y(imu.get()); // -raw - 1
    imu.reset();

    config_.rotation_after_calib = 1;
    imu = make();
    ASSERT_TRUE(imu);
    ASSERT_EQ(imu_start(imu.get()), 0);
    double sensor_axes = mean_accel_y(imu.get()); // -(raw - 1)
    EXPECT_NEAR(sensor_axes - vehicle_axes, 2.0, 0.05);
    imu.reset();

    config_.rotation_enabled = 0; // calibrated only: raw - 1
    imu = make();
    ASSERT_TRUE(imu);
    ASSERT_EQ(imu_start(imu.get()), 0);
    double unrotated = mean_accel_y(imu.get());
    EXPECT_NEAR(unrotated + sensor_axes, 0.0, 0.05);
}

} // namespace
