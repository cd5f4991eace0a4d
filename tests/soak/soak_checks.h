// SPDX-License-Identifier: Apache-2.0
// What the soak judges after a run: the host's recording (IMU continuity,
// each sensor coming back after its fault), the plug-in's log (each message
// as many times as the schedule implies, nothing unexpected), and the host's
// descriptors and memory sampled once a second.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "soak_schedule.h"

namespace soak {

// The columns of a host recording that the soak reads, found by name.
struct recording {
    struct row {
        double t;         // monotonic seconds when the read returned
        uint32_t updated; // updated_sensors of that read
        int imu_n;
        double imu_t0; // first and last sample of the batch, monotonic seconds
        double imu_t1;
    };
    std::vector<row> rows;
};
// 0, or -1 with *error (missing file or column, a line that does not parse).
int parse_recording(const std::string &csv, recording *out, std::string *error);

// One line of the plug-in's log: "[seconds] L tag: text". Lines without the
// time stamp (libiio's own complaints on stderr) keep has_time false and the
// time of the line before them.
struct log_line {
    bool has_time;
    double t;
    std::string text; // after the time stamp: "L tag: text"
};
std::vector<log_line> parse_log(const std::string &text);

struct resource_sample {
    double t; // monotonic seconds
    int fds;  // of the host
    long rss_kib;
    // Per thread of the host and the simulator (by thread id): the time it
    // has spent ready to run but not running, so far, in seconds.
    std::map<int, double> run_wait_s;
};
// The open descriptors and resident memory of pid, and the run-queue wait
// of its threads; false once it is gone.
bool sample_process(pid_t pid, double now_s, resource_sample *out);
// Adds the run-queue wait of pid's threads to *out.
void sample_run_waits(pid_t pid, resource_sample *out);
// The longest a single thread waited on the run queue between two samples.
double longest_wait(const resource_sample &before, const resource_sample &after);

// The times the machine held the vehicle's CPU: a watcher above every thread
// of the vehicle, pinned to its CPU, woke from a sleep later than
// kStallS. Nothing of the guest ran then on that CPU, not even a timer's
// interrupt: on a virtual machine the hypervisor had the CPU.
struct stall {
    double from; // monotonic seconds: when the watcher was due
    double to;   // when it ran
};
inline constexpr double kStallS = 0.002;

struct check {
    std::string name;
    bool pass;
    std::string detail;
    // A failed advisory check is reported (WARN) but does not fail the run.
    bool advisory = false;
};

// Times in the schedule are scenario seconds; epoch_s is the monotonic time
// of scenario time 0 (the SIM_EPOCH line of orlune-sim).
struct judged_run {
    const schedule &plan;
    double epoch_s;
    const recording &record;
    const std::vector<log_line> &log;
    const std::vector<resource_sample> &resources;
    // Null when the vehicle's CPU was not watched.
    const std::vector<stall> *stalls = nullptr;
};

// A gap between two IMU batches longer than 1.5 sample periods counts only
// inside a window whose fault may cost samples, widened by this margin on
// both sides (the fault is armed on the simulator's clock by its own thread).
inline constexpr double kGapMarginS = 0.25;
// Resident memory may grow by this much between the end of the first cycle
// and the end of the run: allocator arenas and libiio's buffers settle within
// the first cycle; a leak per reconnection or per fault shows above it.
inline constexpr long kRssGrowthKib = 512;

// The IMU age at read return (the row's t minus its batch's last sample)
// that an idle machine gives, median and 99th percentile: on a busy one the
// real-time priorities must keep the flight loop there.
inline constexpr double kAgeMedianS = 0.5e-3;
inline constexpr double kAgeP99S = 2e-3;

// The recording's t and its sample times on one clock: a row is written
// after its batch was read, within a second of its last sample. Everything
// judged against the recording depends on it.
check check_recording_clock(const judged_run &run);

// IMU continuity, and apart from it the samples lost while the vehicle's
// processes were kept off the CPU (advisory unless strict): a gap outside
// every fault window counts as the machine's when one thread of the host or
// of the simulator waited on the run queue, over the sampling periods around
// the gap, at least as long as the lost samples last. The kernel buffer holds
// 25 ms of scans, so a host (or a simulated server) kept from running longer
// than that loses samples whatever the plug-in does; a plug-in that blocks or
// drops samples is not excused by it, as a thread that sleeps in a call does
// not wait on the run queue. A gap counts as the machine's too when the
// vehicle's CPU stalled (no thread of the guest ran there) across it at
// least as long as the lost samples last. Then the IMU age outside the fault
// windows (advisory unless strict).
std::vector<check> check_imu_continuity(const judged_run &run, bool strict);
// What the flight loop and the simulator ran with, from the host's summary
// ("scheduling ...") and the simulator's start-up line: with the table
// asked for, both at real-time priorities (advisory unless strict: without
// the privilege the vehicle flies all the same).
check check_scheduling(bool asked, const std::string &host_out, const std::string &sim_err, bool strict);
std::vector<check> check_recovery(const judged_run &run);
std::vector<check> check_messages(const judged_run &run);
std::vector<check> check_resources(const judged_run &run);

} // namespace soak
