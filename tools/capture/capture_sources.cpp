// SPDX-License-Identifier: Apache-2.0
// The streams of orlune-capture that do not come through libiio. One thread
// follows them all: the sockets' descriptors are waited on for up to 5 ms at
// a time, and between waits the telemetry rings and the battery's files are
// looked at. A telemetry ring holds many samples, so a 5 ms look loses none.
//
// Stream contents:
//   file       a `file` record with the whole content at each change, and the
//              attribute "exists" ("0" or "1") when the file goes or comes back
//   socket     a `message` record per message (u32 id, then its payload), and
//              the attribute "connected" ("0" or "1") at each (dis)connection
//   telemetry  the attribute "layout" (geometry and field table) whenever the
//              section is (re)made, then a `sample` record per sample: i64
//              seconds, i64 nanoseconds of its time, then its bytes
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "capture/capture_session.h"
#include "platform/msg_socket.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "platform/ultrasound_service.h"

namespace capture {

void shared_writer::record(record_kind kind, uint16_t stream, const void *data, size_t size)
{
    std::lock_guard<std::mutex> lock(mu);
    const int rc = out.write(kind, stream, monotonic_ns(), data, size);
    if (rc && !error)
        error = rc;
}

void shared_writer::attr(uint16_t stream, attr_scope scope, std::string_view channel, std::string_view name,
                         std::string_view value)
{
    std::lock_guard<std::mutex> lock(mu);
    const int rc = out.write_attr(stream, monotonic_ns(), scope, channel, name, value);
    if (rc && !error)
        error = rc;
}

int shared_writer::stream(stream_kind kind, std::string_view name)
{
    std::lock_guard<std::mutex> lock(mu);
    uint16_t id;
    const int rc = out.add_stream(kind, name, monotonic_ns(), &id);
    if (rc) {
        if (!error)
            error = rc;
        return -1;
    }
    return id;
}

namespace {

constexpr int64_t kFilePeriodNs = 50 * 1000000LL;
constexpr int64_t kRescanPeriodNs = 1000 * 1000000LL;

struct file_stream {
    std::string path;
    uint16_t stream;
    bool exists = false;
    std::string content;
};

struct socket_stream {
    shared_writer *w;
    counters *c;
    uint16_t stream;
    msg_context *context = nullptr;
    msg_frame request{}; // sent at each connection; size 0: none
};

void socket_event(msg_context *context, int event, msg_connection *, const msg_message *message, void *user)
{
    auto *s = static_cast<socket_stream *>(user);
    if (event == MSG_EVENT_CONNECTED) {
        s->w->attr(s->stream, attr_scope::device, "", "connected", "1");
        if (s->request.size)
            context_send(context, &s->request);
    } else if (event == MSG_EVENT_DISCONNECTED) {
        s->w->attr(s->stream, attr_scope::device, "", "connected", "0");
    } else if (event == MSG_EVENT_MESSAGE && message) {
        uint8_t payload[4 + kMsgMaxPayload];
        std::memcpy(payload, &message->id, 4);
        std::memcpy(payload + 4, message->payload, message->length);
        s->w->record(record_kind::message, s->stream, payload, 4 + message->length);
        s->c->samples++;
    }
}

struct section_stream {
    std::string name;
    uint16_t stream;
    tlm_section_view view{};
    uint64_t next = 0;
    std::vector<uint8_t> sample;
    int64_t next_open = 0;
    int64_t next_check = 0;
};

std::string layout_text(const tlm_section_view &v)
{
    std::string text = "sample_size=" + std::to_string(v.sample_size) + " sample_count=" +
                       std::to_string(v.sample_count) + " period_us=" + std::to_string(v.period_us) + " fields=";
    for (uint32_t i = 0; i < v.field_count; i++) {
        tlm_field_info f;
        if (tlm_view_field(&v, i, &f) != 0)
            continue;
        text += std::string(i ? "," : "") + f.name + ":" + std::to_string(f.type) + ":" + std::to_string(f.size) + ":" +
                std::to_string(f.count) + ":" + std::to_string(f.offset);
    }
    return text;
}

void follow_section(section_stream &s, int64_t now, shared_writer *w, counters *c)
{
    if (s.view.base && now >= s.next_check) {
        // A producer that restarted made a new file: follow it.
        struct stat st;
        char path[PATH_MAX];
        s.next_check = now + kRescanPeriodNs;
        if (tlm_view_closed(&s.view) || tlm_section_path(s.name.c_str(), path, sizeof path) != 0 ||
            stat(path, &st) != 0 || st.st_ino != s.view.ino || st.st_dev != s.view.dev)
            tlm_view_close(&s.view);
    }
    if (!s.view.base) {
        if (now < s.next_open)
            return;
        s.next_open = now + 200 * 1000000LL;
        if (tlm_view_open(s.name.c_str(), &s.view) != 0)
            return;
        w->attr(s.stream, attr_scope::device, "", "layout", layout_text(s.view));
        s.sample.assign(16 + s.view.sample_size, 0);
        // From the oldest sample still in the ring: what the reader may get first.
        const uint64_t written = tlm_view_written(&s.view);
        s.next = written > s.view.sample_count ? written - s.view.sample_count : 0;
        s.next_check = now + kRescanPeriodNs;
    }
    const uint64_t written = tlm_view_written(&s.view);
    for (; s.next < written; s.next++) {
        timespec t;
        if (tlm_view_read(&s.view, s.next, s.sample.data() + 16, s.view.sample_size, &t) != 0) {
            c->drops++;
            const uint64_t lost = 1;
            w->record(record_kind::drop, s.stream, &lost, sizeof lost);
            continue;
        }
        const int64_t sec = t.tv_sec, nsec = t.tv_nsec;
        std::memcpy(s.sample.data(), &sec, 8);
        std::memcpy(s.sample.data() + 8, &nsec, 8);
        w->record(record_kind::sample, s.stream, s.sample.data(), s.sample.size());
        c->samples++;
    }
}

void follow_file(file_stream &f, shared_writer *w, counters *c)
{
    char buf[4096];
    const int fd = open(f.path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t n = fd >= 0 ? pread(fd, buf, sizeof buf, 0) : -1;
    if (fd >= 0)
        close(fd);
    if (n < 0) {
        if (f.exists)
            w->attr(f.stream, attr_scope::device, "", "exists", "0");
        f.exists = false;
        return;
    }
    if (!f.exists)
        w->attr(f.stream, attr_scope::device, "", "exists", "1");
    const std::string_view content(buf, static_cast<size_t>(n));
    if (f.exists && content == f.content)
        return;
    f.exists = true;
    f.content.assign(content);
    w->record(record_kind::file, f.stream, buf, static_cast<size_t>(n));
    c->samples++;
}

// New regular files of the battery's directory become streams.
void scan_directory(const std::string &dir, std::vector<file_stream> *files, shared_writer *w)
{
    DIR *d = opendir(dir.c_str());
    if (!d)
        return;
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.' || (e->d_type != DT_REG && e->d_type != DT_UNKNOWN))
            continue;
        const std::string path = dir + "/" + e->d_name;
        bool known = false;
        for (const file_stream &f : *files)
            known = known || f.path == path;
        if (known)
            continue;
        const int id = w->stream(stream_kind::file, path);
        if (id >= 0)
            files->push_back({path, static_cast<uint16_t>(id)});
    }
    closedir(d);
}

} // namespace

void follow_sources(const source_settings &settings, shared_writer *w, counters *c, const std::atomic<bool> *stop)
{
    std::vector<std::unique_ptr<socket_stream>> sockets;
    auto add_socket = [&](const char *name) {
        const int id = w->stream(stream_kind::socket, name);
        if (id < 0)
            return static_cast<socket_stream *>(nullptr);
        auto s = std::make_unique<socket_stream>(socket_stream{w, c, static_cast<uint16_t>(id)});
        s->context = context_create(socket_event, s.get());
        // The whole sockaddr_un: the services bind their names zero-padded.
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name, std::strlen(name));
        if (s->context)
            context_connect(s->context, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        sockets.push_back(std::move(s));
        return sockets.back().get();
    };
    if (settings.gps)
        add_socket("gps");
    if (settings.ultrasound_period_us) {
        if (socket_stream *s = add_socket(kUltrasoundSocketName))
            message_build(&s->request, kUsMsgRequest, "%lu%f", settings.ultrasound_period_us, 0.0);
    }
    std::vector<section_stream> sections;
    for (const std::string &name : settings.sections) {
        const int id = w->stream(stream_kind::telemetry, name);
        if (id >= 0)
            sections.push_back({name, static_cast<uint16_t>(id)});
    }
    c->streams += sockets.size() + sections.size();

    std::vector<file_stream> files;
    int64_t next_files = 0, next_rescan = 0;
    std::vector<pollfd> fds;
    while (!*stop) {
        fds.clear();
        for (const auto &s : sockets)
            if (s->context)
                fds.push_back({loop_get_fd(context_get_loop(s->context)), POLLIN, 0});
        poll(fds.data(), fds.size(), 5);
        for (const auto &s : sockets)
            if (s->context)
                context_process_fd(s->context);
        const int64_t now = monotonic_ns();
        for (section_stream &s : sections)
            follow_section(s, now, w, c);
        if (!settings.battery_dir.empty() && now >= next_files) {
            if (now >= next_rescan) {
                const size_t before = files.size();
                scan_directory(settings.battery_dir, &files, w);
                c->streams += files.size() - before;
                next_rescan = now + kRescanPeriodNs;
            }
            for (file_stream &f : files)
                follow_file(f, w, c);
            next_files = now + kFilePeriodNs;
        }
    }
    for (const auto &s : sockets) {
        context_stop(s->context);
        context_destroy(s->context);
    }
    for (section_stream &s : sections)
        tlm_view_close(&s.view);
}

} // namespace capture
