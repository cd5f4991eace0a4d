/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The barometer and the magnetometer: two slow IIO sensors polled once per
 * acquisition cycle through non-blocking buffers of one scan per refill.
 * Each reading is converted to SI units (pascal, microtesla, kelvin), the
 * magnetometer's rotated into the vehicle frame, and both corrected for
 * their temperature-dependent bias. The magnetometer is corrected at the
 * temperature its caller gives: the barometer's of the same cycle.
 */
#ifndef SENSORS_BARO_MAGNETO_H
#define SENSORS_BARO_MAGNETO_H

#include <sensors/api.h>
#include <sensors/config.h>
#include <sensors/data.h>

#ifdef __cplusplus
extern "C" {
#endif

struct iio_context;
struct barometer_ctx;
struct magneto_ctx;

/*
 * Opens the device and its trigger, creates the buffer, reads the scales,
 * programs the sampling frequency (which must be positive), applies the
 * "barometer" scheduling configuration through sched (may be null), loads
 * the calibration and creates the "sensors_barometer" telemetry producer.
 * Returns null, having released everything, on any failure.
 */
SENSORS_API struct barometer_ctx *barometer_new(const struct sensors_baro_config *config, struct iio_context *iio,
						void *sched, struct sensors_baro_data *data);
SENSORS_API int barometer_start(struct barometer_ctx *baro);
SENSORS_API int barometer_stop(struct barometer_ctx *baro);
/*
 * Polls one scan. Returns the refill's byte count when a sample was stored
 * (bit 0x2 set in *updated), 0 when none was waiting, or a negative errno.
 */
SENSORS_API int barometer_read(struct barometer_ctx *baro, uint32_t *updated);
/* Publishes the sub-record as one sample of "sensors_barometer". */
SENSORS_API int barometer_tlm_push(struct barometer_ctx *baro);
SENSORS_API void barometer_destroy(struct barometer_ctx *baro);

/*
 * As barometer_new, for the magnetometer: a sampling frequency of 0 keeps the
 * device's own rate (the telemetry then assumes 100 Hz), a negative one is
 * refused; the mounting matrix comes from the configuration or the device;
 * the scheduling configurations are "magnetometer" and the trigger's name.
 */
SENSORS_API struct magneto_ctx *magneto_new(const struct sensors_magneto_config *config, struct iio_context *iio,
					    void *sched, struct sensors_magneto_data *data);
SENSORS_API int magneto_start(struct magneto_ctx *magneto);
SENSORS_API int magneto_stop(struct magneto_ctx *magneto);
/*
 * Polls one scan, rotates the field into the vehicle frame and corrects it at
 * temperature (K). Same results as barometer_read; bit 0x4.
 */
SENSORS_API int magneto_read(struct magneto_ctx *magneto, uint32_t *updated, float temperature);
/* Publishes the sub-record as one sample of "sensors_magnetometer". */
SENSORS_API int magneto_tlm_push(struct magneto_ctx *magneto);
SENSORS_API void magneto_destroy(struct magneto_ctx *magneto);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_BARO_MAGNETO_H */
