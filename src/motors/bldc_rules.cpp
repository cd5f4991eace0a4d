// SPDX-License-Identifier: Apache-2.0
#include "motors/bldc_rules.h"

#include "platform/log.h"

namespace {

constexpr log_tag kTag{"bldc"};

// Controller status values the rules tell apart; every value from 7 up is
// read like STATUS_OFF.
constexpr uint32_t STATUS_OFF = 0;
constexpr uint32_t STATUS_STOPPED = 1;
constexpr uint32_t STATUS_RAMPING = 2;
constexpr uint32_t STATUS_SPINNING = 3;
constexpr uint32_t STATUS_FLYING = 4;
constexpr uint32_t STATUS_BRAKING = 5;
constexpr uint32_t STATUS_FAULT = 6;
// Detail status of a FAULT whose motors are at rest.
constexpr uint32_t DETAIL_FAULT_STOPPED = 5;

// ramp_state of a start request for controller status 1 to 4.
constexpr uint32_t kRampOfStatus[] = {0, kBldcNotEvaluated, kBldcInProgress, kBldcYes, kBldcYes};
static_assert(kRampOfStatus[STATUS_RAMPING] == kBldcInProgress, "a ramping controller has not finished starting");

} // namespace

bool bldc_error_step(const uint32_t error[SENSORS_MOTOR_COUNT], uint32_t last[SENSORS_MOTOR_COUNT], const char *device)
{
    bool faulty = false;
    for (int i = 0; i < SENSORS_MOTOR_COUNT; i++) {
        const uint32_t code = error[i];
        if (code == 0) {
            if (last[i] != 0) {
                last[i] = 0;
                log_msg(kTag, LOG_INFO, "%s: motor(%d) error cleared", device, i);
            }
            continue;
        }
        faulty = true;
        // One event when an error shows, another only when a higher code
        // replaces it: a motor repeating its code every sample stays quiet.
        if (code > last[i]) {
            last[i] = code;
            const motor_error_name e = motor_error(code);
            log_msg(kTag, LOG_NOTICE, "EVT:ESC;error_m%d='%s';can_clear='%s';device='%s'", i, e.name, e.can_clear,
                    device);
        }
    }
    return faulty;
}

bldc_status_out bldc_status_step(const bldc_status_in &in)
{
    const uint32_t s = in.status & 0xffu;
    const uint32_t d = in.detail & 0xffu;
    bldc_status_out out{in.pending, in.brake_state, in.ramp_state, 0, 0, 0, false};

    if (in.pending == BLDC_PENDING_START) {
        out.brake_state = kBldcNotEvaluated;
        if (in.faulty) {
            out.ramp_state = kBldcNo;
        } else if (s >= STATUS_STOPPED && s <= STATUS_FLYING) {
            out.ramp_state = kRampOfStatus[s];
            if (out.ramp_state == kBldcYes)
                out.pending = BLDC_PENDING_NONE;
        } else {
            out.ramp_state = kBldcNo;
        }
    } else if (in.pending == BLDC_PENDING_STOP) {
        out.ramp_state = kBldcNotEvaluated;
        if (s == STATUS_STOPPED || (s == STATUS_FAULT && d == DETAIL_FAULT_STOPPED)) {
            out.brake_state = kBldcYes;
            out.pending = BLDC_PENDING_NONE;
            out.refresh_info = true;
        } else if (s == STATUS_SPINNING || s == STATUS_FLYING || s == STATUS_BRAKING || s == STATUS_FAULT) {
            out.brake_state = kBldcInProgress;
        } else {
            // OFF, RAMPING or an unknown status: the stop did not take.
            out.brake_state = kBldcNo;
            out.pending = BLDC_PENDING_NONE;
            out.refresh_info = true;
        }
    }

    out.spinning = (s == STATUS_SPINNING || s == STATUS_FLYING) ? kBldcYes : kBldcNo;
    out.nominal = (in.faulty || s == STATUS_FAULT) ? kBldcNo : kBldcYes;
    if (s == STATUS_STOPPED)
        out.idle = kBldcYes;
    else if (out.brake_state == kBldcInProgress || s == STATUS_OFF)
        out.idle = kBldcInProgress;
    else
        out.idle = kBldcNo;
    return out;
}
