// SPDX-License-Identifier: Apache-2.0
#include "sim/thermal.h"

#include <array>
#include <cerrno>
#include <memory>
#include <span>

#include "calib/calib_sets.h"

namespace sim {

namespace {

// The calibration sets outlive the server's sampling threads: the inverses
// hold them by shared pointer.
template <typename T, void (*Destroy)(T *)>
std::shared_ptr<T> share(T *p)
{
    return std::shared_ptr<T>(p, Destroy);
}

// The plug-in computes out = M (raw - b): the sensor read raw = M^-1 out + b.
void uncalibrate_vector(double *values, const double matrix[3][3], const double bias[3])
{
    mat3 m{};
    for (int r = 0; r < 3; r++)
        for (int c = 0; c < 3; c++)
            m[size_t(r * 3 + c)] = matrix[r][c];
    mat3 inverse;
    if (!mat_inverse(m, &inverse))
        return; // a singular calibration matrix: leave the truth as it is
    vec3 raw = mat_mul(inverse, vec3{values[0], values[1], values[2]});
    for (int a = 0; a < 3; a++)
        values[a] = raw[size_t(a)] + bias[a];
}

// reading = S(T) truth + b(T) for one vector; an empty entry of S is 1 on
// the diagonal and 0 elsewhere.
void drift_vector(double *values, const std::array<drift_poly, 9> &scale, const std::array<drift_poly, 3> &bias,
                  double x)
{
    const double truth[3] = {values[0], values[1], values[2]};
    for (size_t r = 0; r < 3; r++) {
        double out = drift_poly_eval(bias[r], x);
        for (size_t c = 0; c < 3; c++) {
            const drift_poly &entry = scale[r * 3 + c];
            out += (entry.empty() ? (r == c ? 1.0 : 0.0) : drift_poly_eval(entry, x)) * truth[c];
        }
        values[r] = out;
    }
}

// The unit's own drift as the device's thermal stage.
void install_drift(device_model &model, device_kind kind, const unit_drift &drift)
{
    switch (kind) {
    case device_kind::imu:
        model.thermal = [drift](std::span<double> values, double temp_k) {
            const double x = temp_k - drift.temp0_k;
            drift_vector(&values[0], drift.accel_scale, drift.accel_bias, x);
            drift_vector(&values[3], drift.gyro_scale, drift.gyro_bias, x);
        };
        break;
    case device_kind::baro:
        model.thermal = [drift](std::span<double> values, double temp_k) {
            values[0] += drift_poly_eval(drift.pressure_bias, temp_k - drift.temp0_k);
        };
        break;
    case device_kind::magneto:
        model.thermal = [drift](std::span<double> values, double temp_k) {
            for (size_t a = 0; a < 3; a++)
                values[a] += drift_poly_eval(drift.field_bias[a], temp_k - drift.temp0_k);
        };
        break;
    default:
        break;
    }
}

} // namespace

int install_thermal_inverses(iiod_server &server, const scenario &s, std::string *error)
{
    for (const scenario_device &d : s.devices) {
        device_model *model = server.model(d.name);
        if (!model)
            continue;
        if (d.drift) {
            install_drift(*model, d.kind, *d.drift);
            if (d.kind == device_kind::magneto)
                for (const scenario_device &other : s.devices)
                    if (other.kind == device_kind::baro) {
                        calibrate_at_die_of(*model, other.warm);
                        break;
                    }
            continue;
        }
        switch (d.kind) {
        case device_kind::imu: {
            auto set = share<imu_calib, imu_calib_destroy>(imu_calib_new());
            if (!set) {
                *error = "the IMU calibration files are unusable";
                return -EINVAL;
            }
            model->thermal = [set](std::span<double> values, double temp_k) {
                imu_calib_terms terms;
                imu_calib_terms_at(*set, temp_k, &terms);
                uncalibrate_vector(&values[0], terms.accel_matrix, terms.accel_bias);
                uncalibrate_vector(&values[3], terms.gyro_matrix, terms.gyro_bias);
            };
            break;
        }
        case device_kind::baro: {
            auto set = share<baro_calib, baro_calib_destroy>(baro_calib_new());
            if (!set) {
                *error = "the barometer calibration file is unusable";
                return -EINVAL;
            }
            model->thermal = [set](std::span<double> values, double temp_k) {
                values[0] += baro_calib_bias_at(*set, temp_k);
            };
            break;
        }
        case device_kind::magneto: {
            auto set = share<magneto_calib, magneto_calib_destroy>(magneto_calib_new());
            if (!set) {
                *error = "the magnetometer calibration file is unusable";
                return -EINVAL;
            }
            model->thermal = [set](std::span<double> values, double temp_k) {
                double bias[3];
                magneto_calib_bias_at(*set, temp_k, bias);
                for (int a = 0; a < 3; a++)
                    values[size_t(a)] += bias[a];
            };
            // The plug-in corrects the field at the barometer's temperature.
            for (const scenario_device &other : s.devices)
                if (other.kind == device_kind::baro) {
                    calibrate_at_die_of(*model, other.warm);
                    break;
                }
            break;
        }
        default: // no thermal calibration
            break;
        }
    }
    return 0;
}

} // namespace sim
