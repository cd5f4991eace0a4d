// SPDX-License-Identifier: Apache-2.0
// IMU thermal calibration: per-axis bias polynomials (bias file) and a 3x3
// scale-factor and cross-axis matrix of polynomials (ortho file), for the
// gyro and the accelerometer.
#include <linux/limits.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "calib/calib_sets.h"
#include "platform/paths.h"

namespace {

constexpr log_tag kTag{"imu_calib"};

constexpr const char *kBiasFiles[2] = {"/data/flight_imu_thermal_bias", "/factory/flight_imu_thermal_bias"};
constexpr const char *kOrthoFiles[2] = {"/data/flight_imu_thermal_ortho", "/factory/flight_imu_thermal_ortho"};

constexpr std::array<const char *, kImuBiasPolys> kBiasNames{
    "Poly_GyroX_bias_rad_s_K", "Poly_GyroY_bias_rad_s_K", "Poly_GyroZ_bias_rad_s_K",
    "Poly_AccX_bias_m_s2_K",   "Poly_AccY_bias_m_s2_K",   "Poly_AccZ_bias_m_s2_K",
};

// The matrix polynomials in stored order, with the entry of the correction
// matrix each one fills (row = output axis, column = input axis). The first
// nine are the gyro's, the last nine the accelerometer's.
struct matrix_entry {
    const char *name;
    uint8_t row;
    uint8_t col;
};
constexpr std::array<matrix_entry, kImuMatrixPolys> kMatrixEntries{{
    {"Poly_GyroX_sfe_K", 0, 0}, {"Poly_GyroY_sfe_K", 1, 1}, {"Poly_GyroZ_sfe_K", 2, 2},
    {"Poly_GyroX_ny_K", 0, 1},  {"Poly_GyroX_nz_K", 0, 2},  {"Poly_GyroY_nx_K", 1, 0},
    {"Poly_GyroY_nz_K", 1, 2},  {"Poly_GyroZ_nx_K", 2, 0},  {"Poly_GyroZ_ny_K", 2, 1},
    {"Poly_AccX_sfe_K", 0, 0},  {"Poly_AccY_sfe_K", 1, 1},  {"Poly_AccZ_sfe_K", 2, 2},
    {"Poly_AccX_ny_K", 0, 1},   {"Poly_AccX_nz_K", 0, 2},   {"Poly_AccY_nx_K", 1, 0},
    {"Poly_AccY_nz_K", 1, 2},   {"Poly_AccZ_nx_K", 2, 0},   {"Poly_AccZ_ny_K", 2, 1},
}};
constexpr int kGyroMatrixPolys = kImuMatrixPolys / 2;

constexpr int kBiasLinesExpected = kImuBiasPolys;
constexpr int kOrthoLinesExpected = kImuMatrixPolys;

void set_defaults(imu_calib *calib)
{
    calib->range = kCalibDefaultRange;
    calib->largest_count = 1;
    calib->bias_largest_count = 0;
    calib->matrix_largest_count = 1;
    // Unit scale factors: without files the correction is the identity.
    for (int i = 0; i < kImuMatrixPolys; i++) {
        const matrix_entry &e = kMatrixEntries[i];
        if (e.row == e.col)
            calib->matrix[i].poly = calib_poly{1, 1, {1.0, 0.0, 0.0, 0.0}};
    }
}

// Reads the coefficient lines of one file (bias or ortho: any known name is
// taken from either) and returns the number of lines matched.
int read_imu_polys(imu_calib *calib, FILE *file)
{
    std::array<calib_slot, kImuBiasPolys + kImuMatrixPolys> slots{};
    for (int i = 0; i < kImuBiasPolys; i++)
        slots[i] = calib_slot{kBiasNames[i], &calib->bias[i].poly, &calib->bias_largest_count};
    for (int i = 0; i < kImuMatrixPolys; i++)
        slots[kImuBiasPolys + i] =
            calib_slot{kMatrixEntries[i].name, &calib->matrix[i].poly, &calib->matrix_largest_count};

    int matched = calib_read_polys(file, kTag, slots, 1.0);
    calib->largest_count = std::max(calib->bias_largest_count, calib->matrix_largest_count);
    return calib_check_largest(kTag, calib->largest_count, matched);
}

void compute_extrapolations(imu_calib *calib)
{
    for (imu_calib_poly &p : calib->bias)
        p.extrap = compute_linear_extrap_coefs(p.poly, calib->range);
    for (imu_calib_poly &p : calib->matrix)
        p.extrap = compute_linear_extrap_coefs(p.poly, calib->range);
}

double eval(const imu_calib &calib, const imu_calib_poly &p, double temperature_k)
{
    return calib_poly_eval_extrap(p.poly, p.extrap, calib.range, temperature_k);
}

} // namespace

