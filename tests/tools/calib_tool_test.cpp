// SPDX-License-Identifier: Apache-2.0
// orlune-calib on made-up bench recordings: a unit whose drift the test
// knows, turned through the six faces while it warms. The fit must find the
// drift again, and refuse a recording that cannot determine it with a
// message that says what is missing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "calib/calib_sets.h"
#include "support/test_env.h"
#include "tool_test_util.h"

using ::testing::HasSubstr;

namespace {

constexpr double kG = 9.80665;
constexpr double kT0 = 318.15;

// The synthetic unit: reading = S(T) truth + b(T), x = T - kT0.
std::array<double, 3> gyro_bias(double x)
{
    return {0.02 + 6e-4 * x - 8e-6 * x * x, -0.015 - 4e-4 * x, 0.01 + 3e-4 * x};
}
std::array<double, 3> accel_bias(double x)
{
    return {0.12 + 3e-3 * x, -0.09 - 2e-3 * x + 3e-5 * x * x, 0.2 + 4e-3 * x};
}
double scale(int axis, double x)
{
    return std::array<double, 3>{1.012, 0.99, 1.008}[size_t(axis)] + 1.5e-4 * x;
}
constexpr double kCross = 0.003; // every off-diagonal term
// The barometer's and the magnetometer's biases, at the barometer's die
// temperature, which warms more slowly; the bench's pressure.
double baro_bias(double x)
{
    return 30.0 + 1.2 * x - 0.015 * x * x;
}
std::array<double, 3> mag_bias(double x)
{
    return {2.5 + 0.06 * x, -1.8 - 0.04 * x + 5e-4 * x * x, 3.5 + 0.09 * x};
}
constexpr double kBenchPa = 100000.0;
double baro_temp(double t)
{
    return 283.15 + 45.0 * (1 - std::exp(-t / 40.0));
}

struct turn_step {
    int axis;
    int sign;
    double quarters = 1.0; // how far, in quarter turns
};
// The bench's cycle: the faces -z, -y, +z, +y, +x, +y, -x, +y, -z, +x, -z, -x, -z.
const std::vector<turn_step> kCycle{{0, 1}, {0, 1}, {0, 1}, {2, 1}, {2, -1}, {2, -1}, {2, 1},
                                    {0, 1}, {1, 1}, {1, -1}, {1, -1}, {1, 1}};

struct bench_options {
    std::vector<turn_step> cycle = kCycle;
    double rise_k = 60.0;     // the die warms from 283.15 K by this much
    double wobble = 0.0;      // rad/s of a 1.5 Hz shake on every axis
    const imu_calib *applied = nullptr; // a set the plug-in applied while recording
    bool lose_samples = false; // 30 samples lost where each cycle's first turn starts
};

std::array<double, 3> rotate(const std::array<double, 3> &v, int axis, double angle)
{
    // A force fixed in space seen from a unit turning by +angle about axis.
    const double c = std::cos(-angle), s = std::sin(-angle);
    std::array<double, 3> out = v;
    const int i = (axis + 1) % 3, j = (axis + 2) % 3;
    out[size_t(i)] = c * v[size_t(i)] - s * v[size_t(j)];
    out[size_t(j)] = s * v[size_t(i)] + c * v[size_t(j)];
    return out;
}

// Five cycles of 1 s holds and 0.5 s quarter turns, as the host records
// them: 200 reads a second of 5-sample batch means.
std::string bench_recording(const bench_options &o)
{
    std::string csv = "t,updated,imu_n,imu_t0,imu_t1,gyro_x,gyro_y,gyro_z,accel_x,accel_y,accel_z,imu_temp,baro_p,"
                      "baro_temp,mag_x,mag_y,mag_z\n";
    std::array<double, 3> f{0, 0, -kG};
    std::array<double, 3> field{21.0, 0.0, 43.0}; // µT, the earth's
    double t = 100.0;
    uint64_t seed = 12345;
    auto noise = [&seed](double sigma) {
        double sum = 0; // a sum of uniforms: close enough to Gaussian here
        for (int k = 0; k < 4; k++) {
            seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
            sum += double(seed >> 11) / 9007199254740992.0 - 0.5;
        }
        return sum * sigma * std::sqrt(3.0);
    };
    // Rows of 5-sample batches; the first `lost_head` and last `lost_tail`
    // never reach the recording.
    auto emit = [&](double seconds, int axis, double rate, int lost_head, int lost_tail) {
        const int rows = int(std::lround(seconds / 0.005));
        for (int r = 0; r < rows; r++) {
            std::array<double, 3> w{};
            std::array<double, 3> gyro_sum{}, accel_sum{};
            double temp = 0;
            for (int k = 0; k < 5; k++) {
                t += 0.001;
                if (axis >= 0) {
                    w[size_t(axis)] = rate;
                    f = rotate(f, axis, rate * 0.001);
                    field = rotate(field, axis, rate * 0.001);
                }
                const double shake = o.wobble * std::sin(2 * M_PI * 1.5 * t);
                const double temp_k = 283.15 + o.rise_k * (1 - std::exp(-(t - 100.0) / 35.0));
                const double x = temp_k - kT0;
                const auto gb = gyro_bias(x), ab = accel_bias(x);
                for (int i = 0; i < 3; i++) {
                    double g = gb[size_t(i)], a = ab[size_t(i)];
                    for (int c = 0; c < 3; c++) {
                        const double s = i == c ? scale(i, x) : kCross;
                        g += s * (w[size_t(c)] + shake);
                        a += s * f[size_t(c)];
                    }
                    gyro_sum[size_t(i)] += g / 5 + noise(0.002) / 5;
                    accel_sum[size_t(i)] += a / 5 + noise(0.01) / 5;
                }
                temp += temp_k / 5;
            }
            if (o.applied) {
                imu_calib_terms terms;
                imu_calib_terms_at(*o.applied, temp, &terms);
                float g[3] = {float(gyro_sum[0]), float(gyro_sum[1]), float(gyro_sum[2])};
                float a[3] = {float(accel_sum[0]), float(accel_sum[1]), float(accel_sum[2])};
                imu_calib_correct(g, terms.gyro_bias, terms.gyro_matrix);
                imu_calib_correct(a, terms.accel_bias, terms.accel_matrix);
                gyro_sum = {g[0], g[1], g[2]};
                accel_sum = {a[0], a[1], a[2]};
            }
            const double die = baro_temp(t - 100.0);
            const auto mb = mag_bias(die - kT0);
            char row[400];
            std::snprintf(row, sizeof row,
                          "%.6f,0x7,5,%.6f,%.6f,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.3f,%.2f,%.2f,%.4g,%.4g,%.4g\n",
                          t + 0.0002, t - 0.004, t, gyro_sum[0], gyro_sum[1], gyro_sum[2], accel_sum[0], accel_sum[1],
                          accel_sum[2], temp, kBenchPa + baro_bias(die - kT0) + noise(0.5), die,
                          field[0] + mb[0] + noise(0.15), field[1] + mb[1] + noise(0.15),
                          field[2] + mb[2] + noise(0.15));
            if (r >= lost_head && r < rows - lost_tail)
                csv += row;
        }
    };
    for (int cycle = 0; cycle < 5; cycle++)
        for (size_t i = 0; i < o.cycle.size(); i++) {
            const int lost = o.lose_samples && i == 0 ? 3 : 0;
            emit(1.0, -1, 0, 0, lost);
            emit(0.5 * o.cycle[i].quarters, o.cycle[i].axis, o.cycle[i].sign * M_PI, lost, 0);
        }
    emit(1.0, -1, 0, 0, 0);
    return csv;
}

std::string tool()
{
    return ORLUNE_CALIB_TOOL;
}

// The unit's drift found again from its recording, whether the plug-in
// delivered it uncorrected or through a set of files it applied then (the
// example factory set: --applied undoes it). The second recording lost
// samples in five turns, as a host does when its loop is held: the fit
// leaves those turns out rather than guess what the lost samples read.
TEST(CalibTool, FitFindsTheUnitsDriftAndThePlugInReadsItBack)
{
    const std::string factory = std::string(std::getenv("ORLUNE_TEST_DATA") ?: ".") + "/examples/calibration/factory";
    const std::string factory_bias = factory + "/flight_imu_thermal_bias", factory_ortho = factory + "/flight_imu_thermal_ortho";
    imu_calib *applied = imu_calib_load({{factory_bias.c_str(), nullptr}, {factory_ortho.c_str(), nullptr}});
    ASSERT_NE(applied, nullptr);
    for (const imu_calib *in_force : {static_cast<const imu_calib *>(nullptr), static_cast<const imu_calib *>(applied)}) {
        SCOPED_TRACE(in_force ? "recorded through the factory set, samples lost" : "recorded uncorrected");
        test_root root;
        write_file(root.path() + "/bench.csv", bench_recording({.applied = in_force, .lose_samples = in_force != nullptr}));
        const run_result r = run(tool() + " fit " + root.path() + "/bench.csv --out " + root.path() +
                                 " --pressure 100000 --magneto" + (in_force ? " --applied " + factory : std::string()));
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_THAT(r.output, HasSubstr(in_force ? " turns (5 more left out: samples were lost in them)\n" : " turns\n"));

        const std::string bias = root.path() + "/flight_imu_thermal_bias", ortho = root.path() + "/flight_imu_thermal_ortho";
        log_capture_start();
        imu_calib *set = imu_calib_load({{bias.c_str(), nullptr}, {ortho.c_str(), nullptr}});
        const std::vector<log_record> said = log_capture_take();
        log_capture_stop();
        ASSERT_NE(set, nullptr) << read_file(bias);
        for (const log_record &l : said)
            EXPECT_GT(l.priority, LOG_WARNING) << l.text;
        // The faces all rest from the second cycle's -x (about 300 K) to the
        // fifth's last (about 338 K).
        EXPECT_GT(set->range.temp_min, 296.0);
        EXPECT_LT(set->range.temp_min, 306.0);
        EXPECT_GT(set->range.temp_max, 334.0);
        EXPECT_LT(set->range.temp_max, 340.0);

        // Corrected readings of the true state come back to it over the range.
        for (double temp = set->range.temp_min; temp <= set->range.temp_max; temp += 2.0) {
            imu_calib_terms terms;
            imu_calib_terms_at(*set, temp, &terms);
            const double x = temp - kT0;
            const auto gb = gyro_bias(x), ab = accel_bias(x);
            for (int i = 0; i < 3; i++) {
                EXPECT_NEAR(terms.gyro_bias[i], gb[size_t(i)], 2e-4) << "gyro " << i << " at " << temp;
                EXPECT_NEAR(terms.accel_bias[i], ab[size_t(i)], 3e-3) << "accel " << i << " at " << temp;
                // M S = I: row i of M times column c of S.
                for (int c = 0; c < 3; c++) {
                    double gyro = 0, accel = 0;
                    for (int k = 0; k < 3; k++) {
                        const double s = k == c ? scale(k, x) : kCross;
                        gyro += terms.gyro_matrix[i][k] * s;
                        accel += terms.accel_matrix[i][k] * s;
                    }
                    EXPECT_NEAR(gyro, i == c ? 1.0 : 0.0, 5e-4) << "gyro M S " << i << c << " at " << temp;
                    EXPECT_NEAR(accel, i == c ? 1.0 : 0.0, 5e-4) << "accel M S " << i << c << " at " << temp;
                }
            }
        }
        imu_calib_destroy(set);
        if (in_force)
            continue;

        // The barometer's and the magnetometer's files, as the plug-in reads
        // them (the magnetometer's in mG for c0 and c1 only), over the
        // barometer die's range.
        const std::string baro_file = root.path() + "/flight_baro_thermal_bias";
        const std::string mag_file = root.path() + "/flight_magneto_thermal_bias";
        baro_calib *baro = baro_calib_load(baro_file.c_str());
        magneto_calib *mag = magneto_calib_load(mag_file.c_str());
        ASSERT_TRUE(baro && mag);
        EXPECT_LT(baro->range.temp_min, 284.0);
        EXPECT_GT(baro->range.temp_max, 320.0);
        for (double temp = baro->range.temp_min; temp <= baro->range.temp_max; temp += 2.0) {
            EXPECT_NEAR(baro_calib_bias_at(*baro, temp), baro_bias(temp - kT0), 0.3) << temp;
            double b[3];
            magneto_calib_bias_at(*mag, temp, b);
            for (size_t a = 0; a < 3; a++)
                EXPECT_NEAR(b[a], mag_bias(temp - kT0)[a], 0.05) << "magnetometer " << a << " at " << temp;
        }
        baro_calib_destroy(baro);
        magneto_calib_destroy(mag);

        // check: the numbers over the range and 10 K beyond, and a recording
        // of the uncorrected unit shows the drift as its residuals.
        const run_result c = run(tool() + " check " + root.path() + " --recording " + root.path() + "/bench.csv");
        ASSERT_EQ(c.status, 0) << c.output;
        EXPECT_THAT(c.output, HasSubstr("0 loader warnings"));
        EXPECT_THAT(c.output, ::testing::ContainsRegex("largest within the range: gyro bias 0.0[23][0-9]* rad/s"));

        // The plot, with gnuplot (scripts/deps.sh installs it) and without:
        // the numbers then, and what is missing.
        const std::string png = root.path() + "/check.png", bare = root.path() + "/bare.png";
        const run_result plotted = run(tool() + " check " + root.path() + " --plot " + png);
        ASSERT_EQ(plotted.status, 0) << plotted.output;
        EXPECT_EQ(read_file(png).substr(0, 4), "\x89PNG") << plotted.output;
        const run_result unplotted = run("env PATH=/nonexistent " + tool() + " check " + root.path() + " --plot " + bare);
        EXPECT_EQ(unplotted.status, 0) << unplotted.output;
        EXPECT_THAT(unplotted.output, HasSubstr("gnuplot is missing (Debian package gnuplot-nox): no plot, the numbers only"));
        EXPECT_THAT(unplotted.output, HasSubstr("fitted over"));
        EXPECT_FALSE(std::filesystem::exists(bare));
        EXPECT_TRUE(std::filesystem::exists(bare + ".dat"));
    }
    imu_calib_destroy(applied);
}

// A recording that cannot determine the fit, or that is not a recording.
struct refusal {
    const char *name;
    std::function<std::string()> make;
    const char *message;
};

std::string edited(const std::function<void(std::string *)> &edit)
{
    std::string text = bench_recording({});
    edit(&text);
    return text;
}

const refusal kRefusals[] = {
    {"narrow", [] { return bench_recording({.rise_k = 8.0}); }, "a thermal fit needs at least 10.0 K"},
    {"missing -x",
     [] {
         // The cycle without its two visits to -x.
         return bench_recording({.cycle = {{0, 1}, {0, 1}, {0, 1}, {2, 1}, {2, -1}, {0, 1}, {1, 1}, {1, -1}}});
     },
     "no still period on face -x"},
    {"no turn about y",
     [] { return bench_recording({.cycle = {{0, 1}, {0, 1}, {0, 1}, {2, 1}, {2, -1}, {2, -1}, {2, 1}, {0, 1}}}); },
     "no two 90° turns about the y axis"},
    {"moving", [] { return bench_recording({.wobble = 0.3}); }, "the unit is moving: it never rests still"},
    {"tilted",
     [] {
         std::vector<turn_step> cycle = kCycle;
         cycle[0].quarters = 0.5;
         return bench_recording({.cycle = cycle});
     },
     "the unit rests 45° away from its nearest face"},
    {"turned the long way",
     [] {
         std::vector<turn_step> cycle = kCycle;
         cycle[0] = {0, -1, 3.0};
         return bench_recording({.cycle = cycle});
     },
     "from face -z to face -y, where a quarter turn was expected"},
    {"truncated", [] { return edited([](std::string *t) { t->resize(t->size() * 3 / 5); }); }, "(the recording is cut short)"},
    {"missing column", [] { return edited([](std::string *t) { t->replace(t->find("gyro_z"), 6, "gyro_w"); }); },
     "no column 'gyro_z' in the header"},
    {"garbage number",
     [] {
         return edited([](std::string *t) {
             const size_t row = t->find('\n', t->size() / 2) + 1;
             const size_t field = t->find(",5,", row) + 3;
             t->insert(t->find(',', t->find(',', field) + 1) + 1, "0x1.2.3");
         });
     },
     "is not a number"},
};

TEST(CalibTool, RefusesRecordingsThatCannotDetermineTheFit)
{
    for (const refusal &c : kRefusals) {
        test_root root;
        write_file(root.path() + "/bench.csv", c.make());
        const run_result r = run(tool() + " fit " + root.path() + "/bench.csv --out " + root.path());
        EXPECT_EQ(r.status, 1) << c.name << ": " << r.output;
        EXPECT_THAT(r.output, HasSubstr(c.message)) << c.name;
        EXPECT_FALSE(std::filesystem::exists(root.path() + "/flight_imu_thermal_bias")) << c.name;
    }
}

} // namespace
