// SPDX-License-Identifier: Apache-2.0
// The bench's round trip: the virtual vehicle's IMU, barometer and
// magnetometer, drifting as their unit does (the scenario's drift, which no
// file tells the plug-in), fly the bench procedure without calibration
// files; orlune-calib fits the files from the recording; the same procedure
// flown again with them must leave a tenth of the drift at most, against the
// simulator's truth.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>

#include "flight.h"
#include "tool_test_util.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace {

constexpr double kG = 9.80665;
constexpr double kBinK = 5.0;

// What a flight leaves of the unit's drift, over a temperature range: per
// 5 K band of the IMU's temperature, the gyro's mean reading at rest (its
// truth is 0), the accelerometer's bias and scale error from the two faces
// of each axis at rest, and the gyro's scale error in the turns. Each figure
// is the largest over bands and axes.
struct errors {
    double gyro_bias = 0, accel_bias = 0, accel_scale = 0, gyro_scale = 0;
};

struct band {
    double gyro[3] = {};
    int still = 0;
    double face[3][2] = {}; // reading less truth, axis, face sign (0 -, 1 +)
    int face_n[3][2] = {};
    double turn[3] = {}; // (reading - truth) / truth
    int turn_n[3] = {};
};

errors measure(const csv &rec, const csv &truth, double epoch, double lo, double hi)
{
    std::vector<band> bands(size_t(std::ceil((hi - lo) / kBinK)));
    const double t0 = truth.num(0, "scenario_t");
    const char *axes = "xyz";
    for (size_t i = 0; i < rec.rows.size(); i++) {
        if (rec.text(i, "imu_n") == "0")
            continue;
        const double temp = rec.num(i, "imu_temp");
        if (temp < lo || temp >= hi)
            continue;
        const long first = std::lround((rec.num(i, "imu_t0") - epoch - t0) / 0.01);
        const long last = std::lround((rec.num(i, "imu_t1") - epoch - t0) / 0.01);
        const size_t k = size_t((first + last) / 2);
        // The whole batch away from phase changes, where the truth is
        // constant (a batch held back by a busy machine spans more).
        if (first < 2 || size_t(last + 2) >= truth.rows.size() || last - first > 10 ||
            truth.text(size_t(first - 2), "phase") != truth.text(size_t(last + 2), "phase"))
            continue;
        band &b = bands[size_t((temp - lo) / kBinK)];
        const bool still = truth.text(k, "phase") == "hold";
        for (int a = 0; a < 3; a++) {
            const std::string ax(1, axes[a]);
            const double rate = truth.num(k, "rate_" + ax), f = truth.num(k, "accel_" + ax);
            const double gyro = rec.num(i, "gyro_" + ax), accel = rec.num(i, "accel_" + ax);
            if (still) {
                b.gyro[a] += gyro;
                if (std::fabs(f) > kG - 0.5) {
                    b.face[a][f > 0] += accel - f;
                    b.face_n[a][f > 0]++;
                }
            } else if (std::fabs(rate) > 3.0) {
                b.turn[a] += (gyro - rate) / rate;
                b.turn_n[a]++;
            }
        }
        b.still += still;
    }
    errors e;
    for (const band &b : bands) {
        if (b.still == 0)
            continue;
        for (int a = 0; a < 3; a++) {
            const double bias = b.gyro[a] / b.still;
            e.gyro_bias = std::max(e.gyro_bias, std::fabs(bias));
            if (b.face_n[a][0] && b.face_n[a][1]) {
                const double plus = b.face[a][1] / b.face_n[a][1], minus = b.face[a][0] / b.face_n[a][0];
                e.accel_bias = std::max(e.accel_bias, std::fabs(plus + minus) / 2);
                e.accel_scale = std::max(e.accel_scale, std::fabs(plus - minus) / (2 * kG));
            }
            // The turn's error less what the bias at rest explains.
            if (b.turn_n[a])
                e.gyro_scale = std::max(e.gyro_scale, std::fabs(b.turn[a] / b.turn_n[a] - bias / M_PI));
        }
    }
    return e;
}

