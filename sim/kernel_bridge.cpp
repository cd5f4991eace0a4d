// SPDX-License-Identifier: Apache-2.0
#include "sim/kernel_bridge.h"

#include <fcntl.h>
#include <iio.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include "kernel/orlune_vehicle.h"
#include "sim/scan_stream.h"

namespace sim {

namespace {

// The driver's units, in its order, and what the server must have for each.
struct unit_desc {
    const char *device;
    const char *trigger;
    size_t scan_bytes; // every scan element, the timestamp last
};

static_assert(ORLUNE_VEHICLE_IMU == 0 && ORLUNE_VEHICLE_BARO == 1 && ORLUNE_VEHICLE_MAGNETO == 2 &&
              ORLUNE_VEHICLE_MOTORS == 3 && ORLUNE_VEHICLE_UNITS == 4);
constexpr std::array<unit_desc, ORLUNE_VEHICLE_UNITS> kUnits{{
    {"orlune-imu", "orlune-imu-trig", ORLUNE_VEHICLE_IMU_SCAN},
    {"orlune-lps22hb", "orlune-baro-trig", ORLUNE_VEHICLE_BARO_SCAN},
    {"orlune-magneto", "orlune-magneto-trig", ORLUNE_VEHICLE_MAGNETO_SCAN},
    {"orlune-esc", "orlune-esc-trig", ORLUNE_VEHICLE_MOTORS_SCAN},
}};

// The control connection's timeout: an answer comes well before the
// driver's own bound on it (5 s).
constexpr unsigned kControlTimeoutMs = 2000;
// The streams' connections, as the sysfs stand-in's: the server's refills
// then answer -ETIMEDOUT after half of it.
constexpr unsigned kStreamTimeoutMs = 1000;
// The server's own buffer for the streams, in scans (about a second of the
// fastest device): what a stream has not taken yet waits there, as in a
// device's FIFO that its driver drains late, and reaches the kernel buffer,
// which keeps or drops it as a kernel does.
constexpr long long kServerBufferScans = 1024;
// How long the driver's node is waited on before the stop is looked at again.
constexpr int kPollMs = 1000;
// A read of the node returns as many whole messages as fit.
constexpr size_t kReadBytes = 64 * 1024;

// A server attribute: the device's (or trigger's) when ch is null.
struct attr_ref {
    iio_device *dev = nullptr;
    iio_channel *ch = nullptr;
    std::string name;

    ssize_t read(char *buf, size_t len) const
    {
        return ch ? iio_channel_attr_read(ch, name.c_str(), buf, len)
                  : iio_device_attr_read(dev, name.c_str(), buf, len);
    }
    ssize_t write(const std::string &value) const
    {
        return ch ? iio_channel_attr_write(ch, name.c_str(), value.c_str())
                  : iio_device_attr_write(dev, name.c_str(), value.c_str());
    }
};

struct unit {
    uint32_t index = 0;
    const unit_desc *desc = nullptr;
    iio_device *device = nullptr;  // in the control context; null: the server has none
    iio_device *trigger = nullptr; // in the control context
    std::map<std::string, attr_ref> attrs;         // by sysfs file name
    std::map<std::string, attr_ref> trigger_attrs; // by sysfs file name
    iio_context *stream_ctx = nullptr;             // the streams' own connection, made once
    std::unique_ptr<scan_stream> stream;           // the latest: running, or ending
    size_t batch = 1;                              // the latest stream's scans per refill
    mutable std::atomic<uint64_t> refused{0};      // scans a full kernel buffer refused
    mutable std::atomic<uint64_t> missed{0};       // scans the server dropped before the feeder took them
};

void log_line(const char *fmt, const std::string &a, const std::string &b = {})
{
    std::fprintf(stderr, "orlune-sim: kernel: ");
    std::fprintf(stderr, fmt, a.c_str(), b.c_str());
    std::fputc('\n', stderr);
}

// libiio's network backend cuts the text it is given at the port's colon:
// each context gets a copy of its own.
iio_context *create_context(const std::string &uri)
{
    std::vector<char> text(uri.begin(), uri.end());
    text.push_back('\0');
    return iio_create_context_from_uri(text.data());
}

iio_device *find_device(iio_context *ctx, const char *name, bool trigger)
{
    for (unsigned i = 0; i < iio_context_get_devices_count(ctx); i++) {
        iio_device *dev = iio_context_get_device(ctx, i);
        const char *n = iio_device_get_name(dev);
        if (n && std::strcmp(n, name) == 0 && iio_device_is_trigger(dev) == trigger)
            return dev;
    }
    return nullptr;
}

std::string why_not_open(int err)
{
    std::string why = std::strerror(err);
    if (err == ENOENT)
        why += " (is the orlune_vehicle module loaded?)";
    else if (err == EBUSY)
        why += " (another process feeds the driver)";
    return why;
}

} // namespace

struct kernel_bridge::impl {
    std::string uri;
    std::string node;
    iio_context *ctx = nullptr; // the answering thread's
    std::array<unit, ORLUNE_VEHICLE_UNITS> units;
    int node_fd = -1;
    int stop_fd = -1;
    std::thread answering;
    bool stopped = false;

