// SPDX-License-Identifier: Apache-2.0
// The flight recording of orlune-host and the truth file of orlune-sim, side
// by side: both on the monotonic clock that SIM_EPOCH anchors, and the IMU
// the plug-in reports lying on the truth through hover, turn and bank.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "platform/time_helpers.h"
#include "flight.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace {

// Hover, then a yaw turn, then a roll: each axis of the rates and of the
// specific force moves away from zero at some point, so a swapped axis or a
// flipped sign shows. The IMU is mounted rotated, as on the vehicle.
constexpr const char *kScenario = R"(simulator = {
  name = "e2e-record";
  devices = (
    { kind = "imu"; name = "orlune-imu"; trigger = "orlune-imu-trig";
      sampling-frequency = 1000; rate-divider = 5;
      mount-matrix = [0.0, 1.0, 0.0, 1.0, 0.0, 0.0, 0.0, 0.0, -1.0];
      noise = 2.0; warm-up-rise = 12.0; warm-up-time-constant = 90.0; }
  );
  phases = (
    { name = "hover"; duration = 1.2; },
    { name = "turn"; duration = 0.8; yaw-rate = 0.5; },
    { name = "bank"; duration = 0.8; roll-rate = 0.3; pitch-rate = -0.2; },
    { name = "hold"; duration = 60.0; }
  );
};
)";

// Per batch of five samples: the simulated noise is 2 counts a sample,
// 0.0021 rad/s and 0.0096 m/s^2 at the configured scales, so a batch mean
// has a standard deviation of about 0.001 rad/s and 0.0043 m/s^2; the bounds
// are six of those. Over the whole run the mean difference must vanish.
constexpr double kGyroBatchTolerance = 0.006;  // rad/s
constexpr double kAccelBatchTolerance = 0.026; // m/s^2
constexpr double kGyroBiasTolerance = 0.001;
constexpr double kAccelBiasTolerance = 0.005;

