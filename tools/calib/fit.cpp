// SPDX-License-Identifier: Apache-2.0
#include "calib/fit.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>

namespace calib {
namespace {

using row = std::vector<double>;

// Least squares by Householder QR: x minimising |A x - y|. False when A has
// fewer rows than columns or is rank-deficient (a column the data cannot tell
// from the others). *rss: the residual sum of squares.
bool least_squares(std::vector<row> a, std::vector<double> y, std::vector<double> *x, double *rss)
{
    const size_t m = a.size(), n = m ? a[0].size() : 0;
    if (m < n || n == 0)
        return false;
    double largest = 0;
    for (size_t k = 0; k < n; k++) {
        double norm = 0;
        for (size_t i = k; i < m; i++)
            norm += a[i][k] * a[i][k];
        norm = std::sqrt(norm);
        if (k == 0)
            largest = norm;
        if (norm <= 1e-9 * largest || norm == 0)
            return false;
        const double alpha = a[k][k] > 0 ? -norm : norm;
        std::vector<double> v(m - k);
        for (size_t i = k; i < m; i++)
            v[i - k] = a[i][k];
        v[0] -= alpha;
        double vv = 0;
        for (double e : v)
            vv += e * e;
        for (size_t j = k; j < n; j++) {
            double s = 0;
            for (size_t i = k; i < m; i++)
                s += v[i - k] * a[i][j];
            s = 2 * s / vv;
            for (size_t i = k; i < m; i++)
                a[i][j] -= s * v[i - k];
        }
        double s = 0;
        for (size_t i = k; i < m; i++)
            s += v[i - k] * y[i];
        s = 2 * s / vv;
        for (size_t i = k; i < m; i++)
            y[i] -= s * v[i - k];
    }
    x->assign(n, 0);
    for (size_t k = n; k-- > 0;) {
        double s = y[k];
        for (size_t j = k + 1; j < n; j++)
            s -= a[k][j] * (*x)[j];
        (*x)[k] = s / a[k][k];
    }
    *rss = 0;
    for (size_t i = n; i < m; i++)
        *rss += y[i] * y[i];
    return true;
}

double eval(const poly &p, double x)
{
    double v = 0;
    for (size_t k = p.size(); k-- > 0;)
        v = v * x + p[k];
    return v;
}

// Fits blocks of polynomials sharing one degree, chosen by the Bayesian
// information criterion among those the data determine: a higher degree is
// kept only when it explains more than the noise would. Each observation
// gives its value and, per block, the factor the block's polynomial is
// multiplied by (0: not involved). The polynomials come out in u = (T -
// temp0) / half, for conditioning, and are turned into x = T - temp0 here.
struct observation {
    double temp_k;
    double value;
    std::vector<double> factor; // one per block
};

// With a degree of twice the others' for the last block when last_doubled:
// the magnetometer's |b(T)|² beside b(T).
bool fit_blocks(const std::vector<observation> &obs, size_t blocks, double temp0, double half, int max_degree,
                std::vector<poly> *out, double *rms, bool last_doubled = false)
{
    double best = std::numeric_limits<double>::infinity();
    for (int degree = 0; degree <= max_degree; degree++) {
        std::vector<size_t> first(blocks + 1, 0); // each block's first unknown
        for (size_t b = 0; b < blocks; b++)
            first[b + 1] = first[b] + size_t(degree) * (last_doubled && b + 1 == blocks ? 2 : 1) + 1;
        const size_t unknowns = first[blocks];
        std::vector<row> a;
        std::vector<double> y;
        for (const observation &o : obs) {
            row r(unknowns, 0.0);
            const double u = (o.temp_k - temp0) / half;
            for (size_t b = 0; b < blocks; b++) {
                double power = 1;
                for (size_t k = first[b]; k < first[b + 1]; k++, power *= u)
                    r[k] = o.factor[b] * power;
            }
            a.push_back(std::move(r));
            y.push_back(o.value);
        }
        std::vector<double> x;
        double rss;
        // Two observations beyond the unknowns at least, to judge the noise.
        if (a.size() < unknowns + 2 || !least_squares(a, y, &x, &rss))
            break;
        const double n = double(a.size());
        const double bic = n * std::log(std::max(rss / n, 1e-30)) + double(unknowns) * std::log(n);
        if (bic >= best)
            continue;
        best = bic;
        *rms = std::sqrt(rss / n);
        out->assign(blocks, poly());
        for (size_t b = 0; b < blocks; b++)
            for (size_t k = first[b]; k < first[b + 1]; k++)
                (*out)[b].push_back(x[k] / std::pow(half, double(k - first[b])));
    }
    return std::isfinite(best);
}

// M(T) = A(T)^-1 as polynomials of the degree of A's, fitted over the range.
bool invert(const std::array<poly, 9> &a, const imu_fit &f, std::array<poly, 9> *m)
{
    size_t degree = 0;
    for (const poly &p : a)
        degree = std::max(degree, p.size() - 1);
    constexpr int kPoints = 41;
    std::vector<observation> entries[9];
    for (int i = 0; i < kPoints; i++) {
        const double t = f.temp_min_k + (f.temp_max_k - f.temp_min_k) * i / (kPoints - 1);
        double s[9];
        for (int k = 0; k < 9; k++)
            s[k] = eval(a[size_t(k)], t - f.temp0_k);
        const double c00 = s[4] * s[8] - s[5] * s[7], c01 = s[5] * s[6] - s[3] * s[8], c02 = s[3] * s[7] - s[4] * s[6];
        const double det = s[0] * c00 + s[1] * c01 + s[2] * c02;
        if (std::fabs(det) < 1e-6)
            return false;
        const double inv[9] = {c00 / det, (s[2] * s[7] - s[1] * s[8]) / det, (s[1] * s[5] - s[2] * s[4]) / det,
                               c01 / det, (s[0] * s[8] - s[2] * s[6]) / det, (s[2] * s[3] - s[0] * s[5]) / det,
                               c02 / det, (s[1] * s[6] - s[0] * s[7]) / det, (s[0] * s[4] - s[1] * s[3]) / det};
        for (int k = 0; k < 9; k++)
            entries[k].push_back({t, inv[k], {1.0}});
    }
    const double half = (f.temp_max_k - f.temp_min_k) / 2;
    // The grid has no noise to judge a degree by: the inverse of a matrix
    // near the identity is as smooth as the matrix, so it keeps A's degree.
    for (size_t k = 0; k < 9; k++) {
        std::vector<row> rows;
        std::vector<double> values, x;
        for (const observation &o : entries[k]) {
            row r;
            double power = 1;
            const double u = (o.temp_k - f.temp0_k) / half;
            for (size_t j = 0; j <= degree; j++, power *= u)
                r.push_back(power);
            rows.push_back(r);
            values.push_back(o.value);
        }
        double rss;
        if (!least_squares(rows, values, &x, &rss))
            return false;
        (*m)[k].assign(degree + 1, 0);
        for (size_t j = 0; j <= degree; j++)
            (*m)[k][j] = x[j] / std::pow(half, double(j));
    }
    return true;
}

std::string kelvin(double t)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f K", t);
    return text;
}

} // namespace

