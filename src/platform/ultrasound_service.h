// SPDX-License-Identifier: Apache-2.0
// ultrasound_service: the client side of the ultrasound ranging service.
//
// The service runs in its own process and listens on the abstract socket
// "ultrasound" (relocated by ORLUNE_SOCKET_PREFIX, see msg_socket.h). A
// ranging handle is one msg_socket connection: on every (re)connection it
// sends the ranging request, the service then sends one measurement every
// period. ranging_read never blocks: it takes what arrived, keeps the
// newest measurement and counts those the result has not delivered yet.
//
// The service may start after its clients, or restart under them: a handle
// exists whether or not the service listens, and the connection is tried
// again from ranging_read every kMsgRetryMs (a refused connect costs a
// socket, a connect and a close, about 10 µs; at most one per read).
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/msg_socket.h"

inline constexpr const char *kUltrasoundSocketName = "ultrasound";

// Messages of the service protocol.
inline constexpr uint32_t kUsMsgRequest = 0;     // client: "%lu%f" period_us, max_range_m
inline constexpr uint32_t kUsMsgMeasurement = 1; // service: "%f%f%u%u" altitude, altitude_v2, status, range_mode

// Range modes the service reports; any other value is unknown.
inline constexpr uint32_t kUsRangeLong = 0;
inline constexpr uint32_t kUsRangeShort = 1;

struct ranging_settings {
    uint64_t period_us; // time between two measurements
    float max_range_m;  // 0: the service's own limit
    uint32_t reserved;
};

struct ranging_measurement {
    float altitude; // m, height of the echo
    uint8_t reserved[8];
    float altitude_v2; // m, the service's filtered height
    uint32_t range_mode;
};
static_assert(offsetof(ranging_measurement, altitude_v2) == 12);
static_assert(offsetof(ranging_measurement, range_mode) == 16);

struct ranging_result {
    ranging_measurement *measure;
    uint8_t status; // 0 an echo, 1 no echo within range
    uint8_t reserved[3];
    uint32_t new_count; // measurements received since the previous read
};
static_assert(offsetof(ranging_result, status) == 8);
static_assert(offsetof(ranging_result, new_count) == 12);

struct ranging_handle;

// An empty result (its measurement zeroed); null when memory is short.
ranging_result *result_create();
void result_destroy(ranging_result *result);

// Asks the service for ranging, now if it listens, else as soon as it does
// (see ranging_read). Null, with errno set, on a bad argument, short memory
// or when no socket can be made; an absent service is not a failure.
ranging_handle *ranging_open(const ranging_settings *settings);
// Fills result with the newest measurement and the count of measurements
// received since the previous read; while not connected, tries to connect
// when the retry interval has passed. 0; -ENOTCONN while the service is not
// there (not yet, or gone: the result keeps the last measurement, zeroed
// before the first, with count 0); -EINVAL.
int ranging_read(ranging_handle *handle, ranging_result *result);
// The service connection's hint for ready_poll; null for a null handle.
struct ready_hint;
ready_hint *ranging_ready_hint(ranging_handle *handle);
// Null is accepted.
void ranging_close(ranging_handle *handle);