double monotonic_s()
{
    timespec now;
    monotonic_now(&now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

class RecordEndToEnd : public flight {
protected:
    void SetUp() override
    {
        for (const char *dir : {"data", "factory"})
            std::filesystem::copy(example("calibration/") + dir, path(dir), std::filesystem::copy_options::recursive);
        env_["LIBVIGIL_CFG_PATH"] = example("config/minimal.cfg");
    }
};

TEST_F(RecordEndToEnd, RecordingAndTruthShareTheClockAndAgree)
{
    const std::string scenario = root_.path() + "/scenario.cfg", truth_file = root_.path() + "/truth.csv",
                      record_file = root_.path() + "/flight.csv";
    write_file(scenario, kScenario);
    auto sim = run({ORLUNE_SIM_BIN, "--scenario", scenario, "--truth", truth_file}, "sim");
    ASSERT_TRUE(sim->wait_for_output("# scenario", 5s)) << sim->err();
    std::smatch m;
    const std::string out = sim->out();
    ASSERT_TRUE(std::regex_search(out, m, std::regex("IIOD_REMOTE=(ip:[0-9.]+:[0-9]+)\nSIM_EPOCH=([0-9]+\\.[0-9]{6})\n")))
        << out;
    env_["IIOD_REMOTE"] = m[1];
    const double epoch = std::stod(m[2]);
    EXPECT_NEAR(epoch, monotonic_s(), 5.0) << "SIM_EPOCH is not on the monotonic clock";

    auto host = run({ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--duration", "3", "--record",
                     record_file},
                    "host");
    ASSERT_EQ(host->wait(15s), 0) << host->err();
    const double stopped = monotonic_s();
    sim->signal(SIGTERM);
    ASSERT_EQ(sim->wait(10s), 0) << sim->err();

    // Truth: 100 rows a second, none missing, t = SIM_EPOCH + scenario_t.
    const csv truth(read_file(truth_file));
    ASSERT_GT(truth.rows.size(), 300u) << "3 s of host and more of simulator";
    const size_t n_truth = truth.rows.size();
    for (size_t i = 0; i < n_truth; i++) {
        ASSERT_NEAR(truth.num(i, "t") - truth.num(i, "scenario_t"), epoch, 2e-6) << "truth row " << i;
        if (i > 0) {
            ASSERT_NEAR(truth.num(i, "scenario_t") - truth.num(i - 1, "scenario_t"), 0.01, 1e-6) << "truth row " << i;
        }
    }
    EXPECT_LT(truth.num(0, "scenario_t"), 0.5);
    EXPECT_GT(truth.num(n_truth - 1, "t"), stopped - 0.05) << "the truth stops before the simulator";
    EXPECT_EQ(truth.text(0, "phase"), "hover");
    EXPECT_EQ(truth.text(150, "phase"), "turn");

    // Recording: a row per successful read, which the summary counts.
    const csv rec(read_file(record_file));
    std::smatch cycles;
    const std::string summary = host->out();
    ASSERT_TRUE(std::regex_search(summary, cycles, std::regex("cycles +([0-9]+)"))) << summary;
    EXPECT_EQ(rec.rows.size(), std::stoul(cycles[1]));
    EXPECT_GT(rec.rows.size(), 400u) << "about 200 reads a second for 3 s";
    EXPECT_THAT(host->err(), HasSubstr(std::to_string(rec.rows.size()) + " rows recorded in " + record_file));

    // Same clock: each batch was sampled after the scenario started and
    // shortly before its read returned.
    double gyro_bias[3] = {}, accel_bias[3] = {};
    size_t compared = 0, turning = 0;
    const char *axes = "xyz";
    for (size_t i = 0; i < rec.rows.size(); i++) {
        const double t = rec.num(i, "t");
        if (i > 0) {
            ASSERT_GE(t, rec.num(i - 1, "t")) << "row " << i;
        }
        const int n = std::stoi(rec.text(i, "imu_n"));
        const unsigned long updated = std::stoul(rec.text(i, "updated"), nullptr, 16);
        ASSERT_EQ(n > 0, (updated & 0x1) != 0) << "row " << i;
        if (n == 0)
            continue;
        const double t0 = rec.num(i, "imu_t0"), t1 = rec.num(i, "imu_t1");
        ASSERT_GT(t0, epoch) << "row " << i;
        ASSERT_NEAR(t1 - t0, (n - 1) * 0.001, 2e-4) << "row " << i;
        ASSERT_LE(t1, t) << "row " << i << ": sampled after the read returned";
        ASSERT_LT(t - t1, 0.5) << "row " << i;

        // The truth at the batch's middle, when the batch lies inside one
        // phase (the rates jump at a phase change).
        const double mid = (t0 + t1) / 2 - epoch;
        const size_t k = size_t((mid - truth.num(0, "scenario_t")) / 0.01);
        if (k + 1 >= n_truth || truth.text(k, "phase") != truth.text(k + 1, "phase") ||
            (k > 0 && truth.text(k - 1, "phase") != truth.text(k, "phase")))
            continue;
        const double w = (mid - truth.num(k, "scenario_t")) / 0.01;
        compared++;
        turning += std::fabs(truth.num(k, "rate_z")) > 0.1;
        for (int a = 0; a < 3; a++) {
            const std::string ax(1, axes[a]);
            const double rate = (1 - w) * truth.num(k, "rate_" + ax) + w * truth.num(k + 1, "rate_" + ax);
            const double accel = (1 - w) * truth.num(k, "accel_" + ax) + w * truth.num(k + 1, "accel_" + ax);
            const double dg = rec.num(i, "gyro_" + ax) - rate, da = rec.num(i, "accel_" + ax) - accel;
            ASSERT_LT(std::fabs(dg), kGyroBatchTolerance) << "gyro_" << ax << " row " << i << " at " << mid << " s";
            ASSERT_LT(std::fabs(da), kAccelBatchTolerance) << "accel_" << ax << " row " << i << " at " << mid << " s";
            gyro_bias[a] += dg;
            accel_bias[a] += da;
        }
    }
    ASSERT_GT(compared, 400u);
    EXPECT_GT(turning, 100u) << "the run covers the turn";
    for (int a = 0; a < 3; a++) {
        EXPECT_NEAR(gyro_bias[a] / compared, 0, kGyroBiasTolerance) << "gyro " << axes[a];
        EXPECT_NEAR(accel_bias[a] / compared, 0, kAccelBiasTolerance) << "accel " << axes[a];
    }
}

TEST_F(RecordEndToEnd, UnwritableFilesAreRefusedAtStart)
{
    const std::string nowhere = root_.path() + "/no/such/dir/file.csv";
    auto host = run({ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--record", nowhere}, "host");
    EXPECT_EQ(host->wait(10s), 2);
    EXPECT_THAT(host->err(), HasSubstr("cannot create the recording '" + nowhere + "': No such file or directory"));

    auto sim = run({ORLUNE_SIM_BIN, "--truth", nowhere}, "sim");
    EXPECT_EQ(sim->wait(10s), 2);
    EXPECT_THAT(sim->err(), HasSubstr("cannot create the truth file '" + nowhere + "': No such file or directory"));
    EXPECT_THAT(sim->out(), ::testing::Not(HasSubstr("IIOD_REMOTE=")));
}

} // namespace
