// SPDX-License-Identifier: Apache-2.0
#include "sim/iio_devices.h"

#include <algorithm>
#include <cerrno>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>

#include "sim/motor_device.h"
#include "sim/thermal.h"

namespace sim {
namespace {

constexpr scan_format kS16{true, 16, 2};
constexpr scan_format kU24{false, 24, 4};
constexpr scan_format kS64{true, 64, 8};

channel_desc timestamp_channel()
{
    return {"timestamp", kS64, {}};
}

uint64_t splitmix64(uint64_t x)
{
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// The six-axis IMU: 16-bit accel and gyro, die temperature, batched by its
// trigger's rate divider. Temperature in kelvin is (raw + offset) x scale +
// 273.15, so its scale is in degrees per unit.
class imu_model final : public device_model {
public:
    imu_model(const scenario_device &setup, uint64_t seed) : device_model(setup, seed)
    {
        blocking_ = true;
        const std::string matrix = mount_matrix_text(setup.mount_matrix);
        for (const char *axis : {"x", "y", "z"})
            channels_.push_back({std::string("accel_") + axis, kS16,
                                 {{"raw", std::string("in_accel_") + axis + "_raw"},
                                  {"scale", "in_accel_scale"},
                                  {"mount_matrix", "in_accel_mount_matrix"}}});
        for (const char *axis : {"x", "y", "z"})
            channels_.push_back({std::string("anglvel_") + axis, kS16,
                                 {{"raw", std::string("in_anglvel_") + axis + "_raw"},
                                  {"scale", "in_anglvel_scale"},
                                  {"mount_matrix", "in_anglvel_mount_matrix"}}});
        channels_.push_back(
            {"temp0", kS16, {{"raw", "in_temp0_raw"}, {"scale", "in_temp0_scale"}, {"offset", "in_temp0_offset"}}});
        channels_.push_back(timestamp_channel());
        device_attrs_ = {"sampling_frequency"};
        trigger_attrs_ = {"rate_divider"};
        // +-8 g and +-2000 deg/s full scale over 16 bits.
        add_value("in_accel_scale", "0.002394202");
        add_value("in_anglvel_scale", "0.001065264");
        add_value("in_temp0_scale", "0.002941176");
        add_value("in_temp0_offset", "12420");
        add_value("in_accel_mount_matrix", matrix);
        add_value("in_anglvel_mount_matrix", matrix);
        add_value("sampling_frequency", std::to_string(setup.sampling_frequency));
        add_value("rate_divider", std::to_string(setup.rate_divider));
        accel_scale_ = value_of("in_accel_scale");
        gyro_scale_ = value_of("in_anglvel_scale");
        temp_scale_ = value_of("in_temp0_scale");
        temp_offset_ = value_of("in_temp0_offset");
    }

    void sample(const vehicle &v, double t_s, uint64_t key, int64_t *raw) const override
    {
        const truth t = v.at(t_s);
        const double temp_k = v.die_temperature_k(setup_.warm, t_s);
        std::array<double, 6> values{t.specific_force[0], t.specific_force[1], t.specific_force[2],
                                     t.rates[0],          t.rates[1],          t.rates[2]};
        if (!thermal_in_sensor_axes)
            uncalibrate(values, temp_k);
        vec3 accel = unmount({values[0], values[1], values[2]});
        vec3 gyro = unmount({values[3], values[4], values[5]});
        if (thermal_in_sensor_axes) {
            values = {accel[0], accel[1], accel[2], gyro[0], gyro[1], gyro[2]};
            uncalibrate(values, temp_k);
            accel = {values[0], values[1], values[2]};
            gyro = {values[3], values[4], values[5]};
        }
        for (unsigned i = 0; i < 3; i++) {
            raw[i] = to_raw(accel[i] / accel_scale_ + noise(key, i), i);
            raw[3 + i] = to_raw(gyro[i] / gyro_scale_ + noise(key, 3 + i), 3 + i);
        }
        raw[6] = to_raw((temp_k - kCelsiusZeroK) / temp_scale_ - temp_offset_, 6);
    }

private:
    double accel_scale_, gyro_scale_, temp_scale_, temp_offset_;
};

// The barometer: 24-bit pressure in kilopascal per unit, temperature in
// milli-degrees per unit; polled.
class baro_model final : public device_model {
public:
    baro_model(const scenario_device &setup, uint64_t seed) : device_model(setup, seed)
    {
        channels_.push_back({"pressure0", kU24, {{"raw", "in_pressure0_raw"}, {"scale", "in_pressure0_scale"}}});
        channels_.push_back({"temp1", kS16, {{"raw", "in_temp1_raw"}, {"scale", "in_temp1_scale"}}});
        channels_.push_back(timestamp_channel());
        device_attrs_ = {"sampling_frequency"};
        add_value("in_pressure0_scale", "0.0000244140625");
        add_value("in_temp1_scale", "10");
        add_value("sampling_frequency", std::to_string(setup.sampling_frequency));
        pressure_pa_per_unit_ = value_of("in_pressure0_scale") * 1000.0;
        temp_deg_per_unit_ = value_of("in_temp1_scale") / 1000.0;
    }

    void sample(const vehicle &v, double t_s, uint64_t key, int64_t *raw) const override
    {
        const double temp_k = v.die_temperature_k(setup_.warm, t_s);
        std::array<double, 1> pressure{v.at(t_s).pressure_pa};
        uncalibrate(pressure, temp_k);
        raw[0] = to_raw(pressure[0] / pressure_pa_per_unit_ + noise(key, 0), 0);
        raw[1] = to_raw((temp_k - kCelsiusZeroK) / temp_deg_per_unit_, 1);
    }

private:
    double pressure_pa_per_unit_, temp_deg_per_unit_;
};

// The magnetometer: gauss per unit on each axis, one mounting matrix for the
// whole device (in_mount_matrix), temperature in milli-degrees per unit.
class magneto_model final : public device_model {
public:
    magneto_model(const scenario_device &setup, uint64_t seed) : device_model(setup, seed)
    {
        for (const char *axis : {"x", "y", "z"})
            channels_.push_back({std::string("magn_") + axis, kS16,
                                 {{"raw", std::string("in_magn_") + axis + "_raw"},
                                  {"scale", std::string("in_magn_") + axis + "_scale"},
                                  {"mount_matrix", "in_mount_matrix"}}});
        channels_.push_back(
            {"temp0", kS16, {{"raw", "in_temp0_raw"}, {"scale", "in_temp0_scale"}, {"offset", "in_temp0_offset"}}});
        channels_.push_back(timestamp_channel());
        device_attrs_ = {"sampling_frequency"};
        add_value("in_magn_x_scale", "0.001");
        add_value("in_magn_y_scale", "0.001");
        add_value("in_magn_z_scale", "0.00125");
        add_value("in_temp0_scale", "125");
        add_value("in_temp0_offset", "200");
        add_value("in_mount_matrix", mount_matrix_text(setup.mount_matrix));
        add_value("sampling_frequency", std::to_string(setup.sampling_frequency));
        scales_ = {value_of("in_magn_x_scale"), value_of("in_magn_y_scale"), value_of("in_magn_z_scale")};
        temp_mdeg_per_unit_ = value_of("in_temp0_scale");
        temp_offset_ = value_of("in_temp0_offset");
    }

    void sample(const vehicle &v, double t_s, uint64_t key, int64_t *raw) const override
    {
        const double temp_k = v.die_temperature_k(setup_.warm, t_s);
        const double calib_k = calibration_die_ ? v.die_temperature_k(*calibration_die_, t_s) : temp_k;
        const vec3 field = v.at(t_s).magnetic_field;
        constexpr double kMicroteslaPerGauss = 100.0;
        std::array<double, 3> ut{field[0] * kMicroteslaPerGauss, field[1] * kMicroteslaPerGauss,
                                 field[2] * kMicroteslaPerGauss};
        if (!thermal_in_sensor_axes)
            uncalibrate(ut, calib_k);
        vec3 sensor = unmount({ut[0] / kMicroteslaPerGauss, ut[1] / kMicroteslaPerGauss, ut[2] / kMicroteslaPerGauss});
        if (thermal_in_sensor_axes) {
            ut = {sensor[0] * kMicroteslaPerGauss, sensor[1] * kMicroteslaPerGauss, sensor[2] * kMicroteslaPerGauss};
            uncalibrate(ut, calib_k);
            sensor = {ut[0] / kMicroteslaPerGauss, ut[1] / kMicroteslaPerGauss, ut[2] / kMicroteslaPerGauss};
        }
        for (unsigned i = 0; i < 3; i++)
            raw[i] = to_raw(sensor[i] / scales_[i] + noise(key, i), i);
        raw[3] = to_raw((temp_k - kCelsiusZeroK) * 1000.0 / temp_mdeg_per_unit_ - temp_offset_, 3);
    }

    // The die whose temperature the thermal inverse runs at, when it is
    // not the magnetometer's own.
    std::optional<warm_up> calibration_die_;

private:
    vec3 scales_;
    double temp_mdeg_per_unit_, temp_offset_;
};

} // namespace

bool calibrate_at_die_of(device_model &model, const warm_up &die)
{
    auto *magneto = dynamic_cast<magneto_model *>(&model);
    if (!magneto)
        return false;
    magneto->calibration_die_ = die;
    return true;
}

namespace {

using model_factory = std::unique_ptr<device_model> (*)(const scenario_device &, uint64_t);

template <typename M>
std::unique_ptr<device_model> make(const scenario_device &setup, uint64_t seed)
{
    return std::make_unique<M>(setup, seed);
}

struct model_entry {
    device_kind kind;
    model_factory factory;
};

constexpr std::array<model_entry, 4> kModels{{
    {device_kind::imu, &make<imu_model>},
    {device_kind::baro, &make<baro_model>},
    {device_kind::magneto, &make<magneto_model>},
    {device_kind::motors, &make<motor_model>},
}};

} // namespace

int device_model::write_attr(const std::string &, const std::string &, double)
{
    return -EACCES;
}

bool device_model::read_attr(const std::string &, double, std::string *) const
{
    return false;
}

int device_model::arm_fault(const scenario_fault &, double)
{
    return -EINVAL;
}

double device_model::value_of(const std::string &file) const
{
    for (const auto &[name, value] : values_)
        if (name == file)
            return std::strtod(value.c_str(), nullptr);
    return 0.0;
}

double device_model::noise(uint64_t key, unsigned channel) const
{
    if (setup_.noise_counts <= 0.0)
        return 0.0;
    const uint64_t a = splitmix64(seed_ ^ splitmix64(key * 16 + channel));
    const uint64_t b = splitmix64(a);
    // Box-Muller on two uniforms in (0, 1].
    const double u1 = (static_cast<double>(a >> 11) + 1.0) / 9007199254740992.0;
    const double u2 = static_cast<double>(b >> 11) / 9007199254740992.0;
    return setup_.noise_counts * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * M_PI * u2);
}

int64_t device_model::to_raw(double counts, unsigned channel) const
{
    const scan_format &f = channels_[channel].format;
    const double lo = f.is_signed ? -std::ldexp(1.0, static_cast<int>(f.bits) - 1) : 0.0;
    const double hi = f.is_signed ? std::ldexp(1.0, static_cast<int>(f.bits) - 1) - 1.0
                                  : std::ldexp(1.0, static_cast<int>(f.bits)) - 1.0;
    if (!std::isfinite(counts))
        return 0;
    return static_cast<int64_t>(std::clamp(std::round(counts), lo, hi));
}

void device_model::uncalibrate(std::span<double> values, double temp_k) const
{
    if (thermal)
        thermal(values, temp_k);
}

vec3 device_model::unmount(const vec3 &vehicle_axes) const
{
    return mat_mul(unmount_, vehicle_axes);
}

std::unique_ptr<device_model> make_device_model(const scenario_device &setup, uint64_t seed)
{
    mat3 inverse;
    if (!mat_inverse(setup.mount_matrix, &inverse))
        return nullptr;
    for (const model_entry &e : kModels) {
        if (e.kind == setup.kind) {
            std::unique_ptr<device_model> m = e.factory(setup, seed);
            m->unmount_ = inverse;
            // Every scan is stamped on the monotonic clock, as a kernel does
            // once the device selects it.
            m->device_attrs_.push_back("current_timestamp_clock");
            m->add_value("current_timestamp_clock", "monotonic");
            return m;
        }
    }
    return nullptr;
}

std::string mount_matrix_text(const mat3 &m)
{
    std::string out;
    char number[32];
    for (size_t i = 0; i < m.size(); i++) {
        std::snprintf(number, sizeof number, "%g", m[i] == 0.0 ? 0.0 : m[i]);
        out += number;
        if (i == 8)
            break;
        out += (i % 3 == 2) ? "; " : ", ";
    }
    return out;
}

} // namespace sim
