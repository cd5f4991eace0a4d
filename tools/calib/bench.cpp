// SPDX-License-Identifier: Apache-2.0
#include "calib/bench.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace calib {
namespace {

// Still: within +-kStillHalfSpan of a row, no batch mean of any axis differs
// from another by more than these. A turn of a few degrees a second shows;
// the noise of a batch mean (about 0.001 rad/s and 0.005 m/s² on the vehicle's
// IMU) stays far below.
constexpr double kStillHalfSpan = 0.1;   // s
constexpr double kStillGyroSpread = 0.05; // rad/s
constexpr double kStillAccelSpread = 0.3; // m/s²
// A still period shorter than this is not one: a pause within a motion.
constexpr double kMinStill = 0.5;         // s
constexpr double kWindow = 0.25;          // s, the still windows' length
// At rest on a face: the specific force within this angle of an axis, and
// within this share of g.
constexpr double kFaceAngle = 10.0 * M_PI / 180.0;
constexpr double kFaceMagnitude = 0.2;
// A motion between two still periods is a turn from one face to the next
// when the gyro's integral is this close to the rotation the faces imply
// (the gyro's scale errors are a few percent at most: 20° leaves room).
constexpr double kTurnTolerance = 20.0 * M_PI / 180.0; // rad
constexpr double kDeg = 180.0 / M_PI;

struct still_run {
    size_t first, last; // rows, inclusive
    int face, sign;
    std::array<double, 3> gyro; // mean
};

std::string seconds(double t0, double t)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", t - t0);
    return text;
}

std::vector<bool> still_rows(const std::vector<imu_row> &rows)
{
    std::vector<bool> still(rows.size(), false);
    size_t lo = 0, hi = 0;
    for (size_t i = 0; i < rows.size(); i++) {
        while (rows[lo].t1 < rows[i].t1 - kStillHalfSpan)
            lo++;
        while (hi + 1 < rows.size() && rows[hi + 1].t1 <= rows[i].t1 + kStillHalfSpan)
            hi++;
        bool ok = true;
        for (int a = 0; a < 3 && ok; a++) {
            double gmin = rows[lo].gyro[a], gmax = gmin, amin = rows[lo].accel[a], amax = amin;
            for (size_t j = lo; j <= hi; j++) {
                gmin = std::min(gmin, rows[j].gyro[a]);
                gmax = std::max(gmax, rows[j].gyro[a]);
                amin = std::min(amin, rows[j].accel[a]);
                amax = std::max(amax, rows[j].accel[a]);
            }
            ok = gmax - gmin <= kStillGyroSpread && amax - amin <= kStillAccelSpread;
        }
        still[i] = ok;
    }
    return still;
}

// The face a mean specific force rests on; false when it is on none.
bool face_of(const std::array<double, 3> &f, int *axis, int *sign, double *off_deg)
{
    const double norm = std::sqrt(f[0] * f[0] + f[1] * f[1] + f[2] * f[2]);
    int k = 0;
    for (int a = 1; a < 3; a++)
        if (std::fabs(f[a]) > std::fabs(f[k]))
            k = a;
    *axis = k;
    *sign = f[k] > 0 ? 1 : -1;
    *off_deg = norm > 0 ? std::acos(std::min(1.0, std::fabs(f[k]) / norm)) * kDeg : 90.0;
    return std::fabs(norm - kGravity) <= kFaceMagnitude * kGravity && *off_deg <= kFaceAngle * kDeg;
}

// The IMU's sample period: the median, over the batches, of the time since
// the batch before per sample.
double sample_period(const std::vector<imu_row> &rows)
{
    std::vector<double> per_sample;
    for (size_t k = 1; k < rows.size(); k++)
        per_sample.push_back((rows[k].t1 - rows[k - 1].t1) / rows[k].n);
    if (per_sample.empty())
        return 0;
    const auto middle = per_sample.begin() + long(per_sample.size() / 2);
    std::nth_element(per_sample.begin(), middle, per_sample.end());
    return *middle;
}

} // namespace

std::string face_name(int axis, int sign)
{
    return std::string(sign > 0 ? "+" : "-") + "xyz"[axis];
}

