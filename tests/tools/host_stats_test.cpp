// SPDX-License-Identifier: Apache-2.0
// The host's judgement of each sensor: its state word in the live view, the
// IMU samples it counts as lost, and how old each IMU batch is when read
// returns.
#include "host_stats.h"

#include <gtest/gtest.h>

#include "platform/time_helpers.h"

#include <stdexcept>

namespace {

const sensor_row &row_of(const host_stats &stats, uint32_t bit)
{
    for (const sensor_row &row : stats.rows())
        if (row.bit == bit)
            return row;
    throw std::logic_error("no such row");
}

// A row that was updated every `period` seconds from t = 10 to t = 10 + n * period.
sensor_row updated_row(uint32_t bit, double period, int n)
{
    sensor_row row{"x", bit};
    row.updates = uint64_t(n) + 1;
    row.first_update_s = 10.0;
    row.last_update_s = 10.0 + n * period;
    return row;
}

TEST(HostStats, StateTurnsSilentAfterAboutFourMissedUpdates)
{
    sensors_data d{};
    // 5 Hz GPS: silent beyond 0.8 s without an update.
    sensor_row gps = updated_row(SENSORS_UPDATED_GPS, 0.2, 50);
    EXPECT_EQ(host_stats::state(d, gps, gps.last_update_s + 0.7), "ok");
    EXPECT_EQ(host_stats::state(d, gps, gps.last_update_s + 2.5), "silent 2.5 s");
    // 200 Hz IMU: never silent under half a second, whatever its rate.
    sensor_row imu = updated_row(SENSORS_UPDATED_IMU, 0.005, 1000);
    EXPECT_EQ(host_stats::state(d, imu, imu.last_update_s + 0.4), "ok");
    EXPECT_EQ(host_stats::state(d, imu, imu.last_update_s + 0.6), "silent 0.6 s");
    // The controller's information has no rate to miss.
    sensor_row info = updated_row(SENSORS_UPDATED_MOTORS_INFO, 20.0, 1);
    EXPECT_EQ(host_stats::state(d, info, info.last_update_s + 300), "ok");
    sensor_row never{"x", SENSORS_UPDATED_BARO};
    EXPECT_EQ(host_stats::state(d, never, 100.0), "waiting");
}

TEST(HostStats, StateNamesEachSensorsOwnCondition)
{
    sensors_data d{};
    auto state = [&](uint32_t bit) {
        sensor_row row = updated_row(bit, 0.1, 10);
        return host_stats::state(d, row, row.last_update_s);
    };
    d.motors.spinning = 2;
    EXPECT_EQ(state(SENSORS_UPDATED_MOTORS), "stopped");
    d.motors.spinning = 1;
    EXPECT_EQ(state(SENSORS_UPDATED_MOTORS), "spinning");
    d.motors.error[3] = 2;
    EXPECT_EQ(state(SENSORS_UPDATED_MOTORS), "error");

    EXPECT_EQ(state(SENSORS_UPDATED_BATTERY), "fallback"); // present 0: the controller's voltage
    d.battery.present = 1;
    EXPECT_EQ(state(SENSORS_UPDATED_BATTERY), "ok");
    d.battery.temperature_alert = 2;
    EXPECT_EQ(state(SENSORS_UPDATED_BATTERY), "alert");

    d.us.status = 1;
    EXPECT_EQ(state(SENSORS_UPDATED_US), "no echo");
    d.optical_flow.defective = 1;
    EXPECT_EQ(state(SENSORS_UPDATED_OPTICAL_FLOW), "defective");
    EXPECT_EQ(state(SENSORS_UPDATED_MAGNETO), "ok");
}

// Rows are stamped with the read's return time; each IMU batch is aged from
// its last sample to that time, and a motor sample delivered with it from its
// own time to the batch's first sample.
TEST(HostStats, CycleStampsTheRowsAndAgesTheBatch)
{
    host_stats stats;
    sensors_data d{};
    d.updated_sensors = SENSORS_UPDATED_IMU | SENSORS_UPDATED_GPS;
    stats.cycle(d, ns_to_timespec(10'000'000'000)); // an empty batch: no age
    d.updated_sensors = SENSORS_UPDATED_IMU;
    stats.cycle(d, ns_to_timespec(10'005'000'000));
    const sensor_row &imu = row_of(stats, SENSORS_UPDATED_IMU);
    EXPECT_EQ(imu.updates, 2u);
    EXPECT_DOUBLE_EQ(imu.first_update_s, 10.0);
    EXPECT_DOUBLE_EQ(imu.last_update_s, 10.005);
    EXPECT_EQ(row_of(stats, SENSORS_UPDATED_GPS).updates, 1u);
    EXPECT_LT(row_of(stats, SENSORS_UPDATED_BARO).last_update_s, 0);
    EXPECT_EQ(stats.imu_age().count(), 0u);
    EXPECT_EQ(stats.ages(), "imu age: no batch yet");

    // 100 batches of five samples 1 ms apart, returned 0.1, 0.2, ... 10 ms
    // after their last sample (from the first one, every age would be 4 ms
    // more). The motor sample is 2 ms older than the batch's first sample in
    // 60 of them and 1 ms newer in the other 40.
    d.imu.nb_samples = 5;
    int64_t first = 20'000'000'000;
    for (int i = 1; i <= 100; i++, first += 5'000'000) {
        for (int k = 0; k < 5; k++)
            d.imu.timestamps[k] = ns_to_timespec(first + k * 1'000'000);
        d.motors.timestamp = ns_to_timespec(first + (i <= 60 ? -2'000'000 : 1'000'000));
        d.updated_sensors = SENSORS_UPDATED_IMU | SENSORS_UPDATED_MOTORS;
        stats.cycle(d, ns_to_timespec(first + 4'000'000 + i * 100'000));
        // A motor sample without a batch has no batch to be aged against.
        d.updated_sensors = SENSORS_UPDATED_MOTORS;
        stats.cycle(d, ns_to_timespec(first + 4'500'000));
    }
    using where = delay_histogram::where;
    const delay_histogram &age = stats.imu_age();
    EXPECT_EQ(age.count(), 100u);
    EXPECT_EQ(age.at(0.5).at, where::within);
    EXPECT_EQ(age.at(0.5).ns, 5'000'000);
    EXPECT_EQ(age.at(0.99).ns, 9'900'000);
    EXPECT_EQ(age.max_ns(), 10'000'000);
    EXPECT_EQ(age.min_ns(), 100'000);
    const delay_histogram &motor = stats.motor_age();
    EXPECT_EQ(motor.count(), 100u);
    EXPECT_EQ(motor.at(0.5).ns, 2'000'000);
    EXPECT_EQ(motor.at(0.6).ns, 2'000'000);
    EXPECT_EQ(motor.at(0.4).ns, -1'000'000);
    EXPECT_EQ(motor.min_ns(), -1'000'000);
    EXPECT_EQ(stats.ages(), "imu age 5.00 ms median, 9.90 p99, 10.00 max; motor sample 2.00 ms before the batch (median)");

    // A stalled read, beyond the histogram's range: its age is the exact
    // maximum, and a quantile that falls there says only that it lies beyond.
    for (int k = 0; k < 5; k++)
        d.imu.timestamps[k] = ns_to_timespec(first + k * 1'000'000);
    d.updated_sensors = SENSORS_UPDATED_IMU;
    stats.cycle(d, ns_to_timespec(first + 4'000'000 + 250'000'000));
    EXPECT_EQ(age.max_ns(), 250'000'000);
    EXPECT_EQ(age.at(0.5).ns, 5'100'000); // rank 51 of 101
    EXPECT_EQ(age.at(0.99).ns, 10'000'000);
    EXPECT_EQ(age.at(1.0).at, where::above);
    EXPECT_EQ(delay_ms(age.at(1.0)), ">100");

    // Most motor samples newer than their batch's first sample: said as
    // "after".
    d.motors.timestamp = ns_to_timespec(first + 3'000'000);
    d.updated_sensors = SENSORS_UPDATED_IMU | SENSORS_UPDATED_MOTORS;
    for (int i = 0; i < 101; i++)
        stats.cycle(d, ns_to_timespec(first + 4'500'000));
    EXPECT_EQ(motor.at(0.5).ns, -3'000'000);
    EXPECT_EQ(stats.ages(),
              "imu age 0.50 ms median, 9.90 p99, 250.00 max; motor sample 3.00 ms after the batch (median)");
}

// The period is learnt from the first intervals; gaps count k - 1 lost
// samples for k periods, jitter below half a period counts none. A gap
// among the first intervals (a kernel buffer that filled before the first
// read) is counted once the period is known.
TEST(HostStats, ImuLossIsJudgedByTheTimestamps)
{
    imu_continuity imu;
    int64_t t = 1'000'000'000;
    auto add = [&](int64_t step_ns) {
        t += step_ns;
        imu.add(timespec{time_t(t / 1'000'000'000), long(t % 1'000'000'000)});
    };
    add(0);
    add(1'000'000);
    add(113'000'000); // 112 samples missing before the period is known
    EXPECT_EQ(imu.lost(), 0u);
    for (int i = 0; i < 100; i++)
        add(1'000'000);
    EXPECT_EQ(imu.period_s(), 0.001);
    EXPECT_EQ(imu.lost(), 112u);
    imu = imu_continuity{};
    for (int i = 0; i < 100; i++)
        add(1'000'000);
    EXPECT_EQ(imu.lost(), 0u);
    add(1'400'000); // jitter
    EXPECT_EQ(imu.lost(), 0u);
    add(5'000'000); // four samples missing
    EXPECT_EQ(imu.lost(), 4u);
    add(-3'000'000); // back in time: counted apart, not as a loss
    EXPECT_EQ(imu.out_of_order(), 1u);
    EXPECT_EQ(imu.lost(), 4u);
}

} // namespace
