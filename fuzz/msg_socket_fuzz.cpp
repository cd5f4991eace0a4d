// SPDX-License-Identifier: Apache-2.0
// The msg_socket decoder on arbitrary bytes from a peer: frames are cut from
// the stream as a client does, and each one is decoded by the GPS module's
// message handling.
#include <sensors/gps_us.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/msg_socket.h"

namespace {

gps_ctx *gps_module()
{
    static sensors_gps_data data;
    static gps_ctx *gps = [] {
        std::string dir = "/tmp/orlune-msg-socket-fuzz-" + std::to_string(getpid());
        setenv("ORLUNE_TLM_DIR", dir.c_str(), 1);
        setenv("SENSORS_LOG_OUTPUT", "none", 1);
        gps_ctx *made = gps_new(&data);
        atexit([] { gps_destroy(gps_module()); }); // removes the section file
        return made;
    }();
    return gps;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    gps_ctx *gps = gps_module();
    size_t used = 0;
    while (used < size) {
        msg_message m;
        long r = message_parse(data + used, size - used, &m);
        if (r <= 0)
            break;
        used += size_t(r);
        char *a = nullptr;
        char *b = nullptr;
        double d;
        uint64_t lu;
        float f;
        int32_t i;
        uint32_t u;
        if (message_read(&m, "%ms%lf%lu%f%i%u%ms", &a, &d, &lu, &f, &i, &u, &b) == 0) {
            free(a);
            free(b);
        }
        if (gps)
            gps_client_cb(nullptr, MSG_EVENT_MESSAGE, nullptr, &m, gps);
    }
    return 0;
}
