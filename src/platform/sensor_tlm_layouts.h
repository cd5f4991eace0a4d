// SPDX-License-Identifier: Apache-2.0
// The telemetry layout of each sensor record the plug-in publishes: every
// field of the sub-record by its own name, so that any consumer can read a
// published section field by field. Arrays are described as one field of
// count elements; two-dimensional arrays row by row (imu "gyro" holds
// sample 0 x, y, z, then sample 1, ...). The motors' per-motor records
// appear as "motor[i].speed" and "motor[i].pwm". Reserved bytes are not
// described but lie inside the published sample.
#pragma once

#include <sensors/sensor_tlm.h>

enum class tlm_kind {
    imu,
    baro,
    magneto,
    battery,
    gps,
    us,
    motors,
};

// The layout of a record kind; null for a value outside the enumeration.
const tlm_struct_desc *layout_of(tlm_kind kind);
