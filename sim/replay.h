// SPDX-License-Identifier: Apache-2.0
// Replay of a capture (orlune-capture, docs/replay.md): the virtual vehicle
// serves what a real vehicle sent instead of what its models compute.
//
// Time: a replay runs on capture time, the recording machine's monotonic
// clock, and serves every timestamp as it was recorded. The IMU's scans set
// the pace: at the original pace a batch is handed over when this machine's
// monotonic clock has moved on as far from the replay's start as the batch's
// timestamp from the capture's; as fast as the plug-in reads, at once. Every
// other stream follows the IMU (see replay_clock).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/capture_file.h"
#include "sim/iio_devices.h"

namespace sim {

enum class replay_pace { original, fast };

// A capture checked from end to end and indexed by stream.
class replay_capture {
public:
    // Null with *error saying what is wrong with the file.
    static std::unique_ptr<replay_capture> load(const std::string &path, std::string *error);
    // The same, from a capture in memory that outlives the result.
    static std::unique_ptr<replay_capture> load_memory(const void *data, size_t size, std::string *error);

    struct stream {
        capture::stream_kind kind;
        std::string name;
        std::vector<capture::record> records; // in file order (time order per stream)
    };
    const std::vector<stream> &streams() const { return streams_; }
    const std::string &context_xml() const { return context_xml_; }
    const capture::header &head() const { return reader_.head(); }
    // Capture time of the first and last record.
    int64_t first_ns() const { return first_ns_; }
    int64_t last_ns() const { return last_ns_; }

private:
    int index();

    capture::reader reader_;
    std::vector<stream> streams_;
    std::string context_xml_;
    std::string message_; // why index refused the capture
    int64_t first_ns_ = 0;
    int64_t last_ns_ = 0;
};

// Capture time as the replay has reached it. The IIO server moves it on when
// it hands the plug-in a batch of a blocking device (the IMU), to the batch's
// last timestamp, and returns only once the services have served every
// record up to that time: when the plug-in's read returns, it finds exactly
// what a vehicle had published by then, however fast the replay runs.
class replay_clock {
public:
    explicit replay_clock(int64_t start_ns);

    int64_t now() const;
    // Moves capture time on to t (never back), then waits until the
    // services have served it (at most a second, in case they are stuck).
    void advance(int64_t t);
    // The services' side: waits until capture time is past seen, or limit;
    // the time in *now. False once stopped.
    bool wait_past(int64_t seen, int64_t *now, std::chrono::milliseconds limit);
    void served_up_to(int64_t t);
    void stop();

private:
    mutable std::mutex mu_;
    std::condition_variable cv_;
    int64_t now_;
    int64_t served_;
    bool stopped_ = false;
};

// One IIO device of a capture, for the iiod server.
struct replay_device {
    std::unique_ptr<device_model> model; // channels, attributes, values at the start and after
    std::string id;                      // as recorded: "iio:device0"
    std::string trigger;                 // the trigger it was attached to (name), empty for none
    std::string trigger_id;              // and its id
    std::vector<size_t> offsets;         // each channel's place in a recorded scan, SIZE_MAX: none
    std::vector<const uint8_t *> scans;  // every recorded scan, in time order
    std::vector<int64_t> stamps;         // and its timestamp (capture time)
    int timestamp = -1;                  // the timestamp channel, -1 for none
    size_t base = 0;                     // the first scan after the replay's start
    int64_t loop_ns = 0;                 // a looping replay's pass, 0 for one pass

    // The replay's scans are numbered from 0 at base, on through the passes
    // of a loop, each pass's timestamps loop_ns after the previous one's.
    uint64_t per_pass() const { return stamps.size() - base; }
    bool exists(uint64_t n) const { return per_pass() && (loop_ns || n < per_pass()); }
    const uint8_t *scan(uint64_t n) const { return scans[base + n % per_pass()]; }
    int64_t stamp(uint64_t n) const
    {
        return stamps[base + n % per_pass()] + static_cast<int64_t>(n / per_pass()) * loop_ns;
    }
    // How many of them are stamped at or before t.
    uint64_t until(int64_t t) const;
};

// The capture's streaming devices; attribute values recorded up to start_ns
// are the initial ones, later ones are served once the clock passes them.
// 0, or -EINVAL with *error saying what does not fit.
// *loop_ns: see replay_device (0: one pass). A loop's pass, given as the
// time from the start to the capture's end, is narrowed to end one period
// after the last scan of the device that streams the most (the IMU), so
// that its scans go on across the seam without a gap.
int replay_devices(const replay_capture &capture, const replay_clock &clock, int64_t start_ns, int64_t *loop_ns,
                   std::vector<replay_device> *out, std::string *error);

// The streams that do not go through the IIO server: the battery's files,
// the GPS daemon, the ultrasound service and the telemetry sections, served
// as recorded, each record when the clock reaches its time.
class replay_services {
public:
    // battery_dir: where the battery's files are written (their names as
    // recorded). Null with *error when a socket or the directory cannot be
    // made.
    // loop_ns: once the clock is that far past the start, the streams start
    // over, their times moved on by it (0: one pass).
    static std::unique_ptr<replay_services> start(const replay_capture &capture, replay_clock &clock,
                                                  const std::string &battery_dir, int64_t loop_ns, std::string *error);
    ~replay_services();
    replay_services(const replay_services &) = delete;
    replay_services &operator=(const replay_services &) = delete;

    struct impl;

private:
    explicit replay_services(std::unique_ptr<impl> p);
    std::unique_ptr<impl> impl_;
};

} // namespace sim
