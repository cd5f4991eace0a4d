// SPDX-License-Identifier: Apache-2.0
#include "sim/scan_stream.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

// Refills in a row that fail before the stream gives up.
constexpr int kLastingFailures = 100;

void log_line(const std::string &label, const char *what, int err)
{
    std::fprintf(stderr, "orlune-sim: %s: %s: %s\n", label.c_str(), what, std::strerror(err));
}

} // namespace

std::unique_ptr<scan_stream> scan_stream::start(setup s, sink to, std::unique_ptr<scan_stream> previous)
{
    std::unique_ptr<scan_stream> stream(new scan_stream);
    scan_stream *raw = stream.get();
    stream->worker_ = std::thread([raw, s = std::move(s), to = std::move(to), p = std::move(previous)]() mutable {
        raw->run(s, to, std::move(p));
    });
    return stream;
}

scan_stream::~scan_stream() { stop(); }

void scan_stream::stop()
{
    running_ = false;
    if (worker_.joinable())
        worker_.join();
}

void scan_stream::run(const setup &s, const sink &to, std::unique_ptr<scan_stream> previous)
{
    pump(s, to, std::move(previous));
    running_ = false;
}

void scan_stream::pump(const setup &s, const sink &to, std::unique_ptr<scan_stream> previous)
{
    if (previous)
        previous->stop();
    previous.reset();
    iio_device *dev = iio_context_find_device(s.ctx, s.device.c_str());
    iio_buffer *buf = nullptr;
    if (dev) {
        for (unsigned c = 0; c < iio_device_get_channels_count(dev); c++) {
            iio_channel *ch = iio_device_get_channel(dev, c);
            const bool on = s.channels.empty()
                                ? iio_channel_is_scan_element(ch)
                                : std::find(s.channels.begin(), s.channels.end(), iio_channel_get_id(ch)) !=
                                      s.channels.end();
            on ? iio_channel_enable(ch) : iio_channel_disable(ch);
        }
        // The server frees a buffer when the connection that had it closes:
        // the previous stream's may still be on its way out. A buffer has a
        // connection of its own, and a server that restarts refuses it for
        // a moment.
        for (int attempt = 0; attempt < 100 && running_; attempt++) {
            buf = iio_device_create_buffer(dev, s.batch, false);
            if (buf || (errno != EBUSY && errno != ECONNREFUSED))
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (!buf) {
        if (running_)
            log_line(s.label, "the server refused the stream", dev ? errno : ENODEV);
        return;
    }
    const ssize_t sample = iio_device_get_sample_size(dev);
    const size_t scan = static_cast<size_t>(std::max<ssize_t>(1, sample));
    if (s.scan_bytes && scan != s.scan_bytes) {
        std::fprintf(stderr, "orlune-sim: %s: no stream: the server's scans have %zu bytes, not %zu\n",
                     s.label.c_str(), scan, s.scan_bytes);
        iio_buffer_destroy(buf);
        return;
    }
    // The server hands over the scans it has; the sink gets whole batches,
    // as a device that batches its scans releases them.
    const size_t batch_bytes = s.batch * scan;
    std::vector<char> pending;
    pending.reserve(batch_bytes);
    int failures = 0;
    while (running_) {
        const ssize_t r = iio_buffer_refill(buf);
        if (r == -EAGAIN) { // a polled device with nothing new
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        if (r == -ETIMEDOUT)
            continue;
        if (r < 0) {
            if (++failures < kLastingFailures && running_) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            if (running_)
                log_line(s.label, "the stream stopped", static_cast<int>(-r));
            break;
        }
        failures = 0;
        if (!running_ || r <= 0)
            continue;
        const char *got = static_cast<const char *>(iio_buffer_start(buf));
        pending.insert(pending.end(), got, got + static_cast<size_t>(r) / scan * scan);
        const size_t whole = pending.size() / batch_bytes * batch_bytes;
        if (whole > 0) {
            to(pending.data(), whole / scan, scan);
            pending.erase(pending.begin(), pending.begin() + static_cast<ptrdiff_t>(whole));
        }
    }
    iio_buffer_destroy(buf);
}

} // namespace sim
