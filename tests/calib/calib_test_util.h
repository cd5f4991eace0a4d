// SPDX-License-Identifier: Apache-2.0
// Owning handles and file snippets shared by the calibration tests.
#pragma once

#include <memory>
#include <string>

#include "calib/calib_sets.h"

struct imu_calib_deleter {
    void operator()(imu_calib *c) const { imu_calib_destroy(c); }
};
struct baro_calib_deleter {
    void operator()(baro_calib *c) const { baro_calib_destroy(c); }
};
struct magneto_calib_deleter {
    void operator()(magneto_calib *c) const { magneto_calib_destroy(c); }
};
using imu_calib_ptr = std::unique_ptr<imu_calib, imu_calib_deleter>;
using baro_calib_ptr = std::unique_ptr<baro_calib, baro_calib_deleter>;
using magneto_calib_ptr = std::unique_ptr<magneto_calib, magneto_calib_deleter>;

// The two header lines of a bias file.
inline std::string calib_header(const std::string &temp0, const std::string &temp_min, const std::string &temp_max)
{
    return "Temp_0_K " + temp0 + "\nTemp_Min_Max_K " + temp_min + " " + temp_max + "\n";
}
