// SPDX-License-Identifier: Apache-2.0
#include "host_stats.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/time_helpers.h"

void imu_continuity::add(const timespec &t)
{
    int64_t ns;
    if (timespec_to_ns(&t, &ns) != 0)
        return;
    samples_++;
    if (!have_last_) {
        have_last_ = true;
        last_ns_ = ns;
        return;
    }
    int64_t dt = ns - last_ns_;
    if (dt <= 0) {
        out_of_order_++;
        return;
    }
    last_ns_ = ns;
    if (period_ns_ != 0) {
        judge(dt);
        return;
    }
    learning_.push_back(dt);
    if (learning_.size() < kLearn)
        return;
    // The intervals learnt from are judged too: a host starts on a kernel
    // buffer that filled before its first read, with the gap in its first
    // batches.
    std::vector<int64_t> sorted = learning_;
    std::nth_element(sorted.begin(), sorted.begin() + kLearn / 2, sorted.end());
    period_ns_ = sorted[kLearn / 2];
    for (int64_t learnt : learning_)
        judge(learnt);
    learning_.clear();
}

void imu_continuity::judge(int64_t dt)
{
    // A gap of k periods (rounded) holds k - 1 missing samples; jitter below
    // half a period is not a loss.
    int64_t k = (dt + period_ns_ / 2) / period_ns_;
    if (k > 1)
        lost_ += uint64_t(k - 1);
}

delay_histogram::delay_histogram(int64_t lowest_ns, int64_t highest_ns)
    : lowest_ns_(lowest_ns), highest_ns_(highest_ns), bins_(size_t((highest_ns - lowest_ns) / kBinNs))
{
}

void delay_histogram::add(int64_t ns)
{
    if (count_ == 0 || ns < min_ns_)
        min_ns_ = ns;
    if (count_ == 0 || ns > max_ns_)
        max_ns_ = ns;
    count_++;
    if (ns < lowest_ns_)
        below_++;
    else if (ns >= highest_ns_)
        above_++;
    else
        bins_[size_t((ns - lowest_ns_) / kBinNs)]++;
}

delay_histogram::quantile delay_histogram::at(double q) const
{
    if (count_ == 0)
        return {where::empty, 0};
    // The tolerance keeps 0.99 * 100 from rounding up to rank 100.
    const uint64_t rank = std::clamp<uint64_t>(uint64_t(std::ceil(q * double(count_) - 1e-9)), 1, count_);
    uint64_t seen = below_;
    if (seen >= rank)
        return {where::below, lowest_ns_};
    for (size_t i = 0; i < bins_.size(); i++) {
        seen += bins_[i];
        if (seen >= rank)
            return {where::within, lowest_ns_ + int64_t(i) * kBinNs};
    }
    return {where::above, highest_ns_};
}

std::string delay_ms(const delay_histogram::quantile &q)
{
    char s[32];
    switch (q.at) {
    case delay_histogram::where::empty:
        return "-";
    case delay_histogram::where::below:
        snprintf(s, sizeof s, "<%.0f", double(q.ns) / 1e6);
        break;
    case delay_histogram::where::above:
        snprintf(s, sizeof s, ">%.0f", double(q.ns) / 1e6);
        break;
    case delay_histogram::where::within:
        snprintf(s, sizeof s, "%.2f", double(q.ns) / 1e6);
        break;
    }
    return s;
}

namespace {

// IMU ages beyond 100 ms (a stalled device, a blocked host) and motor ages
// beyond 100 ms either way are counted, and their extremes kept exactly.
constexpr int64_t kAgeRangeNs = 100'000'000;

} // namespace

host_stats::host_stats() : imu_age_(0, kAgeRangeNs), motor_age_(-kAgeRangeNs, kAgeRangeNs)
{
    rows_ = {
        {"imu", SENSORS_UPDATED_IMU},
        {"baro", SENSORS_UPDATED_BARO},
        {"magneto", SENSORS_UPDATED_MAGNETO},
        {"motors", SENSORS_UPDATED_MOTORS},
        {"us", SENSORS_UPDATED_US},
        {"gps", SENSORS_UPDATED_GPS},
        {"battery", SENSORS_UPDATED_BATTERY},
        {"motors_info", SENSORS_UPDATED_MOTORS_INFO},
        {"vision_position", SENSORS_UPDATED_VISION_POSITION},
        {"optical_flow", SENSORS_UPDATED_OPTICAL_FLOW},
        {"fcam_gimbal", SENSORS_UPDATED_FCAM_GIMBAL},
    };
}

