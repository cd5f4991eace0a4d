// SPDX-License-Identifier: Apache-2.0
// A device's scans taken from the iiod server as a kernel buffer receives
// them: a buffer of the chosen channels on a connection of the stream's own,
// refilled as the server makes scans available (a blocking device's refill
// waits for its batch, a polled device's answers -EAGAIN until a new scan
// comes), each refill's scans handed on whole. The board's transports (the
// sysfs stand-in and the kernel driver's feeder) both stream this way.
//
// A kernel goes on sampling whatever one transfer did: an error of the
// server's ends the stream only when it lasts (100 refills in a row).
#pragma once

#include <iio.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace sim {

class scan_stream {
public:
    struct setup {
        // The stream's connection to the server: no other thread uses it
        // while the stream runs.
        iio_context *ctx = nullptr;
        std::string device;                // the server's device id
        std::vector<std::string> channels; // scan elements to enable, by id; empty: every one
        size_t batch = 1;                  // scans per refill, and per delivery: a batch whole
        size_t scan_bytes = 0;             // the size a scan must have; 0: any
        std::string label;                 // names the stream in the log ("sysfs: iio:device0")
    };
    // count scans of scan_bytes each, on the stream's thread.
    using sink = std::function<void(const char *scans, size_t count, size_t scan_bytes)>;

    // Runs the stream on a thread of its own. A stream that follows another
    // on the same connection (previous) waits for it to end first, so that
    // the caller need not.
    static std::unique_ptr<scan_stream> start(setup s, sink to, std::unique_ptr<scan_stream> previous = nullptr);
    ~scan_stream(); // stop()
    scan_stream(const scan_stream &) = delete;
    scan_stream &operator=(const scan_stream &) = delete;

    // Asks the stream to end after the refill under way (a period of the
    // device, at most half the connection's timeout when nothing comes:
    // cancelling it would close the connection). The sink gets no refill
    // that completes afterwards.
    void request_stop() { running_ = false; }
    // Asks, then waits for the stream to end. Idempotent.
    void stop();
    // Neither asked to stop nor ended by itself (the server refused the
    // stream or its errors lasted).
    bool active() const { return running_; }

private:
    scan_stream() = default;
    void run(const setup &s, const sink &to, std::unique_ptr<scan_stream> previous);
    void pump(const setup &s, const sink &to, std::unique_ptr<scan_stream> previous);

    std::atomic<bool> running_{true};
    std::thread worker_;
};

} // namespace sim
