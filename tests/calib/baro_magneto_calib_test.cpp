// SPDX-License-Identifier: Apache-2.0
// The barometer and magnetometer sets: factory file only, plain polynomial at
// any temperature, the barometer's f32 rounding per term, the magnetometer's
// milligauss coefficients.
#include <gtest/gtest.h>

#include <cerrno>

#include "calib_test_util.h"

namespace {

constexpr const char *kBaroFile = "/factory/flight_baro_thermal_bias";
constexpr const char *kMagnetoFile = "/factory/flight_magneto_thermal_bias";

// The pressure of a sample after correction; the rest of it passes unchanged.
float corrected(baro_calib *calib, float pressure_pa, float temperature_k)
{
    sensors_baro_data d{};
    d.pressure = pressure_pa;
    d.temperature = temperature_k;
    d.flags = 3;
    EXPECT_EQ(baro_calib_apply(calib, &d), 0);
    EXPECT_EQ(d.temperature, temperature_k);
    EXPECT_EQ(d.flags, 3u);
    return d.pressure;
}

TEST(BaroCalib, SubtractsThePolynomialAtAnyTemperature)
{
    test_root root;
    root.write(kBaroFile, calib_header("298.15", "303.15", "333.15") + "Poly_Baro_bias_Pa_K 2 12.5 0.5\n");
    baro_calib_ptr calib = new_baro_calib({using_line("Baro", "298.15", "303.15", "333.15")});
    ASSERT_TRUE(calib);

    EXPECT_EQ(corrected(calib.get(), 101325.0f, 308.15f), 101307.5f);

    // Far outside the characterised range: still the polynomial, no clamping.
    for (float t : {400.0f, 200.0f})
        EXPECT_NEAR(corrected(calib.get(), 101325.0f, t), 101325.0 - 12.5 - 0.5 * (t - 298.15), 0.008) << t;
}

// At 101325 Pa an f32 step is 0.0078125 Pa: two terms of 0.003 Pa each vanish
// when the pressure is rounded after each term, not when they are summed first.
TEST(BaroCalib, ThePressureIsRoundedAfterEachTerm)
{
    test_root root;
    root.write(kBaroFile, calib_header("300", "303.15", "333.15") + "Poly_Baro_bias_Pa_K 2 0.003 0.0003\n");
    baro_calib_ptr calib{baro_calib_new()};
    ASSERT_TRUE(calib);
    EXPECT_EQ(corrected(calib.get(), 101325.0f, 310.0f), 101325.0f);
    EXPECT_NEAR(baro_calib_bias_at(*calib, 310.0), 0.006, 1e-12);
}

TEST(BaroCalib, WithoutAPolynomialThePressurePassesUnchanged)
{
    struct row {
        const char *fixed; // the file written, null for none
        std::string content;
        strings messages;
    };
    const row rows[] = {
        {nullptr, "", {"no BARO thermal calibration"}},
        // The barometer has no field calibration: a /data copy is not read.
        {"/data/flight_baro_thermal_bias", calib_header("300", "303.15", "333.15") + "Poly_Baro_bias_Pa_K 1 100\n",
         {"no BARO thermal calibration"}},
        {kBaroFile, calib_header("300", "303.15", "333.15") + "Poly_Baro_bias_mbar_K 1 100\n",
         {using_line("Baro", "300.00", "303.15", "333.15"),
          "ignoring unknown calibration line: Poly_Baro_bias_mbar_K 1 100\n",
          "incomplete baro bias calibration file (0)"}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.content);
        test_root root;
        if (r.fixed)
            root.write(r.fixed, r.content);
        baro_calib_ptr calib = new_baro_calib(r.messages);
        ASSERT_TRUE(calib);
        EXPECT_EQ(corrected(calib.get(), 99000.25f, 320.0f), 99000.25f);
    }
}

TEST(MagnetoCalib, MilligaussConstantAndLinearTermsAreStoredInMicrotesla)
{
    test_root root;
    root.write(kMagnetoFile, calib_header("300", "303.15", "333.15") +
                                 "Poly_MagX_bias_mG_K 2 50 -2\n"
                                 "Poly_MagY_bias_mG_K 4 10 20 0.5 0.25\n"
                                 "Poly_MagZ_bias_mG_K 1 -30\n");
    magneto_calib_ptr calib = new_magneto_calib({using_line("magneto", "300.00", "303.15", "333.15")});
    ASSERT_TRUE(calib);

    // x = 10 K: x loses 5 - 2 = 3 uT, y loses 1 + 20 + 50 + 250 (c2 and c3
    // as written), z gains 3.
    float field[3] = {10.0f, 400.0f, -7.0f};
    ASSERT_EQ(magneto_calib_apply(calib.get(), field, 310.0f), 0);
    EXPECT_EQ(field[0], 7.0f);
    EXPECT_EQ(field[1], 79.0f);
    EXPECT_EQ(field[2], -4.0f);

    // 0 K, as when the barometer gives no temperature: x = -300 K.
    float cold[3] = {0.0f, 0.0f, 0.0f};
    ASSERT_EQ(magneto_calib_apply(calib.get(), cold, 0.0f), 0);
    EXPECT_EQ(cold[0], -65.0f);
    EXPECT_EQ(cold[1], -(1.0f - 600.0f + 45000.0f - 6750000.0f));
    EXPECT_EQ(cold[2], 3.0f);
}

TEST(MagnetoCalib, MissingOrIncompleteFiles)
{
    struct row {
        std::string content; // empty: no file
        strings messages;
        float expected_x;
    };
    const std::string header = calib_header("300", "303.15", "333.15");
    const std::string using_header = using_line("magneto", "300.00", "303.15", "333.15");
    const row rows[] = {
        {"", {"no magneto thermal calibration"}, 12.5f},
        {header, {using_header, "incomplete magneto bias calibration file"}, 12.5f},
        {header + "Poly_MagX_bias_mG_K 1 25\nPoly_MagZ_bias_mG_K 3 1 2\n",
         {using_header, "invalid calibration coeffs line: Poly_MagZ_bias_mG_K 3 1 2\n",
          "incomplete magneto bias calibration file"},
         10.0f},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.content);
        test_root root;
        if (!r.content.empty())
            root.write(kMagnetoFile, r.content);
        magneto_calib_ptr calib = new_magneto_calib(r.messages);
        ASSERT_TRUE(calib);
        float field[3] = {12.5f, -3.25f, 0.125f};
        ASSERT_EQ(magneto_calib_apply(calib.get(), field, 320.0f), 0);
        EXPECT_EQ(field[0], r.expected_x);
        EXPECT_EQ(field[1], -3.25f);
        EXPECT_EQ(field[2], 0.125f);
    }
}

TEST(CalibSets, NullArgumentsAreRefused)
{
    test_root root;
    imu_calib_ptr imu{imu_calib_new()};
    baro_calib_ptr baro{baro_calib_new()};
    magneto_calib_ptr magneto{magneto_calib_new()};
    ASSERT_TRUE(imu && baro && magneto);
    sensors_imu_data imu_data{};
    sensors_baro_data baro_data{};
    float field[3] = {};
    EXPECT_EQ(imu_calib_apply(nullptr, &imu_data), -EINVAL);
    EXPECT_EQ(imu_calib_apply(imu.get(), nullptr), -EINVAL);
    EXPECT_EQ(baro_calib_apply(nullptr, &baro_data), -EINVAL);
    EXPECT_EQ(baro_calib_apply(baro.get(), nullptr), -EINVAL);
    EXPECT_EQ(magneto_calib_apply(nullptr, field, 300.0f), -EINVAL);
    EXPECT_EQ(magneto_calib_apply(magneto.get(), nullptr, 300.0f), -EINVAL);
    imu_calib_destroy(nullptr);
    baro_calib_destroy(nullptr);
    magneto_calib_destroy(nullptr);
}

} // namespace
