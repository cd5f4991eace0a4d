// SPDX-License-Identifier: Apache-2.0
// What the virtual vehicle does: its simulated IIO devices, the flight
// phases that drive the truth, and the faults scripted in time.
#pragma once

#include <libconfig.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sim {

// Each kind has one device model (iio_devices.h); a new kind is one more row
// in kDeviceKinds and one more model.
enum class device_kind { imu, baro, magneto, motors };

enum class fault_kind { refill_error, short_batch, stall, disconnect, motor_error };

// Die temperature: ambient + rise * (1 - exp(-t / time_constant)).
struct warm_up {
    double rise_k = 0.0;
    double time_constant_s = 60.0;
};

// A polynomial of the die temperature T in x = T - temp0, coefficients in
// ascending powers; empty: the entry's default (0, or 1 on a diagonal).
using drift_poly = std::vector<double>;

double drift_poly_eval(const drift_poly &poly, double x);

// How a unit drifts for real: what the sensor adds and multiplies, known to
// the simulator only. A reading is S(T) truth + b(T), in the axes its thermal
// stage works in (the vehicle's by default). With one, the device ignores the
// calibration files, so a recording shows the unit as it is.
struct unit_drift {
    double temp0_k = 318.15;
    std::array<drift_poly, 3> gyro_bias;   // rad/s, x y z
    std::array<drift_poly, 3> accel_bias;  // m/s²
    std::array<drift_poly, 9> gyro_scale;  // row-major, row: output axis
    std::array<drift_poly, 9> accel_scale;
    drift_poly pressure_bias;              // Pa
    std::array<drift_poly, 3> field_bias;  // µT, x y z
};

struct scenario_device {
    device_kind kind = device_kind::imu;
    std::string name;             // IIO device name
    std::string trigger;          // name of its trigger device
    int sampling_frequency = 100; // Hz
    int rate_divider = 1;         // IMU: scans per trigger batch
    // Mounting matrix, row-major: vehicle vector = matrix x sensor vector.
    std::array<double, 9> mount_matrix{1, 0, 0, 0, 1, 0, 0, 0, 1};
    double noise_counts = 0.0; // standard deviation of the added noise, in raw counts
    warm_up warm;
    // Motor controller: supply voltage with the motors at rest (V), and its
    // flight-time counter at start-up (s).
    double supply_voltage = 12.6;
    int flight_time_s = 0;
    // Time from a scan's stamp to the moment a client can read it (bus
    // transfer, driver work), s; unset: the kind's default, see
    // delivery_delay_ns.
    std::optional<double> delivery_delay_s;
    // Attribute values (by sysfs file name) that replace the model's own, for
    // a device tree that reports odd ones (a zero or NaN scale). Only what the
    // device reports changes; its samples are still made with its own values.
    std::vector<std::pair<std::string, std::string>> attributes;
    // The unit's own thermal drift; unset: the inverse of the calibration
    // files (thermal.h).
    std::optional<unit_drift> drift;
};

struct scenario_phase {
    std::string name;
    double duration_s = 0.0;
    // Euler angle rates (roll, pitch, yaw), rad/s, and vertical speed, m/s up.
    double roll_rate = 0.0;
    double pitch_rate = 0.0;
    double yaw_rate = 0.0;
    double climb_rate = 0.0;
};

struct scenario_fault {
    double at_s = 0.0; // scenario time at which the fault is armed
    fault_kind kind = fault_kind::refill_error;
    std::string device; // device name; empty for disconnect
    int error = 5;      // refill-error: positive errno of the reply
    int scans = 1;      // short-batch: scans delivered
    int count = 1;      // refill-error, short-batch: refills affected
    double duration_s = 1.0; // stall: trigger silent; disconnect: server down; motor-error: error shown
    int motor = 0;           // motor-error: motor 0..3
    int code = 2;            // motor-error: error code the controller reports
};

struct scenario {
    std::string name = "default";
    uint64_t seed = 1;
    double ambient_k = 293.15;
    double ground_altitude_m = 0.0; // above mean sea level
    double initial_heading_rad = 0.0;
    // Earth's field in the north-east-down frame, gauss.
    std::array<double, 3> earth_field_gauss{0.21, 0.0, 0.43};
    std::vector<scenario_device> devices;
    std::vector<scenario_phase> phases;
    std::vector<scenario_fault> faults;
};

// The built-in scenario: examples/scenarios/default.cfg says the same.
scenario default_scenario();

// Reads a libconfig scenario file. Returns 0, or -EINVAL with a message in
// *error (line number and what is wrong), -ENOENT when the file is missing.
int scenario_load(const char *path, scenario *out, std::string *error);
int scenario_parse(const char *text, scenario *out, std::string *error);
// The same for a tree already parsed.
int scenario_from_config(config_t *cfg, scenario *out, std::string *error);

// Checks names (no white space, unique, trigger names not prefixes of one
// another, since the client matches a trigger by name prefix) and ranges.
int scenario_validate(const scenario &s, std::string *error);

// The device's delivery delay in ns at a sampling period of period_ns: its
// delivery-delay, or else its kind's default (a tenth of the period for the
// motor controller, none for the sensors, whose FIFOs are read as they fill).
int64_t delivery_delay_ns(const scenario_device &d, int64_t period_ns);

const char *device_kind_name(device_kind kind);
const char *fault_kind_name(fault_kind kind);
int device_kind_from_name(const char *name, device_kind *out);
int fault_kind_from_name(const char *name, fault_kind *out);

} // namespace sim
