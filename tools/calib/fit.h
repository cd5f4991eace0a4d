// SPDX-License-Identifier: Apache-2.0
// The IMU's thermal polynomials fitted from a bench, and the calibration
// files that carry them, in the format the plug-in reads.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "calib/bench.h"

namespace calib {

// Coefficients c0.. of a polynomial in x = T - temp0, 1 to 4 of them.
using poly = std::vector<double>;

struct imu_fit {
    double temp0_k = 0, temp_min_k = 0, temp_max_k = 0;
    std::array<poly, 3> gyro_bias;    // rad/s, x y z
    std::array<poly, 3> accel_bias;   // m/s²
    std::array<poly, 9> gyro_matrix;  // the correction M(T), row-major
    std::array<poly, 9> accel_matrix;
    // What the fit saw: still windows and turns used, residual RMS.
    size_t windows = 0, turns = 0;
    double gyro_rms = 0, accel_rms = 0, turn_rms = 0; // rad/s, m/s², rad
};

struct fit_options {
    double min_range_k = 10.0; // the narrowest temperature range accepted
    int max_degree = 3;        // 0 to 3: the file format holds up to c3
    double gravity = kGravity; // m/s², the bench's local gravity
};

// Fits the bias polynomials and the correction matrix; false with *error
// saying what the bench lacks (a face never at rest, no turn about an axis,
// too narrow a range common to all faces).
bool fit_imu(const bench &b, const fit_options &options, imu_fit *out, std::string *error);

// Writes DIR/flight_imu_thermal_bias and DIR/flight_imu_thermal_ortho.
bool write_imu_files(const imu_fit &fit, const std::string &dir, std::string *error);

// The barometer's or the magnetometer's bias polynomials.
struct bias_fit {
    double temp0_k = 0, temp_min_k = 0, temp_max_k = 0;
    std::array<poly, 3> bias; // the barometer's in [0], Pa; the magnetometer's x y z, µT
    size_t samples = 0;
    double rms = 0; // Pa; for the magnetometer, of |field|², µT²
};

// The barometer's bias against a known pressure (the bench's, Pa), over
// the range of its die's temperature.
bool fit_baro(const std::vector<baro_row> &rows, double reference_pa, const fit_options &options, bias_fit *out,
              std::string *error);
// The magnetometer's bias over the barometer's temperature, from the field
// seen in many orientations: whatever its direction, its magnitude is the
// same once the bias is removed.
bool fit_magneto(const std::vector<mag_row> &rows, const fit_options &options, bias_fit *out, std::string *error);

// DIR/flight_baro_thermal_bias, DIR/flight_magneto_thermal_bias.
bool write_baro_file(const bias_fit &fit, const std::string &dir, std::string *error);
bool write_magneto_file(const bias_fit &fit, const std::string &dir, std::string *error);

} // namespace calib