double host_stats::now_s()
{
    timespec now;
    monotonic_now(&now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

void host_stats::cycle(const sensors_data &data, const timespec &returned)
{
    cycles_++;
    window_cycles_++;
    const double now = double(returned.tv_sec) + double(returned.tv_nsec) * 1e-9;
    for (sensor_row &row : rows_)
        if (data.updated_sensors & row.bit) {
            row.updates++;
            row.window_updates++;
            if (row.first_update_s < 0)
                row.first_update_s = now;
            row.last_update_s = now;
        }
    if (data.updated_sensors & SENSORS_UPDATED_IMU) {
        imu_batches_++;
        unsigned n = std::min<unsigned>(data.imu.nb_samples, SENSORS_IMU_MAX_SAMPLES);
        for (unsigned i = 0; i < n; i++)
            imu_.add(data.imu.timestamps[i]);
        int64_t returned_ns, first_ns, last_ns, motor_ns;
        if (n > 0 && timespec_to_ns(&returned, &returned_ns) == 0 &&
            timespec_to_ns(&data.imu.timestamps[0], &first_ns) == 0 &&
            timespec_to_ns(&data.imu.timestamps[n - 1], &last_ns) == 0) {
            imu_age_.add(returned_ns - last_ns);
            if ((data.updated_sensors & SENSORS_UPDATED_MOTORS) &&
                timespec_to_ns(&data.motors.timestamp, &motor_ns) == 0)
                motor_age_.add(first_ns - motor_ns);
        }
    }
}

std::string host_stats::ages() const
{
    if (imu_age_.count() == 0)
        return "imu age: no batch yet";
    char s[160];
    int n = snprintf(s, sizeof s, "imu age %s ms median, %s p99, %.2f max", delay_ms(imu_age_.at(0.5)).c_str(),
                     delay_ms(imu_age_.at(0.99)).c_str(), double(imu_age_.max_ns()) / 1e6);
    if (motor_age_.count() && n > 0 && size_t(n) < sizeof s) {
        // Said as a distance: "before" or "after" carries the sign.
        delay_histogram::quantile m = motor_age_.at(0.5);
        const bool after = m.ns < 0;
        if (after)
            m = {m.at == delay_histogram::where::below ? delay_histogram::where::above : m.at, -m.ns};
        snprintf(s + n, sizeof s - size_t(n), "; motor sample %s ms %s the batch (median)", delay_ms(m).c_str(),
                 after ? "after" : "before");
    }
    return s;
}

void host_stats::read_failed(int err)
{
    failed_reads_++;
    last_error_ = err;
}

void host_stats::update_rates(double elapsed_s)
{
    if (elapsed_s <= 0)
        return;
    cycle_rate_ = double(window_cycles_) / elapsed_s;
    window_cycles_ = 0;
    for (sensor_row &row : rows_) {
        row.rate_hz = double(row.window_updates) / elapsed_s;
        row.window_updates = 0;
    }
}

std::string host_stats::latest(const sensors_data &d, uint32_t bit)
{
    char s[256];
    s[0] = '\0';
    switch (bit) {
    case SENSORS_UPDATED_IMU: {
        unsigned i = d.imu.nb_samples ? std::min<unsigned>(d.imu.nb_samples, 5) - 1 : 0;
        snprintf(s, sizeof s, "gyro %+7.3f %+7.3f %+7.3f rad/s  accel %+7.3f %+7.3f %+7.3f m/s2  %6.2f K  n=%u",
                 d.imu.gyro[i][0], d.imu.gyro[i][1], d.imu.gyro[i][2], d.imu.accel[i][0], d.imu.accel[i][1],
                 d.imu.accel[i][2], d.imu.temperature[i], d.imu.nb_samples);
        break;
    }
    case SENSORS_UPDATED_BARO:
        snprintf(s, sizeof s, "%10.2f Pa  %6.2f K", d.baro.pressure, d.baro.temperature);
        break;
    case SENSORS_UPDATED_MAGNETO:
        snprintf(s, sizeof s, "%+8.2f %+8.2f %+8.2f uT  %6.2f K", d.magneto.field[0], d.magneto.field[1],
                 d.magneto.field[2], d.magneto.temperature);
        break;
    case SENSORS_UPDATED_MOTORS:
        snprintf(s, sizeof s,
                 "speeds %u %u %u %u  pwm %u %u %u %u  status %u/%u  ramp %u brake %u spinning %u nominal %u idle %u  "
                 "errors %u %u %u %u  %.2f V",
                 d.motors.motor[0].speed, d.motors.motor[1].speed, d.motors.motor[2].speed, d.motors.motor[3].speed,
                 d.motors.motor[0].pwm, d.motors.motor[1].pwm, d.motors.motor[2].pwm, d.motors.motor[3].pwm,
                 d.motors.status[0] & 0xffu, d.motors.status[1] & 0xffu, d.motors.ramp_state, d.motors.brake_state,
                 d.motors.spinning, d.motors.nominal, d.motors.idle, d.motors.error[0], d.motors.error[1],
                 d.motors.error[2], d.motors.error[3], d.motors.voltage);
        break;
    case SENSORS_UPDATED_US:
        snprintf(s, sizeof s, "%.3f m (v2 %.3f)  status %u  mode %u", d.us.altitude, d.us.altitude_v2, d.us.status,
                 d.us.range_mode);
        break;
    case SENSORS_UPDATED_GPS:
        snprintf(s, sizeof s, "loc %.7f %.7f %.2f %.2f  updated 0x%x", d.gps.loc_values[0], d.gps.loc_values[1],
                 d.gps.loc_values[2], d.gps.loc_values[3], d.gps.updated);
        break;
    case SENSORS_UPDATED_BATTERY:
        if (d.battery.present)
            snprintf(s, sizeof s, "%.2f V  %.2f A  %u %%  %.0f K  fault %d", d.battery.voltage, d.battery.current,
                     d.battery.rsoc, d.battery.temperature, d.battery.fault);
        else
            snprintf(s, sizeof s, "%.2f V (from the motor controller)", d.battery.voltage);
        break;
    case SENSORS_UPDATED_MOTORS_INFO:
        snprintf(s, sizeof s, "fw %u.%u%c build %u  hw %u  flight time %u", d.motors_info.fw_major,
                 d.motors_info.fw_minor, d.motors_info.fw_type ? d.motors_info.fw_type : ' ', d.motors_info.fw_build,
                 d.motors_info.hw_version, d.motors_info.flight_time);
        break;
    case SENSORS_UPDATED_VISION_POSITION:
        snprintf(s, sizeof s, "%+.3f %+.3f %+.3f  status %d", d.vision_position.x, d.vision_position.y,
                 d.vision_position.z, d.vision_position.status);
        break;
    case SENSORS_UPDATED_OPTICAL_FLOW:
        snprintf(s, sizeof s, "flow %+.3f %+.3f %+.3f  quality %.2f  %s", d.optical_flow.flow_x, d.optical_flow.flow_y,
                 d.optical_flow.flow_z, d.optical_flow.quality_indicator,
                 d.optical_flow.defective ? "defective" : (d.optical_flow.defined ? "defined" : "undefined"));
        break;
    case SENSORS_UPDATED_FCAM_GIMBAL:
        snprintf(s, sizeof s, "q %+.3f %+.3f %+.3f %+.3f  count %u", d.fcam_gimbal.ef_q_w[0], d.fcam_gimbal.ef_q_x[0],
                 d.fcam_gimbal.ef_q_y[0], d.fcam_gimbal.ef_q_z[0], d.fcam_gimbal.count);
        break;
    default:
        break;
    }
    return s;
}

std::string host_stats::state(const sensors_data &d, const sensor_row &row, double now_s)
{
    if (row.updates == 0)
        return "waiting";
    // The controller's information comes at start-up and after each stop,
    // not at a rate: it is never late.
    if (row.bit == SENSORS_UPDATED_MOTORS_INFO)
        return "ok";
    const double silent = now_s - row.last_update_s;
    const double span = row.last_update_s - row.first_update_s;
    const double usual = row.updates > 1 && span > 0 ? span / double(row.updates - 1) : 0.5;
    if (silent > std::max(0.5, 4 * usual)) {
        char s[32];
        snprintf(s, sizeof s, "silent %.1f s", silent);
        return s;
    }
    switch (row.bit) {
    case SENSORS_UPDATED_MOTORS:
        for (uint32_t e : d.motors.error)
            if (e)
                return "error";
        return d.motors.spinning == 1 ? "spinning" : "stopped";
    case SENSORS_UPDATED_BATTERY:
        return d.battery.present ? (d.battery.temperature_alert || d.battery.fault ? "alert" : "ok") : "fallback";
    case SENSORS_UPDATED_US:
        return d.us.status ? "no echo" : "ok";
    case SENSORS_UPDATED_OPTICAL_FLOW:
        return d.optical_flow.defective ? "defective" : "ok";
    default:
        return "ok";
    }
}

std::string host_stats::carpet(const sensors_data &d)
{
    char s[160];
    snprintf(s, sizeof s, "%+.3f %+.3f %+.3f m  %+.3f rad  targets %d  %s", d.carpet.position_x, d.carpet.position_y,
             d.carpet.position_z, d.carpet.orientation, d.carpet.nb_targets, d.carpet.active ? "active" : "inactive");
    return s;
}
