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
// median of the first intervals seen; a gap of k periods, among those or
// later, means k - 1 samples lost.
class imu_continuity {
public:
    void add(const timespec &t);
    uint64_t lost() const { return lost_; }
    uint64_t samples() const { return samples_; }
    double period_s() const { return period_ns_ / 1e9; }
    uint64_t out_of_order() const { return out_of_order_; }

private:
    void judge(int64_t dt);

    static constexpr size_t kLearn = 64;
    int64_t last_ns_ = 0;
    bool have_last_ = false;
    std::vector<int64_t> learning_;
    int64_t period_ns_ = 0;
    uint64_t lost_ = 0;
    uint64_t samples_ = 0;
    uint64_t out_of_order_ = 0;
};

// The distribution of a delay in nanoseconds, signed, in memory fixed at
// construction: a histogram of 10 µs bins over [lowest, highest), the counts
// of what falls outside, and the exact extremes. Within the range a quantile
// is its value rounded down to 10 µs; outside it, it is only known to lie
// beyond the bound.
class delay_histogram {
public:
    static constexpr int64_t kBinNs = 10'000;

    delay_histogram(int64_t lowest_ns, int64_t highest_ns);
    void add(int64_t ns);
    uint64_t count() const { return count_; }
    int64_t min_ns() const { return min_ns_; }
    int64_t max_ns() const { return max_ns_; }

    enum class where { empty, within, below, above };
    struct quantile {
        where at;
        int64_t ns; // its bin's lower edge; the bound crossed when below or above
    };
    // The q-quantile by nearest rank: the smallest value with at least
    // ceil(q * count) of the values at or below it.
    quantile at(double q) const;

private:
    int64_t lowest_ns_;
    int64_t highest_ns_;
    std::vector<uint32_t> bins_;
    uint64_t below_ = 0;
    uint64_t above_ = 0;
    uint64_t count_ = 0;
    int64_t min_ns_ = 0;
    int64_t max_ns_ = 0;
};

// A quantile in milliseconds for the view: "0.31", ">100" beyond the
// histogram's range, "-" when nothing was measured.
std::string delay_ms(const delay_histogram::quantile &q);

class host_stats {
public:
    host_stats();
    // Accounts one completed read, which returned at `returned` (monotonic).
    void cycle(const sensors_data &data, const timespec &returned);
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
    // How old the IMU batch is when read returns: the return time minus the
    // batch's last sample. This is the delay the flight loop acts with.
    const delay_histogram &imu_age() const { return imu_age_; }
    // In reads that deliver both, the motor sample's age at the batch's
    // first IMU sample: that sample's time minus the motor sample's;
    // negative when the motor sample is the newer.
    const delay_histogram &motor_age() const { return motor_age_; }
    // Both in a line: "imu age 0.31 ms median, 1.20 p99, 3.40 max; motor
    // sample 2.10 ms before the batch (median)".
    std::string ages() const;

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
    delay_histogram imu_age_;
    delay_histogram motor_age_;
    uint64_t cycles_ = 0;
    uint64_t window_cycles_ = 0;
    double cycle_rate_ = 0;
    uint64_t failed_reads_ = 0;
    int last_error_ = 0;
    uint64_t imu_batches_ = 0;
};
