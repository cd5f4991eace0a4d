// SPDX-License-Identifier: Apache-2.0
#include "platform/log.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

namespace {

constexpr size_t kMaxTagOverrides = 32;
constexpr size_t kTagNameMax = 32;
constexpr size_t kMessageMax = 1024;

struct tag_level {
    char name[kTagNameMax];
    int level;
};

struct level_table {
    int default_level = kLogDefaultLevel;
    size_t count = 0;
    tag_level tags[kMaxTagOverrides] = {};
};

enum class log_output { stderr_out, syslog_out, none };

// The syslog sink collapses identical consecutive lines, as system loggers
// do: the first is written, the repeats are counted and reported as "last
// message repeated N times" when a different line comes, or at the next
// repeat once a second has passed since the count began.
struct syslog_repeats {
    std::mutex lock;
    bool have_last = false;
    int priority = 0;
    char tag[kTagNameMax] = {};
    char text[kMessageMax] = {};
    uint32_t count = 0;
    int64_t since_ms = 0;

    void flush()
    {
        if (count)
            syslog(priority, "%s: last message repeated %u times", tag, count);
        count = 0;
    }
    ~syslog_repeats() { flush(); }
};

struct log_state {
    level_table levels;
    log_output output = log_output::stderr_out;
    syslog_repeats repeats;
    std::atomic<uint64_t> formatted{0};
    std::atomic<bool> capturing{false};
    std::mutex capture_lock;
    std::vector<log_record> captured;
};

bool parse_output(const char *name, log_output *out)
{
    if (strcmp(name, "stderr") == 0)
        *out = log_output::stderr_out;
    else if (strcmp(name, "syslog") == 0)
        *out = log_output::syslog_out;
    else if (strcmp(name, "none") == 0)
        *out = log_output::none;
    else
        return false;
    return true;
}

bool parse_levels(const char *spec, level_table *out)
{
    level_table table;
    const char *p = spec;
    while (*p) {
        const char *end = strchr(p, ',');
        size_t len = end ? size_t(end - p) : strlen(p);
        const char *eq = static_cast<const char *>(memchr(p, '=', len));
        if (len == 0) {
            // tolerate empty items ("info,,imu=debug")
        } else if (!eq) {
            int level = log_level_from_name(p, len);
            if (level < 0)
                return false;
            table.default_level = level;
        } else {
            size_t name_len = size_t(eq - p);
            int level = log_level_from_name(eq + 1, len - name_len - 1);
            if (level < 0 || name_len == 0 || name_len >= kTagNameMax || table.count == kMaxTagOverrides)
                return false;
            tag_level &t = table.tags[table.count++];
            memcpy(t.name, p, name_len);
            t.name[name_len] = '\0';
            t.level = level;
        }
        if (!end)
            break;
        p = end + 1;
    }
    *out = table;
    return true;
}

// Static storage rather than the heap: the plug-in can be unloaded, and its
// log state goes with it.
log_state &state()
{
    static log_state s;
    static const bool configured = [] {
        const char *levels = secure_getenv("SENSORS_LOG_LEVEL");
        if (levels && !parse_levels(levels, &s.levels))
            fprintf(stderr, "sensors log: ignoring malformed SENSORS_LOG_LEVEL '%s'\n", levels);
        const char *output = secure_getenv("SENSORS_LOG_OUTPUT");
        if (output)
            parse_output(output, &s.output);
        return true;
    }();
    (void)configured;
    return s;
}

int level_of(const log_state &s, const char *tag)
{
    for (size_t i = 0; i < s.levels.count; i++)
        if (strcmp(s.levels.tags[i].name, tag) == 0)
            return s.levels.tags[i].level;
    return s.levels.default_level;
}

char priority_letter(int priority)
{
    static constexpr char kLetters[] = "AACEWNID";
    return priority >= 0 && priority <= LOG_DEBUG ? kLetters[priority] : '?';
}

// The text's length without its trailing newlines.
size_t text_length(const char *text)
{
    size_t len = strlen(text);
    while (len && text[len - 1] == '\n')
        len--;
    return len;
}

void emit_syslog(syslog_repeats &r, const log_tag &tag, int priority, const char *text)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t now_ms = int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    const size_t len = text_length(text);
    std::lock_guard<std::mutex> lock(r.lock);
    if (r.have_last && r.priority == priority && strcmp(r.tag, tag.name) == 0 && strlen(r.text) == len &&
        strncmp(r.text, text, len) == 0) {
        if (r.count++ == 0)
            r.since_ms = now_ms;
        if (now_ms - r.since_ms >= 1000)
            r.flush();
        return;
    }
    r.flush();
    syslog(priority, "%s: %.*s", tag.name, int(len), text);
    r.have_last = true;
    r.priority = priority;
    snprintf(r.tag, sizeof r.tag, "%s", tag.name);
    snprintf(r.text, sizeof r.text, "%.*s", int(len), text);
}

