// SPDX-License-Identifier: Apache-2.0
// A bench recording cut into what a thermal fit needs: the periods the unit
// rests still on one of its six faces, and the 90° turns between two faces.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "calib/recording.h"

namespace calib {

// Standard gravity, m/s²: the specific force a face at rest reads, unless
// the bench's local gravity is given.
inline constexpr double kGravity = 9.80665;

// A stretch of a still period, short enough that the temperature barely
// moves in it: the fits take one point per window.
struct still_window {
    double t;                     // s, middle
    double temp_k;
    std::array<double, 3> gyro;   // means
    std::array<double, 3> accel;
    int face;                     // axis (0 x, 1 y, 2 z) along which the accelerometer reads +-g
    int sign;                     // +1 or -1: the sign it reads there
};

// A turn of 90° about one axis between two still periods.
struct turn {
    double t_start, t_end;        // s
    double temp_k;                // mean over the turn
    int axis;                     // 0, 1, 2
    int sign;                     // direction of the rotation about the axis
    std::array<double, 3> angle;  // rad, the gyro's integral less the bias of the still periods around it
};

struct bench {
    std::vector<still_window> windows;
    std::vector<turn> turns;
    // Turns left out of `turns`: samples were lost in them (the batches'
    // samples cover less than the turn's time), and their integral would
    // be a guess at what the lost samples read.
    size_t turns_with_lost_samples = 0;
};

// Cuts rows into still windows and the turns whose every sample is in the
// recording. False, with *error saying what the
// unit did, when it never rests still or moves between two still periods
// otherwise than by a clean turn between faces.
bool cut_bench(const std::vector<imu_row> &rows, bench *out, std::string *error);

// "+x", "-z"...: a face by the axis and sign the accelerometer reads g at.
std::string face_name(int axis, int sign);

} // namespace calib
