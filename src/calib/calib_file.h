// SPDX-License-Identifier: Apache-2.0
// Thermal calibration files and temperature polynomials.
//
// A calibration file is plain text: for bias files a two-line header
// ("Temp_0_K <t0>", "Temp_Min_Max_K <min> <max>"), then one coefficient line
// per polynomial: "<name> <count> <c0> [<c1> [<c2> [<c3>]]]". A polynomial is
// evaluated in x = T - temp0, T being the sensor temperature in kelvin.
//
// This header is shared by the three calibration sets and by code outside the
// plug-in (the virtual vehicle applies the inverse of a set, the fuzz target
// feeds files), so it is plain C++ that needs nothing else of the plug-in.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>

#include "common/owned.h"
#include "platform/log.h"

// A line declares at most c0..c3.
inline constexpr uint32_t kCalibMaxCoeffs = 4;
// Longest polynomial name a line may carry (the name field is read with %32s).
inline constexpr int kCalibNameMax = 32;

// Characterised range assumed when a file gives none: 30 to 60 degrees Celsius.
inline constexpr double kCalibDefaultTempMinK = 303.15;
inline constexpr double kCalibDefaultTempMaxK = 333.15;

struct calib_poly {
    uint8_t valid;                         // 1 once a line (or a default) set it
    uint32_t count;                        // coefficients in use, 0..4
    double coefficients[kCalibMaxCoeffs];  // c0..c3, those beyond count are 0
};

// The tangent lines that continue a polynomial outside [temp_min, temp_max].
struct calib_extrap {
    double value_lo;
    double slope_lo;
    double value_hi;
    double slope_hi;
};

// Reference temperature and characterised range of a set, kelvin.
struct calib_range {
    double temp0;
    double temp_min;
    double temp_max;
};

inline constexpr calib_range kCalibDefaultRange{0.0, kCalibDefaultTempMinK, kCalibDefaultTempMaxK};

// P(x) = c0 + c1 x + c2 x^2 + c3 x^3 limited to the polynomial's count, the
// powers formed by repeated multiplication from 1.0. Count 0 gives 0.
inline double calib_poly_eval(const calib_poly &poly, double x)
{
    uint32_t count = poly.count < kCalibMaxCoeffs ? poly.count : kCalibMaxCoeffs;
    double value = 0.0;
    double power = 1.0;
    for (uint32_t k = 0; k < count; k++) {
        value += poly.coefficients[k] * power;
        power *= x;
    }
    return value;
}

// Value and slope of the polynomial at temp_min and temp_max; all zero for a
// polynomial never loaded.
calib_extrap compute_linear_extrap_coefs(const calib_poly &poly, const calib_range &range);

// The polynomial inside [temp_min, temp_max] (bounds included), its tangent
// line at the nearer bound outside.
inline double calib_poly_eval_extrap(const calib_poly &poly, const calib_extrap &extrap, const calib_range &range,
                                     double temperature_k)
{
    if (temperature_k >= range.temp_min && temperature_k <= range.temp_max)
        return calib_poly_eval(poly, temperature_k - range.temp0);
    if (temperature_k <= range.temp_min)
        return extrap.value_lo + extrap.slope_lo * (temperature_k - range.temp_min);
    return extrap.value_hi + extrap.slope_hi * (temperature_k - range.temp_max);
}

// One known polynomial of a set: the loader stores an accepted line named
// `name` into *poly and raises *largest to its count.
struct calib_slot {
    const char *name;
    calib_poly *poly;
    uint32_t *largest;
};

inline void calib_close(FILE *file)
{
    fclose(file);
}
// A calibration file open for reading, closed at scope exit.
using calib_file = owned<FILE, calib_close>;

// Opens for reading the first of paths that opens (null entries are skipped);
// null when none does. Logs "using <path>" at info level when the first
// candidate, the field copy, is the one used and log_first is set.
FILE *calib_open_first(const log_tag &tag, std::span<const char *const> paths, bool log_first);

// Reads the two header lines into range. Returns 0, or -EINVAL after the
// warning that says what is missing; range is only written on success.
int calib_read_header(FILE *file, const log_tag &tag, calib_range *range);

// Reads every remaining line as a coefficient line and stores the accepted
// ones with a known name. c0 and c1 of each accepted line are divided by
// c01_divisor before the name lookup (1.0 keeps them as written). Returns
// the number of lines that matched a known name.
int calib_read_polys(FILE *file, const log_tag &tag, std::span<const calib_slot> slots, double c01_divisor);

// The end-of-file check of a set: a largest count above 4 logs
// "Number of coeff declared in calibration file is too high" and makes the
// file count as matching nothing. Returns the matched count to use.
int calib_check_largest(const log_tag &tag, uint32_t largest, int matched);
