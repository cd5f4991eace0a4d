// SPDX-License-Identifier: Apache-2.0
#include "sim/replay.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/msg_socket.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "platform/ultrasound_service.h"
#include "sim/gps_daemon.h"

namespace sim {

namespace {

// How long the IIO server waits for the services to catch up with a batch.
constexpr auto kCatchUpLimit = std::chrono::seconds(1);
constexpr int kTickMs = 5;

} // namespace

// ---- the capture ------------------------------------------------------------

std::unique_ptr<replay_capture> replay_capture::load(const std::string &path, std::string *error)
{
    auto c = std::unique_ptr<replay_capture>(new replay_capture);
    if (c->reader_.open_file(path) != 0) {
        *error = c->reader_.message();
        return nullptr;
    }
    if (c->index() != 0) {
        *error = c->message_.empty() ? c->reader_.message() : path + ": " + c->message_;
        return nullptr;
    }
    return c;
}

std::unique_ptr<replay_capture> replay_capture::load_memory(const void *data, size_t size, std::string *error)
{
    auto c = std::unique_ptr<replay_capture>(new replay_capture);
    if (c->reader_.open_memory(data, size) != 0 || c->index() != 0) {
        *error = c->message_.empty() ? c->reader_.message() : c->message_;
        return nullptr;
    }
    return c;
}

int replay_capture::index()
{
    capture::record r;
    int rc;
    bool first = true;
    while ((rc = reader_.next(&r)) > 0) {
        // The capture writes its records in the order of its monotonic
        // clock: a time before zero or before the previous one is damage.
        if (r.time_ns < (first ? 0 : last_ns_)) {
            message_ = "damaged capture: the record at byte " +
                       std::to_string(r.offset) + (r.time_ns < 0 ? " has a negative time" : " goes back in time");
            return -EINVAL;
        }
        if (first)
            first_ns_ = r.time_ns;
        first = false;
        last_ns_ = r.time_ns;
        if (r.kind == capture::record_kind::context) {
            context_xml_.assign(reinterpret_cast<const char *>(r.payload), r.size);
        } else if (r.kind == capture::record_kind::stream) {
            const capture::stream_info &s = reader_.streams().back();
            streams_.push_back({s.kind, s.name, {}});
        } else {
            streams_[r.stream].records.push_back(r);
        }
    }
    return rc;
}

// ---- the clock --------------------------------------------------------------

replay_clock::replay_clock(int64_t start_ns) : now_(start_ns), served_(start_ns - 1) {}

void replay_clock::advance(int64_t t)
{
    std::unique_lock<std::mutex> lock(mu_);
    if (t <= now_)
        return;
    now_ = t;
    cv_.notify_all();
    cv_.wait_for(lock, kCatchUpLimit, [&] { return served_ >= t || stopped_; });
}

bool replay_clock::wait_past(int64_t seen, int64_t *now, std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait_for(lock, limit, [&] { return now_ > seen || stopped_; });
    *now = now_;
    return !stopped_;
}

void replay_clock::served_up_to(int64_t t)
{
    std::lock_guard<std::mutex> lock(mu_);
    served_ = t;
    cv_.notify_all();
}

void replay_clock::stop()
{
    std::lock_guard<std::mutex> lock(mu_);
    stopped_ = true;
    cv_.notify_all();
}

int64_t replay_clock::now() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return now_;
}

// ---- the services -----------------------------------------------------------

struct replay_services::impl {
    const replay_capture &capture;
    replay_clock &clock;
    std::string battery_dir;
    int64_t start_ns = 0;
    int64_t loop_ns = 0;
    int64_t shift = 0; // this pass's: times are served this much later than recorded
    std::thread thread;

    // One served stream: where it is in its records.
    struct cursor {
        const replay_capture::stream *stream;
        size_t next = 0;
        size_t after_start = 0; // where a pass of a loop starts again
        // socket streams
        msg_server *server = nullptr;
            msg_frame greeting{}; // the GPS daemon's firmware message, sent to each new client
        // telemetry streams
        shm_producer *producer = nullptr;
        std::vector<uint8_t> sample;
        std::vector<tlm_field_desc> fields;
        std::vector<std::string> names;
        // file streams
        std::string path;
    };
    std::vector<cursor> cursors;

    impl(const replay_capture &c, replay_clock &k, std::string dir) : capture(c), clock(k), battery_dir(std::move(dir)) {}

