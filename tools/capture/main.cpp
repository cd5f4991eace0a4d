// SPDX-License-Identifier: Apache-2.0
// orlune-capture: records the raw streams of a vehicle's IIO devices into a
// capture file, beside a sensor host that reads the same devices: each
// device's attributes at the start and whenever they change, and every scan
// its buffer delivers, all channels enabled.
//
// One thread per streaming device, each on a context of its own (a libiio
// context is not shared between threads); the main thread watches the
// attributes and prints the progress line.
#include <iio.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/time_helpers.h"
#include "capture/capture_session.h"
#include "platform/paths.h"

namespace {

using capture::shared_writer;

std::atomic<bool> g_stop{false};

void on_signal(int) { g_stop = true; }

struct context_deleter {
    void operator()(iio_context *c) const { iio_context_destroy(c); }
};
using context_ptr = std::unique_ptr<iio_context, context_deleter>;

// libiio's network backend cuts the port off the URI it is given, in place:
// it gets a copy.
context_ptr open_context(const std::string &uri)
{
    std::string copy = uri;
    return context_ptr(iio_create_context_from_uri(copy.data()));
}

struct attr_key {
    capture::attr_scope scope;
    std::string channel;
    std::string name;
    std::string value;
    bool known = false;
};

struct device_stream {
    std::string id;
    uint16_t stream = 0;
    bool buffered = false;
    std::vector<attr_key> attrs;
    std::atomic<uint64_t> samples{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> drops{0};
    std::atomic<int> failed{0};
    std::atomic<bool> set_up{false}; // a trigger was attached: the host reads it
    std::thread thread;
};

bool has_scan_elements(const iio_device *dev)
{
    for (unsigned i = 0; i < iio_device_get_channels_count(dev); i++)
        if (iio_channel_is_scan_element(iio_device_get_channel(dev, i)))
            return true;
    return false;
}

void list_attrs(const iio_device *dev, device_stream *s)
{
    using capture::attr_scope;
    for (unsigned i = 0; i < iio_device_get_attrs_count(dev); i++)
        s->attrs.push_back({attr_scope::device, "", iio_device_get_attr(dev, i), "", false});
    for (unsigned c = 0; c < iio_device_get_channels_count(dev); c++) {
        const iio_channel *ch = iio_device_get_channel(dev, c);
        // Output and input channels may share an id: the direction keeps them apart.
        const std::string id = std::string(iio_channel_is_output(ch) ? "out:" : "in:") + iio_channel_get_id(ch);
        for (unsigned i = 0; i < iio_channel_get_attrs_count(ch); i++)
            s->attrs.push_back({attr_scope::channel, id, iio_channel_get_attr(ch, i), "", false});
    }
    for (unsigned i = 0; i < iio_device_get_buffer_attrs_count(dev); i++)
        s->attrs.push_back({attr_scope::buffer, "", iio_device_get_buffer_attr(dev, i), "", false});
    if (s->buffered)
        s->attrs.push_back({attr_scope::trigger, "", "current_trigger", "", false});
}

// The trigger attached to dev: 1 with its name, 0 when none is (a kernel's
// empty current_trigger reads as -EIO), or the negative errno of the query.
int attached_trigger(const iio_device *dev, std::string *name)
{
    const iio_device *trig = nullptr;
    const int rc = iio_device_get_trigger(dev, &trig);
    if (rc == 0 && trig) {
        const char *n = iio_device_get_name(trig);
        *name = n ? n : iio_device_get_id(trig);
        return 1;
    }
    if (rc == -ENODEV || rc == -EIO || (rc == 0 && !trig)) {
        name->clear();
        return 0;
    }
    return rc < 0 ? rc : -EIO;
}

// Reads one attribute; false when it cannot be read now (a write-only
// attribute, a device that went away).
bool read_attr(const iio_device *dev, const attr_key &a, std::string *value)
{
    char buf[4096];
    ssize_t n = -ENOENT;
    switch (a.scope) {
    case capture::attr_scope::device:
        n = iio_device_attr_read(dev, a.name.c_str(), buf, sizeof buf);
        break;
    case capture::attr_scope::buffer:
        n = iio_device_buffer_attr_read(dev, a.name.c_str(), buf, sizeof buf);
        break;
    case capture::attr_scope::channel: {
        const bool output = a.channel.rfind("out:", 0) == 0;
        const iio_channel *ch = iio_device_find_channel(dev, a.channel.c_str() + (output ? 4 : 3), output);
        if (ch)
            n = iio_channel_attr_read(ch, a.name.c_str(), buf, sizeof buf);
        break;
    }
    case capture::attr_scope::observed:
        return false;
    case capture::attr_scope::trigger:
        return attached_trigger(dev, value) >= 0;
    }
    if (n < 0)
        return false;
    *value = std::string(buf, strnlen(buf, static_cast<size_t>(n)));
    return true;
}

// Records every attribute whose value changed since the last look.
void record_changes(const iio_device *dev, device_stream *s, shared_writer *w)
{
    std::string value;
    for (attr_key &a : s->attrs) {
        if (!read_attr(dev, a, &value) || (a.known && value == a.value))
            continue;
        a.value = value;
        a.known = true;
        w->attr(s->stream, a.scope, a.channel, a.name, a.value);
    }
}

// Streams one device until told to stop: every scan, all channels enabled.
void stream_device(const std::string &uri, device_stream *s, shared_writer *w)
{
    context_ptr ctx = open_context(uri);
    iio_device *dev = ctx ? iio_context_find_device(ctx.get(), s->id.c_str()) : nullptr;
    if (!dev) {
        s->failed = ctx ? ENODEV : errno;
        return;
    }
    // The capture attaches no trigger, and a kernel's buffer does not start
    // without one: a device streams once the host has set it up. Looked at
    // every 100 ms; the stop is seen within 5, so that the capture's end
    // (its last record) follows the other devices' last scans closely.
    std::string trigger;
    for (int tick = 0;; tick++) {
        const int attached = tick % 20 == 0 ? attached_trigger(dev, &trigger) : 0;
        if (attached < 0) {
            s->failed = -attached;
            return;
        }
        if (attached)
            break;
        if (g_stop)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    s->set_up = true;
    uint64_t mask = 0;
    const iio_channel *timestamp = nullptr;
    for (unsigned c = 0; c < iio_device_get_channels_count(dev); c++) {
        iio_channel *ch = iio_device_get_channel(dev, c);
        if (!iio_channel_is_scan_element(ch))
            continue;
        iio_channel_enable(ch);
        const long index = iio_channel_get_index(ch);
        if (index >= 0 && index < 64)
            mask |= uint64_t{1} << index;
        if (std::strcmp(iio_channel_get_id(ch), "timestamp") == 0)
            timestamp = ch;
    }
    // About 20 ms of scans a refill: few requests, little delay.
    double rate = 0;
    {
        char buf[64];
        if (iio_device_attr_read(dev, "sampling_frequency", buf, sizeof buf) > 0)
            rate = std::strtod(buf, nullptr);
    }
    const size_t samples = rate > 0 ? std::clamp<size_t>(static_cast<size_t>(rate / 50), 1, 256) : 1;
    iio_buffer *buf = iio_device_create_buffer(dev, samples, false);
    if (!buf) {
        s->failed = errno ? errno : EIO;
        return;
    }
    const uint32_t step = static_cast<uint32_t>(iio_buffer_step(buf));
    uint8_t layout[12];
    for (int i = 0; i < 8; i++)
        layout[i] = static_cast<uint8_t>(mask >> (8 * i));
    for (int i = 0; i < 4; i++)
        layout[8 + i] = static_cast<uint8_t>(step >> (8 * i));
    w->record(capture::record_kind::layout, s->stream, layout, sizeof layout);

    const int64_t period = rate > 0 ? static_cast<int64_t>(1e9 / rate) : 0;
    int64_t last_stamp = 0;
    bool polled = false;
    while (!g_stop) {
        const ssize_t n = iio_buffer_refill(buf);
        if (n == -EAGAIN) {
            // The device answers at once when it has nothing new (a polled
            // device served by iiod): a replay must answer the same way.
            if (!polled)
                w->attr(s->stream, capture::attr_scope::observed, "", "blocking", "0");
            polled = true;
            // A polled device with nothing new: look again in half a period.
            std::this_thread::sleep_for(std::chrono::nanoseconds(period > 0 ? period / 2 : 5000000));
            continue;
        }
        if (n < 0) {
            if (n == -ETIMEDOUT)
                continue;
            s->failed = static_cast<int>(-n);
            break;
        }
        const auto *start = static_cast<const uint8_t *>(iio_buffer_start(buf));
        const auto *end = static_cast<const uint8_t *>(iio_buffer_end(buf));
        const size_t bytes = static_cast<size_t>(end - start);
        w->record(capture::record_kind::scans, s->stream, start, bytes);
        s->samples += bytes / step;
        s->bytes += bytes;
        // Lost scans show as a gap in the device's own timestamps.
        if (timestamp && period > 0) {
            for (const uint8_t *p = static_cast<const uint8_t *>(iio_buffer_first(buf, timestamp)); p < end; p += step) {
                int64_t stamp;
                std::memcpy(&stamp, p, sizeof stamp);
                if (last_stamp && stamp - last_stamp > period * 3 / 2) {
                    const uint64_t lost = static_cast<uint64_t>((stamp - last_stamp + period / 2) / period - 1);
                    s->drops += lost;
                    w->record(capture::record_kind::drop, s->stream, &lost, sizeof lost);
                }
                last_stamp = stamp;
            }
        }
    }
    iio_buffer_destroy(buf);
}

void usage(FILE *out)
{
    std::fputs("usage: orlune-capture [--uri URI] [--duration S] [--attr-period S] [--quiet] -o FILE\n"
               "       orlune-capture --info FILE\n"
               "  -o, --output FILE  the capture to write (replaced if it exists)\n"
               "  --uri URI          the IIO context: ip:HOST[:PORT], local: (default: ip:IIOD_REMOTE's\n"
               "                     address when it is set, else local:)\n"
               "  --duration S       stop after S seconds (default: at SIGINT or SIGTERM)\n"
               "  --attr-period S    how often the attributes are looked at (default 1)\n"
               "  --battery-dir DIR  the smart battery's attribute files (default:\n"
               "                     /sys/class/power_supply/smartbattery, under ORLUNE_ROOT when set)\n"
               "  --no-gps           leave the GPS daemon's messages out\n"
               "  --ultrasound-period MS  the ranging period asked of the ultrasound service (default 50,\n"
               "                     as the plug-in asks)\n"
               "  --no-ultrasound    leave the ultrasound service out\n"
               "  --sections LIST    telemetry sections to record, comma-separated (default: the four the\n"
               "                     plug-in reads: vision_carpet_estimation, vcam_position,\n"
               "                     vcam_optical_flow, gimbal_stab)\n"
               "  --quiet            no progress line\n"
               "  --info FILE        print what a capture holds (header, streams, duration) and check it\n"
               "Records every IIO device's attributes and every scan of each device that streams, the\n"
               "battery's files, the GPS and ultrasound messages and the telemetry sections (docs/replay.md).\n",
               out);
}

// --info: what a capture holds, or why it cannot be read.
int print_info(const std::string &path)
{
    capture::reader r;
    if (r.open_file(path) != 0) {
        std::fprintf(stderr, "orlune-capture: %s\n", r.message().c_str());
        return 1;
    }
    std::printf("capture %s: format %u, %llu bytes\n", path.c_str(), r.head().version,
                static_cast<unsigned long long>(r.size()));
    for (const auto &[key, value] : r.head().fields)
        std::printf("  %s: %s\n", key.c_str(), value.c_str());
    struct counts {
        uint64_t records = 0, bytes = 0, drops = 0;
    };
    std::vector<counts> per_stream;
    int64_t first = 0, last = 0;
    capture::record rec;
    int rc;
    while ((rc = r.next(&rec)) > 0) {
        if (!first)
            first = rec.time_ns;
        last = rec.time_ns;
        if (rec.kind == capture::record_kind::stream)
            per_stream.emplace_back();
        if (rec.kind == capture::record_kind::context)
            continue;
        counts &c = per_stream[rec.stream];
        c.records++;
        c.bytes += rec.size;
        if (uint64_t lost; capture::parse_drop(rec, &lost))
            c.drops += lost;
    }
    std::printf("  first record: %lld.%09lld s (the recording machine's monotonic clock)\n",
                static_cast<long long>(first / kNsPerSec), static_cast<long long>(first % kNsPerSec));
    std::printf("  duration: %.3f s\n", (static_cast<double>(last) - static_cast<double>(first)) / 1e9);
    for (size_t i = 0; i < r.streams().size(); i++)
        std::printf("  stream %zu: %s: %llu records, %llu bytes, %llu drops\n", i, r.streams()[i].name.c_str(),
                    static_cast<unsigned long long>(per_stream[i].records),
                    static_cast<unsigned long long>(per_stream[i].bytes),
                    static_cast<unsigned long long>(per_stream[i].drops));
    if (rc < 0) {
        std::fprintf(stderr, "orlune-capture: %s\n", r.message().c_str());
        return 1;
    }
    return 0;
}

bool parse_seconds(const char *text, double *out)
{
    char *end;
    const double v = std::strtod(text, &end);
    if (*end || !(v > 0) || v > 1e7)
        return false;
    *out = v;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    std::string uri, output;
    double duration = 0, attr_period = 1.0;
    capture::source_settings sources;
    sources.ultrasound_period_us = 50000; // what the plug-in asks for
    sources.sections = {"vision_carpet_estimation", "vcam_position", "vcam_optical_flow", "gimbal_stab"};
    bool battery_given = false;
    bool quiet = false;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if ((arg == "-o" || arg == "--output") && has_value) {
            output = argv[++i];
        } else if (arg == "--uri" && has_value) {
            uri = argv[++i];
        } else if (arg == "--duration" && has_value) {
            if (!parse_seconds(argv[++i], &duration)) {
                std::fprintf(stderr, "orlune-capture: bad duration '%s'\n", argv[i]);
                return 2;
            }
        } else if (arg == "--attr-period" && has_value) {
            if (!parse_seconds(argv[++i], &attr_period)) {
                std::fprintf(stderr, "orlune-capture: bad attribute period '%s'\n", argv[i]);
                return 2;
            }
        } else if (arg == "--battery-dir" && has_value) {
            sources.battery_dir = argv[++i];
            battery_given = true;
        } else if (arg == "--no-gps") {
            sources.gps = false;
        } else if (arg == "--ultrasound-period" && has_value) {
            double ms;
            if (!parse_seconds(argv[++i], &ms)) {
                std::fprintf(stderr, "orlune-capture: bad ultrasound period '%s'\n", argv[i]);
                return 2;
            }
            sources.ultrasound_period_us = static_cast<uint64_t>(ms * 1000);
        } else if (arg == "--no-ultrasound") {
            sources.ultrasound_period_us = 0;
        } else if (arg == "--sections" && has_value) {
            sources.sections.clear();
            std::string list = argv[++i];
            for (size_t at = 0; at <= list.size();) {
                size_t comma = list.find(',', at);
                if (comma == std::string::npos)
                    comma = list.size();
                if (comma > at)
                    sources.sections.push_back(list.substr(at, comma - at));
                at = comma + 1;
            }
        } else if (arg == "--info" && has_value) {
            return print_info(argv[++i]);
        } else if (arg == "--quiet") {
            quiet = true;
        } else if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 2;
        }
    }
    if (output.empty()) {
        usage(stderr);
        return 2;
    }
    if (uri.empty()) {
        const char *remote = std::getenv("IIOD_REMOTE");
        uri = remote && *remote ? (std::strncmp(remote, "ip:", 3) == 0 ? remote : "ip:" + std::string(remote))
                                : "local:";
    }

