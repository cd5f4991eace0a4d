// SPDX-License-Identifier: Apache-2.0
// The simulated brushless motor controller: four motors whose speed and PWM
// follow the commanded speeds, a controller status that ramps on start and
// brakes on stop, per-motor error codes, a supply voltage that sags under
// load and a flight-time counter that grows while the motors spin.
//
// Samples are scans of a triggered buffer (one per trigger period, stamped on
// the monotonic clock like the IMU's); commands and information are device
// attributes. Channels, attributes and status values: docs/motors.md.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "sim/iio_devices.h"

namespace sim {

// Controller status values carried by the "status" channel.
enum motor_status : int {
    MOTOR_STATUS_BOOT = 0,     // not ready yet
    MOTOR_STATUS_IDLE = 1,     // motors stopped, ready
    MOTOR_STATUS_RAMPING = 2,  // start accepted, motors ramping up
    MOTOR_STATUS_SPINNING = 3, // spinning at the idle speed
    MOTOR_STATUS_FLYING = 4,   // spinning at commanded speeds
    MOTOR_STATUS_BRAKING = 5,  // stop accepted, motors braking
    MOTOR_STATUS_FAULT = 6,    // a motor error stopped the controller; see the detail
};

// Detail values of the "detail" channel while the status is FAULT.
enum motor_detail : int {
    MOTOR_DETAIL_NONE = 0,
    MOTOR_DETAIL_FAULT_BRAKING = 4, // motors still coasting down after the fault
    MOTOR_DETAIL_FAULT_STOPPED = 5, // motors at rest after the fault
};

class motor_model final : public device_model {
public:
    motor_model(const scenario_device &setup, uint64_t seed);

    void sample(const vehicle &truth, double t_s, uint64_t noise_key, int64_t *raw) const override;
    int write_attr(const std::string &file, const std::string &value, double t_s) override;
    bool read_attr(const std::string &file, double t_s, std::string *value) const override;
    int arm_fault(const scenario_fault &fault, double t_s) override;

    static constexpr int kMotors = 4;
    static constexpr double kIdleSpeed = 3000;   // controller units (rpm) after a ramp
    static constexpr double kMaxSpeed = 12000;   // highest speed a command may ask
    static constexpr double kSpeedTauS = 0.08;   // first-order response of a motor
    static constexpr double kBootS = 0.1;        // BOOT lasts this long after power-up
    static constexpr double kRampS = 0.3;        // RAMPING before SPINNING
    static constexpr double kBrakeS = 0.25;      // BRAKING before IDLE
    static constexpr double kSagVolts = 1.5;     // supply sag with every motor at full PWM

private:
    struct motor_error {
        int code = 0;
        double until_s = 0;
    };
    struct state {
        double t_s = 0;
        int status = MOTOR_STATUS_BOOT;
        int detail = MOTOR_DETAIL_NONE;
        double status_since_s = 0;
        std::array<double, kMotors> speed{};
        std::array<double, kMotors> commanded{}; // 0: the idle speed
        double flight_time_s = 0;
        int last_error = 0;
        bool single_stall = false;
    };

    // Brings the state to t_s (earlier times read the state as it stands).
    void advance(double t_s) const;
    void enter(int status, int detail, double t_s) const;
    int active_error(int motor, double t_s) const;
    bool any_error(double t_s) const;
    double voltage() const;
    unsigned pwm(int motor) const;

    mutable state st_;
    std::array<motor_error, kMotors> errors_{};
};

} // namespace sim
