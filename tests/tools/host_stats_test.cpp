// SPDX-License-Identifier: Apache-2.0
// The host's judgement of each sensor: its state word in the live view and
// the IMU samples it counts as lost.
#include "host_stats.h"

#include <gtest/gtest.h>

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

TEST(HostStats, CycleStampsTheRowsItUpdates)
{
    host_stats stats;
    sensors_data d{};
    d.updated_sensors = SENSORS_UPDATED_IMU | SENSORS_UPDATED_GPS;
    const double before = host_stats::now_s();
    stats.cycle(d);
    d.updated_sensors = SENSORS_UPDATED_IMU;
    stats.cycle(d);
    const double after = host_stats::now_s();
    const sensor_row &imu = row_of(stats, SENSORS_UPDATED_IMU);
    EXPECT_EQ(imu.updates, 2u);
    EXPECT_GE(imu.first_update_s, before);
    EXPECT_LE(imu.last_update_s, after);
    EXPECT_EQ(row_of(stats, SENSORS_UPDATED_GPS).updates, 1u);
    EXPECT_LT(row_of(stats, SENSORS_UPDATED_BARO).last_update_s, 0);
}

// The period is learnt from the first intervals; later gaps count k - 1
// lost samples for k periods, jitter below half a period counts none.
TEST(HostStats, ImuLossIsJudgedByTheTimestamps)
{
    imu_continuity imu;
    int64_t t = 1'000'000'000;
    auto add = [&](int64_t step_ns) {
        t += step_ns;
        imu.add(timespec{time_t(t / 1'000'000'000), long(t % 1'000'000'000)});
    };
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
