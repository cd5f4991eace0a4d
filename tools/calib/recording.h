// SPDX-License-Identifier: Apache-2.0
// The IMU part of a host recording (orlune-host --record): one row per read
// that delivered an IMU batch, with the batch's means.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace calib {

struct imu_row {
    double t1;                    // s, stamp of the batch's last sample
    int n;                        // samples in the batch
    std::array<double, 3> gyro;   // rad/s, vehicle frame, batch mean
    std::array<double, 3> accel;  // m/s², specific force
    double temp_k;                // batch mean
};

// A fresh barometer reading.
struct baro_row {
    double pressure_pa;
    double temp_k;
};

// A fresh magnetometer reading, with the barometer's temperature of the same
// read: the plug-in corrects the field at that temperature.
struct mag_row {
    std::array<double, 3> field; // µT, vehicle frame
    double temp_k;
};

struct recording {
    std::vector<imu_row> imu;
    std::vector<baro_row> baro; // empty when the recording has no barometer
    std::vector<mag_row> mag;   // empty without a magnetometer or a barometer
};

// Reads the rows with an IMU batch, and the fresh barometer and magnetometer
// readings, in file order. Returns false with *error saying which line and
// column are wrong: a missing IMU column, a line with fewer or more fields
// than the header (a truncated file), a field that is not a number.
bool read_recording(const std::string &path, recording *out, std::string *error);

} // namespace calib
