// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's truth as a CSV file, sampled on a grid of scenario
// time (every 1/rate s) by a thread of its own, so that a recording of the
// plug-in's output can be laid over what the vehicle really did.
//
// Angular rates and specific force are in the vehicle frame (forward, right,
// down), the frame in which the plug-in reports the IMU after its mounting
// rotation and calibration: a hovering vehicle reads accel_z = -9.81.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sim/scenario.h"

namespace sim {

class battery_sim;

class truth_recorder {
public:
    // Creates path, writes the header and starts sampling. epoch_ns is the
    // monotonic time of scenario time 0; battery may be null (its columns
    // stay empty). Null with *error when the file cannot be created.
    static std::unique_ptr<truth_recorder> start(const scenario &s, int64_t epoch_ns, const battery_sim *battery,
                                                 const std::string &path, std::string *error, double rate_hz = 100.0);
    ~truth_recorder(); // stops the thread, writes what is due and closes the file
    truth_recorder(const truth_recorder &) = delete;
    truth_recorder &operator=(const truth_recorder &) = delete;

    uint64_t rows() const;

    // The header line, without its newline.
    static const char *header();
    // Name of the phase flown at scenario time t; "end" after the last one.
    static const char *phase_at(const scenario &s, double t_s);

    struct impl;

private:
    explicit truth_recorder(std::unique_ptr<impl> p);
    std::unique_ptr<impl> impl_;
};

} // namespace sim
