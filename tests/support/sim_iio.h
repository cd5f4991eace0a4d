// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's iiod server in the test process, and a libiio
// context connected to it as the plug-in's modules find theirs: through
// IIOD_REMOTE, or, when the tests run on the board's transport, through
// libiio's local backend: ORLUNE_TEST_TRANSPORT=board (under
// scripts/board.sh) reads the server's devices as the sysfs stand-in
// presents them, ORLUNE_TEST_TRANSPORT=kernel (in a guest with the
// orlune_vehicle module loaded) as the kernel's own devices, fed by the server.
#pragma once

#include <iio.h>
#include <stdlib.h>

#include <cstring>
#include <memory>
#include <string>

#include "kernel/orlune_vehicle.h"
#include "sim/iiod_server.h"
#include "sim/kernel_bridge.h"
#include "sim/sysfs_bridge.h"
#include "support/transport.h"

struct iio_ctx_deleter {
    void operator()(iio_context *c) const { iio_context_destroy(c); }
};
using iio_ptr = std::unique_ptr<iio_context, iio_ctx_deleter>;

// Starts *server on the scenario, points IIOD_REMOTE at it and connects *iio.
// Returns what went wrong, or an empty text.
inline std::string connect_sim(const sim::scenario &s, std::unique_ptr<sim::iiod_server> *server, iio_ptr *iio)
{
    // The board's view of the latest server; the kernel's node opens once.
    static std::unique_ptr<sim::sysfs_bridge> board;
    static std::unique_ptr<sim::kernel_bridge> kernel;
    board.reset();
    kernel.reset();
    std::string error;
    *server = sim::iiod_server::start(s, sim::server_options{}, &error);
    if (!*server)
        return "the iiod server did not start: " + error;
    if (board_transport()) {
        unsetenv("IIOD_REMOTE");
        if (kernel_transport() && !(kernel = sim::kernel_bridge::start((*server)->uri(), ORLUNE_VEHICLE_NODE, &error)))
            return "the kernel's feeder did not start: " + error;
        if (!kernel_transport() && !(board = sim::sysfs_bridge::start((*server)->uri(), "/", &error)))
            return "the sysfs stand-in did not start: " + error;
        iio->reset(iio_create_local_context());
        return *iio ? std::string() : "no local libiio context";
    }
    setenv("IIOD_REMOTE", (*server)->uri().c_str(), 1);
    iio->reset(iio_create_default_context());
    if (!*iio)
        return "no libiio context for " + (*server)->uri();
    return {};
}