    // A daemon that greets each new client (the GPS daemon's firmware
    // message) greets it with what it last sent.
    static void on_event(msg_server *, int event, msg_connection *conn, const msg_message *, void *user)
    {
        auto *c = static_cast<cursor *>(user);
        if (event == MSG_EVENT_CONNECTED && c->greeting.size)
            connection_send(conn, &c->greeting);
    }

    void listen(cursor &c)
    {
        if (!c.server)
            c.server = server_create(c.stream->name.c_str(), on_event, &c);
    }

    // The recorded layout text into a producer: "sample_size=N sample_count=N
    // period_us=N fields=name:type:size:count:offset,...".
    void make_section(cursor &c, std::string_view text)
    {
        producer_destroy(c.producer);
        c.producer = nullptr;
        uint32_t sample_size = 0, sample_count = 0, period_us = 0;
        std::string fields;
        for (size_t at = 0; at < text.size();) {
            size_t end = text.find(' ', at);
            if (end == std::string_view::npos)
                end = text.size();
            const std::string_view item = text.substr(at, end - at);
            const size_t eq = item.find('=');
            const std::string key(item.substr(0, eq)), value(eq == std::string_view::npos ? "" : item.substr(eq + 1));
            if (key == "sample_size")
                sample_size = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
            else if (key == "sample_count")
                sample_count = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
            else if (key == "period_us")
                period_us = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
            else if (key == "fields")
                fields = value;
            at = end + 1;
        }
        c.fields.clear();
        c.names.clear();
        for (size_t at = 0; at < fields.size();) {
            size_t end = fields.find(',', at);
            if (end == std::string::npos)
                end = fields.size();
            const std::string f = fields.substr(at, end - at);
            at = end + 1;
            unsigned long parts[4];
            size_t colon = f.find(':');
            if (colon == std::string::npos)
                continue;
            c.names.push_back(f.substr(0, colon));
            const char *p = f.c_str() + colon;
            bool ok = true;
            for (unsigned long &v : parts) {
                char *e;
                ok = ok && *p == ':';
                v = std::strtoul(p + 1, &e, 10);
                p = e;
            }
            if (!ok) {
                c.names.pop_back();
                continue;
            }
            c.fields.push_back({parts[3], nullptr, static_cast<uint32_t>(parts[0]), 0, parts[1], parts[2], {}});
        }
        for (size_t i = 0; i < c.fields.size(); i++)
            c.fields[i].name = c.names[i].c_str();
        if (!sample_size || !sample_count || c.fields.empty())
            return;
        c.sample.assign(sample_size, 0);
        c.producer = producer_create(c.stream->name.c_str(), sample_count, period_us);
        const tlm_struct_desc desc{0, c.fields.size(), c.fields.data()};
        if (c.producer && (producer_register_struct(c.producer, c.sample.data(), nullptr, &desc) != 0 ||
                           producer_complete(c.producer) != 0)) {
            std::fprintf(stderr, "orlune-sim: replay: cannot make the section %s\n", c.stream->name.c_str());
            producer_destroy(c.producer);
            c.producer = nullptr;
        }
    }

    void write_file(const cursor &c, const uint8_t *data, size_t size)
    {
        const int fd = ::open(c.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0)
            return;
        if (::write(fd, data, size) < 0) {
            // The next change writes it again.
        }
        ::close(fd);
    }

