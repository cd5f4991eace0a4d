// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's iiod server in the test process, and a libiio
// context connected to it through IIOD_REMOTE, as the plug-in's modules find
// theirs.
#pragma once

#include <iio.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "sim/iiod_server.h"

struct iio_ctx_deleter {
    void operator()(iio_context *c) const { iio_context_destroy(c); }
};
using iio_ptr = std::unique_ptr<iio_context, iio_ctx_deleter>;

// Starts *server on the scenario, points IIOD_REMOTE at it and connects *iio.
// Returns what went wrong, or an empty text.
inline std::string connect_sim(const sim::scenario &s, std::unique_ptr<sim::iiod_server> *server, iio_ptr *iio)
{
    std::string error;
    *server = sim::iiod_server::start(s, sim::server_options{}, &error);
    if (!*server)
        return "the iiod server did not start: " + error;
    setenv("IIOD_REMOTE", (*server)->uri().c_str(), 1);
    iio->reset(iio_create_default_context());
    if (!*iio)
        return "no libiio context for " + (*server)->uri();
    return {};
}
