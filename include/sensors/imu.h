/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The IMU module: the six-axis inertial sensor and its die temperature,
 * sampled by a hardware trigger in batches of up to five samples through an
 * IIO buffer. Each batch paces one acquisition cycle.
 */
#ifndef SENSORS_IMU_H
#define SENSORS_IMU_H

#include <sensors/api.h>
#include <sensors/config.h>
#include <sensors/data.h>

#ifdef __cplusplus
extern "C" {
#endif

struct iio_context;
struct imu_ctx;

/*
 * Opens the device and its trigger, programs the sampling frequency and the
 * rate divider, fixes the mounting matrices, creates the buffer, applies the
 * scheduling configurations through sched (the host's scheduling handle, may
 * be null), loads the thermal calibration and creates the telemetry producer.
 * Returns null, having released everything, on any failure.
 */
SENSORS_API struct imu_ctx *imu_new(const struct sensors_imu_config *config, struct iio_context *iio, void *sched,
				    struct sensors_imu_data *data);
SENSORS_API int imu_start(struct imu_ctx *imu);
SENSORS_API int imu_stop(struct imu_ctx *imu);
SENSORS_API void imu_destroy(struct imu_ctx *imu);
/* Blocks until the next batch is in the buffer. */
SENSORS_API int imu_wait(struct imu_ctx *imu);
/* Converts the current batch into the imu sub-record and sets bit 0x1 of *updated. */
SENSORS_API int imu_read(struct imu_ctx *imu, uint32_t *updated);
/* Turns the five slots of the sub-record into the vehicle frame. */
SENSORS_API void imu_rotate_data(struct imu_ctx *imu);
/* Publishes the sub-record as one sample of the IMU telemetry section. */
SENSORS_API int imu_tlm_push(struct imu_ctx *imu);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_IMU_H */
