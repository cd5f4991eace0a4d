// SPDX-License-Identifier: Apache-2.0
#include "platform/log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "platform/paths.h"
#include "platform/time_helpers.h"

namespace {

constexpr size_t kMaxTagOverrides = 32;
constexpr size_t kTagNameMax = 32;
constexpr size_t kMessageMax = 1024;
// "<PRI>Mmm dd hh:mm:ss ident[pid]: " with an ident of at most 255 characters.
constexpr size_t kSyslogHeaderMax = 320;

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

// The system logger's socket, relocated by ORLUNE_ROOT like every fixed path.
constexpr const char *kSystemLoggerSocket = "/dev/log";
// A logger that is absent or restarting is asked again once a second at most.
constexpr int64_t kReconnectIntervalNs = kNsPerSec;

// The syslog output: one datagram a line to the system logger, never waited
// for. A line the logger does not take at once is dropped and counted; the
// count goes out as a line of its own ahead of the next line it takes.
struct syslog_sink {
    std::mutex lock;
    int fd = -1;
    bool tried = false; // a connection was attempted since the output was chosen
    int64_t tried_ns = 0;
    uint64_t dropped = 0;

    void disconnect()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
    ~syslog_sink() { disconnect(); }
};

struct log_state {
    level_table levels;
    std::atomic<log_output> output{log_output::stderr_out};
    syslog_sink sink;
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

// The highest level in a table: what a message must not exceed to be admitted.
int ceiling_of(const level_table &table)
{
    int ceiling = table.default_level;
    for (size_t i = 0; i < table.count; i++)
        ceiling = table.tags[i].level > ceiling ? table.tags[i].level : ceiling;
    return ceiling;
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
        log_output chosen;
        if (output && parse_output(output, &chosen))
            s.output.store(chosen);
        g_log_ceiling.store(ceiling_of(s.levels), std::memory_order_relaxed);
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

// "Mmm dd hh:mm:ss ident[pid]: ", the header the system's syslog(3) writes
// after the priority: local time, English month names whatever the locale.
void syslog_stamp(char *out, size_t size)
{
    static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    const unsigned month = unsigned(local.tm_mon) < 12 ? unsigned(local.tm_mon) : 0;
    snprintf(out, size, "%s %2d %02d:%02d:%02d %.255s[%d]: ", kMonths[month], local.tm_mday, local.tm_hour,
             local.tm_min, local.tm_sec, program_invocation_short_name, int(getpid()));
}

enum class delivery { taken, not_taken, logger_gone };

delivery send_datagram(int fd, const char *data, int len)
{
    if (len < 0)
        return delivery::not_taken;
    if (send(fd, data, size_t(len), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
        return delivery::taken;
    switch (errno) {
    case ECONNREFUSED: // the logger closed its socket (stopped or restarting)
    case ECONNRESET:
    case ENOTCONN:
    case ENOENT:
    case EPIPE:
        return delivery::logger_gone;
    default: // EAGAIN, ENOBUFS: its queue is full
        return delivery::not_taken;
    }
}

// Connects when no socket is open, a second at least after the previous
// attempt. Connecting a datagram socket to a local path does not block.
bool syslog_connect(syslog_sink &k, int64_t now_ns)
{
    if (k.fd >= 0)
        return true;
    if (k.tried && now_ns - k.tried_ns < kReconnectIntervalNs)
        return false;
    k.tried = true;
    k.tried_ns = now_ns;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (platform_path(kSystemLoggerSocket, addr.sun_path, sizeof addr.sun_path) != 0)
        return false;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return false;
    }
    k.fd = fd;
    return true;
}

delivery send_dropped_report(syslog_sink &k, const char *stamp)
{
    char report[kSyslogHeaderMax + 96];
    const int n = snprintf(report, sizeof report, "<%d>%slog: %llu line%s dropped: the system logger did not take them",
                           LOG_USER | LOG_WARNING, stamp, static_cast<unsigned long long>(k.dropped),
                           k.dropped == 1 ? "" : "s");
    const delivery d = send_datagram(k.fd, report, n < int(sizeof report) ? n : int(sizeof report) - 1);
    if (d == delivery::taken)
        k.dropped = 0;
    return d;
}

void emit_syslog(syslog_sink &k, const log_tag &tag, int priority, const char *text)
{
    char stamp[kSyslogHeaderMax];
    syslog_stamp(stamp, sizeof stamp);
    size_t len = text_length(text);
    if (len > kMessageMax - 1)
        len = kMessageMax - 1;
    char line[kSyslogHeaderMax + kMessageMax + 64];
    int n = snprintf(line, sizeof line, "<%d>%s%s: %.*s", LOG_USER | (priority & LOG_PRIMASK), stamp, tag.name,
                     int(len), text);
    if (n >= int(sizeof line))
        n = int(sizeof line) - 1;
    const int64_t now_ns = monotonic_ns();

    std::lock_guard<std::mutex> lock(k.lock);
    // A logger found gone is asked again at once when the last attempt is a
    // second old, so a restart costs no line.
    for (int attempt = 0; attempt < 2; attempt++) {
        if (!syslog_connect(k, now_ns))
            break;
        // The count goes first; while it is not taken, neither is the line.
        delivery d = k.dropped ? send_dropped_report(k, stamp) : delivery::taken;
        if (d == delivery::taken)
            d = send_datagram(k.fd, line, n);
        if (d == delivery::taken)
            return;
        if (d == delivery::not_taken)
            break;
        k.disconnect();
    }
    k.dropped++;
}

void emit(log_state &s, const log_tag &tag, int priority, const char *text)
{
    if (s.capturing.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> lock(s.capture_lock);
        s.captured.push_back(log_record{priority, tag.name, text});
        return;
    }
    switch (s.output.load(std::memory_order_relaxed)) {
    case log_output::none:
        return;
    case log_output::syslog_out:
        emit_syslog(s.sink, tag, priority, text);
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

// Until the levels are read (at the first message), every priority goes to
// the full check, which reads them.
constinit std::atomic<int> g_log_ceiling{LOG_DEBUG};

void(log_msg)(const log_tag &tag, int priority, const char *fmt, ...)
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
    log_state &s = state();
    s.levels = table;
    g_log_ceiling.store(ceiling_of(table), std::memory_order_relaxed);
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
    s.output.store(output, std::memory_order_relaxed);
    // The next syslog line connects afresh, to the logger's socket where
    // ORLUNE_ROOT then places it. Lines dropped so far stay counted until
    // the system logger takes a line again.
    std::lock_guard<std::mutex> lock(s.sink.lock);
    s.sink.disconnect();
    s.sink.tried = false;
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