// The barometer's and the magnetometer's bias left, per 5 K band of the
// barometer's temperature (the magnetometer is corrected at it): the
// pressure against the truth's, and the field against the earth's field
// (bench-imu.cfg's [0.21, 0, 0.43] gauss, heading 0) on the faces the
// vehicle reaches by rolling only (±y, ±z up), where the accelerometer's
// truth gives the roll: the field reads (m_n, sin(roll) m_d, cos(roll) m_d).
struct aux_errors {
    double pressure = 0; // Pa
    double field = 0;    // µT, largest over the axes
};

aux_errors measure_aux(const csv &rec, const csv &truth, double epoch, double lo, double hi)
{
    struct sums {
        double pressure = 0, field[3] = {};
        int pressure_n = 0, field_n = 0;
    };
    std::vector<sums> bands(size_t(std::ceil((hi - lo) / kBinK)));
    const double t0 = truth.num(0, "scenario_t");
    for (size_t i = 0; i < rec.rows.size(); i++) {
        const unsigned long updated = std::stoul(rec.text(i, "updated"), nullptr, 16);
        const double temp = rec.num(i, "baro_temp");
        if (!(updated & 0x6) || temp < lo || temp >= hi)
            continue;
        // The read's time: the readings are at most a period old.
        const size_t k = size_t(std::lround((rec.num(i, "t") - epoch - t0) / 0.01));
        if (k < 3 || k + 1 >= truth.rows.size())
            continue;
        sums &b = bands[size_t((temp - lo) / kBinK)];
        if (updated & 0x2) {
            b.pressure += rec.num(i, "baro_p") - truth.num(k, "pressure");
            b.pressure_n++;
        }
        const double fy = truth.num(k, "accel_y") / kG, fz = truth.num(k, "accel_z") / kG;
        if ((updated & 0x4) && truth.text(k - 3, "phase") == "hold" && truth.text(k, "phase") == "hold" &&
            std::fabs(truth.num(k, "accel_x")) < 0.5) {
            const double expected[3] = {21.0, -fy * 43.0, -fz * 43.0};
            for (int a = 0; a < 3; a++)
                b.field[a] += rec.num(i, std::string("mag_") + "xyz"[a]) - expected[a];
            b.field_n++;
        }
    }
    aux_errors e;
    for (const sums &b : bands) {
        if (b.pressure_n)
            e.pressure = std::max(e.pressure, std::fabs(b.pressure / b.pressure_n));
        for (int a = 0; a < 3 && b.field_n; a++)
            e.field = std::max(e.field, std::fabs(b.field[a] / b.field_n));
    }
    return e;
}

class CalibEndToEnd : public flight {
protected:
    // Flies the bench procedure; returns the recording and the truth.
    void fly(const std::string &name, csv *rec, csv *truth, double *epoch)
    {
        const std::string truth_file = path(name + "-truth.csv"), record_file = path(name + ".csv");
        auto sim = run({ORLUNE_SIM_BIN, "--scenario", example("scenarios/bench-imu.cfg"), "--truth", truth_file},
                       name + "-sim");
        ASSERT_TRUE(sim->wait_for_output("# scenario", 5s)) << sim->err();
        std::smatch m;
        const std::string out = sim->out();
        ASSERT_TRUE(std::regex_search(out, m, std::regex("IIOD_REMOTE=(ip:[0-9.]+:[0-9]+)\nSIM_EPOCH=([0-9.]+)\n")))
            << out;
        env_["IIOD_REMOTE"] = m[1];
        *epoch = std::stod(m[2]);
        auto host = run({ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--duration", "92", "--log",
                         path(name + "-host.log"), "--record", record_file},
                        name + "-host");
        ASSERT_EQ(host->wait(120s), 0) << host->err();
        sim->signal(SIGTERM);
        ASSERT_EQ(sim->wait(10s), 0) << sim->err();
        *rec = csv(read_file(record_file));
        *truth = csv(read_file(truth_file));
    }
};