bool fit_imu(const bench &b, const fit_options &options, imu_fit *out, std::string *error)
{
    imu_fit f;
    // The range every face was seen at rest over.
    double lo[3][2], hi[3][2];
    bool seen[3][2] = {};
    for (const still_window &w : b.windows) {
        const int s = w.sign > 0;
        if (!seen[w.face][s]) {
            seen[w.face][s] = true;
            lo[w.face][s] = hi[w.face][s] = w.temp_k;
        }
        lo[w.face][s] = std::min(lo[w.face][s], w.temp_k);
        hi[w.face][s] = std::max(hi[w.face][s], w.temp_k);
    }
    std::string missing;
    for (int a = 0; a < 3; a++)
        for (int s = 1; s >= 0; s--)
            if (!seen[a][s])
                missing += (missing.empty() ? "" : ", ") + face_name(a, s ? 1 : -1);
    if (!missing.empty()) {
        *error = "no still period on face " + missing +
                 " (the face along which the accelerometer reads +-g): the accelerometer's bias, scale and "
                 "cross-axis terms need all six faces at rest";
        return false;
    }
    f.temp_min_k = -1e9;
    f.temp_max_k = 1e9;
    for (int a = 0; a < 3; a++)
        for (int s = 0; s < 2; s++) {
            f.temp_min_k = std::max(f.temp_min_k, lo[a][s]);
            f.temp_max_k = std::min(f.temp_max_k, hi[a][s]);
        }
    f.temp_min_k = std::ceil(f.temp_min_k * 100) / 100;
    f.temp_max_k = std::floor(f.temp_max_k * 100) / 100;
    if (!(f.temp_max_k - f.temp_min_k >= options.min_range_k)) {
        char text[240];
        std::snprintf(text, sizeof text,
                      "the six faces were all seen at rest over %s to %s only (%.1f K): a thermal fit needs at "
                      "least %.1f K; warm the unit over a wider range while turning it",
                      kelvin(std::min(f.temp_min_k, f.temp_max_k)).c_str(),
                      kelvin(std::max(f.temp_min_k, f.temp_max_k)).c_str(),
                      std::max(0.0, f.temp_max_k - f.temp_min_k), options.min_range_k);
        *error = text;
        return false;
    }
    f.temp0_k = std::round((f.temp_min_k + f.temp_max_k) / 2 * 100) / 100;
    const double half = (f.temp_max_k - f.temp_min_k) / 2;
    auto inside = [&](double t) { return t >= f.temp_min_k - 1.0 && t <= f.temp_max_k + 1.0; };

    int turns_about[3] = {};
    for (const turn &t : b.turns)
        if (inside(t.temp_k))
            turns_about[t.axis]++;
    for (int a = 0; a < 3; a++)
        if (turns_about[a] < 2) {
            *error = std::string("no two 90° turns about the ") + "xyz"[a] + " axis between faces within " +
                     kelvin(f.temp_min_k) + " to " + kelvin(f.temp_max_k) + ": the gyro's " + "xyz"[a] +
                     " scale cannot be fitted";
            if (b.turns_with_lost_samples)
                *error += " (" + std::to_string(b.turns_with_lost_samples) +
                          " turns were left out: samples were lost in them)";
            return false;
        }

    double sq_gyro = 0, sq_accel = 0, sq_turn = 0;
    for (int i = 0; i < 3; i++) {
        std::vector<observation> gyro, accel, turns;
        for (const still_window &w : b.windows) {
            if (!inside(w.temp_k))
                continue;
            gyro.push_back({w.temp_k, w.gyro[size_t(i)], {1.0}});
            observation o{w.temp_k, w.accel[size_t(i)], {1.0, 0, 0, 0}};
            o.factor[size_t(1 + w.face)] = w.sign * options.gravity;
            accel.push_back(o);
        }
        for (const turn &t : b.turns) {
            if (!inside(t.temp_k))
                continue;
            observation o{t.temp_k, t.angle[size_t(i)], {0, 0, 0}};
            o.factor[size_t(t.axis)] = t.sign * M_PI / 2;
            turns.push_back(o);
        }
        std::vector<poly> p;
        double rms = 0;
        if (!fit_blocks(gyro, 1, f.temp0_k, half, options.max_degree, &p, &rms)) {
            *error = "the gyro's bias cannot be fitted from these still periods";
            return false;
        }
        f.gyro_bias[size_t(i)] = p[0];
        sq_gyro += rms * rms / 3;
        if (!fit_blocks(accel, 4, f.temp0_k, half, options.max_degree, &p, &rms)) {
            *error = std::string("the accelerometer's ") + "xyz"[i] +
                     " axis cannot be fitted: the faces at rest do not tell its bias from its scale terms";
            return false;
        }
        f.accel_bias[size_t(i)] = p[0];
        for (size_t k = 0; k < 3; k++)
            f.accel_matrix[size_t(i) * 3 + k] = p[1 + k]; // A for now, inverted below
        sq_accel += rms * rms / 3;
        if (!fit_blocks(turns, 3, f.temp0_k, half, options.max_degree, &p, &rms)) {
            *error = std::string("the gyro's ") + "xyz"[i] + " axis cannot be fitted from the turns";
            return false;
        }
        for (size_t k = 0; k < 3; k++)
            f.gyro_matrix[size_t(i) * 3 + k] = p[k];
        sq_turn += rms * rms / 3;
        f.windows = gyro.size();
        f.turns = turns.size();
    }
    f.gyro_rms = std::sqrt(sq_gyro);
    f.accel_rms = std::sqrt(sq_accel);
    f.turn_rms = std::sqrt(sq_turn);
    const std::array<poly, 9> accel_response = f.accel_matrix, gyro_response = f.gyro_matrix;
    if (!invert(accel_response, f, &f.accel_matrix) || !invert(gyro_response, f, &f.gyro_matrix)) {
        *error = "the fitted scale matrix is singular within the range";
        return false;
    }
    *out = f;
    return true;
}

