// SPDX-License-Identifier: Apache-2.0
// What the host learns from the sensor data record, cycle after cycle.
#pragma once

#include <sensors/data.h>

#include <cstdint>
#include <string>
#include <vector>

// One row per sub-record the host follows, by its updated_sensors bit.
struct sensor_row {
    const char *name;
    uint32_t bit;
    uint64_t updates = 0;
    uint64_t window_updates = 0; // since the last rate computation
    double rate_hz = 0;
    double first_update_s = -1; // monotonic seconds; -1: never updated
    double last_update_s = -1;
};

// Judges IMU continuity from the sample timestamps: the sample period is the
// median of the first intervals seen; a later gap of k periods means k - 1
// samples lost.
class imu_continuity {
public:
    void add(const timespec &t);
    uint64_t lost() const { return lost_; }
    uint64_t samples() const { return samples_; }
    double period_s() const { return period_ns_ / 1e9; }
    uint64_t out_of_order() const { return out_of_order_; }

private:
    static constexpr size_t kLearn = 64;
    int64_t last_ns_ = 0;
    bool have_last_ = false;
    std::vector<int64_t> learning_;
    int64_t period_ns_ = 0;
    uint64_t lost_ = 0;
    uint64_t samples_ = 0;
    uint64_t out_of_order_ = 0;
};

class host_stats {
public:
    host_stats();
    // Accounts one completed read.
    void cycle(const sensors_data &data);
    void read_failed(int err);
    // Recomputes the per-sensor rates over the time since the last call.
    void update_rates(double elapsed_s);

    uint64_t cycles() const { return cycles_; }
    uint64_t failed_reads() const { return failed_reads_; }
    int last_error() const { return last_error_; }
    uint64_t imu_batches() const { return imu_batches_; }
    const imu_continuity &imu() const { return imu_; }
    const std::vector<sensor_row> &rows() const { return rows_; }
    double cycle_rate() const { return cycle_rate_; }

    // The latest values of a sub-record, in a line for the live view.
    static std::string latest(const sensors_data &data, uint32_t bit);
    // Carpet detection sets no updated bit: its line is shown while active.
    static std::string carpet(const sensors_data &data);
    // What a sensor is doing at monotonic time now_s, in a word or two:
    // "silent 2.5 s" once it has missed about four of its usual updates (half
    // a second at least), else its own condition ("fallback", "error",
    // "no echo", "defective", "spinning", ...) or "ok".
    static std::string state(const sensors_data &data, const sensor_row &row, double now_s);
    static double now_s();

private:
    std::vector<sensor_row> rows_;
    imu_continuity imu_;
    uint64_t cycles_ = 0;
    uint64_t window_cycles_ = 0;
    double cycle_rate_ = 0;
    uint64_t failed_reads_ = 0;
    int last_error_ = 0;
    uint64_t imu_batches_ = 0;
};
