// SPDX-License-Identifier: Apache-2.0
#include "sim/vehicle.h"

#include <algorithm>
#include <cmath>

namespace sim {

truth vehicle::at(double t_s) const
{
    truth out;
    vec3 euler{0.0, 0.0, scenario_.initial_heading_rad};
    vec3 euler_rates{};
    double altitude = scenario_.ground_altitude_m;
    double start = 0.0;
    for (const scenario_phase &p : scenario_.phases) {
        double in_phase = std::clamp(t_s - start, 0.0, p.duration_s);
        euler[0] += p.roll_rate * in_phase;
        euler[1] += p.pitch_rate * in_phase;
        euler[2] += p.yaw_rate * in_phase;
        altitude += p.climb_rate * in_phase;
        if (t_s >= start && t_s < start + p.duration_s)
            euler_rates = {p.roll_rate, p.pitch_rate, p.yaw_rate};
        start += p.duration_s;
    }
    const double sr = std::sin(euler[0]), cr = std::cos(euler[0]);
    const double sp = std::sin(euler[1]), cp = std::cos(euler[1]);
    const double sy = std::sin(euler[2]), cy = std::cos(euler[2]);

    // Body rates from Euler angle rates (yaw-pitch-roll order).
    out.rates = {euler_rates[0] - euler_rates[2] * sp,
                 euler_rates[1] * cr + euler_rates[2] * sr * cp,
                 -euler_rates[1] * sr + euler_rates[2] * cr * cp};

    // Body-to-NED rotation; its transpose brings NED vectors into the body.
    const mat3 r_nb{cy * cp, cy * sp * sr - sy * cr, cy * sp * cr + sy * sr,
                    sy * cp, sy * sp * sr + cy * cr, sy * sp * cr - cy * sr,
                    -sp,     cp * sr,                cp * cr};
    auto to_body = [&](const vec3 &n) {
        return vec3{r_nb[0] * n[0] + r_nb[3] * n[1] + r_nb[6] * n[2],
                    r_nb[1] * n[0] + r_nb[4] * n[1] + r_nb[7] * n[2],
                    r_nb[2] * n[0] + r_nb[5] * n[1] + r_nb[8] * n[2]};
    };
    // Phases fly at constant velocity: the accelerometer feels gravity only.
    out.specific_force = to_body({0.0, 0.0, -kGravity});
    out.magnetic_field = to_body(scenario_.earth_field_gauss);
    out.attitude = euler;
    out.altitude_m = altitude;
    out.pressure_pa = pressure_at_altitude(altitude);
    return out;
}

double vehicle::die_temperature_k(const warm_up &warm, double t_s) const
{
    return scenario_.ambient_k + warm.rise_k * (1.0 - std::exp(-std::max(t_s, 0.0) / warm.time_constant_s));
}

double pressure_at_altitude(double altitude_m)
{
    return kSeaLevelPressurePa * std::pow(1.0 - 2.25577e-5 * altitude_m, 5.25588);
}

vec3 mat_mul(const mat3 &m, const vec3 &v)
{
    return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
            m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}

bool mat_inverse(const mat3 &m, mat3 *out)
{
    const double c00 = m[4] * m[8] - m[5] * m[7];
    const double c01 = m[5] * m[6] - m[3] * m[8];
    const double c02 = m[3] * m[7] - m[4] * m[6];
    const double det = m[0] * c00 + m[1] * c01 + m[2] * c02;
    if (std::fabs(det) < 1e-12)
        return false;
    const double k = 1.0 / det;
    *out = {c00 * k, (m[2] * m[7] - m[1] * m[8]) * k, (m[1] * m[5] - m[2] * m[4]) * k,
            c01 * k, (m[0] * m[8] - m[2] * m[6]) * k, (m[2] * m[3] - m[0] * m[5]) * k,
            c02 * k, (m[1] * m[6] - m[0] * m[7]) * k, (m[0] * m[4] - m[1] * m[3]) * k};
    return true;
}

} // namespace sim
