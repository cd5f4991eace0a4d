// SPDX-License-Identifier: Apache-2.0
// The vision and gimbal processes of the virtual vehicle: producers of the
// telemetry sections that the plug-in's telemetry-fed sensors read
// ("vision_carpet_estimation", "vcam_position", "vcam_optical_flow" and the
// gimbal stabilisation's "gimbal_stab" entries), driven by the scenario's
// truth, with the faults of a real vision pipeline: a producer that starts
// late, pauses, restarts, publishes stale samples or stops for a while.
//
// Their settings are the "vision" group inside the scenario file's
// "simulator" group; a scenario without one runs every producer without faults.
#pragma once

#include <libconfig.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/scenario.h"

namespace sim {

enum class vision_producer_id { carpet, position, optical_flow, gimbal };
inline constexpr size_t kVisionProducerCount = 4;

enum class vision_fault_kind {
    late_start, // the section appears only at `at`
    pause,      // the section stays, no sample is published for `duration`
    restart,    // at `at` the producer closes its section and makes a new one
    stale,      // for `duration` samples are stamped `age` seconds in the past
    stop,       // the section is gone for `duration`, then comes back
};

struct vision_fault {
    double at_s = 0.0;
    vision_fault_kind kind = vision_fault_kind::pause;
    std::array<bool, kVisionProducerCount> producers{}; // which producers it hits
    double duration_s = 1.0;
    double age_s = 0.1;
};

struct vision_settings {
    bool enabled = true;
    double rate_hz = 30.0;         // carpet, position and optical flow samples per second
    double gimbal_rate_hz = 100.0; // gimbal samples per second
    // Where the carpet lies on the ground, metres north and east of the take-off point.
    std::array<double, 2> carpet_ne_m{0.0, 0.0};
    std::vector<vision_fault> faults;
};

// Reads the "simulator.vision" group of a scenario file; a file without it
// gives the defaults. 0, -ENOENT for a missing file, -EINVAL with *error
// saying what and where.
int vision_settings_load(const char *path, vision_settings *out, std::string *error);
int vision_settings_parse(const char *text, vision_settings *out, std::string *error);
int vision_settings_from(config_t *cfg, vision_settings *out, std::string *error);

const char *vision_producer_name(vision_producer_id id);
const char *vision_fault_kind_name(vision_fault_kind kind);

class vision_producers {
public:
    // Starts the producers' thread. epoch_ns is the monotonic time at which
    // the scenario started (the iiod server's epoch), so that vision and IIO
    // devices see the same instant of the flight. Null with *error when the
    // thread cannot start or a section cannot be made.
    static std::unique_ptr<vision_producers> start(const scenario &s, const vision_settings &v, int64_t epoch_ns,
                                                   std::string *error);
    ~vision_producers();
    vision_producers(const vision_producers &) = delete;
    vision_producers &operator=(const vision_producers &) = delete;

    // Stops the thread and removes every section; idempotent.
    void stop();
    // Samples published so far by one producer.
    uint64_t published(vision_producer_id id) const;

    struct impl;

private:
    explicit vision_producers(std::unique_ptr<impl> p);
    std::unique_ptr<impl> impl_;
};

} // namespace sim
