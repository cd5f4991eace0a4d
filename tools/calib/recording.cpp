// SPDX-License-Identifier: Apache-2.0
#include "calib/recording.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace calib {
namespace {

// The columns the fit reads, in the order of kColumns; those from c_updated
// on may be missing (a recording without a barometer or magnetometer).
enum column : size_t {
    c_n, c_t1, c_gx, c_gy, c_gz, c_ax, c_ay, c_az, c_temp,
    c_updated, c_baro_p, c_baro_temp, c_mx, c_my, c_mz, c_count
};
constexpr size_t kRequired = c_updated;
constexpr std::array<const char *, c_count> kColumns{
    "imu_n",    "imu_t1", "gyro_x",    "gyro_y", "gyro_z", "accel_x", "accel_y", "accel_z",
    "imu_temp", "updated", "baro_p",   "baro_temp", "mag_x", "mag_y",  "mag_z"};
// Bits of `updated`: a fresh barometer or magnetometer reading in the row.
constexpr unsigned long kBaroFresh = 0x2;
constexpr unsigned long kMagFresh = 0x4;

std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (size_t comma; (comma = line.find(',', start)) != std::string::npos; start = comma + 1)
        fields.push_back(line.substr(start, comma - start));
    fields.push_back(line.substr(start));
    return fields;
}

bool number(const std::string &text, double *out)
{
    if (text.empty())
        return false;
    char *end;
    errno = 0;
    *out = std::strtod(text.c_str(), &end);
    return *end == '\0' && errno == 0 && std::isfinite(*out);
}

} // namespace

bool read_recording(const std::string &path, recording *out, std::string *error)
{
    std::ifstream in(path);
    if (!in) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    std::string line;
    if (!std::getline(in, line)) {
        *error = path + ": empty file, not a recording";
        return false;
    }
    const std::vector<std::string> header = split(line);
    constexpr size_t kAbsent = ~size_t(0);
    std::array<size_t, c_count> at{};
    for (size_t c = 0; c < c_count; c++) {
        at[c] = kAbsent;
        for (size_t i = 0; i < header.size() && at[c] == kAbsent; i++)
            if (header[i] == kColumns[c])
                at[c] = i;
        if (at[c] == kAbsent && c < kRequired) {
            *error = path + ": no column '" + kColumns[c] + "' in the header: not a host recording with the IMU";
            return false;
        }
    }
    const bool has_baro = at[c_updated] != kAbsent && at[c_baro_p] != kAbsent && at[c_baro_temp] != kAbsent;
    const bool has_mag = has_baro && at[c_mx] != kAbsent && at[c_my] != kAbsent && at[c_mz] != kAbsent;
    *out = recording{};
    bool baro_seen = false;
    for (size_t number_of_line = 2; std::getline(in, line); number_of_line++) {
        const std::string where = path + ":" + std::to_string(number_of_line) + ": ";
        const std::vector<std::string> f = split(line);
        if (f.size() != header.size()) {
            *error = where + std::to_string(f.size()) + " fields where the header has " +
                     std::to_string(header.size()) + (in.eof() ? " (the recording is cut short)" : "");
            return false;
        }
        double v[c_count] = {};
        auto read = [&](size_t c) {
            if (number(f[at[c]], &v[c]))
                return true;
            *error = where + kColumns[c] + " '" + f[at[c]] + "' is not a number";
            return false;
        };
        if (!read(c_n) || v[c_n] < 0 || v[c_n] != std::floor(v[c_n])) {
            *error = where + "imu_n '" + f[at[c_n]] + "' is not a sample count";
            return false;
        }
        if (v[c_n] > 0) {
            for (size_t c = c_t1; c < kRequired; c++)
                if (!read(c))
                    return false;
            out->imu.push_back({v[c_t1], int(v[c_n]), {v[c_gx], v[c_gy], v[c_gz]}, {v[c_ax], v[c_ay], v[c_az]},
                                v[c_temp]});
        }
        if (!has_baro)
            continue;
        char *end;
        const unsigned long updated = std::strtoul(f[at[c_updated]].c_str(), &end, 16);
        if (f[at[c_updated]].empty() || *end) {
            *error = where + "updated '" + f[at[c_updated]] + "' is not a hexadecimal mask";
            return false;
        }
        if (updated & kBaroFresh) {
            if (!read(c_baro_p) || !read(c_baro_temp))
                return false;
            out->baro.push_back({v[c_baro_p], v[c_baro_temp]});
            baro_seen = true;
        }
        if (has_mag && baro_seen && (updated & kMagFresh)) {
            if (!read(c_mx) || !read(c_my) || !read(c_mz) || !read(c_baro_temp))
                return false;
            out->mag.push_back({{v[c_mx], v[c_my], v[c_mz]}, v[c_baro_temp]});
        }
    }
    if (in.bad()) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace calib