    if (!battery_given) {
        char dir[PATH_MAX];
        if (platform_path("/sys/class/power_supply/smartbattery", dir, sizeof dir) == 0)
            sources.battery_dir = dir;
    }

    context_ptr ctx = open_context(uri);
    if (!ctx) {
        std::fprintf(stderr, "orlune-capture: cannot open the IIO context %s: %s\n", uri.c_str(), strerror(errno));
        return 1;
    }
    shared_writer w;
    capture::header h;
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    const time_t wall = std::time(nullptr);
    char started[32];
    std::strftime(started, sizeof started, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&wall));
    h.fields = {{"source", uri}, {"recorded-by", "orlune-capture"}, {"host", host}, {"started", started},
                {"clock", "monotonic"}};
    if (int rc = w.out.open(output, h)) {
        std::fprintf(stderr, "orlune-capture: cannot write %s: %s\n", output.c_str(), strerror(-rc));
        return 1;
    }
    const char *xml = iio_context_get_xml(ctx.get());
    w.record(capture::record_kind::context, 0, xml, std::strlen(xml));

    std::vector<std::unique_ptr<device_stream>> devices;
    for (unsigned i = 0; i < iio_context_get_devices_count(ctx.get()); i++) {
        const iio_device *dev = iio_context_get_device(ctx.get(), i);
        auto s = std::make_unique<device_stream>();
        s->id = iio_device_get_id(dev);
        s->buffered = !iio_device_is_trigger(dev) && has_scan_elements(dev);
        list_attrs(dev, s.get());
        const int id = w.stream(capture::stream_kind::iio_device, s->id);
        if (id < 0) {
            std::fprintf(stderr, "orlune-capture: cannot write %s: %s\n", output.c_str(), strerror(-w.error));
            return 1;
        }
        s->stream = static_cast<uint16_t>(id);
        // The attributes first, so that a replay knows the settings of the first scan.
        record_changes(dev, s.get(), &w);
        devices.push_back(std::move(s));
    }

    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    for (auto &s : devices)
        if (s->buffered)
            s->thread = std::thread(stream_device, uri, s.get(), &w);
    capture::counters others;
    std::thread sources_thread(capture::follow_sources, std::cref(sources), &w, &others, &g_stop);

