// SPDX-License-Identifier: Apache-2.0
// The hardware behind the virtual vehicle's kernel driver (orlune_vehicle.ko,
// protocol in kernel/orlune_vehicle.h). The driver registers the IMU, the
// barometer, the magnetometer and the motor controller with the kernel's IIO
// core, each with its trigger and kfifo buffer, and holds no model: the
// bridge holds its node open and
//
//   - answers each attribute read and write of a unit with the server's
//     attribute of that file name (the device's, a channel's, or its
//     trigger's);
//   - while a unit's buffer is enabled, streams every scan element of the
//     server's device (the same models, truth, thermal inverses and faults
//     as over the network) and writes each refill's scans to the node,
//     whole and stamped on CLOCK_MONOTONIC, for the driver to push through
//     the unit's trigger.
//
// The server's pacing is the kernel buffer's: scans reach it as the server
// makes them available. A stalled stream never holds up an answer. Starting
// a bridge makes the process ignore SIGPIPE: a server that goes away ends
// its streams, not the process.
#pragma once

#include <memory>
#include <string>

namespace sim {

class kernel_bridge {
public:
    // Connects to the server at uri ("ip:127.0.0.1:PORT"), checks that each
    // of the driver's devices that it has comes with its trigger and the
    // driver's full scan size (a unit it lacks answers ENODEV and gets no
    // scans; none at all is an error), opens node (the driver's character
    // device, usually /dev/orlune-vehicle; one process at a time) and starts
    // answering. Null with *error set otherwise.
    static std::unique_ptr<kernel_bridge> start(const std::string &uri, const std::string &node, std::string *error);
    ~kernel_bridge();
    kernel_bridge(const kernel_bridge &) = delete;
    kernel_bridge &operator=(const kernel_bridge &) = delete;

    // Stops the streams and the answers, and closes the node: the driver's
    // attributes then fail with ENODEV until another bridge opens it.
    // Idempotent.
    void stop();

    struct impl;

private:
    explicit kernel_bridge(std::unique_ptr<impl> p);
    std::unique_ptr<impl> impl_;
};

} // namespace sim