namespace {

bool write_file(const std::string &path, const std::string &text, std::string *error)
{
    FILE *file = std::fopen(path.c_str(), "we");
    if (!file || std::fputs(text.c_str(), file) < 0 || std::fclose(file) != 0) {
        *error = "cannot write '" + path + "': " + std::strerror(errno);
        if (file)
            std::fclose(file);
        return false;
    }
    return true;
}

std::string header(double temp0, double temp_min, double temp_max)
{
    char text[96];
    std::snprintf(text, sizeof text, "Temp_0_K %.2f\nTemp_Min_Max_K %.2f %.2f\n", temp0, temp_min, temp_max);
    return text;
}

std::string line(const char *name, const poly &p)
{
    std::string out = std::string(name) + " " + std::to_string(p.size());
    char number[40];
    for (double c : p) {
        std::snprintf(number, sizeof number, " %.9g", c);
        out += number;
    }
    return out + "\n";
}

// The matrix lines in the order of docs/calibration.md's table, each with
// its place in the row-major matrix.
struct matrix_name {
    const char *name;
    size_t entry;
};
constexpr matrix_name kGyroMatrix[9] = {{"Poly_GyroX_sfe_K", 0}, {"Poly_GyroY_sfe_K", 4}, {"Poly_GyroZ_sfe_K", 8},
                                        {"Poly_GyroX_ny_K", 1},  {"Poly_GyroX_nz_K", 2},  {"Poly_GyroY_nx_K", 3},
                                        {"Poly_GyroY_nz_K", 5},  {"Poly_GyroZ_nx_K", 6},  {"Poly_GyroZ_ny_K", 7}};
constexpr matrix_name kAccelMatrix[9] = {{"Poly_AccX_sfe_K", 0}, {"Poly_AccY_sfe_K", 4}, {"Poly_AccZ_sfe_K", 8},
                                         {"Poly_AccX_ny_K", 1},  {"Poly_AccX_nz_K", 2},  {"Poly_AccY_nx_K", 3},
                                         {"Poly_AccY_nz_K", 5},  {"Poly_AccZ_nx_K", 6},  {"Poly_AccZ_ny_K", 7}};

} // namespace