    ~impl()
    {
        for (unit &u : units)
            if (u.stream)
                u.stream->request_stop();
        for (unit &u : units) {
            u.stream.reset();
            if (u.stream_ctx)
                iio_context_destroy(u.stream_ctx);
        }
        if (node_fd >= 0)
            close(node_fd);
        if (stop_fd >= 0)
            close(stop_fd);
        if (ctx)
            iio_context_destroy(ctx);
    }

    // ---- the server's side --------------------------------------------------
    // A unit the server has must be the driver's; one it lacks stays
    // without hardware (a scenario of some devices only).
    bool check_unit(unit &u, std::string *error)
    {
        const unit_desc &d = *u.desc;
        u.device = find_device(ctx, d.device, false);
        if (!u.device)
            return true;
        u.trigger = find_device(ctx, d.trigger, true);
        if (!u.trigger) {
            *error = std::string("kernel: the server's ") + d.device + " has no trigger named " + d.trigger;
            return false;
        }
        // Every scan element on (a local choice: the control context never
        // opens a buffer), as the streams take them.
        iio_channel *last = nullptr;
        for (unsigned c = 0; c < iio_device_get_channels_count(u.device); c++) {
            iio_channel *ch = iio_device_get_channel(u.device, c);
            if (!iio_channel_is_scan_element(ch))
                continue;
            iio_channel_enable(ch);
            if (!last || iio_channel_get_index(ch) > iio_channel_get_index(last))
                last = ch;
        }
        if (!last || std::strcmp(iio_channel_get_id(last), "timestamp") != 0 ||
            iio_channel_get_data_format(last)->length != 64) {
            *error =
                std::string("kernel: the server's ") + d.device + " does not end its scans with a 64-bit timestamp";
            return false;
        }
        const ssize_t size = iio_device_get_sample_size(u.device);
        if (size != static_cast<ssize_t>(d.scan_bytes)) {
            *error = std::string("kernel: the server's ") + d.device + " has scans of " + std::to_string(size) +
                     " bytes, the driver's of " + std::to_string(d.scan_bytes);
            return false;
        }
        for (unsigned a = 0; a < iio_device_get_attrs_count(u.device); a++) {
            const char *attr = iio_device_get_attr(u.device, a);
            u.attrs[attr] = {u.device, nullptr, attr};
        }
        // A shared file (in_accel_scale) is any of its channels' attribute.
        for (unsigned c = 0; c < iio_device_get_channels_count(u.device); c++) {
            iio_channel *ch = iio_device_get_channel(u.device, c);
            for (unsigned a = 0; a < iio_channel_get_attrs_count(ch); a++) {
                const char *attr = iio_channel_get_attr(ch, a);
                u.attrs.try_emplace(iio_channel_attr_get_filename(ch, attr), attr_ref{u.device, ch, attr});
            }
        }
        for (unsigned a = 0; a < iio_device_get_attrs_count(u.trigger); a++) {
            const char *attr = iio_device_get_attr(u.trigger, a);
            u.trigger_attrs[attr] = {u.trigger, nullptr, attr};
        }
        // The driver accepts the unit's own trigger only: the server's device
        // is driven by its own too, and produces while a stream reads it.
        if (int r = iio_device_set_trigger(u.device, u.trigger); r < 0) {
            *error = std::string("kernel: the server's ") + d.device + " does not take its trigger " + d.trigger +
                     ": " + std::strerror(-r);
            return false;
        }
        // No reader yet: the server takes a new length now.
        if (int r = iio_device_buffer_attr_write_longlong(u.device, "length", kServerBufferScans); r < 0) {
            *error = std::string("kernel: the server's ") + d.device + " refuses a buffer of " +
                     std::to_string(kServerBufferScans) + " scans: " + std::strerror(-r);
            return false;
        }
        // A connection of its own for the unit's streams, made now: a
        // stream then starts as soon as the kernel enables the buffer.
        if (!(u.stream_ctx = create_context(uri))) {
            *error = "kernel: cannot reach " + uri + " for the streams of " + d.device + ": " + std::strerror(errno);
            return false;
        }
        iio_context_set_timeout(u.stream_ctx, kStreamTimeoutMs);
        return true;
    }