imu_calib *imu_calib_load(const imu_calib_paths &paths)
{
    owned<imu_calib, imu_calib_destroy> calib{zeroed_new<imu_calib>()};
    if (!calib)
        return nullptr;
    set_defaults(calib.get());

    calib_file bias{calib_open_first(kTag, paths.bias, true)};
    if (!bias) {
        log_msg(kTag, LOG_WARNING, "no IMU thermal calibration");
        compute_extrapolations(calib.get());
        return calib.release();
    }
    if (calib_read_header(bias.get(), kTag, &calib->range) < 0)
        return nullptr;
    log_msg(kTag, LOG_INFO, "using [temp0_k=%.2fK temp_min=%.2fK temp_max=%.2fK] IMU thermal calibration",
            calib->range.temp0, calib->range.temp_min, calib->range.temp_max);
    if (read_imu_polys(calib.get(), bias.get()) != kBiasLinesExpected)
        log_msg(kTag, LOG_WARNING, "incomplete IMU bias calibration file");
    bias.reset();

    // The ortho file has no header of its own: it uses the bias file's.
    calib_file ortho{calib_open_first(kTag, paths.ortho, true)};
    if (!ortho) {
        log_msg(kTag, LOG_WARNING, "no IMU ortho calibration");
    } else {
        if (read_imu_polys(calib.get(), ortho.get()) != kOrthoLinesExpected)
            log_msg(kTag, LOG_WARNING, "incomplete IMU ortho calibration file");
        ortho.reset();
    }

    compute_extrapolations(calib.get());
    return calib.release();
}

void imu_calib_terms_at(const imu_calib &calib, double temperature_k, imu_calib_terms *terms)
{
    for (int axis = 0; axis < 3; axis++) {
        terms->gyro_bias[axis] = eval(calib, calib.bias[axis], temperature_k);
        terms->accel_bias[axis] = eval(calib, calib.bias[3 + axis], temperature_k);
    }
    for (int i = 0; i < kImuMatrixPolys; i++) {
        const matrix_entry &e = kMatrixEntries[i];
        double (*m)[3] = i < kGyroMatrixPolys ? terms->gyro_matrix : terms->accel_matrix;
        m[e.row][e.col] = eval(calib, calib.matrix[i], temperature_k);
    }
}

extern "C" SENSORS_API imu_calib *imu_calib_new(void)
{
    char bias_data[PATH_MAX];
    char bias_factory[PATH_MAX];
    char ortho_data[PATH_MAX];
    char ortho_factory[PATH_MAX];
    // A path too long to build is a file that cannot be opened.
    auto resolve = [](const char *fixed, char *buf) -> const char * {
        return platform_path(fixed, buf, PATH_MAX) == 0 ? buf : nullptr;
    };
    imu_calib_paths paths{
        {resolve(kBiasFiles[0], bias_data), resolve(kBiasFiles[1], bias_factory)},
        {resolve(kOrthoFiles[0], ortho_data), resolve(kOrthoFiles[1], ortho_factory)},
    };
    return imu_calib_load(paths);
}

extern "C" SENSORS_API int imu_calib_apply(const imu_calib *calib, sensors_imu_data *imu)
{
    if (!calib || !imu)
        return -EINVAL;
    // The record holds at most SENSORS_IMU_MAX_SAMPLES samples.
    unsigned n = std::min<unsigned>(imu->nb_samples, SENSORS_IMU_MAX_SAMPLES);
    if (n == 0)
        return 0;

    // One temperature for the whole batch: the mean of its samples.
    imu_calib_terms terms;
    imu_calib_terms_at(*calib, imu_calib_batch_temperature(*imu, n), &terms);

    for (unsigned i = 0; i < n; i++) {
        imu_calib_correct(imu->gyro[i], terms.gyro_bias, terms.gyro_matrix);
        imu_calib_correct(imu->accel[i], terms.accel_bias, terms.accel_matrix);
    }
    return 0;
}

extern "C" SENSORS_API void imu_calib_destroy(imu_calib *calib)
{
    free(calib);
}
