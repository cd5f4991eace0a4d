// SPDX-License-Identifier: Apache-2.0
// The IMU set: files, precedence, defaults and the correction of a batch.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "calib_test_util.h"

namespace {

constexpr const char *kDataBias = "/data/flight_imu_thermal_bias";
constexpr const char *kFactoryBias = "/factory/flight_imu_thermal_bias";
constexpr const char *kDataOrtho = "/data/flight_imu_thermal_ortho";
constexpr const char *kFactoryOrtho = "/factory/flight_imu_thermal_ortho";

constexpr float kSentinel = -777.0f;

// A batch of n samples at temperature_k; slots beyond n hold a sentinel that
// the correction must not touch.
sensors_imu_data batch(unsigned n, float temperature_k, float gx, float gy, float gz, float ax, float ay, float az)
{
    sensors_imu_data d;
    memset(&d, 0, sizeof d);
    for (unsigned i = 0; i < SENSORS_IMU_MAX_SAMPLES; i++) {
        bool used = i < n;
        const float g[3] = {gx, gy, gz};
        const float a[3] = {ax, ay, az};
        for (int k = 0; k < 3; k++) {
            d.gyro[i][k] = used ? g[k] : kSentinel;
            d.accel[i][k] = used ? a[k] : kSentinel;
        }
        d.temperature[i] = used ? temperature_k : 1000.0f;
    }
    d.nb_samples = static_cast<uint8_t>(n);
    return d;
}

// Corrects d: every sample becomes (gyro, accel); the slots beyond keep the sentinel.
void expect_corrected(imu_calib *calib, sensors_imu_data d, std::array<float, 3> gyro, std::array<float, 3> accel)
{
    const unsigned n = d.nb_samples;
    ASSERT_EQ(imu_calib_apply(calib, &d), 0);
    for (unsigned i = 0; i < SENSORS_IMU_MAX_SAMPLES; i++) {
        const bool used = i < n;
        for (int k = 0; k < 3; k++) {
            EXPECT_EQ(d.gyro[i][k], used ? gyro[k] : kSentinel) << "gyro sample " << i << " axis " << k;
            EXPECT_EQ(d.accel[i][k], used ? accel[k] : kSentinel) << "accel sample " << i << " axis " << k;
        }
    }
}

TEST(ImuCalib, WithoutFilesTheCorrectionIsTheIdentity)
{
    test_root root;
    // An ortho file alone is not read: it needs the bias file's header.
    root.write(kFactoryOrtho, "Poly_GyroX_sfe_K 1 2\n");
    imu_calib_ptr calib = new_imu_calib({"no IMU thermal calibration"});
    ASSERT_TRUE(calib);

    expect_corrected(calib.get(), batch(5, 250.0f, 0.1f, -0.2f, 0.3f, 0.5f, -9.81f, 1e-3f), {0.1f, -0.2f, 0.3f},
                     {0.5f, -9.81f, 1e-3f});
}

TEST(ImuCalib, AGyroZBiasAloneShiftsOnlyGyroZAtAnyTemperature)
{
    test_root root;
    root.write(kFactoryBias, calib_header("318.15", "303.15", "333.15") + "Poly_GyroZ_bias_rad_s_K 1 0.01\n");
    imu_calib_ptr calib = new_imu_calib({using_line("IMU", "318.15", "303.15", "333.15"),
                                         "incomplete IMU bias calibration file", "no IMU ortho calibration"});
    ASSERT_TRUE(calib);

    for (float t : {250.0f, 303.15f, 318.15f, 333.15f, 400.0f}) {
        SCOPED_TRACE(t);
        expect_corrected(calib.get(), batch(2, t, 0.5f, -0.25f, 1.0f, 0.5f, -0.25f, 1.0f),
                         {0.5f, -0.25f, static_cast<float>(1.0 - 0.01)}, {0.5f, -0.25f, 1.0f});
    }
    // A batch without samples is left alone.
    expect_corrected(calib.get(), batch(0, 300.0f, 1, 2, 3, 4, 5, 6), {}, {});
}

TEST(ImuCalib, TheBatchUsesTheMeanTemperatureOfItsSamples)
{
    test_root root;
    // Bias = T - 300 on every gyro axis: a zero reading comes out as 300 - T.
    root.write(kFactoryBias, calib_header("300", "0", "1000") +
                                 "Poly_GyroX_bias_rad_s_K 2 0 1\n"
                                 "Poly_GyroY_bias_rad_s_K 2 0 1\n"
                                 "Poly_GyroZ_bias_rad_s_K 2 0 1\n");
    imu_calib_ptr calib{imu_calib_new()};
    ASSERT_TRUE(calib);
    sensors_imu_data d = batch(3, 0.0f, 0, 0, 0, 0, 0, 0);
    d.temperature[0] = 300.0f;
    d.temperature[1] = 302.0f;
    d.temperature[2] = 304.0f;
    expect_corrected(calib.get(), d, {-2.0f, -2.0f, -2.0f}, {0, 0, 0});
}

// Each matrix polynomial lands on its own entry: with the input (1, 10, 100)
// the digits of each output name the entries of its row.
TEST(ImuCalib, MatrixPolynomialsFillTheirEntriesAfterTheBias)
{
    test_root root;
    root.write(kFactoryBias, calib_header("300", "290", "310") +
                                 "Poly_GyroX_bias_rad_s_K 1 1\n"
                                 "Poly_GyroY_bias_rad_s_K 1 2\n"
                                 "Poly_GyroZ_bias_rad_s_K 1 3\n"
                                 "Poly_AccX_bias_m_s2_K 1 -1\n"
                                 "Poly_AccY_bias_m_s2_K 1 -2\n"
                                 "Poly_AccZ_bias_m_s2_K 1 -3\n");
    root.write(kFactoryOrtho, "Poly_GyroX_sfe_K 1 1\n"
                              "Poly_GyroX_ny_K 1 2\n"
                              "Poly_GyroX_nz_K 1 3\n"
                              "Poly_GyroY_nx_K 1 4\n"
                              "Poly_GyroY_sfe_K 1 5\n"
                              "Poly_GyroY_nz_K 1 6\n"
                              "Poly_GyroZ_nx_K 1 7\n"
                              "Poly_GyroZ_ny_K 1 8\n"
                              "Poly_GyroZ_sfe_K 1 9\n"
                              "Poly_AccX_sfe_K 1 9\n"
                              "Poly_AccX_ny_K 1 8\n"
                              "Poly_AccX_nz_K 1 7\n"
                              "Poly_AccY_nx_K 1 6\n"
                              "Poly_AccY_sfe_K 1 5\n"
                              "Poly_AccY_nz_K 1 4\n"
                              "Poly_AccZ_nx_K 1 3\n"
                              "Poly_AccZ_ny_K 1 2\n"
                              "Poly_AccZ_sfe_K 1 1\n");
    imu_calib_ptr calib = new_imu_calib({using_line("IMU", "300.00", "290.00", "310.00")});
    ASSERT_TRUE(calib);

    expect_corrected(calib.get(), batch(4, 300.0f, 2, 12, 103, 0, 8, 97), {321, 654, 987}, {789, 456, 123});
}

TEST(ImuCalib, AnOmittedScaleFactorStaysOne)
{
    test_root root;
    root.write(kFactoryBias, calib_header("300", "290", "310"));
    std::string ortho;
    for (const char *name : {"Poly_GyroX_sfe_K", "Poly_GyroY_sfe_K", "Poly_GyroZ_sfe_K", "Poly_AccX_sfe_K",
                             "Poly_AccZ_sfe_K"})
        ortho += std::string(name) + " 1 2\n";
    root.write(kFactoryOrtho, ortho);
    imu_calib_ptr calib = new_imu_calib({using_line("IMU", "300.00", "290.00", "310.00"),
                                         "incomplete IMU bias calibration file",
                                         "incomplete IMU ortho calibration file"});
    ASSERT_TRUE(calib);

    expect_corrected(calib.get(), batch(1, 300.0f, 1, 1, 1, 1, 1, 1), {2, 2, 2}, {2, 1, 2});
}

// 1 + 2x + 3x^2 (x = T - 300 K) characterised on [310, 330] K: inside the
// range the polynomial, outside the tangent at the nearer bound.
TEST(ImuCalib, OutsideTheRangeTheBiasFollowsTheTangent)
{
    test_root root;
    root.write(kFactoryBias, calib_header("300", "310", "330") + "Poly_AccY_bias_m_s2_K 3 1 2 3\n");
    // A scale factor of 1 + x/100 extends linearly as well.
    root.write(kFactoryOrtho, "Poly_AccY_sfe_K 2 1 0.01\n");
    imu_calib_ptr calib{imu_calib_new()};
    ASSERT_TRUE(calib);
    struct row {
        float t;
        double bias;
        double sfe;
    };
    const row rows[] = {
        {300.0f, 321.0 - 10 * 62.0, 1.0}, // temp_min - 10 K: value there - 10 * slope there
        {310.0f, 321.0, 1.1},
        {320.0f, 1241.0, 1.2},
        {330.0f, 2761.0, 1.3},
        {335.0f, 2761.0 + 5 * 182.0, 1.35},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.t);
        sensors_imu_data d = batch(1, r.t, 0, 0, 0, 0, 0, 0);
        ASSERT_EQ(imu_calib_apply(calib.get(), &d), 0);
        EXPECT_FLOAT_EQ(d.accel[0][1], static_cast<float>(r.sfe * -r.bias));
        EXPECT_EQ(d.accel[0][0], 0.0f);
        EXPECT_EQ(d.accel[0][2], 0.0f);
    }
}

