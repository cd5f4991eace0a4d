// SPDX-License-Identifier: Apache-2.0
// Simulated IIO device models. Each model describes its channels and
// attributes the way the Linux kernel exposes them (shared in_<type>_scale
// files are channel attributes of that type's channels, sampling_frequency a
// device attribute, the kernel's scan formats) and turns the vehicle's truth
// into raw counts by running the plug-in's conversion backwards:
// truth -> inverse thermal calibration -> inverse mounting -> inverse
// scale/offset -> noise -> raw.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "sim/scenario.h"
#include "sim/vehicle.h"

namespace sim {

// Little-endian, no shift: "le:s16/16>>0" and the like.
struct scan_format {
    bool is_signed;
    unsigned bits;
    unsigned storage_bytes;
};

struct attr_desc {
    std::string name;     // what libiio names it (and sends on the wire)
    std::string filename; // the sysfs file
};

struct channel_desc {
    std::string id;
    scan_format format;
    std::vector<attr_desc> attrs;
};

// Undoes the thermal calibration: gets the true values the calibration would
// output at die temperature temp_k and replaces them with what the
// uncalibrated sensor reads. Values are in the plug-in's units: IMU accel
// x, y, z (m/s²) then gyro x, y, z (rad/s); barometer pressure (Pa);
// magnetometer field x, y, z (µT). Identity by default.
using thermal_inverse = std::function<void(std::span<double> values, double temp_k)>;

class device_model {
public:
    virtual ~device_model() = default;

    const scenario_device &setup() const { return setup_; }
    // Scan elements in index order, the timestamp last.
    const std::vector<channel_desc> &channels() const { return channels_; }
    const std::vector<std::string> &device_attrs() const { return device_attrs_; }
    const std::vector<std::string> &trigger_attrs() const { return trigger_attrs_; }
    // Initial value of every attribute, by sysfs file name.
    const std::vector<std::pair<std::string, std::string>> &initial_values() const { return values_; }
    // Blocking devices hold a refill until the batch is complete; polled
    // ones answer -EAGAIN when no new scan is waiting.
    bool blocking() const { return blocking_; }

    // Raw counts of every channel but the timestamp for a scan taken t_s
    // seconds into the scenario. noise_key makes the noise a function of the
    // scan, whatever order scans are sampled in.
    virtual void sample(const vehicle &truth, double t_s, uint64_t noise_key, int64_t *raw) const = 0;

    // Attributes that a model answers for itself: commands written to the
    // device and values that change with its state. write_attr returns 0 or
    // a negative errno, -EACCES for an attribute that is not the model's;
    // read_attr returns false for one that is not. The server calls both,
    // and sample, with its lock held.
    virtual int write_attr(const std::string &file, const std::string &value, double t_s);
    virtual bool read_attr(const std::string &file, double t_s, std::string *value) const;
    // A fault aimed at the device's own behaviour rather than its stream:
    // 0, or -EINVAL when the model has no such fault.
    virtual int arm_fault(const scenario_fault &fault, double t_s);

    thermal_inverse thermal;
    // The plug-in calibrates after rotating into vehicle axes unless told to
    // calibrate first (the IMU's rotation-after-calib): the inverse then
    // works on sensor axes, after the mounting is undone.
    bool thermal_in_sensor_axes = false;

    friend std::unique_ptr<device_model> make_device_model(const scenario_device &setup, uint64_t seed);

protected:
    explicit device_model(const scenario_device &setup, uint64_t seed) : setup_(setup), seed_(seed) {}

    void add_value(const std::string &file, const std::string &value) { values_.emplace_back(file, value); }
    double value_of(const std::string &file) const;
    // Gaussian noise in counts, deterministic in (seed, key, channel).
    double noise(uint64_t key, unsigned channel) const;
    // Rounds and clamps to what the channel's format holds.
    int64_t to_raw(double counts, unsigned channel) const;
    void uncalibrate(std::span<double> values, double temp_k) const;
    // Sensor-axis vector from a vehicle-axis one.
    vec3 unmount(const vec3 &vehicle_axes) const;

    scenario_device setup_;
    uint64_t seed_;
    std::vector<channel_desc> channels_;
    std::vector<std::string> device_attrs_;
    std::vector<std::string> trigger_attrs_;
    std::vector<std::pair<std::string, std::string>> values_;
    bool blocking_ = false;
    mat3 unmount_{1, 0, 0, 0, 1, 0, 0, 0, 1};
};

// The model of setup's kind, or null when the kind has none or the mounting
// matrix cannot be inverted.
std::unique_ptr<device_model> make_device_model(const scenario_device &setup, uint64_t seed);

// "x1, y1, z1; x2, y2, z2; x3, y3, z3", as the kernel prints a mount matrix.
std::string mount_matrix_text(const mat3 &m);

} // namespace sim