    bool open_node(std::string *error)
    {
        node_fd = open(node.c_str(), O_RDWR | O_CLOEXEC);
        stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (node_fd < 0) {
            *error = "kernel: cannot open " + node + ": " + why_not_open(errno);
            return false;
        }
        struct stat st {};
        if (fstat(node_fd, &st) != 0 || !S_ISCHR(st.st_mode)) {
            *error = "kernel: " + node + " is not a character device: not the driver's node";
            return false;
        }
        if (stop_fd < 0) {
            *error = std::string("kernel: eventfd: ") + std::strerror(errno);
            return false;
        }
        return true;
    }

    // ---- the driver's requests ----------------------------------------------
    void answer(const orlune_vehicle_msg &request, int status, const char *text = nullptr, size_t length = 0)
    {
        char out[sizeof(orlune_vehicle_msg) + ORLUNE_VEHICLE_PAYLOAD_MAX];
        length = std::min<size_t>(length, ORLUNE_VEHICLE_PAYLOAD_MAX);
        const orlune_vehicle_msg msg{ORLUNE_VEHICLE_ANSWER, request.unit, request.id, status, 0,
                                     static_cast<uint32_t>(length)};
        std::memcpy(out, &msg, sizeof msg);
        if (length)
            std::memcpy(out + sizeof msg, text, length);
        if (write(node_fd, out, sizeof msg + length) < 0)
            log_line("an answer to the driver failed: %s", std::strerror(errno));
    }

    // The attribute a request names, or why there is none: no such unit
    // (-EINVAL), a unit the server lacks (-ENODEV), an attribute it lacks
    // (-EACCES, as for a file sysfs does not have).
    int find_attr(uint32_t unit_word, const std::string &file, const attr_ref **out) const
    {
        const uint32_t index = unit_word & ~static_cast<uint32_t>(ORLUNE_VEHICLE_TRIGGER);
        if (index >= units.size())
            return -EINVAL;
        if (!units[index].device)
            return -ENODEV;
        const auto &attrs = unit_word & ORLUNE_VEHICLE_TRIGGER ? units[index].trigger_attrs : units[index].attrs;
        const auto it = attrs.find(file);
        if (it == attrs.end())
            return -EACCES;
        *out = &it->second;
        return 0;
    }

    void answer_read(const orlune_vehicle_msg &m, const char *payload)
    {
        const attr_ref *attr = nullptr;
        if (int r = find_attr(m.unit, std::string(payload, m.length), &attr); r < 0)
            return answer(m, r);
        char value[ORLUNE_VEHICLE_PAYLOAD_MAX + 1] = {};
        const ssize_t r = attr->read(value, sizeof value);
        if (r < 0)
            return answer(m, static_cast<int>(r));
        size_t length = strnlen(value, ORLUNE_VEHICLE_PAYLOAD_MAX);
        while (length > 0 && value[length - 1] == '\n')
            length--;
        answer(m, 0, value, length);
    }

    void answer_write(const orlune_vehicle_msg &m, const char *payload)
    {
        const char *end = payload + m.length;
        const char *nul = static_cast<const char *>(std::memchr(payload, '\0', m.length));
        if (!nul)
            return answer(m, -EINVAL);
        const std::string file(payload, nul);
        std::string value(nul + 1, end);
        while (!value.empty() && (value.back() == '\n' || value.back() == '\0'))
            value.pop_back();
        const attr_ref *attr = nullptr;
        if (int r = find_attr(m.unit, file, &attr); r < 0)
            return answer(m, r);
        const ssize_t r = attr->write(value);
        answer(m, r < 0 ? static_cast<int>(r) : 0);
        // The IMU's trigger batches its scans: a stream that runs refills by
        // the batch.
        const uint32_t index = m.unit & ~static_cast<uint32_t>(ORLUNE_VEHICLE_TRIGGER);
        if (r >= 0 && (m.unit & ORLUNE_VEHICLE_TRIGGER) && file == "rate_divider" && units[index].stream &&
            units[index].stream->active() && batch_of(units[index]) != units[index].batch)
            start_stream(units[index]);
    }

