// SPDX-License-Identifier: Apache-2.0
// The file format shared by the three sets: polynomial evaluation, tangent
// lines, header and coefficient line rules.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "calib_test_util.h"

namespace {

TEST(CalibPoly, EvaluatesOnlyTheDeclaredTerms)
{
    const calib_poly p4{1, 4, {1.0, 2.0, 3.0, 4.0}};
    struct row {
        uint32_t count;
        double x;
        double expected;
    };
    const row rows[] = {
        {0, 2.0, 0.0}, {1, 2.0, 1.0}, {2, 2.0, 5.0}, {3, 2.0, 17.0}, {4, 2.0, 49.0}, {4, -1.0, -2.0}, {4, 0.0, 1.0},
    };
    for (const row &r : rows) {
        calib_poly p = p4;
        p.count = r.count;
        EXPECT_EQ(calib_poly_eval(p, r.x), r.expected) << "count " << r.count << " x " << r.x;
    }
}

TEST(CalibPoly, TangentOfShortOrUnloadedPolynomials)
{
    const calib_range range{300.0, 310.0, 330.0};
    // A constant is its own tangent; a polynomial never loaded has none, whatever it holds.
    const std::pair<calib_poly, double> rows[] = {{{1, 1, {7.0, 0, 0, 0}}, 7.0}, {{0, 2, {7.0, 1.0, 0, 0}}, 0.0}};
    for (const auto &[poly, value] : rows) {
        calib_extrap e = compute_linear_extrap_coefs(poly, range);
        EXPECT_EQ(std::tie(e.value_lo, e.slope_lo, e.value_hi, e.slope_hi), std::make_tuple(value, 0.0, value, 0.0))
            << "valid " << int(poly.valid);
    }
}

// Coefficient lines, read through the barometer set (one known name).
TEST(CalibLines, OnlyLinesWhoseCountMatchesTheirNumbersAreAccepted)
{
    const std::string name32 = "Poly_Baro_bias_Pa_K_0123456789ab";
    const std::string name33 = "Poly_Baro_bias_Pa_K_0123456789abc";
    ASSERT_EQ(name32.size(), 32u);
    struct row {
        std::string line;
        bool accepted;
        bool unknown;
        uint32_t count;
        double c[4];
    };
    const row rows[] = {
        {"Poly_Baro_bias_Pa_K 2 -12.5 0.31\n", true, false, 2, {-12.5, 0.31, 0, 0}},
        {"Poly_Baro_bias_Pa_K 4 1 2 3 4 5\n", true, false, 4, {1, 2, 3, 4}},
        {"Poly_Baro_bias_Pa_K 0\n", true, false, 0, {0, 0, 0, 0}},
        {"  Poly_Baro_bias_Pa_K\t1   -3e2", true, false, 1, {-300, 0, 0, 0}},
        {"Poly_Baro_bias_Pa_K 3 1 2\n", false, false, 0, {}},
        {"Poly_Baro_bias_Pa_K 2 1 2 3\n", false, false, 0, {}},
        {"Poly_Baro_bias_Pa_K 5 1 2 3 4 5\n", false, false, 0, {}},
        {"Poly_Baro_bias_Pa_K 1 abc\n", false, false, 0, {}},
        {"Poly_Baro_bias_Pa_K\n", false, false, 0, {}},
        {"\n", false, false, 0, {}},
        {"# Poly_Baro_bias_Pa_K 1 5\n", false, false, 0, {}},
        {name33 + " 1 5\n", false, false, 0, {}},
        {name32 + " 1 5\n", true, true, 0, {}},
        {"poly_baro_bias_pa_k 1 5\n", true, true, 0, {}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.line);
        test_root root;
        root.write("/factory/flight_baro_thermal_bias", calib_header("300", "303.15", "333.15") + r.line);
        bool stored = r.accepted && !r.unknown;
        strings messages{using_line("Baro", "300.00", "303.15", "333.15")};
        if (!stored) {
            const char *why = r.accepted ? "ignoring unknown calibration line: " : "invalid calibration coeffs line: ";
            messages.push_back(why + r.line);
            messages.push_back("incomplete baro bias calibration file (0)");
        }
        baro_calib_ptr calib = new_baro_calib(messages);
        ASSERT_TRUE(calib);
        EXPECT_EQ(calib->bias.valid, stored ? 1 : 0);
        EXPECT_EQ(calib->largest_count, stored ? r.count : 0u);
        EXPECT_EQ(calib->bias.count, stored ? r.count : 0u);
        for (int k = 0; k < 4; k++)
            EXPECT_EQ(calib->bias.coefficients[k], stored ? r.c[k] : 0.0) << k;
    }
}

TEST(CalibLines, ARepeatedNameKeepsItsLastLineAndCountsTwice)
{
    test_root root;
    root.write("/factory/flight_baro_thermal_bias", calib_header("300", "303.15", "333.15") +
                                                        "Poly_Baro_bias_Pa_K 3 1 2 3\n"
                                                        "Poly_Baro_bias_Pa_K 1 4\n");
    baro_calib_ptr calib = new_baro_calib(
        {using_line("Baro", "300.00", "303.15", "333.15"), "incomplete baro bias calibration file (2)"});
    ASSERT_TRUE(calib);
    EXPECT_EQ(calib->bias.count, 1u);
    EXPECT_EQ(calib->bias.coefficients[0], 4.0);
    EXPECT_EQ(calib->bias.coefficients[1], 0.0);
    // The largest count remembers the replaced line.
    EXPECT_EQ(calib->largest_count, 3u);
}

TEST(CalibLines, ALargestCountAboveFourDiscardsTheMatchedLines)
{
    constexpr log_tag tag{"baro_calib"};
    log_capture cap;
    EXPECT_EQ(calib_check_largest(tag, 4, 1), 1);
    EXPECT_EQ(calib_check_largest(tag, 5, 1), 0);
    EXPECT_EQ(cap.texts("baro_calib"), strings{"Number of coeff declared in calibration file is too high"});
}

// A bad header fails the creation of every set, with the warning that says
// what is missing.
TEST(CalibHeader, BadHeadersFailEverySet)
{
    struct row {
        std::string content;
        std::string warning;
    };
    const row rows[] = {
        {"", "no line for calibration Temp_0_K found"},
        {"Temp_0 300\nTemp_Min_Max_K 303.15 333.15\n", "no calibration Temp_0_K found"},
        {"\nTemp_0_K 300\nTemp_Min_Max_K 303.15 333.15\n", "no calibration Temp_0_K found"},
        {"Temp_0_K\nTemp_Min_Max_K 303.15 333.15\n", "no calibration Temp_0_K found"},
        {"Temp_0_K 300\n", "no calibration temperature range found"},
        {"Temp_0_K 300\nTemp_Min_Max_K 303.15\n", "no enough parameter for calibration temperature range found"},
        {"Temp_0_K 300\nTemp_Range_K 303.15 333.15\n", "no enough parameter for calibration temperature range found"},
        {"Temp_0_K 300\nPoly_Baro_bias_Pa_K 1 5\n", "no enough parameter for calibration temperature range found"},
    };
    struct set {
        const char *file;
        const char *tag;
        std::function<bool()> create;
    };
    const set sets[] = {
        {"/factory/flight_imu_thermal_bias", "imu_calib", [] { return imu_calib_ptr{imu_calib_new()} != nullptr; }},
        {"/data/flight_imu_thermal_bias", "imu_calib", [] { return imu_calib_ptr{imu_calib_new()} != nullptr; }},
        {"/factory/flight_baro_thermal_bias", "baro_calib", [] { return baro_calib_ptr{baro_calib_new()} != nullptr; }},
        {"/factory/flight_magneto_thermal_bias", "magneto_calib",
         [] { return magneto_calib_ptr{magneto_calib_new()} != nullptr; }},
    };
    for (const set &s : sets) {
        for (const row &r : rows) {
            SCOPED_TRACE(std::string(s.file) + ": " + r.content);
            test_root root;
            root.write(s.file, r.content);
            log_capture cap;
            EXPECT_FALSE(s.create());
            strings texts = cap.texts(s.tag);
            ASSERT_FALSE(texts.empty());
            EXPECT_EQ(texts.back(), r.warning);
        }
    }
}

} // namespace