TEST(ImuCalib, TheFieldCopyWinsOverTheFactoryCopy)
{
    test_root root;
    // The factory bias copy would fail creation (bad header) if it were read;
    // the factory ortho copy (doubling the gyro) serves while no field copy exists.
    root.write(kFactoryBias, "not a calibration file\n");
    root.write(kFactoryOrtho, "Poly_GyroX_sfe_K 1 2\nPoly_GyroY_sfe_K 1 2\nPoly_GyroZ_sfe_K 1 2\n");
    root.write(kDataBias, calib_header("300", "290", "310") + "Poly_GyroX_bias_rad_s_K 1 0.5\n");
    strings messages{"using " + root.at(kDataBias), using_line("IMU", "300.00", "290.00", "310.00"),
                     "incomplete IMU bias calibration file", "incomplete IMU ortho calibration file"};
    imu_calib_ptr calib = new_imu_calib(messages);
    ASSERT_TRUE(calib);
    expect_corrected(calib.get(), batch(1, 300.0f, 1, 1, 1, 1, 1, 1), {1.0f, 2, 2}, {1, 1, 1});

    root.write(kDataOrtho, "Poly_GyroZ_sfe_K 1 4\n");
    messages.insert(messages.end() - 1, "using " + root.at(kDataOrtho));
    calib = new_imu_calib(messages);
    ASSERT_TRUE(calib);
    expect_corrected(calib.get(), batch(1, 300.0f, 1, 1, 1, 1, 1, 1), {0.5f, 1, 4}, {1, 1, 1});
}

// Any known name is taken from either file, and counts for the file it is in.
TEST(ImuCalib, NamesAreLookedUpAcrossBothFiles)
{
    test_root root;
    std::string bias = calib_header("300", "290", "310");
    for (const char *name : {"Poly_GyroX_bias_rad_s_K", "Poly_GyroY_bias_rad_s_K", "Poly_GyroZ_bias_rad_s_K",
                             "Poly_AccX_bias_m_s2_K", "Poly_AccY_bias_m_s2_K"})
        bias += std::string(name) + " 1 0\n";
    bias += "Poly_AccX_sfe_K 1 3\n";
    root.write(kFactoryBias, bias);
    root.write(kFactoryOrtho, "Poly_AccZ_bias_m_s2_K 1 1\n");
    imu_calib_ptr calib =
        new_imu_calib({using_line("IMU", "300.00", "290.00", "310.00"), "incomplete IMU ortho calibration file"});
    ASSERT_TRUE(calib);
    expect_corrected(calib.get(), batch(1, 300.0f, 0, 0, 0, 1, 1, 1), {0, 0, 0}, {3, 1, 0});
}

} // namespace
