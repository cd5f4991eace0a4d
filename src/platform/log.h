// SPDX-License-Identifier: Apache-2.0
// Platform log: tagged messages with syslog priorities.
//
// Each tag has a level; a message is formatted only when its tag's level
// admits its priority (priority <= level). Levels come from SENSORS_LOG_LEVEL,
// for instance "info,imu=debug,bldc=warning"; output goes to stderr (default)
// or syslog, chosen by SENSORS_LOG_OUTPUT ("stderr", "syslog" or "none").
// Each output makes one line of a record, whether the text ends in newlines
// or not: stderr ends it with exactly one, syslog sends it without them.
//
// The syslog output sends each message as one datagram to the system
// logger's socket /dev/log (under ORLUNE_ROOT when set), in the system log's
// form "<PRI>Mmm dd hh:mm:ss ident[pid]: tag: text" (facility user, no
// newline). It never blocks the caller: a line the logger does not take at
// once (its queue is full, or it is absent or restarting) is dropped and
// counted, and the count is sent, as the warning "log: N lines dropped: the
// system logger did not take them", just before the next line it takes. A
// lost logger is looked for again once a second at most. Every line is sent,
// identical ones included: flood control of the system log is the system
// logger's job.
#pragma once

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct log_tag {
    const char *name;
};

// Default level when SENSORS_LOG_LEVEL says nothing about a tag.
inline constexpr int kLogDefaultLevel = LOG_INFO;

// True when a message of this priority on this tag would be emitted.
bool log_admits(const log_tag &tag, int priority);

void log_msg(const log_tag &tag, int priority, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// The highest level of any tag. A message of a priority above it is admitted
// by no tag: log_msg is then not even called, nor are its arguments
// evaluated, so a debug line in the acquisition cycle costs one load.
extern std::atomic<int> g_log_ceiling;
#define log_msg(tag, priority, ...)                                                                               \
    do {                                                                                                          \
        if ((priority) <= g_log_ceiling.load(std::memory_order_relaxed))                                          \
            (log_msg)(tag, priority, __VA_ARGS__);                                                                \
    } while (0)
void log_vmsg(const log_tag &tag, int priority, const char *fmt, va_list ap) __attribute__((format(printf, 3, 0)));

// A preformatted message, emitted as it stands.
void log_str(const log_tag &tag, int priority, const char *text);

// The recurring report of a failed platform call inside a module:
// "<function>:<line>: <operation> err=<errno>(<text>)". err may be given
// positive or negative; the message carries the positive errno.
void log_call_failed(const log_tag &tag, int priority, const char *function, int line, const char *operation,
                     int err);

// Replaces the level table with a SENSORS_LOG_LEVEL-style level list.
// Returns 0, or -EINVAL for a malformed list (the table is then
// left as it was).
int log_set_levels(const char *spec);

// Switches the output: "stderr", "syslog" or "none", as SENSORS_LOG_OUTPUT
// says at start. Returns 0, or -EINVAL for another name.
int log_set_output(const char *name);

// Level names: "crit"/"critical" 2, "err"/"error" 3, "warn"/"warning" 4,
// "notice" 5, "info" 6, "debug" 7, "none"/"off" 0, or a digit 0..7.
// Returns -1 for an unknown name.
int log_level_from_name(const char *name, size_t len);

// Number of messages formatted since start: lets tests prove that a message
// below its tag's level costs no formatting.
uint64_t log_formatted_count();

// Capture sink for tests: while capturing, messages are recorded instead of
// written to the output.
struct log_record {
    int priority;
    std::string tag;
    std::string text;
};
void log_capture_start();
std::vector<log_record> log_capture_take(); // returns and clears what was captured
void log_capture_stop();
