// SPDX-License-Identifier: Apache-2.0
// The three calibration sets as records, their loaders from explicit paths,
// and the evaluation of a set at a temperature.
//
// The exported functions of sensors/calib.h read the fixed files (relocated
// by ORLUNE_ROOT). Code that wants another place (the virtual vehicle reading
// the example files, tests) calls the *_load functions with resolved paths,
// and the *_terms_at / *_bias_at functions to know what a set subtracts and
// multiplies at a temperature, for instance to apply its inverse.
#pragma once

#include <sensors/calib.h>

#include <cstdint>

#include "calib/calib_file.h"

inline constexpr int kImuBiasPolys = 6;
inline constexpr int kImuMatrixPolys = 18;
inline constexpr int kMagnetoPolys = 3;

// An IMU polynomial with its tangent lines outside the characterised range.
struct imu_calib_poly {
    calib_poly poly;
    calib_extrap extrap;
};

struct imu_calib {
    calib_range range;
    uint32_t largest_count; // over bias and matrix polynomials; starts at 1
    // gyro x, y, z (rad/s) then accel x, y, z (m/s^2)
    imu_calib_poly bias[kImuBiasPolys];
    uint32_t bias_largest_count; // starts at 0
    // gyro sfe x, y, z, ny_x, nz_x, nx_y, nz_y, nx_z, ny_z, then the same for accel
    imu_calib_poly matrix[kImuMatrixPolys];
    uint32_t matrix_largest_count; // starts at 1
};

struct baro_calib {
    calib_range range;
    calib_poly bias; // Pa
    uint32_t largest_count;
};

struct magneto_calib {
    calib_range range;
    calib_poly bias[kMagnetoPolys]; // x, y, z; coefficients c0 and c1 in uT, c2 and c3 as in the file
    uint32_t largest_count;
};

// Candidate files of the IMU set, each in order of precedence (field copy
// first); null entries are skipped.
struct imu_calib_paths {
    const char *bias[2];
    const char *ortho[2];
};

// Null on allocation failure or a bad bias file header; a missing file
// leaves the defaults (identity correction).
imu_calib *imu_calib_load(const imu_calib_paths &paths);
// path may be null (no file): the set then changes nothing.
baro_calib *baro_calib_load(const char *path);
magneto_calib *magneto_calib_load(const char *path);

// What the IMU set does at one temperature: reading' = matrix * (reading - bias).
struct imu_calib_terms {
    double gyro_bias[3];        // rad/s
    double accel_bias[3];       // m/s^2
    double gyro_matrix[3][3];   // [output axis][input axis]
    double accel_matrix[3][3];
};

// Evaluates the 24 polynomials at temperature_k, with the linear
// extrapolation outside the characterised range.
void imu_calib_terms_at(const imu_calib &calib, double temperature_k, imu_calib_terms *terms);

// The one temperature a batch is corrected at: the mean of its first n
// samples' (n > 0), summed in double in sample order.
inline double imu_calib_batch_temperature(const sensors_imu_data &imu, unsigned n)
{
    double sum = 0.0;
    for (unsigned i = 0; i < n; i++)
        sum += imu.temperature[i];
    return sum / n;
}

// v = m * (v - bias), in double, stored as f32.
inline void imu_calib_correct(float v[3], const double bias[3], const double m[3][3])
{
    const double x = double(v[0]) - bias[0];
    const double y = double(v[1]) - bias[1];
    const double z = double(v[2]) - bias[2];
    v[0] = static_cast<float>(m[0][0] * x + m[0][1] * y + m[0][2] * z);
    v[1] = static_cast<float>(m[1][0] * x + m[1][1] * y + m[1][2] * z);
    v[2] = static_cast<float>(m[2][0] * x + m[2][1] * y + m[2][2] * z);
}

// Pressure bias (Pa) subtracted at temperature_k, summed in double. The
// correction itself rounds the pressure to f32 after each term.
double baro_calib_bias_at(const baro_calib &calib, double temperature_k);

// Field bias (uT) subtracted from x, y, z at temperature_k.
void magneto_calib_bias_at(const magneto_calib &calib, double temperature_k, double bias[3]);