bool cut_bench(const std::vector<imu_row> &rows, bench *out, std::string *error)
{
    out->windows.clear();
    out->turns.clear();
    out->turns_with_lost_samples = 0;
    if (rows.empty()) {
        *error = "the recording has no IMU batch";
        return false;
    }
    const double t0 = rows.front().t1;
    const std::vector<bool> still = still_rows(rows);
    std::vector<still_run> runs;
    for (size_t i = 0; i < rows.size();) {
        if (!still[i]) {
            i++;
            continue;
        }
        size_t j = i;
        while (j + 1 < rows.size() && still[j + 1])
            j++;
        if (rows[j].t1 - rows[i].t1 >= kMinStill) {
            still_run r{i, j, 0, 0, {}};
            std::array<double, 3> f{};
            for (size_t k = i; k <= j; k++)
                for (int a = 0; a < 3; a++) {
                    f[a] += rows[k].accel[a] / double(j - i + 1);
                    r.gyro[a] += rows[k].gyro[a] / double(j - i + 1);
                }
            double off;
            if (!face_of(f, &r.face, &r.sign, &off)) {
                char text[160];
                std::snprintf(text, sizeof text,
                              "from %s to %s the unit rests %.0f° away from its nearest face (%s), reading %.2f m/s²: "
                              "each still period must rest flat on a face",
                              seconds(t0, rows[i].t1).c_str(), seconds(t0, rows[j].t1).c_str(), off,
                              face_name(r.face, r.sign).c_str(),
                              std::sqrt(f[0] * f[0] + f[1] * f[1] + f[2] * f[2]));
                *error = text;
                return false;
            }
            runs.push_back(r);
        }
        i = j + 1;
    }
    if (runs.empty()) {
        char text[160];
        std::snprintf(text, sizeof text,
                      "the unit is moving: it never rests still for %.1f s, and a bench recording is made of still "
                      "periods on each face and turns between them",
                      kMinStill);
        *error = text;
        return false;
    }

    for (const still_run &r : runs) {
        for (size_t i = r.first; i <= r.last;) {
            size_t j = i;
            while (j + 1 <= r.last && rows[j + 1].t1 - rows[i].t1 < kWindow)
                j++;
            // A short remainder joins nothing: its few batches add little.
            if (rows[j].t1 - rows[i].t1 >= kWindow / 2) {
                still_window w{0, 0, {}, {}, r.face, r.sign};
                const double n = double(j - i + 1);
                for (size_t k = i; k <= j; k++) {
                    w.t += rows[k].t1 / n;
                    w.temp_k += rows[k].temp_k / n;
                    for (int a = 0; a < 3; a++) {
                        w.gyro[a] += rows[k].gyro[a] / n;
                        w.accel[a] += rows[k].accel[a] / n;
                    }
                }
                out->windows.push_back(w);
            }
            i = j + 1;
        }
    }

    const double period = sample_period(rows);
    for (size_t h = 0; h + 1 < runs.size(); h++) {
        const still_run &a = runs[h], &b = runs[h + 1];
        turn tn{rows[a.last].t1, rows[b.first].t1, 0, 0, 0, {}};
        double temp = 0;
        int samples = 0;
        for (size_t k = a.last + 1; k <= b.first; k++) {
            const double dt = rows[k].t1 - rows[k - 1].t1;
            samples += rows[k].n;
            for (int i = 0; i < 3; i++)
                tn.angle[i] += (rows[k].gyro[i] - (a.gyro[i] + b.gyro[i]) / 2) * dt;
            temp += rows[k].temp_k;
        }
        tn.temp_k = temp / double(b.first - a.last);
        // The rotation that takes face a to face b: d f / dt = -w x f for a
        // force fixed in space seen from the unit, so a quarter turn about
        // f_b x f_a.
        std::array<double, 3> fa{}, fb{}, expected{};
        fa[a.face] = a.sign;
        fb[b.face] = b.sign;
        const bool quarter = a.face != b.face;
        if (quarter) {
            for (int i = 0; i < 3; i++)
                expected[i] = (fb[(i + 1) % 3] * fa[(i + 2) % 3] - fb[(i + 2) % 3] * fa[(i + 1) % 3]) * M_PI / 2;
        } else if (a.sign != b.sign) {
            continue; // a half turn: its axis is not known from the faces; not used
        }
        double miss = 0;
        for (int i = 0; i < 3; i++)
            miss += (tn.angle[i] - expected[i]) * (tn.angle[i] - expected[i]);
        if (std::sqrt(miss) > kTurnTolerance) {
            char text[320];
            std::snprintf(text, sizeof text,
                          "the unit moves between %s and %s: the gyro turned it by (%.0f, %.0f, %.0f)° from face %s "
                          "to face %s, where %s; keep it still on a face, and turn it by 90° about one axis "
                          "between two faces",
                          seconds(t0, tn.t_start).c_str(), seconds(t0, tn.t_end).c_str(), tn.angle[0] * kDeg,
                          tn.angle[1] * kDeg, tn.angle[2] * kDeg, face_name(a.face, a.sign).c_str(),
                          face_name(b.face, b.sign).c_str(),
                          quarter ? "a quarter turn was expected" : "it should have stayed still");
            *error = text;
            return false;
        }
        if (!quarter)
            continue;
        if (period > 0 && (tn.t_end - tn.t_start) / period - samples > 0.5) {
            out->turns_with_lost_samples++;
            continue;
        }
        for (int i = 0; i < 3; i++)
            if (expected[i] != 0) {
                tn.axis = i;
                tn.sign = expected[i] > 0 ? 1 : -1;
            }
        out->turns.push_back(tn);
    }
    return true;
}

} // namespace calib