void emit(log_state &s, const log_tag &tag, int priority, const char *text)
{
    if (s.capturing.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> lock(s.capture_lock);
        s.captured.push_back(log_record{priority, tag.name, text});
        return;
    }
    switch (s.output) {
    case log_output::none:
        return;
    case log_output::syslog_out:
        emit_syslog(s.repeats, tag, priority, text);
        return;
    case log_output::stderr_out:
        break;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char line[kMessageMax + 96];
    // A text that ends in newlines still makes one line.
    int n = snprintf(line, sizeof line, "[%5lld.%06ld] %c %s: %.*s\n", static_cast<long long>(now.tv_sec),
                     now.tv_nsec / 1000, priority_letter(priority), tag.name, int(text_length(text)), text);
    if (n < 0)
        return;
    size_t len = size_t(n) < sizeof line ? size_t(n) : sizeof line - 1;
    if (line[len - 1] != '\n')
        line[len - 1] = '\n';
    // One write per line keeps lines whole when several processes share stderr.
    ssize_t ignored = write(STDERR_FILENO, line, len);
    (void)ignored;
}

} // namespace

int log_level_from_name(const char *name, size_t len)
{
    struct entry {
        const char *name;
        int level;
    };
    static constexpr entry kNames[] = {
        {"none", 0},        {"off", 0},           {"crit", LOG_CRIT},     {"critical", LOG_CRIT},
        {"err", LOG_ERR},   {"error", LOG_ERR},   {"warn", LOG_WARNING},  {"warning", LOG_WARNING},
        {"notice", LOG_NOTICE}, {"info", LOG_INFO}, {"debug", LOG_DEBUG},
    };
    if (len == 1 && name[0] >= '0' && name[0] <= '7')
        return name[0] - '0';
    for (const entry &e : kNames)
        if (strlen(e.name) == len && strncmp(e.name, name, len) == 0)
            return e.level;
    return -1;
}

bool log_admits(const log_tag &tag, int priority)
{
    return priority <= level_of(state(), tag.name);
}

void log_vmsg(const log_tag &tag, int priority, const char *fmt, va_list ap)
{
    log_state &s = state();
    if (priority > level_of(s, tag.name))
        return;
    char text[kMessageMax];
    vsnprintf(text, sizeof text, fmt, ap);
    s.formatted.fetch_add(1, std::memory_order_relaxed);
    emit(s, tag, priority, text);
}

void log_msg(const log_tag &tag, int priority, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    log_vmsg(tag, priority, fmt, ap);
    va_end(ap);
}

void log_str(const log_tag &tag, int priority, const char *text)
{
    log_state &s = state();
    if (priority > level_of(s, tag.name))
        return;
    emit(s, tag, priority, text ? text : "(null)");
}

void log_call_failed(const log_tag &tag, int priority, const char *function, int line, const char *operation,
                     int err)
{
    int positive = err < 0 ? -err : err;
    log_msg(tag, priority, "%s:%d: %s err=%d(%s)", function, line, operation, positive, strerror(positive));
}

int log_set_levels(const char *spec)
{
    if (!spec)
        return -EINVAL;
    level_table table;
    if (!parse_levels(spec, &table))
        return -EINVAL;
    state().levels = table;
    return 0;
}

int log_set_output(const char *name)
{
    if (!name)
        return -EINVAL;
    log_state &s = state();
    log_output output;
    if (!parse_output(name, &output))
        return -EINVAL;
    {
        std::lock_guard<std::mutex> lock(s.repeats.lock);
        s.repeats.flush();
        s.repeats.have_last = false;
    }
    s.output = output;
    return 0;
}

uint64_t log_formatted_count()
{
    return state().formatted.load(std::memory_order_relaxed);
}

void log_capture_start()
{
    log_state &s = state();
    std::lock_guard<std::mutex> lock(s.capture_lock);
    s.captured.clear();
    s.capturing.store(true, std::memory_order_release);
}

std::vector<log_record> log_capture_take()
{
    log_state &s = state();
    std::lock_guard<std::mutex> lock(s.capture_lock);
    std::vector<log_record> out;
    out.swap(s.captured);
    return out;
}

void log_capture_stop()
{
    log_state &s = state();
    std::lock_guard<std::mutex> lock(s.capture_lock);
    s.capturing.store(false, std::memory_order_release);
    s.captured.clear();
}
