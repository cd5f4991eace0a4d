// SPDX-License-Identifier: Apache-2.0
// Throttled error reports of the acquisition cycle: a recurring failure is
// reported at most once per interval, and the next report says how many
// were swallowed meanwhile. Each calling thread keeps its own state
// (ORLUNE_THROTTLE_STATE at the caller), so two acquisition threads never
// mask each other's reports.
#pragma once

#include <cstdint>

#include "platform/log.h"

// The storage of a throttle's per-thread state: thread-local, in the static
// TLS block that the loader keeps for libraries loaded later. The cycle
// reaches it with no call to __tls_get_addr, and the plug-in has no dynamic
// TLS block (LeakSanitizer's exit scan misreads one that happens to start 16
// bytes into a page, and the host then fails at exit).
#define ORLUNE_THROTTLE_STATE thread_local __attribute__((tls_model("initial-exec")))

struct msg_throttle {
    uint64_t last_ms; // monotonic milliseconds of the last report, 0 before the first
    uint32_t masked;  // reports swallowed since
};

// CLOCK_MONOTONIC as seconds x 1000 + nanoseconds / 1000000.
uint64_t monotonic_ms();

// Whether a report is due at now_ms: false (and one more masked) while
// last + interval lies ahead of now. When due, *masked receives the count
// swallowed since the previous report, which is then reset, and now becomes
// the last report time.
bool throttle_due(msg_throttle *throttle, uint64_t now_ms, uint64_t interval_ms, uint32_t *masked);

// The front-camera gimbal's read failure as the driver frame reports it, at
// most once a second: "fcam_gimbal read failed: %s", or with the swallowed
// count "[%u] fcam_gimbal read failed: %s" (strerror of -result).
void fcam_gimbal_report_read_failure(const log_tag &tag, msg_throttle *throttle, int result, uint64_t now_ms);
