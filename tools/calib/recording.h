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

// Reads the rows with an IMU batch, in file order. Returns false with *error
// saying which line and column are wrong: a missing column, a line with
// fewer or more fields than the header (a truncated file), a field that is
// not a number.
bool read_recording(const std::string &path, std::vector<imu_row> *rows, std::string *error);

} // namespace calib
