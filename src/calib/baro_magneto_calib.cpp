// SPDX-License-Identifier: Apache-2.0
// Barometer and magnetometer thermal calibration: factory bias polynomials
// only, evaluated at any temperature (the header's range is informative).
#include <linux/limits.h>

#include <cerrno>
#include <cstdlib>

#include "calib/calib_sets.h"
#include "platform/paths.h"

namespace {

constexpr log_tag kBaroTag{"baro_calib"};
constexpr log_tag kMagnetoTag{"magneto_calib"};

constexpr const char *kBaroFile = "/factory/flight_baro_thermal_bias";
constexpr const char *kMagnetoFile = "/factory/flight_magneto_thermal_bias";

constexpr const char *kBaroName = "Poly_Baro_bias_Pa_K";
constexpr const char *kMagnetoNames[kMagnetoPolys] = {"Poly_MagX_bias_mG_K", "Poly_MagY_bias_mG_K",
                                                      "Poly_MagZ_bias_mG_K"};

// The magnetometer file gives milligauss; 10 mG = 1 uT. Only the constant
// and linear coefficients are converted.
constexpr double kMilligaussPerMicrotesla = 10.0;

// Opens the file and reads its header. Returns 1 with *file open, 0 when
// there is no file, -EINVAL for a bad header.
int open_with_header(const log_tag &tag, const char *path, calib_range *range, calib_file *file)
{
    const char *const candidates[1] = {path};
    file->reset(calib_open_first(tag, candidates, false));
    if (!*file)
        return 0;
    if (calib_read_header(file->get(), tag, range) < 0)
        return -EINVAL;
    return 1;
}

const char *resolve(const char *fixed, char *buf)
{
    return platform_path(fixed, buf, PATH_MAX) == 0 ? buf : nullptr;
}

} // namespace

baro_calib *baro_calib_load(const char *path)
{
    owned<baro_calib, baro_calib_destroy> calib{zeroed_new<baro_calib>()};
    if (!calib)
        return nullptr;
    calib->range = kCalibDefaultRange;

    calib_file file;
    int opened = open_with_header(kBaroTag, path, &calib->range, &file);
    if (opened < 0)
        return nullptr;
    if (opened == 0) {
        log_msg(kBaroTag, LOG_WARNING, "no BARO thermal calibration");
        return calib.release();
    }
    log_msg(kBaroTag, LOG_INFO, "using [temp0_k=%.2fK temp_min=%.2fK temp_max=%.2fK] Baro thermal calibration",
            calib->range.temp0, calib->range.temp_min, calib->range.temp_max);

    const calib_slot slots[1] = {{kBaroName, &calib->bias, &calib->largest_count}};
    int matched = calib_read_polys(file.get(), kBaroTag, slots, 1.0);
    matched = calib_check_largest(kBaroTag, calib->largest_count, matched);
    if (matched != 1)
        log_msg(kBaroTag, LOG_WARNING, "incomplete baro bias calibration file (%d)", matched);
    return calib.release();
}

magneto_calib *magneto_calib_load(const char *path)
{
    owned<magneto_calib, magneto_calib_destroy> calib{zeroed_new<magneto_calib>()};
    if (!calib)
        return nullptr;
    calib->range = kCalibDefaultRange;

    calib_file file;
    int opened = open_with_header(kMagnetoTag, path, &calib->range, &file);
    if (opened < 0)
        return nullptr;
    if (opened == 0) {
        log_msg(kMagnetoTag, LOG_WARNING, "no magneto thermal calibration");
        return calib.release();
    }
    log_msg(kMagnetoTag, LOG_INFO,
            "using [temp0_k=%.2fK temp_min=%.2fK temp_max=%.2fK] magneto thermal calibration", calib->range.temp0,
            calib->range.temp_min, calib->range.temp_max);

    calib_slot slots[kMagnetoPolys];
    for (int i = 0; i < kMagnetoPolys; i++)
        slots[i] = calib_slot{kMagnetoNames[i], &calib->bias[i], &calib->largest_count};
    int matched = calib_read_polys(file.get(), kMagnetoTag, slots, kMilligaussPerMicrotesla);
    matched = calib_check_largest(kMagnetoTag, calib->largest_count, matched);
    if (matched != kMagnetoPolys)
        log_msg(kMagnetoTag, LOG_WARNING, "incomplete magneto bias calibration file");
    return calib.release();
}

double baro_calib_bias_at(const baro_calib &calib, double temperature_k)
{
    return calib_poly_eval(calib.bias, temperature_k - calib.range.temp0);
}

void magneto_calib_bias_at(const magneto_calib &calib, double temperature_k, double bias[3])
{
    for (int axis = 0; axis < kMagnetoPolys; axis++)
        bias[axis] = calib_poly_eval(calib.bias[axis], temperature_k - calib.range.temp0);
}

extern "C" SENSORS_API baro_calib *baro_calib_new(void)
{
    char path[PATH_MAX];
    return baro_calib_load(resolve(kBaroFile, path));
}

extern "C" SENSORS_API int baro_calib_apply(const baro_calib *calib, sensors_baro_data *baro)
{
    if (!calib || !baro)
        return -EINVAL;
    if (calib->largest_count == 0)
        return 0;
    const calib_poly &poly = calib->bias;
    uint32_t terms = calib->largest_count < kCalibMaxCoeffs ? calib->largest_count : kCalibMaxCoeffs;
    double x = double(baro->temperature) - calib->range.temp0;
    double power = 1.0;
    // The pressure stays an f32 between terms: it is rounded after each one.
    for (uint32_t k = 0; k < terms; k++) {
        double term = k < poly.count ? poly.coefficients[k] * power : 0.0;
        baro->pressure = static_cast<float>(double(baro->pressure) - term);
        power *= x;
    }
    return 0;
}

extern "C" SENSORS_API void baro_calib_destroy(baro_calib *calib)
{
    free(calib);
}

extern "C" SENSORS_API magneto_calib *magneto_calib_new(void)
{
    char path[PATH_MAX];
    return magneto_calib_load(resolve(kMagnetoFile, path));
}

extern "C" SENSORS_API int magneto_calib_apply(const magneto_calib *calib, float *field, float temperature)
{
    if (!calib || !field)
        return -EINVAL;
    double x = double(temperature) - calib->range.temp0;
    double v[kMagnetoPolys] = {field[0], field[1], field[2]};
    uint32_t terms = calib->largest_count < kCalibMaxCoeffs ? calib->largest_count : kCalibMaxCoeffs;
    double power = 1.0;
    for (uint32_t k = 0; k < terms; k++) {
        for (int axis = 0; axis < kMagnetoPolys; axis++)
            if (calib->bias[axis].count > k)
                v[axis] -= calib->bias[axis].coefficients[k] * power;
        power *= x;
    }
    for (int axis = 0; axis < kMagnetoPolys; axis++)
        field[axis] = static_cast<float>(v[axis]);
    return 0;
}

extern "C" SENSORS_API void magneto_calib_destroy(magneto_calib *calib)
{
    free(calib);
}
