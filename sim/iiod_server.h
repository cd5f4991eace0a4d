// SPDX-License-Identifier: Apache-2.0
// The virtual IIO hardware: the scenario's devices served over the iiod
// network protocol that the libiio network backend speaks, so the plug-in
// reaches them through IIOD_REMOTE exactly as it would reach a board's iiod.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/iio_devices.h"
#include "sim/replay.h"
#include "sim/scenario.h"
#include "sim/vehicle.h"

namespace sim {

struct server_options {
    std::string address = "127.0.0.1";
    uint16_t port = 0; // 0: an ephemeral port
    // Refill bound until a client sends TIMEOUT (libiio sends half its own).
    unsigned initial_timeout_ms = 2500;
};

class iiod_server {
public:
    // Listens and serves until stop() or destruction; the scenario's clock
    // starts now. Null with *error set when the socket cannot be opened or a
    // device has no model.
    static std::unique_ptr<iiod_server> start(const scenario &s, const server_options &options,
                                              std::string *error);
    // Serves a capture's devices instead (see sim/replay.h): xml is the
    // recorded description, sent as it is; at the original pace a scan
    // stamped T is readable at monotonic time T + pace_offset_ns.
    static std::unique_ptr<iiod_server> start_replay(std::vector<replay_device> devices, const std::string &xml,
                                                     replay_clock &clock, replay_pace pace, int64_t pace_offset_ns,
                                                     const server_options &options, std::string *error);
    ~iiod_server();
    iiod_server(const iiod_server &) = delete;
    iiod_server &operator=(const iiod_server &) = delete;

    uint16_t port() const;
    // "ip:127.0.0.1:PORT", the value for IIOD_REMOTE.
    std::string uri() const;

    // Arms a fault now, whatever its `at`. Returns 0, -ENODEV for an unknown
    // device name.
    int inject(const scenario_fault &fault);

    // The model behind a device name, to install a thermal inverse before
    // clients start streaming; null when unknown.
    device_model *model(const std::string &name);
    const vehicle &truth() const;
    // Monotonic time at which the scenario started, ns: a scan stamped T was
    // taken (T - epoch) / 1e9 seconds into the scenario.
    int64_t epoch_ns() const;
    // A replay: whether a client has waited for a scan beyond the capture's end.
    bool replay_over() const;
    // The context description sent in reply to PRINT.
    const std::string &context_xml() const;

    // Closes every connection and the listening socket; idempotent.
    void stop();

    struct impl;

private:
    explicit iiod_server(std::unique_ptr<impl> p);
    static std::unique_ptr<iiod_server> launch(std::unique_ptr<impl> p, std::string *error);
    std::unique_ptr<impl> impl_;
};

} // namespace sim
