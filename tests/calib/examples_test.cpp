// SPDX-License-Identifier: Apache-2.0
// The example field and factory sets load without complaint, and the inverse
// of each set (what the virtual vehicle applies to true values) is undone by
// the correction.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "calib_test_util.h"

namespace {

namespace fs = std::filesystem;

// Copies examples/calibration/{data,factory} into the root.
void install_examples(const test_root &root, bool with_field_set)
{
    const char *source = getenv("ORLUNE_TEST_DATA");
    ASSERT_NE(source, nullptr);
    fs::path examples = fs::path(source) / "examples" / "calibration";
    fs::copy(examples / "factory", root.at("/factory"), fs::copy_options::recursive);
    if (with_field_set)
        fs::copy(examples / "data", root.at("/data"), fs::copy_options::recursive);
}

// Solves m * out = v by Cramer's rule.
void solve3(const double m[3][3], const double v[3], double out[3])
{
    auto det = [](const double a[3][3]) {
        return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) - a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
               a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    };
    double d = det(m);
    for (int col = 0; col < 3; col++) {
        double a[3][3];
        for (int r = 0; r < 3; r++)
            for (int c = 0; c < 3; c++)
                a[r][c] = c == col ? v[r] : m[r][c];
        out[col] = det(a) / d;
    }
}

// Raw reading that the set corrects into truth: m^-1 * truth + bias.
void raw_from_truth(const double m[3][3], const double bias[3], const double truth[3], float raw[3])
{
    double unscaled[3];
    solve3(m, truth, unscaled);
    for (int k = 0; k < 3; k++)
        raw[k] = static_cast<float>(unscaled[k] + bias[k]);
}

TEST(CalibExamples, TheFieldImuSetWinsAndLoadsCompletely)
{
    test_root root;
    install_examples(root, true);
    imu_calib_ptr calib = new_imu_calib({"using " + root.at("/data/flight_imu_thermal_bias"),
                                         using_line("IMU", "313.15", "298.15", "338.15"),
                                         "using " + root.at("/data/flight_imu_thermal_ortho")});
    ASSERT_TRUE(calib);
    for (const imu_calib_poly &p : calib->bias)
        EXPECT_EQ(p.poly.valid, 1);
    for (const imu_calib_poly &p : calib->matrix)
        EXPECT_EQ(p.poly.valid, 1);
}

TEST(CalibExamples, TheImuCorrectionUndoesTheInverseAcrossTemperatures)
{
    test_root root;
    install_examples(root, false);
    imu_calib_ptr calib = new_imu_calib({using_line("IMU", "318.15", "303.15", "333.15")});
    ASSERT_TRUE(calib);

    const double gyro_truth[3] = {0.35, -0.12, 1.75};   // rad/s
    const double accel_truth[3] = {0.42, -0.31, -9.81}; // m/s^2
    for (float t : {288.15f, 303.15f, 321.4f, 333.15f, 345.0f}) {
        SCOPED_TRACE(t);
        imu_calib_terms terms;
        imu_calib_terms_at(*calib, t, &terms);
        sensors_imu_data d{};
        d.nb_samples = 2;
        for (int i = 0; i < 2; i++) {
            d.temperature[i] = t;
            raw_from_truth(terms.gyro_matrix, terms.gyro_bias, gyro_truth, d.gyro[i]);
            raw_from_truth(terms.accel_matrix, terms.accel_bias, accel_truth, d.accel[i]);
        }
        // The set changes the readings noticeably ...
        EXPECT_GT(std::abs(d.accel[0][2] - accel_truth[2]), 0.01);
        ASSERT_EQ(imu_calib_apply(calib.get(), &d), 0);
        // ... and the correction brings them back to the truth within f32 rounding.
        for (int i = 0; i < 2; i++)
            for (int k = 0; k < 3; k++) {
                EXPECT_NEAR(d.gyro[i][k], gyro_truth[k], 1e-6) << i << " " << k;
                EXPECT_NEAR(d.accel[i][k], accel_truth[k], 1e-5) << i << " " << k;
            }
    }
}

TEST(CalibExamples, BarometerAndMagnetometerUndoTheirBias)
{
    test_root root;
    install_examples(root, true);
    baro_calib_ptr baro = new_baro_calib({using_line("Baro", "318.15", "303.15", "333.15")});
    ASSERT_TRUE(baro);
    magneto_calib_ptr magneto = new_magneto_calib({using_line("magneto", "318.15", "303.15", "333.15")});
    ASSERT_TRUE(magneto);

    for (float t : {263.15f, 318.15f, 340.0f}) {
        SCOPED_TRACE(t);
        const double pressure = 97250.0;
        double bias = baro_calib_bias_at(*baro, t);
        EXPECT_GT(std::abs(bias), 1.0);
        sensors_baro_data b{};
        b.pressure = static_cast<float>(pressure + bias);
        b.temperature = t;
        ASSERT_EQ(baro_calib_apply(baro.get(), &b), 0);
        EXPECT_NEAR(b.pressure, pressure, 0.02);

        const double field_truth[3] = {21.5, -3.2, 42.7}; // uT
        double field_bias[3];
        magneto_calib_bias_at(*magneto, t, field_bias);
        float field[3];
        for (int k = 0; k < 3; k++) {
            EXPECT_GT(std::abs(field_bias[k]), 0.5) << k;
            field[k] = static_cast<float>(field_truth[k] + field_bias[k]);
        }
        ASSERT_EQ(magneto_calib_apply(magneto.get(), field, t), 0);
        for (int k = 0; k < 3; k++)
            EXPECT_NEAR(field[k], field_truth[k], 1e-5) << k;
    }
}

} // namespace