    // ---- streams --------------------------------------------------------------
    // Scans per refill: as the trigger makes them, a blocking device
    // releasing a whole batch at once.
    size_t batch_of(const unit &u) const
    {
        long long divider = 0;
        if (iio_device_find_attr(u.trigger, "rate_divider") &&
            iio_device_attr_read_longlong(u.trigger, "rate_divider", &divider) == 0 && divider > 0)
            return static_cast<size_t>(divider);
        return 1;
    }

    void set_buffer(uint32_t index, bool enabled)
    {
        if (index >= units.size()) {
            log_line("the driver enabled or disabled a unit it does not have: %s", std::to_string(index));
            return;
        }
        unit &u = units[index];
        if (!u.device) {
            if (enabled)
                log_line("%s: no scans: the server has no such device", u.desc->device);
            return;
        }
        if (!enabled) {
            if (u.stream)
                u.stream->request_stop();
            return;
        }
        if (!u.stream || !u.stream->active())
            start_stream(u);
    }

    // The stream that ends (if any) is waited for on the new stream's
    // thread: a refill under way never holds up an answer.
    void start_stream(unit &u)
    {
        if (u.stream)
            u.stream->request_stop();
        u.batch = batch_of(u);
        scan_stream::setup setup;
        setup.ctx = u.stream_ctx;
        setup.device = iio_device_get_id(u.device);
        setup.batch = u.batch;
        setup.scan_bytes = u.desc->scan_bytes;
        setup.label = std::string("kernel: ") + u.desc->device;
        // A stream that falls behind the server loses its oldest scans
        // there: whole periods missing between two stamps.
        double hz = 0;
        const int64_t period_ns =
            iio_device_attr_read_double(u.device, "sampling_frequency", &hz) == 0 && hz > 0 ? int64_t(1e9 / hz) : 0;
        u.stream = scan_stream::start(
            std::move(setup),
            [this, &u, period_ns, previous = int64_t(0), out = std::vector<char>(),
             dropped = false](const char *scans, size_t count, size_t scan) mutable {
                for (size_t i = 0; i < count && period_ns; i++) {
                    int64_t stamp;
                    std::memcpy(&stamp, scans + (i + 1) * scan - sizeof stamp, sizeof stamp);
                    const int64_t periods = previous ? (stamp - previous + period_ns / 2) / period_ns : 1;
                    if (periods > 1)
                        u.missed += uint64_t(periods - 1);
                    previous = stamp;
                }
                send_scans(u, scans, count, scan, &out, &dropped);
            },
            std::move(u.stream));
    }

    // A refill's scans, in messages of at most the driver's payload. The
    // write may wait for the driver (bounded on its side); one that comes
    // back short is the kernel buffer's refusal of the newest scans (its
    // reader fell behind), not something to write again.
    void send_scans(const unit &u, const char *scans, size_t count, size_t scan, std::vector<char> *out,
                    bool *dropped)
    {
        const size_t per_message = ORLUNE_VEHICLE_PAYLOAD_MAX / scan;
        out->resize(sizeof(orlune_vehicle_msg) + per_message * scan);
        while (count > 0) {
            const size_t n = std::min(count, per_message);
            const orlune_vehicle_msg msg{ORLUNE_VEHICLE_SCANS, u.index, 0, 0, static_cast<uint32_t>(n),
                                         static_cast<uint32_t>(n * scan)};
            std::memcpy(out->data(), &msg, sizeof msg);
            std::memcpy(out->data() + sizeof msg, scans, n * scan);
            const ssize_t w = write(node_fd, out->data(), sizeof msg + n * scan);
            if (w < 0 && !*dropped) {
                *dropped = true; // once per stream: the next failures are the same
                log_line("%s: scans the driver refused are dropped: %s", u.desc->device, std::strerror(errno));
            } else if (w >= 0 && static_cast<size_t>(w) < sizeof msg + n * scan) {
                u.refused += (sizeof msg + n * scan - static_cast<size_t>(w)) / scan;
            }
            scans += n * scan;
            count -= n;
        }
    }