bool write_imu_files(const imu_fit &f, const std::string &dir, std::string *error)
{
    std::string bias = header(f.temp0_k, f.temp_min_k, f.temp_max_k);
    const char *gyro[3] = {"Poly_GyroX_bias_rad_s_K", "Poly_GyroY_bias_rad_s_K", "Poly_GyroZ_bias_rad_s_K"};
    const char *accel[3] = {"Poly_AccX_bias_m_s2_K", "Poly_AccY_bias_m_s2_K", "Poly_AccZ_bias_m_s2_K"};
    for (size_t a = 0; a < 3; a++)
        bias += line(gyro[a], f.gyro_bias[a]);
    for (size_t a = 0; a < 3; a++)
        bias += line(accel[a], f.accel_bias[a]);
    std::string ortho;
    for (const matrix_name &m : kGyroMatrix)
        ortho += line(m.name, f.gyro_matrix[m.entry]);
    for (const matrix_name &m : kAccelMatrix)
        ortho += line(m.name, f.accel_matrix[m.entry]);
    return write_file(dir + "/flight_imu_thermal_bias", bias, error) &&
           write_file(dir + "/flight_imu_thermal_ortho", ortho, error);
}

namespace {

// The range of temperatures of a set of readings, rounded inwards to 0.01 K,
// and its middle; false, with *error, when narrower than the options allow.
template <typename Row>
bool range_of(const std::vector<Row> &rows, const char *sensor, const fit_options &options, bias_fit *f,
              std::string *error)
{
    double lo = rows.front().temp_k, hi = lo;
    for (const Row &r : rows) {
        lo = std::min(lo, r.temp_k);
        hi = std::max(hi, r.temp_k);
    }
    f->temp_min_k = std::ceil(lo * 100) / 100;
    f->temp_max_k = std::floor(hi * 100) / 100;
    if (!(f->temp_max_k - f->temp_min_k >= options.min_range_k)) {
        char text[200];
        std::snprintf(text, sizeof text,
                      "the %s's die was seen over %.2f K to %.2f K only (%.1f K): a thermal fit needs at least %.1f K",
                      sensor, lo, hi, hi - lo, options.min_range_k);
        *error = text;
        return false;
    }
    f->temp0_k = std::round((f->temp_min_k + f->temp_max_k) / 2 * 100) / 100;
    f->samples = rows.size();
    return true;
}

} // namespace

