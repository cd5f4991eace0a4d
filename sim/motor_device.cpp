// SPDX-License-Identifier: Apache-2.0
#include "sim/motor_device.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <limits>

namespace sim {
namespace {

constexpr scan_format kU8{false, 8, 1};
constexpr scan_format kU16{false, 16, 2};
constexpr scan_format kS64{true, 64, 8};

// The state is integrated in steps no longer than this (one trigger period
// at the default 200 Hz).
constexpr double kStepS = 0.005;

bool spinning_status(int status)
{
    return status == MOTOR_STATUS_RAMPING || status == MOTOR_STATUS_SPINNING || status == MOTOR_STATUS_FLYING;
}

bool parse_long(const std::string &text, long lo, long hi, long *out)
{
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || errno || *end || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

} // namespace

motor_model::motor_model(const scenario_device &setup, uint64_t seed) : device_model(setup, seed)
{
    blocking_ = true;
    for (int m = 0; m < kMotors; m++)
        channels_.push_back({"speed" + std::to_string(m), kU16, {}});
    for (int m = 0; m < kMotors; m++)
        channels_.push_back({"pwm" + std::to_string(m), kU8, {}});
    for (int m = 0; m < kMotors; m++)
        channels_.push_back({"error" + std::to_string(m), kU8, {}});
    channels_.push_back({"status", kU8, {}});
    channels_.push_back({"detail", kU8, {}});
    channels_.push_back({"voltage", kU16, {{"scale", "in_voltage_scale"}}});
    channels_.push_back({"timestamp", kS64, {}});
    device_attrs_ = {"sampling_frequency", "spin", "stop", "speeds", "single_stall", "spin_dir", "fw_major",
                     "fw_minor", "fw_type", "fw_build", "hw_version", "info_extra", "flight_time", "last_error"};
    add_value("sampling_frequency", std::to_string(setup.sampling_frequency));
    // Millivolts per unit of the voltage channel.
    add_value("in_voltage_scale", "1");
    // Front-left and rear-right turn clockwise (0), the other two counter-clockwise (1).
    add_value("spin_dir", "0 1 0 1");
    add_value("fw_major", "2");
    add_value("fw_minor", "7");
    add_value("fw_type", "R");
    add_value("fw_build", "1312");
    add_value("hw_version", "5");
    add_value("info_extra", "17 4242");
    st_.flight_time_s = setup.flight_time_s;
}

int motor_model::active_error(int motor, double t_s) const
{
    const motor_error &e = errors_[static_cast<size_t>(motor)];
    return e.code != 0 && t_s < e.until_s ? e.code : 0;
}

bool motor_model::any_error(double t_s) const
{
    for (int m = 0; m < kMotors; m++)
        if (active_error(m, t_s))
            return true;
    return false;
}

void motor_model::enter(int status, int detail, double t_s) const
{
    st_.status = status;
    st_.detail = detail;
    st_.status_since_s = t_s;
}

void motor_model::advance(double t_s) const
{
    while (st_.t_s < t_s) {
        const double t = std::min(t_s, st_.t_s + kStepS);
        const double dt = t - st_.t_s;
        const double in_status = t - st_.status_since_s;
        const bool fault = any_error(t);
        switch (st_.status) {
        case MOTOR_STATUS_BOOT:
            if (in_status >= kBootS)
                enter(fault ? MOTOR_STATUS_FAULT : MOTOR_STATUS_IDLE,
                      fault ? MOTOR_DETAIL_FAULT_STOPPED : MOTOR_DETAIL_NONE, t);
            break;
        case MOTOR_STATUS_IDLE:
            if (fault)
                enter(MOTOR_STATUS_FAULT, MOTOR_DETAIL_FAULT_STOPPED, t);
            break;
        case MOTOR_STATUS_RAMPING:
        case MOTOR_STATUS_SPINNING:
        case MOTOR_STATUS_FLYING:
            // With single-motor-stall handling on, a motor error in flight
            // stops only that motor.
            if (fault && !(st_.single_stall && st_.status == MOTOR_STATUS_FLYING))
                enter(MOTOR_STATUS_FAULT, MOTOR_DETAIL_FAULT_BRAKING, t);
            else if (st_.status == MOTOR_STATUS_RAMPING && in_status >= kRampS)
                enter(MOTOR_STATUS_SPINNING, MOTOR_DETAIL_NONE, t);
            break;
        case MOTOR_STATUS_BRAKING:
            if (in_status >= kBrakeS)
                enter(MOTOR_STATUS_IDLE, MOTOR_DETAIL_NONE, t);
            break;
        case MOTOR_STATUS_FAULT:
            if (st_.detail == MOTOR_DETAIL_FAULT_BRAKING && in_status >= kBrakeS)
                enter(MOTOR_STATUS_FAULT, MOTOR_DETAIL_FAULT_STOPPED, t);
            else if (st_.detail == MOTOR_DETAIL_FAULT_STOPPED && !fault)
                enter(MOTOR_STATUS_IDLE, MOTOR_DETAIL_NONE, t);
            break;
        default:
            break;
        }
        const double follow = 1.0 - std::exp(-dt / kSpeedTauS);
        for (int m = 0; m < kMotors; m++) {
            double target = 0;
            if (spinning_status(st_.status) && !active_error(m, t)) {
                const double asked = st_.commanded[static_cast<size_t>(m)];
                target = st_.status == MOTOR_STATUS_FLYING && asked > 0 ? std::clamp(asked, kIdleSpeed, kMaxSpeed)
                                                                         : kIdleSpeed;
            }
            double &speed = st_.speed[static_cast<size_t>(m)];
            speed += (target - speed) * follow;
            if (speed < 1.0)
                speed = 0;
        }
        if (spinning_status(st_.status))
            st_.flight_time_s += dt;
        st_.t_s = t;
    }
}

unsigned motor_model::pwm(int motor) const
{
    return static_cast<unsigned>(std::lround(st_.speed[static_cast<size_t>(motor)] / kMaxSpeed * 255.0));
}

double motor_model::voltage() const
{
    double load = 0;
    for (int m = 0; m < kMotors; m++)
        load += pwm(m) / 255.0;
    return setup_.supply_voltage - kSagVolts * load / kMotors;
}

void motor_model::sample(const vehicle &, double t_s, uint64_t, int64_t *raw) const
{
    advance(t_s);
    for (int m = 0; m < kMotors; m++) {
        raw[m] = std::lround(st_.speed[static_cast<size_t>(m)]);
        raw[kMotors + m] = pwm(m);
        raw[2 * kMotors + m] = active_error(m, t_s);
    }
    raw[3 * kMotors] = st_.status;
    raw[3 * kMotors + 1] = st_.detail;
    raw[3 * kMotors + 2] = std::lround(voltage() * 1000.0);
}

int motor_model::write_attr(const std::string &file, const std::string &value, double t_s)
{
    advance(t_s);
    long v = 0;
    if (file == "spin") {
        if (!parse_long(value, 1, 1, &v))
            return -EINVAL;
        if (st_.status == MOTOR_STATUS_BOOT)
            return -EBUSY;
        if (st_.status == MOTOR_STATUS_IDLE)
            enter(MOTOR_STATUS_RAMPING, MOTOR_DETAIL_NONE, t_s);
        return 0;
    }
    if (file == "stop") {
        // The stop code (0 a plain stop) only matters to the controller's log.
        if (!parse_long(value, 0, 255, &v))
            return -EINVAL;
        if (spinning_status(st_.status))
            enter(MOTOR_STATUS_BRAKING, MOTOR_DETAIL_NONE, t_s);
        return 0;
    }
    if (file == "speeds") {
        unsigned s[kMotors];
        char tail = 0;
        if (std::sscanf(value.c_str(), "%u %u %u %u %c", &s[0], &s[1], &s[2], &s[3], &tail) != kMotors)
            return -EINVAL;
        bool any = false;
        for (int m = 0; m < kMotors; m++) {
            if (s[m] > 65535)
                return -EINVAL;
            st_.commanded[static_cast<size_t>(m)] = s[m];
            any = any || s[m] > 0;
        }
        if (st_.status == MOTOR_STATUS_SPINNING && any)
            enter(MOTOR_STATUS_FLYING, MOTOR_DETAIL_NONE, t_s);
        else if (st_.status == MOTOR_STATUS_FLYING && !any)
            enter(MOTOR_STATUS_SPINNING, MOTOR_DETAIL_NONE, t_s);
        return 0;
    }
    if (file == "single_stall") {
        if (!parse_long(value, 0, 1, &v))
            return -EINVAL;
        st_.single_stall = v != 0;
        return 0;
    }
    return -EACCES;
}

bool motor_model::read_attr(const std::string &file, double t_s, std::string *value) const
{
    if (file == "flight_time") {
        advance(t_s);
        *value = std::to_string(static_cast<long>(st_.flight_time_s));
        return true;
    }
    if (file == "last_error") {
        *value = std::to_string(st_.last_error);
        return true;
    }
    if (file == "spin" || file == "stop" || file == "speeds" || file == "single_stall") {
        // Commands read back as the state they set.
        advance(t_s);
        char text[64];
        if (file == "speeds")
            std::snprintf(text, sizeof text, "%.0f %.0f %.0f %.0f", st_.commanded[0], st_.commanded[1],
                          st_.commanded[2], st_.commanded[3]);
        else if (file == "single_stall")
            std::snprintf(text, sizeof text, "%d", st_.single_stall ? 1 : 0);
        else
            std::snprintf(text, sizeof text, "%d", spinning_status(st_.status) == (file == "spin") ? 1 : 0);
        *value = text;
        return true;
    }
    return false;
}

int motor_model::arm_fault(const scenario_fault &fault, double t_s)
{
    if (fault.kind != fault_kind::motor_error || fault.motor < 0 || fault.motor >= kMotors)
        return -EINVAL;
    advance(t_s);
    motor_error &e = errors_[static_cast<size_t>(fault.motor)];
    e.code = fault.code;
    e.until_s = fault.duration_s > 0 ? t_s + fault.duration_s : std::numeric_limits<double>::infinity();
    if (fault.code)
        st_.last_error = fault.code;
    return 0;
}

} // namespace sim
