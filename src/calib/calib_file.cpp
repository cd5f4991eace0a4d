// SPDX-License-Identifier: Apache-2.0
#include "calib/calib_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>


namespace {

// A line buffer grown by getline and released at scope exit.
struct line_reader {
    FILE *file;
    char *line = nullptr;
    size_t capacity = 0;

    explicit line_reader(FILE *f) : file(f) {}
    line_reader(const line_reader &) = delete;
    line_reader &operator=(const line_reader &) = delete;
    ~line_reader() { free(line); }

    // False at end of file (or when the line cannot be read at all).
    bool next() { return getline(&line, &capacity, file) >= 0; }
};

// Value and slope of a polynomial at x. The value keeps c0 even for a
// count of 0, which is then 0 anyway.
void value_and_slope(const calib_poly &poly, double x, double *value, double *slope)
{
    uint32_t count = poly.count < kCalibMaxCoeffs ? poly.count : kCalibMaxCoeffs;
    double v = 0.0;
    double power = 1.0;
    for (uint32_t k = 0; k < (count > 0 ? count : 1); k++) {
        v += poly.coefficients[k] * power;
        power *= x;
    }
    double s = 0.0;
    power = 1.0;
    for (uint32_t k = 1; k < count; k++) {
        s += k * poly.coefficients[k] * power;
        power *= x;
    }
    *value = v;
    *slope = s;
}

} // namespace

calib_extrap compute_linear_extrap_coefs(const calib_poly &poly, const calib_range &range)
{
    calib_extrap e{};
    if (!poly.valid)
        return e;
    value_and_slope(poly, range.temp_min - range.temp0, &e.value_lo, &e.slope_lo);
    value_and_slope(poly, range.temp_max - range.temp0, &e.value_hi, &e.slope_hi);
    return e;
}

FILE *calib_open_first(const log_tag &tag, std::span<const char *const> paths, bool log_first)
{
    for (size_t i = 0; i < paths.size(); i++) {
        if (!paths[i])
            continue;
        FILE *file = fopen(paths[i], "re");
        if (!file)
            continue;
        if (i == 0 && log_first)
            log_msg(tag, LOG_INFO, "using %s", paths[i]);
        return file;
    }
    return nullptr;
}

int calib_read_header(FILE *file, const log_tag &tag, calib_range *range)
{
    line_reader reader{file};
    double temp0;
    double temp_min;
    double temp_max;

    if (!reader.next()) {
        log_msg(tag, LOG_WARNING, "no line for calibration Temp_0_K found");
        return -EINVAL;
    }
    if (sscanf(reader.line, "Temp_0_K %lf", &temp0) != 1) {
        log_msg(tag, LOG_WARNING, "no calibration Temp_0_K found");
        return -EINVAL;
    }
    if (!reader.next()) {
        log_msg(tag, LOG_WARNING, "no calibration temperature range found");
        return -EINVAL;
    }
    if (sscanf(reader.line, "Temp_Min_Max_K %lf %lf", &temp_min, &temp_max) != 2) {
        log_msg(tag, LOG_WARNING, "no enough parameter for calibration temperature range found");
        return -EINVAL;
    }
    *range = calib_range{temp0, temp_min, temp_max};
    return 0;
}

int calib_read_polys(FILE *file, const log_tag &tag, std::span<const calib_slot> slots, double c01_divisor)
{
    line_reader reader{file};
    int matched = 0;

    while (reader.next()) {
        char name[kCalibNameMax + 1] = {};
        unsigned count = 0;
        double c[kCalibMaxCoeffs] = {};
        // The count must say exactly how many coefficients follow: anything
        // else (blank lines, text, an over-long name) is not a coefficient line.
        int fields = sscanf(reader.line, "%32s %u %lf %lf %lf %lf", name, &count, &c[0], &c[1], &c[2], &c[3]);
        if (fields < 2 || static_cast<unsigned>(fields - 2) != count) {
            log_msg(tag, LOG_WARNING, "invalid calibration coeffs line: %s", reader.line);
            continue;
        }
        c[0] /= c01_divisor;
        c[1] /= c01_divisor;

        const calib_slot *slot = nullptr;
        for (const calib_slot &s : slots) {
            if (strcmp(name, s.name) == 0) {
                slot = &s;
                break;
            }
        }
        if (!slot) {
            log_msg(tag, LOG_WARNING, "ignoring unknown calibration line: %s", reader.line);
            continue;
        }
        *slot->poly = calib_poly{1, count, {c[0], c[1], c[2], c[3]}};
        matched++;
        if (count > *slot->largest)
            *slot->largest = count;
    }
    return matched;
}

int calib_check_largest(const log_tag &tag, uint32_t largest, int matched)
{
    if (largest <= kCalibMaxCoeffs)
        return matched;
    log_msg(tag, LOG_ERR, "Number of coeff declared in calibration file is too high");
    return 0;
}