TEST_F(CalibEndToEnd, FittedFilesLeaveATenthOfTheUnitsDrift)
{
    configure({{"barometer", kBarometerSection}, {"magnetometer", kMagnetometerSection}});
    csv before(""), truth_before(""), after(""), truth_after("");
    double epoch_before, epoch_after;
    ASSERT_NO_FATAL_FAILURE(fly("uncalibrated", &before, &truth_before, &epoch_before));
    EXPECT_THAT(read_file(path("uncalibrated-host.log")), HasSubstr("no IMU thermal calibration"));

    std::filesystem::create_directory(path("data"));
    const run_result fit = ::run(std::string(ORLUNE_CALIB_TOOL) + " fit " + path("uncalibrated.csv") + " --out " +
                               path("data") + " --altitude 120 --magneto");
    ASSERT_EQ(fit.status, 0) << fit.output;
    std::printf("%s", fit.output.c_str());
    // The barometer's and the magnetometer's files have no field copy.
    std::filesystem::create_directory(path("factory"));
    for (const char *file : {"flight_baro_thermal_bias", "flight_magneto_thermal_bias"})
        std::filesystem::rename(path(std::string("data/") + file), path(std::string("factory/") + file));

    ASSERT_NO_FATAL_FAILURE(fly("calibrated", &after, &truth_after, &epoch_after));
    // The plug-in's own loader takes the files whole, without a warning.
    const std::string log = read_file(path("calibrated-host.log"));
    EXPECT_THAT(log, HasSubstr("using " + path("data/flight_imu_thermal_bias")));
    EXPECT_THAT(log, HasSubstr("using " + path("data/flight_imu_thermal_ortho")));
    EXPECT_THAT(log, HasSubstr("baro_calib: using [temp0_k="));
    EXPECT_THAT(log, HasSubstr("magneto_calib: using [temp0_k="));
    EXPECT_THAT(log, ::testing::Not(::testing::ContainsRegex(" [WEC] (imu|baro|magneto)_calib:"))) << log;

    double lo, hi;
    ASSERT_EQ(std::sscanf(read_file(path("data/flight_imu_thermal_bias")).c_str(),
                          "Temp_0_K %*f\nTemp_Min_Max_K %lf %lf", &lo, &hi),
              2);
    const errors drift = measure(before, truth_before, epoch_before, lo, hi);
    const errors left = measure(after, truth_after, epoch_after, lo, hi);
    std::printf("over %.2f to %.2f K, uncalibrated -> calibrated:\n  gyro bias %.3g -> %.3g rad/s\n  accel bias "
                "%.3g -> %.3g m/s2\n  accel scale %.3g -> %.3g\n  gyro scale %.3g -> %.3g\n",
                lo, hi, drift.gyro_bias, left.gyro_bias, drift.accel_bias, left.accel_bias, drift.accel_scale,
                left.accel_scale, drift.gyro_scale, left.gyro_scale);
    // The unit drifts by percents and hundredths of rad/s: these make sure
    // the measure saw it at all.
    EXPECT_GT(drift.gyro_bias, 0.01);
    EXPECT_GT(drift.accel_bias, 0.1);
    EXPECT_GT(drift.accel_scale, 0.005);
    EXPECT_GT(drift.gyro_scale, 0.005);
    EXPECT_LE(left.gyro_bias, drift.gyro_bias / 10);
    EXPECT_LE(left.accel_bias, drift.accel_bias / 10);
    EXPECT_LE(left.accel_scale, drift.accel_scale / 10);
    EXPECT_LE(left.gyro_scale, drift.gyro_scale / 10);

    ASSERT_EQ(std::sscanf(read_file(path("factory/flight_baro_thermal_bias")).c_str(),
                          "Temp_0_K %*f\nTemp_Min_Max_K %lf %lf", &lo, &hi),
              2);
    const aux_errors aux_drift = measure_aux(before, truth_before, epoch_before, lo, hi);
    const aux_errors aux_left = measure_aux(after, truth_after, epoch_after, lo, hi);
    std::printf("over %.2f to %.2f K of the barometer's die:\n  pressure %.3g -> %.3g Pa\n  field %.3g -> %.3g uT\n",
                lo, hi, aux_drift.pressure, aux_left.pressure, aux_drift.field, aux_left.field);
    EXPECT_GT(aux_drift.pressure, 10.0);
    EXPECT_GT(aux_drift.field, 1.0);
    EXPECT_LE(aux_left.pressure, aux_drift.pressure / 10);
    EXPECT_LE(aux_left.field, aux_drift.field / 10);
}

} // namespace
