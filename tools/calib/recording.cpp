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

// The columns the fit reads, in the order of kColumns.
enum column : size_t { c_n, c_t1, c_gx, c_gy, c_gz, c_ax, c_ay, c_az, c_temp, c_count };
constexpr std::array<const char *, c_count> kColumns{"imu_n",   "imu_t1",  "gyro_x",  "gyro_y",  "gyro_z",
                                                     "accel_x", "accel_y", "accel_z", "imu_temp"};

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

bool read_recording(const std::string &path, std::vector<imu_row> *rows, std::string *error)
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
    std::array<size_t, c_count> at{};
    for (size_t c = 0; c < c_count; c++) {
        size_t i = 0;
        while (i < header.size() && header[i] != kColumns[c])
            i++;
        if (i == header.size()) {
            *error = path + ": no column '" + kColumns[c] + "' in the header: not a host recording with the IMU";
            return false;
        }
        at[c] = i;
    }
    rows->clear();
    for (size_t number_of_line = 2; std::getline(in, line); number_of_line++) {
        const std::string where = path + ":" + std::to_string(number_of_line) + ": ";
        const std::vector<std::string> f = split(line);
        if (f.size() != header.size()) {
            *error = where + std::to_string(f.size()) + " fields where the header has " +
                     std::to_string(header.size()) + (in.eof() ? " (the recording is cut short)" : "");
            return false;
        }
        double n;
        if (!number(f[at[c_n]], &n) || n < 0 || n != std::floor(n)) {
            *error = where + "imu_n '" + f[at[c_n]] + "' is not a sample count";
            return false;
        }
        if (n == 0)
            continue;
        double v[c_count];
        for (size_t c = c_t1; c < c_count; c++)
            if (!number(f[at[c]], &v[c])) {
                *error = where + kColumns[c] + " '" + f[at[c]] + "' is not a number";
                return false;
            }
        rows->push_back({v[c_t1], int(n), {v[c_gx], v[c_gy], v[c_gz]}, {v[c_ax], v[c_ay], v[c_az]}, v[c_temp]});
    }
    if (in.bad()) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace calib
