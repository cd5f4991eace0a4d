/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The motor controller module: one brushless controller driving the four
 * motors. Each cycle it takes the controller sample matching the IMU's time
 * into the motors sub-record, turns the controller's status and error codes
 * into the sub-record's state fields and "EVT:ESC" flight-log events, and it
 * forwards the host's motor commands.
 */
#ifndef SENSORS_MOTORS_H
#define SENSORS_MOTORS_H

#include <sensors/api.h>
#include <sensors/config.h>
#include <sensors/data.h>
#include <sensors/driver.h>

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Actions of the motor command record; other values do nothing. */
#define BLDC_ACTION_START 1u
#define BLDC_ACTION_STOP 3u
#define BLDC_ACTION_STOP_CODE 4u
#define BLDC_ACTION_SET_SPEEDS 5u
#define BLDC_ACTION_SINGLE_STALL_ON 8u
#define BLDC_ACTION_SINGLE_STALL_OFF 9u

struct iio_context;
struct bldc_cypress_ctx;

/*
 * Opens the controller named in config with its trigger, writes the motors'
 * spin directions at spin_dir (SENSORS_MOTOR_COUNT bytes: 0 clockwise,
 * 1 counter-clockwise), fills info from the controller, applies the "bldc"
 * scheduling configuration through sched (may be null) and creates the
 * "sensors_motors" telemetry section. Refuses a tlm_frequency outside
 * 1..1000000 Hz. Returns null, having released everything, on any failure.
 */
SENSORS_API struct bldc_cypress_ctx *bldc_cypress_new(const struct sensors_bldc_config *config,
						      struct iio_context *iio, void *spin_dir, void *sched,
						      struct sensors_motors_data *motors,
						      struct sensors_motors_info *info);
/* Switch the controller's sample stream on and off. */
SENSORS_API int bldc_cypress_start(struct bldc_cypress_ctx *bldc);
SENSORS_API int bldc_cypress_stop(struct bldc_cypress_ctx *bldc);
/*
 * Takes the controller sample at or after imu_time (null: the oldest
 * queued) into the motors sub-record and sets bit 0x8 of *updated, and 0x80
 * when the motors_info sub-record was refreshed. No sample within the wait:
 * returns 0 with nothing written.
 */
SENSORS_API int bldc_cypress_read(struct bldc_cypress_ctx *bldc, uint32_t *updated, const struct timespec *imu_time);
/* Carries out one host command (BLDC_ACTION_*); always 0 for a valid call. */
SENSORS_API int bldc_cypress_write(struct bldc_cypress_ctx *bldc, const struct sensors_motor_command *command);
/* Publishes the motors sub-record as one sample of "sensors_motors". */
SENSORS_API int bldc_cypress_tlm_push_motors(struct bldc_cypress_ctx *bldc);
SENSORS_API void bldc_cypress_destroy(struct bldc_cypress_ctx *bldc);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_MOTORS_H */
