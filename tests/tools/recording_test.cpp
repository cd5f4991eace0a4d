// SPDX-License-Identifier: Apache-2.0
// The flight recording's writer, the simulator's truth file and the plot
// script that reads both.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <thread>

#include "host_record.h"
#include "sim/battery.h"
#include "sim/scenario.h"
#include "sim/truth_recorder.h"
#include "sim/vehicle.h"
#include "support/test_env.h"
#include "tool_test_util.h"

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

namespace {

// The recording's row for data, by column name.
std::map<std::string, std::string> record_one(const timespec &at, const sensors_data &data)
{
    char *buffer = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&buffer, &size);
    {
        host_record record(f);
        record.row(at, data);
    }
    fclose(f);
    const auto text = lines(std::string(buffer, size));
    free(buffer);
    EXPECT_EQ(text.size(), 2u);
    const auto names = split(text.at(0)), values = split(text.at(1));
    EXPECT_EQ(names.size(), values.size()) << text.at(1);
    std::map<std::string, std::string> row;
    for (size_t i = 0; i < names.size() && i < values.size(); i++)
        row[names[i]] = values[i];
    return row;
}

TEST(HostRecord, HeaderNamesEveryColumnOthersReadByName)
{
    const char *contract[] = {
        "t",           "updated",      "imu_n",        "imu_t0",       "imu_t1",         "gyro_x",      "gyro_y",
        "gyro_z",      "accel_x",      "accel_y",      "accel_z",      "imu_temp",       "baro_p",      "baro_temp",
        "mag_x",       "mag_y",        "mag_z",        "motor_speed0", "motor_speed1",   "motor_speed2", "motor_speed3",
        "motor_error0", "motor_error1", "motor_error2", "motor_error3", "motor_voltage", "motor_spinning", "us_alt",
        "us_status",   "gps_lat",      "gps_lon",      "gps_alt",      "gps_updated",    "bat_present", "bat_voltage",
        "bat_current", "bat_rsoc",     "bat_temp",     "bat_fault",    "bat_temp_alert", "vis_x",       "vis_y",
        "vis_z",       "vis_status",   "flow_quality", "flow_defective", "gimbal_count"};
    EXPECT_THAT(split(host_record::header()), ElementsAreArray(contract));
}

TEST(HostRecord, RowCarriesBatchMeansAndLatestValuesAndNoImuWithoutABatch)
{
    auto d = std::make_unique<sensors_data>();
    d->updated_sensors = SENSORS_UPDATED_IMU | SENSORS_UPDATED_BATTERY | SENSORS_UPDATED_FCAM_GIMBAL;
    // Three samples of the five-sample arrays: stale entries must not count.
    d->imu.nb_samples = 3;
    const float gyro_z[5] = {0.4f, 0.5f, 0.6f, 9.0f, 9.0f};
    for (int i = 0; i < 5; i++) {
        d->imu.gyro[i][2] = gyro_z[i];
        d->imu.accel[i][0] = float(i);
        d->imu.timestamps[i] = timespec{12345, 100000000 + i * 1000000};
    }
    d->motors.error[2] = 2;
    d->gps.loc_values[0] = 45.1885;
    d->battery.rsoc = SENSORS_BATTERY_RSOC_UNKNOWN;
    d->vision_position.z = -6.0f;
    d->fcam_gimbal.count = 4;

    auto row = record_one(timespec{12345, 104500001}, *d);
    EXPECT_EQ(row["t"], "12345.104500");
    EXPECT_EQ(row["updated"], "0x1041");
    EXPECT_EQ(row["imu_n"], "3");
    EXPECT_EQ(row["imu_t0"], "12345.100000");
    EXPECT_EQ(row["imu_t1"], "12345.102000");
    EXPECT_NEAR(std::stod(row["gyro_z"]), 0.5, 1e-6);
    EXPECT_NEAR(std::stod(row["accel_x"]), 1.0, 1e-6);
    EXPECT_EQ(row["motor_error2"], "2");
    EXPECT_NEAR(std::stod(row["gps_lat"]), 45.1885, 1e-7);
    EXPECT_EQ(row["bat_rsoc"], "") << "an unknown state of charge is no number";
    EXPECT_NEAR(std::stod(row["vis_z"]), -6.0, 1e-6);
    EXPECT_EQ(row["gimbal_count"], "4");

    // A read without a batch: the last batch's timestamps and values stay
    // in the sub-record but are not this row's.
    d->imu.nb_samples = 0;
    d->updated_sensors = SENSORS_UPDATED_BARO;
    d->battery.rsoc = 81;
    row = record_one(timespec{7, 250000000}, *d);
    EXPECT_EQ(row["updated"], "0x2");
    EXPECT_EQ(row["imu_n"], "0");
    for (const char *c : {"imu_t0", "imu_t1", "gyro_z", "accel_x", "imu_temp"})
        EXPECT_EQ(row[c], "") << c;
    EXPECT_EQ(row["bat_rsoc"], "81");
    EXPECT_EQ(row["gimbal_count"], "4");
}