bool fit_baro(const std::vector<baro_row> &rows, double reference_pa, const fit_options &options, bias_fit *out,
              std::string *error)
{
    if (rows.empty()) {
        *error = "the recording has no barometer reading: no barometer file";
        return false;
    }
    bias_fit f;
    if (!range_of(rows, "barometer", options, &f, error))
        return false;
    std::vector<observation> obs;
    for (const baro_row &r : rows)
        obs.push_back({r.temp_k, r.pressure_pa - reference_pa, {1.0}});
    std::vector<poly> p;
    if (!fit_blocks(obs, 1, f.temp0_k, (f.temp_max_k - f.temp_min_k) / 2, options.max_degree, &p, &f.rms)) {
        *error = "the barometer's bias cannot be fitted from these readings";
        return false;
    }
    f.bias[0] = p[0];
    *out = f;
    return true;
}

bool fit_magneto(const std::vector<mag_row> &rows, const fit_options &options, bias_fit *out, std::string *error)
{
    if (rows.empty()) {
        *error = "the recording has no magnetometer reading with a barometer's temperature: no magnetometer file";
        return false;
    }
    bias_fit f;
    if (!range_of(rows, "barometer (whose temperature the magnetometer is corrected at)", options, &f, error))
        return false;
    // The field's magnitude F is the same in every orientation: |r - b|² =
    // F², that is |r|² = 2 r.b + (F² - |b|²), linear in b and in the last
    // term, a polynomial of twice b's degree.
    std::vector<observation> obs;
    for (const mag_row &r : rows)
        obs.push_back({r.temp_k, r.field[0] * r.field[0] + r.field[1] * r.field[1] + r.field[2] * r.field[2],
                       {2 * r.field[0], 2 * r.field[1], 2 * r.field[2], 1.0}});
    std::vector<poly> p;
    if (!fit_blocks(obs, 4, f.temp0_k, (f.temp_max_k - f.temp_min_k) / 2, options.max_degree, &p, &f.rms, true)) {
        *error = "the magnetometer's bias cannot be fitted: the field was seen from too few directions at each "
                 "temperature (turn the unit through its faces while it warms)";
        return false;
    }
    for (size_t a = 0; a < 3; a++)
        f.bias[a] = p[a];
    *out = f;
    return true;
}

bool write_baro_file(const bias_fit &f, const std::string &dir, std::string *error)
{
    return write_file(dir + "/flight_baro_thermal_bias", header(f.temp0_k, f.temp_min_k, f.temp_max_k) +
                                                             line("Poly_Baro_bias_Pa_K", f.bias[0]),
                      error);
}

bool write_magneto_file(const bias_fit &f, const std::string &dir, std::string *error)
{
    // The file is in milligauss, but the plug-in divides only c0 and c1 by
    // 10 to get microtesla: c2 and c3 are written in µT/K² and µT/K³.
    const char *names[3] = {"Poly_MagX_bias_mG_K", "Poly_MagY_bias_mG_K", "Poly_MagZ_bias_mG_K"};
    std::string text = header(f.temp0_k, f.temp_min_k, f.temp_max_k);
    for (size_t a = 0; a < 3; a++) {
        poly p = f.bias[a];
        for (size_t k = 0; k < p.size() && k < 2; k++)
            p[k] *= 10;
        text += line(names[a], p);
    }
    return write_file(dir + "/flight_magneto_thermal_bias", text, error);
}

} // namespace calib
