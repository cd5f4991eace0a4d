// SPDX-License-Identifier: Apache-2.0
#include "sim/iiod_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/time_helpers.h"
#include "sim/iiod_command.h"
#include "sim/replay.h"

namespace sim {
namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNever = INT64_MAX;
constexpr size_t kMaxLine = 4096;          // longer requests are refused whole
constexpr size_t kMaxAttrValue = 4096;     // longer written values are read and dropped
constexpr size_t kMaxBufferBytes = 16 << 20; // per open buffer
constexpr size_t kMaxChannels = 64;
constexpr size_t kDefaultKernelLength = 64; // scans, the kernel's default buffer length

std::chrono::steady_clock::time_point to_steady(int64_t mono_ns)
{
    // steady_clock is CLOCK_MONOTONIC on Linux.
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(mono_ns));
}

std::string xml_escape(const std::string &s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string format_text(const scan_format &f)
{
    return std::string("le:") + (f.is_signed ? "s" : "u") + std::to_string(f.bits) + "/" +
           std::to_string(f.storage_bytes * 8) + "&gt;&gt;0";
}

constexpr const char *kDtd =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<!DOCTYPE context [\n"
    "<!ELEMENT context (device | context-attribute)*>\n"
    "<!ELEMENT context-attribute EMPTY>\n"
    "<!ELEMENT device (channel | attribute | debug-attribute | buffer-attribute)*>\n"
    "<!ELEMENT channel (scan-element?, attribute*)>\n"
    "<!ELEMENT attribute EMPTY>\n"
    "<!ELEMENT scan-element EMPTY>\n"
    "<!ELEMENT debug-attribute EMPTY>\n"
    "<!ELEMENT buffer-attribute EMPTY>\n"
    "<!ATTLIST context name CDATA #REQUIRED version-major CDATA #REQUIRED version-minor CDATA #REQUIRED "
    "version-git CDATA #REQUIRED description CDATA #IMPLIED>\n"
    "<!ATTLIST context-attribute name CDATA #REQUIRED value CDATA #REQUIRED>\n"
    "<!ATTLIST device id CDATA #REQUIRED name CDATA #IMPLIED label CDATA #IMPLIED>\n"
    "<!ATTLIST channel id CDATA #REQUIRED type (input|output) #REQUIRED name CDATA #IMPLIED>\n"
    "<!ATTLIST scan-element index CDATA #REQUIRED format CDATA #REQUIRED scale CDATA #IMPLIED>\n"
    "<!ATTLIST attribute name CDATA #REQUIRED filename CDATA #IMPLIED>\n"
    "<!ATTLIST debug-attribute name CDATA #REQUIRED>\n"
    "<!ATTLIST buffer-attribute name CDATA #REQUIRED>\n"
    "]>\n";

// Attribute values that clients may write, with their accepted range.
struct writable_attr {
    const char *file;
    long min;
    long max;
};
constexpr std::array<writable_attr, 2> kWritable{{
    {"sampling_frequency", 1, 1000000},
    {"rate_divider", 1, 64},
}};

// A buffer that one connection opened on a device: its own channels, refill
// size and cursor in the device's stream, as each client of a board's iiod
// gets every scan the device makes.
struct reader_state {
    uint64_t serial = 0;         // the connection's
    bool enabled = false;
    uint64_t mask = 0;
    std::vector<size_t> offsets; // byte offset of each channel for the mask
    size_t scan_size = 0;
    size_t samples = 0;          // scans per refill
    uint64_t consumed = 0;       // scans of the stream read or dropped
};

struct sensor_state {
    std::unique_ptr<device_model> model;
    std::string id;                   // "iio:deviceN"
    size_t trigger = 0;               // its own trigger's index
    std::vector<std::pair<std::string, std::string>> values; // by file name
    size_t kernel_length = kDefaultKernelLength;
    // Scans a reader's full kernel buffer dropped because it fell behind.
    uint64_t overrun = 0;
    long attached = -1; // trigger index, -1 = none
    // Scans are numbered from origin: scan j is sampled and stamped at
    // origin + (j+1) periods, and becomes readable the device's delivery
    // delay after the last scan of its trigger batch was sampled.
    int64_t origin_ns = 0;
    // At most one per connection. Nodes stay put while a refill waits with
    // the lock released: only the reader's own connection removes it.
    std::list<reader_state> readers;
    // Armed faults belong to the device, not to a reader: the next refill
    // of whichever reader comes first consumes them.
    int error_left = 0;
    int error_errno = EIO;
    int short_left = 0;
    int short_scans = 0;
    // A replayed device: its recorded scans, and the first of them that the
    // stream (scan 0 of every reader) starts at.
    const replay_device *recorded = nullptr;
    uint64_t replay_first = 0;
};

struct trigger_state {
    std::string id; // "triggerN"
    std::string name;
    size_t sensor;
};

struct connection {
    uint64_t serial = 0;
    int fd = -1;
    uint64_t generation = 0;
    bool done = false;
    std::thread thread;
};

long attr_long(const sensor_state &s, const char *file, long fallback)
{
    for (const auto &[name, value] : s.values)
        if (name == file)
            return std::strtol(value.c_str(), nullptr, 10);
    return fallback;
}

} // namespace

struct iiod_server::impl {
    scenario scn;
    vehicle truth;
    server_options options;
    int64_t epoch = 0;
    std::string xml;
    std::vector<sensor_state> sensors;
    std::vector<trigger_state> triggers;

    mutable std::mutex mu;
    std::condition_variable cv;
    bool stopping = false;
    uint64_t generation = 0; // bumped by a disconnect: older connections end
    unsigned timeout_ms = 2500;
    uint16_t port = 0;
    int listen_fd = -1;
    int64_t restart_at = kNever;
    std::list<connection> connections;
    uint64_t next_serial = 1;
    std::thread acceptor;
    std::thread controller;
    size_t next_fault = 0;
    std::vector<scenario_fault> schedule;
    // Replay: the capture's devices, the clock that the blocking devices'
    // refills move on, and how capture time maps to this machine's clock.
    std::vector<replay_device> recorded;
    replay_clock *replay = nullptr;
    replay_pace pace = replay_pace::original;
    int64_t pace_offset = 0; // monotonic time minus capture time, at the original pace
    mutable std::atomic<bool> replay_over{false}; // a blocking device was asked for more than was recorded

    explicit impl(const scenario &s) : scn(s), truth(s) {}

    // ---- description -------------------------------------------------
    void build_xml()
    {
        xml = kDtd;
        xml += "<context name=\"network\" version-major=\"0\" version-minor=\"24\" version-git=\"v0.24\" "
               "description=\"orlune virtual vehicle\">\n";
        xml += "<context-attribute name=\"hw_model\" value=\"orlune virtual vehicle\" />\n";
        xml += "<context-attribute name=\"scenario\" value=\"" + xml_escape(scn.name) + "\" />\n";
        for (const sensor_state &s : sensors) {
            const device_model &m = *s.model;
            xml += "<device id=\"" + s.id + "\" name=\"" + xml_escape(m.setup().name) + "\">";
            for (size_t i = 0; i < m.channels().size(); i++) {
                const channel_desc &c = m.channels()[i];
                xml += "<channel id=\"" + c.id + "\" type=\"input\"><scan-element index=\"" + std::to_string(i) +
                       "\" format=\"" + format_text(c.format) + "\" />";
                for (const attr_desc &a : c.attrs)
                    xml += "<attribute name=\"" + a.name + "\" filename=\"" + a.filename + "\" />";
                xml += "</channel>";
            }
            for (const std::string &a : m.device_attrs())
                xml += "<attribute name=\"" + a + "\" />";
            xml += "<buffer-attribute name=\"enable\" /><buffer-attribute name=\"length\" /></device>\n";
            const trigger_state &t = triggers[s.trigger];
            xml += "<device id=\"" + t.id + "\" name=\"" + xml_escape(t.name) + "\">";
            for (const std::string &a : m.trigger_attrs())
                xml += "<attribute name=\"" + a + "\" />";
            xml += "</device>\n";
        }
        xml += "</context>";
    }

    // ---- lookups (lock held) ------------------------------------------
    sensor_state *sensor_by_id(std::string_view id)
    {
        for (sensor_state &s : sensors)
            if (s.id == id)
                return &s;
        return nullptr;
    }
    trigger_state *trigger_by_id(std::string_view id)
    {
        for (trigger_state &t : triggers)
            if (t.id == id)
                return &t;
        return nullptr;
    }
    long trigger_index_by_word(std::string_view word)
    {
        // As iiod: id, label or name.
        for (size_t i = 0; i < triggers.size(); i++)
            if (triggers[i].id == word || triggers[i].name == word)
                return static_cast<long>(i);
        return -1;
    }

    // ---- streams (lock held) ------------------------------------------
    int64_t period_ns(const sensor_state &s) const
    {
        return std::max<int64_t>(1, 1000000000LL / std::max(1L, attr_long(s, "sampling_frequency", 1)));
    }
    uint64_t divider(const sensor_state &s) const
    {
        return s.model->blocking() ? static_cast<uint64_t>(std::max(1L, attr_long(s, "rate_divider", 1))) : 1;
    }
    int64_t delay_ns(const sensor_state &s) const { return delivery_delay_ns(s.model->setup(), period_ns(s)); }
    reader_state *reader_of(sensor_state &s, uint64_t serial)
    {
        for (reader_state &r : s.readers)
            if (r.serial == serial)
                return &r;
        return nullptr;
    }
    // Buffer enable as a connection reads it: its own buffer's, or whether
    // the device streams to anyone.
    bool enabled(const sensor_state &s, const reader_state *own) const
    {
        if (own)
            return own->enabled;
        return std::any_of(s.readers.begin(), s.readers.end(), [](const reader_state &r) { return r.enabled; });
    }
    // The device samples while a trigger drives it and a reader has its
    // buffer enabled.
    bool producing(const sensor_state &s) const { return s.attached >= 0 && enabled(s, nullptr); }
    // The device's settings changed: every reader starts over with it.
    void restart_stream(sensor_state &s, int64_t at)
    {
        s.origin_ns = at;
        if (s.recorded) {
            // A replayed stream starts at the first scan not taken yet: at
            // the original pace, one a vehicle would not have made yet.
            int64_t from = replay->now();
            if (pace == replay_pace::original && s.model->blocking())
                from = std::max(from, monotonic_ns() - pace_offset);
            s.replay_first = s.recorded->until(from);
        }
        for (reader_state &r : s.readers)
            r.consumed = 0;
        cv.notify_all();
    }
    // Buffer enable as a connection writes it: its own buffer's, or, from a
    // connection without one on the device, every buffer's (the network
    // client opens a buffer on a connection of its own and writes the
    // attributes on another). Enabling a disabled buffer restarts the
    // device, and so every reader's stream.
    void set_enabled(sensor_state &s, reader_state *own, bool enable)
    {
        bool restart = false;
        for (reader_state &r : s.readers)
            if (!own || &r == own) {
                restart |= enable && !r.enabled;
                r.enabled = enable;
            }
        if (restart)
            restart_stream(s, monotonic_ns());
        cv.notify_all();
    }
    // Scans that have reached the kernel buffer by now: those sampled at
    // least one delivery delay ago, in whole trigger batches.
    uint64_t delivered(const sensor_state &s, int64_t now) const
    {
        if (s.recorded) {
            if (!producing(s))
                return 0;
            const replay_device &d = *s.recorded;
            if (s.model->blocking() && pace == replay_pace::fast) {
                if (d.loop_ns)
                    return UINT32_MAX; // more than any refill asks for
                return d.per_pass() > s.replay_first ? d.per_pass() - s.replay_first : 0;
            }
            const uint64_t n = d.until(s.model->blocking() ? now - pace_offset : replay->now());
            return n > s.replay_first ? n - s.replay_first : 0;
        }
        const int64_t sampled_by = now - delay_ns(s);
        if (!producing(s) || sampled_by < s.origin_ns)
            return 0;
        const uint64_t sampled = static_cast<uint64_t>((sampled_by - s.origin_ns) / period_ns(s));
        return sampled / divider(s) * divider(s);
    }
    int64_t ready_at(const sensor_state &s, const reader_state &r, uint64_t scan) const
    {
        if (!r.enabled || s.attached < 0)
            return kNever;
        if (s.recorded) {
            const uint64_t n = s.replay_first + scan;
            if (!s.recorded->exists(n)) {
                replay_over = true;
                return kNever;
            }
            return pace == replay_pace::fast ? 0 : s.recorded->stamp(n) + pace_offset;
        }
        const uint64_t d = divider(s);
        return s.origin_ns + static_cast<int64_t>((scan / d + 1) * d) * period_ns(s) + delay_ns(s);
    }
    // Scans waiting for a reader; its full kernel buffer keeps the newest,
    // and a scan still on its way is not in it yet.
    uint64_t waiting(sensor_state &s, reader_state &r, int64_t now)
    {
        if (!r.enabled)
            return 0;
        // The kernel buffer holds at least one refill's worth. A fast replay
        // hands over every recorded scan: it has no rate to fall behind.
        const uint64_t capacity = s.recorded && pace == replay_pace::fast && s.model->blocking()
                                      ? UINT64_MAX / 2
                                      : std::max(s.kernel_length, r.samples);
        const uint64_t p = delivered(s, now);
        if (p > r.consumed + capacity) {
            s.overrun += p - capacity - r.consumed;
            r.consumed = p - capacity;
        }
        return p > r.consumed ? p - r.consumed : 0;
    }
    void layout(reader_state &r, const device_model &m)
    {
        // The client's rule: each element aligned to its own size, no
        // padding after the last one.
        const auto &ch = m.channels();
        r.offsets.assign(ch.size(), 0);
        size_t size = 0;
        for (size_t i = 0; i < ch.size(); i++) {
            if (!(r.mask & (uint64_t{1} << i)))
                continue;
            const size_t len = ch[i].format.storage_bytes;
            if (size % len)
                size += len - size % len;
            r.offsets[i] = size;
            size += len;
        }
        r.scan_size = size;
    }
    // Scan j is a function of the stream's origin and j (the sensors' noise
    // is keyed by the scan), so every reader gets the same scan j whenever
    // it reads it. The motor controller's state only moves forward: a reader
    // that lags reads its scans with the state the controller has by then.
    void write_scans(const sensor_state &s, const reader_state &r, uint64_t first, size_t count, char *out)
    {
        const auto &ch = s.model->channels();
        if (s.recorded) {
            const replay_device &d = *s.recorded;
            for (size_t k = 0; k < count; k++) {
                const uint64_t n = s.replay_first + first + k;
                const uint8_t *src = d.scan(n);
                char *scan = out + k * r.scan_size;
                for (size_t i = 0; i < ch.size(); i++)
                    if (r.mask & (uint64_t{1} << i))
                        std::memcpy(scan + r.offsets[i], src + d.offsets[i], ch[i].format.storage_bytes);
                // A later pass of a loop is stamped on from the previous one.
                if (n >= d.per_pass() && d.timestamp >= 0 && (r.mask & (uint64_t{1} << d.timestamp))) {
                    const int64_t stamp = d.stamp(n);
                    std::memcpy(scan + r.offsets[static_cast<size_t>(d.timestamp)], &stamp, sizeof stamp);
                }
            }
            return;
        }
        const int64_t period = period_ns(s);
        int64_t raw[kMaxChannels];
        std::memset(out, 0, count * r.scan_size);
        for (size_t k = 0; k < count; k++) {
            const int64_t stamp = s.origin_ns + static_cast<int64_t>(first + k + 1) * period;
            s.model->sample(truth, static_cast<double>(stamp - epoch) / 1e9, static_cast<uint64_t>(stamp), raw);
            raw[ch.size() - 1] = stamp;
            char *scan = out + k * r.scan_size;
            for (size_t i = 0; i < ch.size(); i++) {
                if (!(r.mask & (uint64_t{1} << i)))
                    continue;
                const uint64_t v = static_cast<uint64_t>(raw[i]);
                for (unsigned b = 0; b < ch[i].format.storage_bytes; b++)
                    scan[r.offsets[i] + b] = static_cast<char>((v >> (8 * b)) & 0xff);
            }
        }
    }

    // ---- faults ---------------------------------------------------------
    int arm(const scenario_fault &f)
    {
        std::unique_lock<std::mutex> lock(mu);
        if (f.kind == fault_kind::disconnect) {
            lock.unlock();
            go_down(f.duration_s);
            return 0;
        }
        sensor_state *s = nullptr;
        for (sensor_state &c : sensors)
            if (c.model->setup().name == f.device)
                s = &c;
        if (!s)
            return -ENODEV;
        switch (f.kind) {
        case fault_kind::refill_error:
            s->error_left += f.count;
            s->error_errno = f.error;
            break;
        case fault_kind::short_batch:
            s->short_left += f.count;
            s->short_scans = f.scans;
            break;
        case fault_kind::stall:
            // The trigger falls silent: what it had not delivered is lost and
            // scans resume once the stall is over.
            restart_stream(*s, monotonic_ns() + static_cast<int64_t>(f.duration_s * 1e9));
            break;
        case fault_kind::disconnect:
            break;
        case fault_kind::motor_error: {
            const int rc = s->model->arm_fault(f, static_cast<double>(monotonic_ns() - epoch) / 1e9);
            if (rc)
                return rc;
            break;
        }
        }
        cv.notify_all();
        return 0;
    }

    // ---- sockets ----------------------------------------------------------
    int open_listener(std::string *error)
    {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return fail(error, "socket", errno);
        int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port ? port : options.port);
        if (inet_pton(AF_INET, options.address.c_str(), &addr.sin_addr) != 1) {
            close(fd);
            return fail(error, "address " + options.address, EINVAL);
        }
        if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
            int err = errno;
            close(fd);
            return fail(error, "bind/listen " + options.address + ":" + std::to_string(ntohs(addr.sin_port)), err);
        }
        socklen_t len = sizeof addr;
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
        std::lock_guard<std::mutex> lock(mu);
        if (stopping) {
            close(fd);
            return fail(error, "listen", ESHUTDOWN);
        }
        port = ntohs(addr.sin_port);
        listen_fd = fd;
        acceptor = std::thread([this, fd] { accept_loop(fd); });
        return 0;
    }

    static int fail(std::string *error, const std::string &what, int err)
    {
        if (error)
            *error = what + ": " + std::strerror(err);
        return -err;
    }

    void accept_loop(int fd)
    {
        for (;;) {
            int c = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) {
                if (errno == EINTR || errno == ECONNABORTED)
                    continue;
                return; // shut down
            }
            int one = 1;
            setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            std::lock_guard<std::mutex> lock(mu);
            reap();
            if (stopping) {
                close(c);
                return;
            }
            connection &conn = connections.emplace_back();
            conn.serial = next_serial++;
            conn.fd = c;
            conn.generation = generation;
            conn.thread = std::thread([this, &conn] { serve(conn); });
        }
    }

    void reap()
    {
        for (auto it = connections.begin(); it != connections.end();) {
            if (it->done) {
                it->thread.join();
                it = connections.erase(it);
            } else {
                ++it;
            }
        }
    }

    // Stops listening and drops every connection; the controller listens
    // again after down_s seconds.
    void go_down(double down_s)
    {
        std::thread old;
        {
            std::lock_guard<std::mutex> lock(mu);
            if (listen_fd < 0 || !acceptor.joinable() || stopping)
                return; // already down, or going down
            shutdown(listen_fd, SHUT_RDWR);
            old = std::move(acceptor);
            generation++;
            for (connection &c : connections)
                if (c.fd >= 0)
                    shutdown(c.fd, SHUT_RDWR);
            restart_at = monotonic_ns() + static_cast<int64_t>(down_s * 1e9);
            cv.notify_all();
        }
        old.join();
        std::lock_guard<std::mutex> lock(mu);
        close(listen_fd);
        listen_fd = -1;
    }

    void control_loop()
    {
        std::unique_lock<std::mutex> lock(mu);
        while (!stopping) {
            int64_t next = restart_at;
            if (next_fault < schedule.size())
                next = std::min(next, epoch + static_cast<int64_t>(schedule[next_fault].at_s * 1e9));
            const int64_t now = monotonic_ns();
            if (now < next) {
                if (next == kNever)
                    cv.wait(lock);
                else
                    cv.wait_until(lock, to_steady(next));
                continue;
            }
            if (restart_at <= now && listen_fd < 0) {
                restart_at = kNever;
                lock.unlock();
                std::string error;
                if (open_listener(&error) != 0) {
                    std::fprintf(stderr, "orlune-sim: cannot listen again: %s\n", error.c_str());
                    lock.lock();
                    restart_at = monotonic_ns() + 100 * kNsPerMs;
                    continue;
                }
                lock.lock();
                continue;
            }
            if (restart_at <= now)
                restart_at = kNever;
            if (next_fault < schedule.size() && epoch + static_cast<int64_t>(schedule[next_fault].at_s * 1e9) <= now) {
                scenario_fault f = schedule[next_fault++];
                lock.unlock();
                arm(f);
                lock.lock();
            }
        }
    }

    // ---- one connection -------------------------------------------------------
    struct session {
        impl &server;
        connection &conn;
        char in[kMaxLine];
        size_t in_begin = 0, in_end = 0;
        std::vector<char> out; // reply buffer, sized at OPEN so refills do not allocate

        bool fill()
        {
            if (in_begin == in_end)
                in_begin = in_end = 0;
            if (in_end == sizeof in) {
                std::memmove(in, in + in_begin, in_end - in_begin);
                in_end -= in_begin;
                in_begin = 0;
            }
            ssize_t n;
            do
                n = recv(conn.fd, in + in_end, sizeof in - in_end, 0);
            while (n < 0 && errno == EINTR);
            if (n <= 0)
                return false;
            in_end += static_cast<size_t>(n);
            return true;
        }

        // 1: a line in *line; 0: an over-long line was skipped; -1: EOF.
        int read_line(std::string *line)
        {
            line->clear();
            bool too_long = false;
            for (;;) {
                char *start = in + in_begin;
                char *nl = static_cast<char *>(std::memchr(start, '\n', in_end - in_begin));
                if (nl) {
                    if (!too_long)
                        line->append(start, static_cast<size_t>(nl - start));
                    in_begin += static_cast<size_t>(nl - start) + 1;
                    if (too_long || line->size() >= kMaxLine)
                        return 0;
                    if (!line->empty() && line->back() == '\r')
                        line->pop_back();
                    return 1;
                }
                if (!too_long)
                    line->append(start, in_end - in_begin);
                in_begin = in_end;
                if (line->size() >= kMaxLine) {
                    too_long = true;
                    line->clear();
                }
                if (!fill())
                    return -1;
            }
        }

        // Reads exactly n payload bytes, keeping at most kMaxAttrValue.
        bool read_payload(uint64_t n, std::string *value)
        {
            value->clear();
            while (n) {
                if (in_begin == in_end && !fill())
                    return false;
                const size_t take = static_cast<size_t>(std::min<uint64_t>(n, in_end - in_begin));
                if (value->size() < kMaxAttrValue)
                    value->append(in + in_begin, std::min(take, kMaxAttrValue - value->size()));
                in_begin += take;
                n -= take;
            }
            return true;
        }

        bool send_all(const char *p, size_t n)
        {
            while (n) {
                ssize_t w = send(conn.fd, p, n, MSG_NOSIGNAL);
                if (w < 0 && errno == EINTR)
                    continue;
                if (w <= 0)
                    return false;
                p += w;
                n -= static_cast<size_t>(w);
            }
            return true;
        }
        bool reply(long v)
        {
            char line[32];
            int n = std::snprintf(line, sizeof line, "%ld\n", v);
            return send_all(line, static_cast<size_t>(n));
        }
        bool reply_value(const std::string &v)
        {
            // The value NUL-terminated, counted with its NUL, then "\n".
            std::string r = std::to_string(v.size() + 1) + "\n" + v;
            r.push_back('\0');
            r.push_back('\n');
            return send_all(r.data(), r.size());
        }

        void run()
        {
            std::string line;
            for (;;) {
                int r = read_line(&line);
                if (r < 0)
                    return;
                if (stale())
                    return;
                if (r == 0) {
                    if (!reply(-EINVAL))
                        return;
                    continue;
                }
                if (!execute(parse_iiod_command(line)))
                    return;
            }
        }

        bool stale()
        {
            std::lock_guard<std::mutex> lock(server.mu);
            return server.stopping || conn.generation != server.generation;
        }

        // False ends the connection.
        bool execute(const iiod_command &cmd)
        {
            switch (cmd.op) {
            case iiod_op::empty:
                return true;
            case iiod_op::exit:
                return false;
            case iiod_op::print: {
                std::string r = std::to_string(server.xml.size()) + "\n" + server.xml + "\n";
                return send_all(r.data(), r.size());
            }
            case iiod_op::version: {
                const char v[] = "0.24.v0.24-s\n";
                return send_all(v, sizeof v - 1);
            }
            case iiod_op::timeout: {
                std::lock_guard<std::mutex> lock(server.mu);
                server.timeout_ms = static_cast<unsigned>(std::min<uint64_t>(cmd.number, UINT32_MAX));
                server.cv.notify_all();
                return reply(0);
            }
            case iiod_op::read:
                return read_attr(cmd);
            case iiod_op::write:
                return write_attr(cmd);
            case iiod_op::gettrig:
                return get_trigger(cmd);
            case iiod_op::settrig:
                return reply(set_trigger(cmd));
            case iiod_op::set_buffers_count: {
                std::lock_guard<std::mutex> lock(server.mu);
                if (!server.sensor_by_id(cmd.device))
                    return reply(server.trigger_by_id(cmd.device) ? -EINVAL : -ENODEV);
                return reply(cmd.number >= 1 ? 0 : -EINVAL);
            }
            case iiod_op::open:
                return reply(open_buffer(cmd));
            case iiod_op::close:
                return reply(close_buffer(cmd.device));
            case iiod_op::readbuf:
                return read_buffer(cmd);
            case iiod_op::writebuf:
                // Input devices only: the client sends no data after an error.
                return reply(-ENOSYS);
            case iiod_op::zprint:
            case iiod_op::help:
            case iiod_op::invalid:
                return reply(-EINVAL);
            }
            return reply(-EINVAL);
        }

        // Where an attribute of the request lives: the file name, or an errno.
        int resolve(const iiod_command &cmd, sensor_state **sensor, std::string *file)
        {
            *sensor = server.sensor_by_id(cmd.device);
            if (!*sensor) {
                trigger_state *t = server.trigger_by_id(cmd.device);
                if (!t)
                    return -ENODEV;
                if (cmd.scope != attr_scope::device)
                    return -ENOENT;
                *sensor = &server.sensors[t->sensor];
                for (const std::string &a : (*sensor)->model->trigger_attrs())
                    if (a == cmd.attr) {
                        *file = a;
                        return 0;
                    }
                return -ENOENT;
            }
            const device_model &m = *(*sensor)->model;
            switch (cmd.scope) {
            case attr_scope::device:
                for (const std::string &a : m.device_attrs())
                    if (a == cmd.attr) {
                        *file = a;
                        return 0;
                    }
                return -ENOENT;
            case attr_scope::buffer:
                if (cmd.attr == "enable" || cmd.attr == "length") {
                    *file = std::string(cmd.attr);
                    return 0;
                }
                return -ENOENT;
            case attr_scope::input:
                for (const channel_desc &c : m.channels()) {
                    if (c.id != cmd.channel)
                        continue;
                    for (const attr_desc &a : c.attrs)
                        if (a.name == cmd.attr) {
                            *file = a.filename;
                            return 0;
                        }
                    return -ENOENT;
                }
                return -ENXIO;
            case attr_scope::output:
                return -ENXIO;
            case attr_scope::debug:
                return -ENOENT;
            }
            return -ENOENT;
        }

        bool read_attr(const iiod_command &cmd)
        {
            if (cmd.attr.empty())
                return reply(-ENOSYS); // read-all blobs are not served
            std::string value;
            int rc;
            {
                std::lock_guard<std::mutex> lock(server.mu);
                sensor_state *s;
                std::string file;
                rc = resolve(cmd, &s, &file);
                if (rc == 0)
                    rc = value_of(*s, cmd, file, &value);
            }
            return rc ? reply(rc) : reply_value(value);
        }

        int value_of(sensor_state &s, const iiod_command &cmd, const std::string &file, std::string *value)
        {
            if (cmd.scope == attr_scope::buffer) {
                *value = file == "enable" ? std::to_string(server.enabled(s, server.reader_of(s, conn.serial)) ? 1 : 0)
                                          : std::to_string(s.kernel_length);
                return 0;
            }
            if (cmd.attr == "raw" && !s.recorded) {
                // A direct reading: the channel's value now.
                const auto &ch = s.model->channels();
                int64_t raw[kMaxChannels];
                const int64_t now = monotonic_ns();
                s.model->sample(server.truth, static_cast<double>(now - server.epoch) / 1e9,
                                static_cast<uint64_t>(now), raw);
                for (size_t i = 0; i < ch.size(); i++)
                    if (ch[i].id == cmd.channel) {
                        *value = std::to_string(raw[i]);
                        return 0;
                    }
                return -ENXIO;
            }
            if (s.model->read_attr(file, static_cast<double>(monotonic_ns() - server.epoch) / 1e9, value))
                return 0;
            for (const auto &[name, v] : s.values)
                if (name == file) {
                    *value = v;
                    return 0;
                }
            return -ENOENT;
        }

        bool write_attr(const iiod_command &cmd)
        {
            // The payload always follows the line: read it before answering.
            std::string value;
            if (!read_payload(cmd.number, &value))
                return false;
            while (!value.empty() && (value.back() == '\0' || value.back() == '\n'))
                value.pop_back();
            if (cmd.attr.empty())
                return reply(-ENOSYS);
            std::lock_guard<std::mutex> lock(server.mu);
            sensor_state *s;
            std::string file;
            int rc = resolve(cmd, &s, &file);
            if (rc)
                return reply(rc);
            // The server stamps its scans on the monotonic clock, and on no
            // other.
            if (file == "current_timestamp_clock")
                return reply(value == "monotonic" ? static_cast<long>(cmd.number) : -EINVAL);
            char *end = nullptr;
            errno = 0;
            const long v = std::strtol(value.c_str(), &end, 10);
            const bool number = !value.empty() && end && (*end == '\0' || *end == '.') && errno == 0;
            if (cmd.scope == attr_scope::buffer) {
                if (!number)
                    return reply(-EINVAL);
                if (file == "length") {
                    if (!s->readers.empty())
                        return reply(-EBUSY);
                    if (v < 1 || v > 65536)
                        return reply(-EINVAL);
                    s->kernel_length = static_cast<size_t>(v);
                } else {
                    const bool enable = v != 0;
                    if (enable && s->readers.empty())
                        return reply(-EINVAL);
                    server.set_enabled(*s, server.reader_of(*s, conn.serial), enable);
                }
                return reply(static_cast<long>(cmd.number));
            }
            for (const writable_attr &w : kWritable) {
                if (file != w.file)
                    continue;
                if (!number || v < w.min || v > w.max)
                    return reply(-EINVAL);
                for (auto &[name, stored] : s->values)
                    if (name == file)
                        stored = std::to_string(v);
                server.restart_stream(*s, monotonic_ns());
                return reply(static_cast<long>(cmd.number));
            }
            // Commands the model carries out; anything else is read-only, as
            // its sysfs file.
            const int written =
                s->model->write_attr(file, value, static_cast<double>(monotonic_ns() - server.epoch) / 1e9);
            return reply(written ? written : static_cast<long>(cmd.number));
        }

        bool get_trigger(const iiod_command &cmd)
        {
            std::string name;
            {
                std::lock_guard<std::mutex> lock(server.mu);
                sensor_state *s = server.sensor_by_id(cmd.device);
                if (!s)
                    return reply(server.trigger_by_id(cmd.device) ? -ENOENT : -ENODEV);
                // A board's iiod reads an empty current_trigger: -EIO.
                if (s->attached < 0)
                    return reply(-EIO);
                name = server.triggers[static_cast<size_t>(s->attached)].name;
            }
            std::string r = std::to_string(name.size()) + "\n" + name + "\n";
            return send_all(r.data(), r.size());
        }

        int set_trigger(const iiod_command &cmd)
        {
            std::lock_guard<std::mutex> lock(server.mu);
            sensor_state *s = server.sensor_by_id(cmd.device);
            if (!s)
                return server.trigger_by_id(cmd.device) ? -ENOENT : -ENODEV;
            long t = -1;
            if (!cmd.trigger.empty()) {
                t = server.trigger_index_by_word(cmd.trigger);
                if (t < 0)
                    return -ENOENT;
            }
            if (t != s->attached) {
                s->attached = t;
                server.restart_stream(*s, monotonic_ns());
            }
            return 0;
        }

        int open_buffer(const iiod_command &cmd)
        {
            std::lock_guard<std::mutex> lock(server.mu);
            sensor_state *s = server.sensor_by_id(cmd.device);
            if (!s)
                return server.trigger_by_id(cmd.device) ? -EINVAL : -ENODEV;
            uint64_t mask;
            if (cmd.cyclic || cmd.number == 0 || parse_iiod_mask(cmd.mask, s->model->channels().size(), &mask) || !mask)
                return -EINVAL;
            if (server.reader_of(*s, conn.serial))
                return -EBUSY; // one buffer per device and connection
            reader_state r;
            r.serial = conn.serial;
            r.mask = mask;
            server.layout(r, *s->model);
            if (cmd.number > kMaxBufferBytes / r.scan_size)
                return -ENOMEM;
            r.samples = static_cast<size_t>(cmd.number);
            if (out.size() < 64 + r.samples * r.scan_size)
                out.resize(64 + r.samples * r.scan_size);
            r.enabled = true;
            // The first reader starts the device; a later one joins its
            // stream at the newest scan, leaving the others undisturbed.
            const int64_t now = monotonic_ns();
            const bool running = server.producing(*s);
            r.consumed = running ? server.delivered(*s, now) : 0;
            s->readers.push_back(std::move(r));
            if (!running)
                server.restart_stream(*s, now);
            return 0;
        }

        int close_buffer(std::string_view id)
        {
            std::lock_guard<std::mutex> lock(server.mu);
            sensor_state *s = server.sensor_by_id(id);
            reader_state *r = s ? server.reader_of(*s, conn.serial) : nullptr;
            if (!r)
                return -ENXIO;
            s->readers.remove_if([&](const reader_state &x) { return &x == r; });
            server.cv.notify_all();
            return 0;
        }

        bool read_buffer(const iiod_command &cmd)
        {
            std::unique_lock<std::mutex> lock(server.mu);
            sensor_state *s = server.sensor_by_id(cmd.device);
            reader_state *r = s ? server.reader_of(*s, conn.serial) : nullptr;
            if (!r)
                return lock.unlock(), reply(s || server.trigger_by_id(cmd.device) ? -EBADF : -ENODEV);
            size_t want = std::min<uint64_t>(r->samples, cmd.number / r->scan_size);
            if (want == 0)
                return lock.unlock(), reply(-EINVAL);
            if (s->error_left > 0) {
                s->error_left--;
                const int err = s->error_errno;
                return lock.unlock(), reply(-err);
            }
            if (s->short_left > 0) {
                s->short_left--;
                want = std::min<size_t>(want, static_cast<size_t>(s->short_scans));
                if (want == 0)
                    return lock.unlock(), reply(0);
            }
            const int64_t deadline =
                server.timeout_ms ? monotonic_ns() + static_cast<int64_t>(server.timeout_ms) * kNsPerMs : kNever;
            for (;;) {
                if (server.stopping || conn.generation != server.generation)
                    return false;
                const int64_t now = monotonic_ns();
                const uint64_t ready = server.waiting(*s, *r, now);
                if (ready >= want)
                    break;
                if (!s->model->blocking()) {
                    if (ready == 0)
                        return lock.unlock(), reply(-EAGAIN);
                    want = static_cast<size_t>(ready);
                    break;
                }
                // Answer -ETIMEDOUT before the client gives up on its side.
                const int64_t wake = std::min(server.ready_at(*s, *r, r->consumed + want - 1), deadline);
                if (now >= deadline)
                    return lock.unlock(), reply(-ETIMEDOUT);
                if (wake == kNever)
                    server.cv.wait(lock);
                else
                    server.cv.wait_until(lock, to_steady(wake));
            }
            const size_t bytes = want * r->scan_size;
            const size_t words = (s->model->channels().size() + 31) / 32;
            int n = std::snprintf(out.data(), 64, "%zu\n", bytes);
            for (size_t w = words; w-- > 0;)
                n += std::snprintf(out.data() + n, 16, "%08x", static_cast<unsigned>(r->mask >> (32 * w)));
            out[static_cast<size_t>(n++)] = '\n';
            server.write_scans(*s, *r, r->consumed, want, out.data() + n);
            // A replay moves on with the blocking device's scans (and the
            // other streams with it) before the client has them.
            const int64_t replayed_to = s->recorded && s->model->blocking()
                                            ? s->recorded->stamp(s->replay_first + r->consumed + want - 1)
                                            : kNever;
            r->consumed += want;
            size_t total = static_cast<size_t>(n) + bytes;
            // A batch shorter than asked ends with a zero length.
            if (bytes < cmd.number) {
                out[total++] = '0';
                out[total++] = '\n';
            }
            lock.unlock();
            if (replayed_to != kNever)
                server.replay->advance(replayed_to);
            return send_all(out.data(), total);
        }
    };

    void serve(connection &conn)
    {
        {
            session ses{*this, conn, {}, 0, 0, {}};
            ses.run();
        }
        std::lock_guard<std::mutex> lock(mu);
        // A connection that goes away closes what it opened, as a cancelled
        // client buffer sends no CLOSE.
        for (sensor_state &s : sensors)
            s.readers.remove_if([&](const reader_state &r) { return r.serial == conn.serial; });
        cv.notify_all();
        close(conn.fd);
        conn.fd = -1;
        conn.done = true;
    }
};