    // ---- the answering thread -------------------------------------------------
    void handle(const char *data, size_t size)
    {
        while (size >= sizeof(orlune_vehicle_msg)) {
            orlune_vehicle_msg m;
            std::memcpy(&m, data, sizeof m);
            if (m.length > size - sizeof m) {
                log_line("a message of the driver is cut short: %s of %s bytes",
                         std::to_string(size - sizeof m), std::to_string(m.length));
                return;
            }
            const char *payload = data + sizeof m;
            switch (m.kind) {
            case ORLUNE_VEHICLE_READ:
                answer_read(m, payload);
                break;
            case ORLUNE_VEHICLE_WRITE:
                answer_write(m, payload);
                break;
            case ORLUNE_VEHICLE_BUFFER:
                set_buffer(m.unit, m.status != 0);
                break;
            default:
                log_line("the driver sent a message of unknown kind %s", std::to_string(m.kind));
                break;
            }
            data += sizeof m + m.length;
            size -= sizeof m + m.length;
        }
    }

    void run()
    {
        std::vector<char> in(kReadBytes);
        for (;;) {
            pollfd fds[2] = {{node_fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
            if (poll(fds, 2, kPollMs) < 0 && errno != EINTR) {
                log_line("cannot wait for the driver: %s", std::strerror(errno));
                break;
            }
            if (fds[1].revents)
                break;
            if (!(fds[0].revents & POLLIN))
                continue;
            const ssize_t n = read(node_fd, in.data(), in.size());
            if (n < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            if (n <= 0) {
                log_line("cannot read %s: %s", node, n < 0 ? std::strerror(errno) : "end of file");
                break;
            }
            handle(in.data(), static_cast<size_t>(n));
        }
        for (unit &u : units)
            if (u.stream)
                u.stream->request_stop();
        for (unit &u : units)
            u.stream.reset();
    }
};

kernel_bridge::kernel_bridge(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

std::unique_ptr<kernel_bridge> kernel_bridge::start(const std::string &uri, const std::string &node,
                                                    std::string *error)
{
    // A server that goes away closes the sockets under the bridge's writes:
    // that must end a stream, not the process.
    std::signal(SIGPIPE, SIG_IGN);
    auto p = std::make_unique<impl>();
    p->uri = uri;
    p->node = node;
    p->ctx = create_context(uri);
    if (!p->ctx) {
        *error = "kernel: cannot reach " + uri + ": " + std::strerror(errno);
        return nullptr;
    }
    // Before the streams' connections set theirs: the server keeps the
    // latest a client sends.
    iio_context_set_timeout(p->ctx, kControlTimeoutMs);
    std::string names;
    std::vector<const char *> absent;
    for (uint32_t i = 0; i < p->units.size(); i++) {
        p->units[i].index = i;
        p->units[i].desc = &kUnits[i];
        if (!p->check_unit(p->units[i], error))
            return nullptr;
        if (!p->units[i].device)
            absent.push_back(kUnits[i].device);
        names += std::string(i ? ", " : "") + kUnits[i].device;
    }
    if (absent.size() == p->units.size()) {
        *error = "kernel: the server at " + uri + " has none of the driver's devices (" + names + ")";
        return nullptr;
    }
    for (const char *name : absent)
        log_line("the server has no %s: its attributes answer ENODEV and its buffer stays empty", name);
    if (!p->open_node(error))
        return nullptr;
    impl *raw = p.get();
    p->answering = std::thread([raw] { raw->run(); });
    return std::unique_ptr<kernel_bridge>(new kernel_bridge(std::move(p)));
}

void kernel_bridge::stop()
{
    if (impl_->stopped)
        return;
    impl_->stopped = true;
    const uint64_t one = 1;
    (void)!write(impl_->stop_fd, &one, sizeof one);
    impl_->answering.join();
    // What the readers lost, for whoever counts the samples they got.
    for (const unit &u : impl_->units) {
        if (const uint64_t n = u.refused)
            log_line("%s: %s scans refused by a full kernel buffer (the reader fell behind)", u.desc->device,
                     std::to_string(n));
        if (const uint64_t n = u.missed)
            log_line("%s: %s scans missing before the kernel (this feeder fell behind the server, or a stall)", u.desc->device,
                     std::to_string(n));
    }
    close(impl_->node_fd);
    impl_->node_fd = -1;
}

kernel_bridge::~kernel_bridge() { stop(); }

} // namespace sim
