// SPDX-License-Identifier: Apache-2.0
// The vehicle's truth: a pure function of scenario time, so that every
// device thread samples the same state for the same instant.
#pragma once

#include <array>

#include "sim/scenario.h"

namespace sim {

using vec3 = std::array<double, 3>;
using mat3 = std::array<double, 9>; // row-major

inline constexpr double kGravity = 9.80665;           // m/s²
inline constexpr double kSeaLevelPressurePa = 101325.0;
inline constexpr double kCelsiusZeroK = 273.15;

struct truth {
    vec3 attitude{};       // roll, pitch, yaw (heading), rad
    vec3 rates{};          // body angular rates p, q, r, rad/s
    vec3 specific_force{}; // body frame (forward, right, down), m/s²
    vec3 magnetic_field{}; // body frame, gauss
    double altitude_m = 0; // above mean sea level
    double pressure_pa = 0;
};

class vehicle {
public:
    explicit vehicle(const scenario &s) : scenario_(s) {}

    // State t seconds after the scenario started; after the last phase the
    // vehicle holds its attitude and altitude.
    truth at(double t_s) const;

    // Die temperature of a device warming up from ambient.
    double die_temperature_k(const warm_up &warm, double t_s) const;

private:
    scenario scenario_;
};

// International standard atmosphere, troposphere.
double pressure_at_altitude(double altitude_m);

vec3 mat_mul(const mat3 &m, const vec3 &v);
// Inverse of a 3x3 matrix; false when it is singular.
bool mat_inverse(const mat3 &m, mat3 *out);

} // namespace sim
