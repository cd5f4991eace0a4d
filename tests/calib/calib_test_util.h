// SPDX-License-Identifier: Apache-2.0
// Owning handles, file snippets and set creation shared by the calibration tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "calib/calib_sets.h"
#include "support/test_env.h"

using strings = std::vector<std::string>;

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

// The line with which a set ("IMU", "Baro", "magneto") reports the header it read.
inline std::string using_line(const std::string &set, const std::string &temp0_k, const std::string &temp_min_k,
                              const std::string &temp_max_k)
{
    return "using [temp0_k=" + temp0_k + "K temp_min=" + temp_min_k + "K temp_max=" + temp_max_k + "K] " + set +
           " thermal calibration";
}

// Creates a set from the files under the current root; its creation must log
// exactly these messages under the set's tag.
template <typename Ptr, typename Ptr::pointer (*Create)()>
Ptr new_set(const char *tag, const strings &messages)
{
    log_capture cap;
    Ptr set{Create()};
    EXPECT_EQ(cap.texts(tag), messages) << "messages of " << tag;
    return set;
}

inline imu_calib_ptr new_imu_calib(const strings &messages)
{
    return new_set<imu_calib_ptr, imu_calib_new>("imu_calib", messages);
}
inline baro_calib_ptr new_baro_calib(const strings &messages)
{
    return new_set<baro_calib_ptr, baro_calib_new>("baro_calib", messages);
}
inline magneto_calib_ptr new_magneto_calib(const strings &messages)
{
    return new_set<magneto_calib_ptr, magneto_calib_new>("magneto_calib", messages);
}