TEST(TruthRecorder, RowsLieOnTheScenarioGridWithTheVehicleState)
{
    test_root root;
    sim::scenario s = sim::default_scenario(); // hovers for its first five seconds
    std::string error;
    auto battery = sim::start_battery_sim("", root.path() + "/battery", &error);
    ASSERT_TRUE(battery) << error;
    // A scenario that started 1.234 s ago: rows resume on its 10 ms grid.
    const int64_t epoch =
        std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1) - 1234000000;
    const std::string path = root.path() + "/truth.csv";
    {
        auto truth = sim::truth_recorder::start(s, epoch, battery.get(), path, &error);
        ASSERT_TRUE(truth) << error;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    const auto text = lines(read_file(path));
    ASSERT_GE(text.size(), 20u);
    EXPECT_EQ(text[0], sim::truth_recorder::header());
    const auto names = split(text[0]);
    auto col = [&](const char *name) { return size_t(std::find(names.begin(), names.end(), name) - names.begin()); };
    double previous = 0;
    for (size_t i = 1; i < text.size(); i++) {
        const auto f = split(text[i]);
        ASSERT_EQ(f.size(), names.size()) << text[i];
        const double scenario_t = std::stod(f[col("scenario_t")]);
        EXPECT_NEAR(std::stod(f[col("t")]) - scenario_t, double(epoch / 1000) / 1e6, 2e-6) << text[i];
        if (i == 1)
            EXPECT_NEAR(scenario_t, 1.24, 0.02) << "the first row is the first grid point after the start";
        else
            EXPECT_NEAR(scenario_t - previous, 0.01, 1e-9) << text[i];
        previous = scenario_t;
        EXPECT_EQ(f[col("phase")], "hover");
        EXPECT_NEAR(std::stod(f[col("accel_z")]), -9.80665, 1e-6);
        EXPECT_NEAR(std::stod(f[col("altitude")]), 0.0, 1e-9);
        EXPECT_NEAR(std::stod(f[col("pressure")]), sim::pressure_at_altitude(s.ground_altitude_m), 0.01);
        EXPECT_NEAR(std::stod(f[col("battery_voltage")]), battery->voltage_v(), 0.05);
        EXPECT_NEAR(std::stod(f[col("battery_charge")]), battery->charge_pct(), 0.1);
    }
    EXPECT_STREQ(sim::truth_recorder::phase_at(s, 5.0), "climb");
    EXPECT_STREQ(sim::truth_recorder::phase_at(s, 1e6), "end");
}

bool is_png(const std::string &path)
{
    const std::string head = read_file(path).substr(0, 8);
    return head == std::string("\x89PNG\r\n\x1a\n", 8);
}

TEST(PlotScript, DrawsEveryPlotFromARecordingTruthAndLog)
{
    if (run("command -v gnuplot").status != 0)
        GTEST_SKIP() << "gnuplot is not installed (Debian package gnuplot-nox)";
    test_root root;

    // Two seconds of reads, 200 a second, and the truth of the default
    // scenario from a second before the recording.
    const int64_t epoch =
        std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1) - 1000000000;
    std::string error;
    {
        auto truth = sim::truth_recorder::start(sim::default_scenario(), epoch, nullptr,
                                                root.path() + "/truth.csv", &error);
        ASSERT_TRUE(truth) << error;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    {
        auto record = host_record::open(root.path() + "/flight.csv", &error);
        ASSERT_TRUE(record) << error;
        auto d = std::make_unique<sensors_data>();
        d->imu.nb_samples = 5;
        for (int i = 0; i < 400; i++) {
            const int64_t at = epoch + 1000000000 + int64_t(i) * 5000000;
            d->updated_sensors = i % 10 ? 0x1 | 0x8 : 0x7f | 0x400;
            for (int k = 0; k < 5; k++)
                d->imu.timestamps[k] = timespec{time_t(at / 1000000000), long(at % 1000000000)};
            d->baro.pressure = 101325.0f - float(i);
            d->magneto.field[0] = 21.0f * std::cos(i * 0.0025f);
            d->magneto.field[1] = -21.0f * std::sin(i * 0.0025f);
            d->motors.motor[1].speed = uint16_t(6000 + i);
            d->motors.error[2] = i > 200 && i < 300 ? 2 : 0;
            d->gps.loc_values[0] = 45.0;
            d->battery.rsoc = 80;
            record->row(timespec{time_t(at / 1000000000), long(at % 1000000000 + 300000)}, *d);
        }
    }
    char stamp[64];
    auto log_line = [&](double s, const char *text) {
        snprintf(stamp, sizeof stamp, "[%.6f] ", double(epoch) / 1e9 + s);
        return std::string(stamp) + text + "\n";
    };
    write_file(root.path() + "/host.log",
               log_line(1.1, "N battery: EVT:SMARTBATTERY;event='present'") +
                   log_line(2.0, "N bldc: EVT:ESC;error_m2='stall';can_clear='yes';device='orlune-esc'") +
                   log_line(2.2, "I gps: disconnected from gpsd") + "orlune-host: motors start\n" +
                   log_line(2.4, "E sensors_orlune: vcam_position read failed: No such file or directory") +
                   log_line(2.41, "E sensors_orlune: vcam_position read failed: No such file or directory"));

    const std::string script = ORLUNE_PLOT_SCRIPT, out_dir = root.path() + "/plots";
    run_result r = run(script + " " + root.path() + "/flight.csv --truth " + root.path() + "/truth.csv --log " +
                       root.path() + "/host.log --out " + out_dir);
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char *png : {"imu_rates.png", "imu_accel.png", "altitude.png", "heading.png", "motors.png",
                            "battery.png", "events.png"}) {
        EXPECT_THAT(r.output, HasSubstr(out_dir + "/" + png)) << "listed";
        EXPECT_TRUE(is_png(out_dir + "/" + png)) << png;
    }

    // A recording without a column the plots need is refused by name.
    std::string old = read_file(root.path() + "/flight.csv");
    old.replace(old.find("bat_voltage"), 11, "bat_volts");
    write_file(root.path() + "/old.csv", old);
    r = run(script + " " + root.path() + "/old.csv --out " + root.path() + "/old");
    EXPECT_NE(r.status, 0);
    EXPECT_THAT(r.output, HasSubstr("no column bat_voltage"));
}

} // namespace
