// SPDX-License-Identifier: Apache-2.0
// What orlune-capture's threads share: the capture being written and the
// counts its progress line shows.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "capture/capture_file.h"

namespace capture {

// The writer is shared by every thread: one record at a time. The first
// failure is kept and reported at the end.
struct shared_writer {
    std::mutex mu;
    writer out;
    int error = 0;

    void record(record_kind kind, uint16_t stream, const void *data, size_t size);
    void attr(uint16_t stream, attr_scope scope, std::string_view channel, std::string_view name,
              std::string_view value);
    // A new stream's number, or -1 after a failure (kept in error).
    int stream(stream_kind kind, std::string_view name);
};

struct counters {
    std::atomic<uint64_t> samples{0}; // scans, messages, telemetry samples, file changes
    std::atomic<uint64_t> drops{0};
    std::atomic<uint64_t> streams{0};
};

// The streams that do not come through libiio, followed by one thread until
// stop is set: the smart battery's attribute files, the GPS daemon's and the
// ultrasound service's messages, and telemetry sections.
struct source_settings {
    std::string battery_dir;           // empty: not recorded
    bool gps = true;                   // the GPS daemon's socket
    uint64_t ultrasound_period_us = 0; // asked of the ultrasound service; 0: not recorded
    std::vector<std::string> sections; // telemetry sections
};
void follow_sources(const source_settings &settings, shared_writer *w, counters *c, const std::atomic<bool> *stop);

} // namespace capture
