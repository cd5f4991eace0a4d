// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's ultrasound ranging service: serves the abstract
// socket "ultrasound" (relocated by ORLUNE_SOCKET_PREFIX) and sends each
// client that asked for ranging one measurement per requested period: the
// slant range to the ground below the vehicle, in metres, with its range
// mode. The scenario can start it late, restart it or kill it. Its settings
// are the group "ultrasound" of the scenario's "simulator" group; see
// docs/gps-ultrasound.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/gps_daemon.h"
#include "sim/scenario.h"

namespace sim {


struct ultrasound_settings {
    bool enabled = true;
    double short_range_limit_m = 2.0; // below: short-range mode
    double max_range_m = 8.0;         // beyond: no echo (status 1)
    double noise_m = 0.01;            // standard deviation of each measurement
    double filter_gain = 0.3;         // of the second, filtered height
    std::vector<service_outage> outages; // sorted by time
};

int ultrasound_settings_load(const std::string &scenario_path, ultrasound_settings *out, std::string *error);
int ultrasound_settings_from(config_t *cfg, ultrasound_settings *out, std::string *error);

class ultrasound_service {
public:
    // Starts serving now on a thread of its own, unless an outage has
    // already begun: the scenario's clock began at epoch_ns (monotonic).
    // Null with *error when the socket cannot be bound (checked also when
    // the service starts late).
    static std::unique_ptr<ultrasound_service> start(const ultrasound_settings &settings, const scenario &s,
                                                     int64_t epoch_ns, std::string *error);
    ~ultrasound_service();
    ultrasound_service(const ultrasound_service &) = delete;
    ultrasound_service &operator=(const ultrasound_service &) = delete;

    // Clients that asked for ranging.
    size_t ranging_clients() const { return ranging_.load(); }
    bool serving() const { return serving_.load(); }

    struct impl;

private:
    explicit ultrasound_service(std::unique_ptr<impl> p);
    std::unique_ptr<impl> impl_;
    std::atomic<size_t> ranging_{0};
    std::atomic<bool> serving_{false};
    std::thread thread_;
};

} // namespace sim
