// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's smart battery: a directory of attribute files laid
// out as the pack's kernel driver ("smartbattery") exposes them in sysfs,
// rewritten in place a few times a second from a discharge model, with the
// pack's removal and re-insertion, faults, temperature alerts, anomalies, a
// USB peer, another cell count and unparsable attribute text scripted in time.
//
// Its settings are the "battery" group of the scenario file's "simulator"
// group (docs/battery.md); the load comes from the scenario's flight phases
// until a load function is given.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/scenario.h"

namespace sim {

enum class battery_event_kind { remove, insert, fault, temperature_alert, anomaly, usb, cells, garbage };

struct battery_event {
    double at_s = 0.0;
    battery_event_kind kind = battery_event_kind::remove;
    int code = 0;          // fault, temperature-alert: code; anomaly: bit field; cells: count
    int connected = 1;     // usb: 0 disconnects
    int data_role = 1;     // usb, as the driver writes it: 0 device, 1 host
    int power_role = 0;    // usb, as the driver writes it: 0 source, 1 sink
    std::string attribute; // garbage: file name
    std::string text;      // garbage: content written instead of the value
    double duration_s = 1.0; // garbage: how long the content stays
};

struct battery_settings {
    double capacity_mah = 2700.0; // full charge capacity
    double charge_pct = 95.0;     // state of charge at the start
    int cells = 2;
    double internal_resistance_ohm = 0.015; // per cell
    double ambient_k = 298.15;
    double heating_k_per_a2 = 0.01;    // steady rise above ambient per ampere squared
    double thermal_time_constant_s = 60.0;
    int soh_pct = 96;
    int cycle_count = 42;
    bool authenticated = true;
    double rate_hz = 4.0; // how often the attribute files are rewritten
    // Load of the default model: hover current, plus per m/s of climb rate and
    // per rad/s of attitude rate.
    double hover_current_a = 10.0;
    double climb_current_a = 3.0;
    double turn_current_a = 2.0;
    std::vector<battery_event> events;
};

// Reads the "battery" group inside "simulator" of a scenario file (all
// settings optional; no group gives the defaults). 0, or -EINVAL / -ENOENT
// with a message in *error.
int battery_settings_load(const char *scenario_path, battery_settings *out, std::string *error);
int battery_settings_parse(const char *scenario_text, battery_settings *out, std::string *error);
int battery_settings_from(config_t *cfg, battery_settings *out, std::string *error);

// Pack current drawn at scenario time t, in amperes (positive: discharge).
using battery_load = std::function<double(double t_s)>;

// The default load: hover current, more while climbing or turning, from the
// scenario's phases; after the last phase the vehicle hovers.
battery_load phase_load(const std::vector<scenario_phase> &phases, const battery_settings &settings);

class battery_sim {
public:
    // Writes the directory's files and starts rewriting them at settings.rate_hz.
    static std::unique_ptr<battery_sim> start(const battery_settings &settings, battery_load load,
                                              const std::string &directory, std::string *error);
    ~battery_sim(); // stops the thread; the files stay as they were last written
    battery_sim(const battery_sim &) = delete;
    battery_sim &operator=(const battery_sim &) = delete;

    const std::string &directory() const { return directory_; }
    // Replaces the load, for instance by one derived from the motors' speeds.
    void set_load(battery_load load);
    // State of charge in percent and pack voltage in volts, as last written.
    double charge_pct() const;
    double voltage_v() const;

private:
    battery_sim() = default;
    struct state;
    std::unique_ptr<state> state_;
    std::string directory_;
};

// For orlune-sim: the settings of the scenario file (the built-in scenario
// when scenario_path is empty) and its phases as the load. Null with *error
// on failure.
std::unique_ptr<battery_sim> start_battery_sim(const std::string &scenario_path, const std::string &directory,
                                               std::string *error);

} // namespace sim
