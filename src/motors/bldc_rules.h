// SPDX-License-Identifier: Apache-2.0
// The motor controller's rules, apart from the device: the error names, the
// error step (per-motor error events) and the status step (what the
// controller status means for the pending start or stop request and the
// state fields of the motors sub-record).
#pragma once

#include <sensors/data.h>

#include <array>
#include <cstdint>

// What the host asked last and the controller has not finished yet.
enum bldc_pending : uint32_t { BLDC_PENDING_NONE = 0, BLDC_PENDING_START = 1, BLDC_PENDING_STOP = 2 };

// State field values of the motors sub-record.
inline constexpr uint32_t kBldcNotEvaluated = 0;
inline constexpr uint32_t kBldcYes = 1;
inline constexpr uint32_t kBldcNo = 2;
inline constexpr uint32_t kBldcInProgress = 3;

struct motor_error_name {
    const char *name;
    const char *can_clear;
};

inline constexpr std::array<motor_error_name, 14> kMotorErrors{{
    {"none", "yes"},
    {"eeprom", "yes"},
    {"stall", "yes"},
    {"security", "yes"},
    {"comm", "yes"},
    {"power", "yes"},
    {"realtime", "yes"},
    {"setting", "yes"},
    {"temperature", "yes"},
    {"voltage", "yes"},
    {"lipo", "no"},
    {"mosfet", "no"},
    {"bootloader", "yes"},
    {"assert", "yes"},
}};

constexpr motor_error_name motor_error(uint32_t code)
{
    return code < kMotorErrors.size() ? kMotorErrors[code] : motor_error_name{"unknown", "yes"};
}

// Logs the error events of one sample under the tag "bldc" and updates last;
// true when some motor reports an error (the sample counts as faulty).
bool bldc_error_step(const uint32_t error[SENSORS_MOTOR_COUNT], uint32_t last[SENSORS_MOTOR_COUNT],
                     const char *device);

struct bldc_status_in {
    uint32_t pending;
    uint32_t status; // controller status, low byte
    uint32_t detail; // detail status, low byte
    bool faulty;
    uint32_t brake_state; // kept from the previous cycle
    uint32_t ramp_state;
};

struct bldc_status_out {
    uint32_t pending;
    uint32_t brake_state;
    uint32_t ramp_state;
    uint32_t spinning;
    uint32_t nominal;
    uint32_t idle;
    bool refresh_info; // a stop request ended: re-read the controller information
};

bldc_status_out bldc_status_step(const bldc_status_in &in);