iiod_server::iiod_server(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

// The clock starts, the port opens and the controller runs.
std::unique_ptr<iiod_server> iiod_server::launch(std::unique_ptr<impl> p, std::string *error)
{
    p->epoch = monotonic_ns();
    if (p->open_listener(error) != 0)
        return nullptr;
    impl *raw = p.get();
    p->controller = std::thread([raw] { raw->control_loop(); });
    return std::unique_ptr<iiod_server>(new iiod_server(std::move(p)));
}

std::unique_ptr<iiod_server> iiod_server::start(const scenario &s, const server_options &options, std::string *error)
{
    std::string why;
    if (scenario_validate(s, &why)) {
        if (error)
            *error = why;
        return nullptr;
    }
    auto p = std::make_unique<impl>(s);
    p->options = options;
    p->timeout_ms = options.initial_timeout_ms;
    for (const scenario_device &d : s.devices) {
        sensor_state st;
        st.model = make_device_model(d, s.seed ^ (p->sensors.size() + 1));
        if (!st.model || st.model->channels().size() > kMaxChannels) {
            if (error)
                *error = d.name + ": no model for this device (kind or mounting matrix)";
            return nullptr;
        }
        st.id = "iio:device" + std::to_string(p->sensors.size());
        st.trigger = p->triggers.size();
        st.values = st.model->initial_values();
        for (const auto &set : d.attributes) {
            auto it =
                std::find_if(st.values.begin(), st.values.end(), [&](const auto &v) { return v.first == set.first; });
            if (it == st.values.end()) {
                if (error)
                    *error = d.name + ": no attribute " + set.first + " to set";
                return nullptr;
            }
            it->second = set.second;
        }
        p->triggers.push_back({"trigger" + std::to_string(p->triggers.size()), d.trigger, p->sensors.size()});
        p->sensors.push_back(std::move(st));
    }
    p->build_xml();
    p->schedule = s.faults;
    std::stable_sort(p->schedule.begin(), p->schedule.end(),
                     [](const scenario_fault &a, const scenario_fault &b) { return a.at_s < b.at_s; });
    return launch(std::move(p), error);
}

std::unique_ptr<iiod_server> iiod_server::start_replay(std::vector<replay_device> devices, const std::string &xml,
                                                     replay_clock &clock, replay_pace pace, int64_t pace_offset_ns,
                                                     const server_options &options, std::string *error)
{
    auto p = std::make_unique<impl>(scenario{});
    p->options = options;
    p->timeout_ms = options.initial_timeout_ms;
    p->recorded = std::move(devices);
    p->replay = &clock;
    p->pace = pace;
    p->pace_offset = pace_offset_ns;
    for (replay_device &d : p->recorded) {
        if (d.model->channels().size() > kMaxChannels) {
            if (error)
                *error = d.id + ": more channels than the server serves";
            return nullptr;
        }
        sensor_state st;
        st.model = std::move(d.model);
        st.id = d.id;
        st.values = st.model->initial_values();
        st.recorded = &d;
        st.trigger = SIZE_MAX;
        if (!d.trigger_id.empty()) {
            st.trigger = p->triggers.size();
            p->triggers.push_back({d.trigger_id, d.trigger, p->sensors.size()});
        }
        p->sensors.push_back(std::move(st));
    }
    p->xml = xml;
    return launch(std::move(p), error);
}

iiod_server::~iiod_server()
{
    stop();
}

void iiod_server::stop()
{
    impl &p = *impl_;
    std::thread acceptor, controller;
    {
        std::lock_guard<std::mutex> lock(p.mu);
        if (p.stopping)
            return;
        p.stopping = true;
        if (p.listen_fd >= 0)
            shutdown(p.listen_fd, SHUT_RDWR);
        for (connection &c : p.connections)
            if (c.fd >= 0)
                shutdown(c.fd, SHUT_RDWR);
        acceptor = std::move(p.acceptor);
        controller = std::move(p.controller);
        p.cv.notify_all();
    }
    if (acceptor.joinable())
        acceptor.join();
    if (controller.joinable())
        controller.join();
    // Connection threads only take the lock briefly once shut down.
    for (;;) {
        std::unique_lock<std::mutex> lock(p.mu);
        if (p.connections.empty())
            break;
        connection &c = p.connections.front();
        std::thread t = std::move(c.thread);
        lock.unlock();
        if (t.joinable())
            t.join();
        lock.lock();
        p.connections.pop_front();
    }
    std::lock_guard<std::mutex> lock(p.mu);
    if (p.listen_fd >= 0) {
        close(p.listen_fd);
        p.listen_fd = -1;
    }
    // What the readers lost, for whoever counts the samples they got.
    for (const sensor_state &st : p.sensors)
        if (st.overrun)
            std::fprintf(stderr, "orlune-sim: iiod: %s: %llu scans dropped by a full kernel buffer (a reader fell behind)\n",
                         st.model->setup().name.c_str(), static_cast<unsigned long long>(st.overrun));
}

uint16_t iiod_server::port() const
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    return impl_->port;
}

std::string iiod_server::uri() const
{
    return "ip:" + impl_->options.address + ":" + std::to_string(port());
}

int iiod_server::inject(const scenario_fault &fault)
{
    return impl_->arm(fault);
}

device_model *iiod_server::model(const std::string &name)
{
    for (sensor_state &s : impl_->sensors)
        if (s.model->setup().name == name)
            return s.model.get();
    return nullptr;
}

const vehicle &iiod_server::truth() const
{
    return impl_->truth;
}

int64_t iiod_server::epoch_ns() const
{
    return impl_->epoch;
}

bool iiod_server::replay_over() const
{
    return impl_->replay_over;
}

const std::string &iiod_server::context_xml() const
{
    return impl_->xml;
}

} // namespace sim
