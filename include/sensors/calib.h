/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Thermal calibration sets of the IMU, the barometer and the magnetometer.
 *
 * Each set is read once from its calibration files (field copies in /data,
 * factory copies in /factory) and then corrects readings for the sensor
 * temperature. A missing file gives a set that changes nothing; a file with a
 * bad header makes the constructor return NULL. The sets are read-only after
 * creation; the records they correct are the sub-records of data.h.
 */
#ifndef SENSORS_CALIB_H
#define SENSORS_CALIB_H

#include <sensors/api.h>
#include <sensors/data.h>

#ifdef __cplusplus
extern "C" {
#endif

struct imu_calib;
struct baro_calib;
struct magneto_calib;

/*
 * IMU: bias subtraction then a 3x3 scale-factor and cross-axis matrix, for
 * gyro and accel, at the mean temperature of the batch. Files:
 * "/data/flight_imu_thermal_bias" (else the /factory copy) and
 * "/data/flight_imu_thermal_ortho" (else the /factory copy).
 */
SENSORS_API struct imu_calib *imu_calib_new(void);
/* Corrects samples 0..nb_samples-1 in place. 0, or -EINVAL for a null pointer. */
SENSORS_API int imu_calib_apply(const struct imu_calib *calib, struct sensors_imu_data *imu);
SENSORS_API void imu_calib_destroy(struct imu_calib *calib);

/* Barometer: pressure bias from "/factory/flight_baro_thermal_bias". */
SENSORS_API struct baro_calib *baro_calib_new(void);
/* Corrects baro->pressure (Pa) from baro->temperature (K). 0, or -EINVAL. */
SENSORS_API int baro_calib_apply(const struct baro_calib *calib, struct sensors_baro_data *baro);
SENSORS_API void baro_calib_destroy(struct baro_calib *calib);

/* Magnetometer: field biases from "/factory/flight_magneto_thermal_bias". */
SENSORS_API struct magneto_calib *magneto_calib_new(void);
/* Corrects field (uT, three components) in place at temperature (K). 0, or -EINVAL. */
SENSORS_API int magneto_calib_apply(const struct magneto_calib *calib, float *field, float temperature);
SENSORS_API void magneto_calib_destroy(struct magneto_calib *calib);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_CALIB_H */