    const bool tty = isatty(STDERR_FILENO);
    const int64_t start = monotonic_ns();
    int64_t next_attrs = start + static_cast<int64_t>(attr_period * 1e9);
    int64_t next_progress = start + kNsPerSec;
    while (!g_stop) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const int64_t now = monotonic_ns();
        if (duration > 0 && now - start >= static_cast<int64_t>(duration * 1e9))
            break;
        if (now >= next_attrs) {
            for (size_t i = 0; i < devices.size(); i++)
                record_changes(iio_context_get_device(ctx.get(), static_cast<unsigned>(i)), devices[i].get(), &w);
            next_attrs = now + static_cast<int64_t>(attr_period * 1e9);
        }
        if (!quiet && now >= next_progress) {
            uint64_t samples = others.samples, drops = others.drops, streams = others.streams;
            for (auto &s : devices) {
                samples += s->samples;
                drops += s->drops;
                streams += s->set_up && !s->failed;
            }
            uint64_t bytes;
            {
                std::lock_guard<std::mutex> lock(w.mu);
                bytes = w.out.bytes();
            }
            std::fprintf(stderr, "%scapture: %.0f s, %llu streams, %llu samples, %.1f MB, %llu drops%s",
                         tty ? "\r" : "", static_cast<double>(now - start) / 1e9,
                         static_cast<unsigned long long>(streams), static_cast<unsigned long long>(samples),
                         static_cast<double>(bytes) / 1e6, static_cast<unsigned long long>(drops), tty ? "" : "\n");
            next_progress = now + (tty ? kNsPerSec : 10 * kNsPerSec);
        }
    }
    g_stop = true;
    for (auto &s : devices)
        if (s->thread.joinable())
            s->thread.join();
    sources_thread.join();
    if (!quiet && tty)
        std::fputc('\n', stderr);

    int status = 0;
    uint64_t samples = others.samples, drops = others.drops;
    for (auto &s : devices) {
        samples += s->samples;
        drops += s->drops;
        if (s->failed == EBUSY) {
            // The kernel lets one reader stream a device; iiod shares it.
            std::fprintf(stderr,
                         "orlune-capture: %s: another reader streams it and this context cannot share it: "
                         "capture through iiod (--uri ip:localhost) while the host reads it through iiod too\n",
                         s->id.c_str());
            status = 1;
        } else if (s->failed) {
            std::fprintf(stderr, "orlune-capture: %s: streaming stopped: %s\n", s->id.c_str(), strerror(s->failed));
            status = 1;
        } else if (s->buffered && !s->set_up) {
            std::fprintf(stderr, "orlune-capture: %s: not streamed: no trigger was attached (no reader set it up)\n",
                         s->id.c_str());
        }
    }
    int rc = w.error;
    const int closed = w.out.close(monotonic_ns());
    if (!rc)
        rc = closed;
    if (rc) {
        std::fprintf(stderr, "orlune-capture: cannot write %s: %s\n", output.c_str(), strerror(-rc));
        return 1;
    }
    std::fprintf(stderr, "orlune-capture: %s: %llu samples, %llu bytes, %llu drops\n", output.c_str(),
                 static_cast<unsigned long long>(samples), static_cast<unsigned long long>(w.out.bytes()),
                 static_cast<unsigned long long>(drops));
    return status;
}