    // Serves one record. Before the start (catching up), messages are left
    // out: a socket delivers only what is sent while a client listens.
    void apply(cursor &c, const capture::record &r, bool catching_up)
    {
        capture::attr_value a;
        const bool is_attr = capture::parse_attr(r, &a);
        switch (c.stream->kind) {
        case capture::stream_kind::socket:
            if (is_attr && a.name == "connected") {
                if (a.value == "1") {
                    listen(c);
                } else {
                    server_destroy(c.server);
                    c.server = nullptr;
                }
            } else if (r.kind == capture::record_kind::message && r.size >= 4) {
                uint32_t id;
                std::memcpy(&id, r.payload, 4);
                msg_frame frame;
                frame.size = kMsgHeaderSize + r.size - 4;
                if (frame.size > sizeof frame.bytes)
                    break;
                const uint32_t header[3] = {kMsgMagic, id, r.size - 4};
                std::memcpy(frame.bytes, header, sizeof header);
                std::memcpy(frame.bytes + kMsgHeaderSize, r.payload + 4, r.size - 4);
                if (c.stream->name == "gps" && id == kGpsMsgFw)
                    c.greeting = frame;
                if (!catching_up && c.server)
                    server_broadcast(c.server, &frame);
            }
            break;
        case capture::stream_kind::telemetry:
            if (is_attr && a.name == "layout")
                make_section(c, a.value);
            else if (r.kind == capture::record_kind::sample && c.producer && r.size == 16 + c.sample.size()) {
                int64_t sec, nsec;
                std::memcpy(&sec, r.payload, 8);
                std::memcpy(&nsec, r.payload + 8, 8);
                std::memcpy(c.sample.data(), r.payload + 16, c.sample.size());
                const int64_t ns = sec * 1000000000 + nsec + shift;
                const timespec stamp{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
                producer_put_sample(c.producer, &stamp);
            }
            break;
        case capture::stream_kind::file:
            if (is_attr && a.name == "exists" && a.value == "0")
                unlink(c.path.c_str());
            else if (r.kind == capture::record_kind::file)
                write_file(c, r.payload, r.size);
            break;
        case capture::stream_kind::iio_device:
            break;
        }
    }

    // The state each stream starts in: what was recorded up to the start,
    // and a stream's leading attributes and first file content, recorded
    // just after the capture began (the host had set the vehicle up before).
    void start_state(int64_t now)
    {
        for (cursor &c : cursors) {
            const auto &records = c.stream->records;
            bool content = false;
            for (; c.next < records.size(); c.next++) {
                const capture::record &r = records[c.next];
                const bool state = r.kind == capture::record_kind::attr ||
                                   (r.kind == capture::record_kind::file && !content);
                if (r.time_ns > now && !state)
                    break;
                content = content || r.kind == capture::record_kind::file;
                apply(c, r, true);
            }
            c.after_start = c.next;
        }
        clock.served_up_to(now);
    }

    void run()
    {
        int64_t now = clock.now();
        for (;;) {
            // Everything up to now, stream by stream: within one instant
            // their order does not matter to a reader. A loop's pass ends
            // with its last record; the next starts over after the state.
            for (;;) {
                for (cursor &c : cursors) {
                    const auto &records = c.stream->records;
                    for (; c.next < records.size() && records[c.next].time_ns + shift <= now; c.next++)
                        apply(c, records[c.next], false);
                }
                if (!loop_ns || now < start_ns + shift + loop_ns)
                    break;
                shift += loop_ns;
                for (cursor &c : cursors)
                    c.next = c.after_start;
            }
            clock.served_up_to(now);
            // Between advances: accept clients and read their requests.
            bool listening = false;
            for (cursor &c : cursors)
                if (c.server) {
                    server_process(c.server, 0);
                    listening = true;
                }
            if (!clock.wait_past(now, &now, std::chrono::milliseconds(listening ? kTickMs : 50)))
                break;
        }
        for (cursor &c : cursors) {
            server_destroy(c.server);
            producer_destroy(c.producer);
        }
    }
};

replay_services::replay_services(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

replay_services::~replay_services()
{
    impl_->clock.stop();
    if (impl_->thread.joinable())
        impl_->thread.join();
}


std::unique_ptr<replay_services> replay_services::start(const replay_capture &capture, replay_clock &clock,
                                                        const std::string &battery_dir, int64_t loop_ns,
                                                        std::string *error)
{
    auto p = std::make_unique<impl>(capture, clock, battery_dir);
    p->start_ns = clock.now();
    p->loop_ns = loop_ns;
    for (const replay_capture::stream &s : capture.streams()) {
        if (s.kind == capture::stream_kind::iio_device)
            continue;
        impl::cursor c{&s};
        if (s.kind == capture::stream_kind::file) {
            std::error_code ec;
            std::filesystem::create_directories(battery_dir, ec);
            if (ec) {
                *error = "replay: cannot make " + battery_dir + ": " + ec.message();
                return nullptr;
            }
            c.path = battery_dir + "/" + std::filesystem::path(s.name).filename().string();
        }
        p->cursors.push_back(std::move(c));
    }
    // A socket whose name is taken cannot be served: say so now.
    for (impl::cursor &c : p->cursors)
        if (c.stream->kind == capture::stream_kind::socket) {
            p->listen(c);
            if (!c.server) {
                *error = "replay: cannot listen on \"" + c.stream->name + "\": " + strerror(errno);
                return nullptr;
            }
            server_destroy(c.server); // listens again when the capture says it was there
            c.server = nullptr;
        }
    // Before anyone learns of the replay: the files, sections and sockets
    // are there when the host starts.
    p->start_state(clock.now());
    p->thread = std::thread([raw = p.get()] { raw->run(); });
    return std::unique_ptr<replay_services>(new replay_services(std::move(p)));
}

} // namespace sim
