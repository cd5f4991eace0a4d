// SPDX-License-Identifier: Apache-2.0
#include "tlm_sensors/throttle.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {
// One report per second at most: a gimbal estimator that is down fails every
// cycle, hundreds of times a second.
constexpr uint64_t kGimbalReportIntervalMs = 1000;
} // namespace

uint64_t monotonic_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000u + uint64_t(now.tv_nsec) / 1000000u;
}

bool throttle_due(msg_throttle *throttle, uint64_t now_ms, uint64_t interval_ms, uint32_t *masked)
{
    if (throttle->last_ms + interval_ms > now_ms) {
        throttle->masked++;
        return false;
    }
    *masked = throttle->masked;
    throttle->masked = 0;
    throttle->last_ms = now_ms;
    return true;
}

void fcam_gimbal_report_read_failure(const log_tag &tag, msg_throttle *throttle, int result, uint64_t now_ms)
{
    uint32_t masked = 0;
    if (!throttle_due(throttle, now_ms, kGimbalReportIntervalMs, &masked))
        return;
    if (masked == 0) {
        log_msg(tag, LOG_ERR, "fcam_gimbal read failed: %s", strerror(-result));
        return;
    }
    if (!log_admits(tag, LOG_ERR))
        return;
    char text[256];
    snprintf(text, sizeof text, "[%u] fcam_gimbal read failed: %s", masked, strerror(-result));
    log_str(tag, LOG_ERR, text);
}
