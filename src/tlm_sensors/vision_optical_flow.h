// SPDX-License-Identifier: Apache-2.0
// The optical flow's creation and read with their clocks passed in: the
// exported functions use the monotonic clock; tests drive the freshness, defect and message rules
// with a clock of their own instead of waiting seconds.
#pragma once

#include <sensors/tlm_sensors.h>

#include <cstdint>
#include <ctime>

struct flow_clock {
    int (*now)(timespec *now);                                       // monotonic_now
    int (*elapsed_since)(const timespec *since, timespec *elapsed); // elapsed_since
    uint64_t (*now_ms)();                                            // the message throttle's clock
};

// The clocks of the vehicle.
extern const flow_clock kMonotonicFlowClock;

vision_optical_flow_ctx *vision_optical_flow_new_with(sensors_optical_flow_data *data, const flow_clock &clock);
int vision_optical_flow_read_with(vision_optical_flow_ctx *vcam, uint32_t *updated, const flow_clock &clock);
