/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The host interface of the plug-in: the exported driver table, the probe
 * header with its sensor kind bits, and the motor command record.
 */
#ifndef SENSORS_DRIVER_H
#define SENSORS_DRIVER_H

#include <sensors/api.h>
#include <sensors/data.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Sensor kind bits of the probe header, also the mask of activate and
 * deactivate. A numbering distinct from the updated_sensors bits: 0x4 is
 * the IMU kind but the magnetometer's updated bit.
 */
#define SENSORS_KIND_MAGNETO 0x1u
#define SENSORS_KIND_BARO 0x2u
#define SENSORS_KIND_IMU 0x4u
#define SENSORS_KIND_GPS 0x8u
#define SENSORS_KIND_BLDC 0x10u
#define SENSORS_KIND_ULTRASOUND 0x20u
#define SENSORS_KIND_BATTERY 0x40u
#define SENSORS_KIND_TOF 0x80u
#define SENSORS_KIND_CARPET_DETECTION 0x100u
#define SENSORS_KIND_VCAM_POSITION 0x200u
#define SENSORS_KIND_VCAM_OPTICAL_FLOW 0x400u
#define SENSORS_KIND_FCAM_GIMBAL 0x800u
#define SENSORS_KIND_FSTCAM_POSITION 0x1000u
#define SENSORS_KIND_IMU_VCAM 0x2000u
#define SENSORS_KIND_ALL 0x3FFFu

struct sensors_probe_header {
	uint32_t sensor_mask;     /* SENSORS_KIND_* the host accepts */
	uint32_t sensor_mask_ref; /* must equal sensor_mask */
};

/* Motor command record, the argument of write. */
struct sensors_motor_command {
	uint32_t action;
	uint16_t speeds[SENSORS_MOTOR_COUNT];
	uint32_t stop_code; /* only the low byte is used */
};

/* The driver context; opaque to the host. */
struct sensors_orlune_ctx;

/*
 * The exported driver table. read and write take their data pointer first
 * and the context second; every other operation takes the context first.
 * spin_dir is handed to the motor controller module, sched (the host's
 * scheduling handle) to the modules that apply scheduling configurations.
 */
struct sensors_driver_table {
	const char *name;
	int (*probe)(void *spin_dir, struct sensors_orlune_ctx **ctx, void *sched,
		     const struct sensors_probe_header *header, struct sensors_data *data);
	int (*start)(struct sensors_orlune_ctx *ctx);
	int (*stop)(struct sensors_orlune_ctx *ctx);
	int (*read)(struct sensors_data *data, struct sensors_orlune_ctx *ctx);
	int (*write)(const struct sensors_motor_command *command, struct sensors_orlune_ctx *ctx);
	void (*shutdown)(struct sensors_orlune_ctx *ctx);
	int (*activate)(struct sensors_orlune_ctx *ctx, uint32_t kinds);
	int (*deactivate)(struct sensors_orlune_ctx *ctx, uint32_t kinds);
	int (*tlm_write)(struct sensors_orlune_ctx *ctx);
	void *end; /* always null */
};

/* The exported table, and its name for dlsym. */
#define SENSORS_DRIVER_SYMBOL "sensors_driver"
SENSORS_API extern const struct sensors_driver_table sensors_driver;

SENSORS_CHECK_FIELD(sensors_probe_header, sensor_mask, 0);
SENSORS_CHECK_FIELD(sensors_probe_header, sensor_mask_ref, 4);
SENSORS_CHECK_SIZE(sensors_probe_header, 8);

SENSORS_CHECK_FIELD(sensors_motor_command, action, 0);
SENSORS_CHECK_FIELD(sensors_motor_command, speeds, 4);
SENSORS_CHECK_FIELD(sensors_motor_command, stop_code, 12);
SENSORS_CHECK_SIZE(sensors_motor_command, 16);

SENSORS_CHECK_FIELD(sensors_driver_table, name, 0);
SENSORS_CHECK_FIELD(sensors_driver_table, probe, 1 * sizeof(void *));
SENSORS_CHECK_FIELD(sensors_driver_table, read, 4 * sizeof(void *));
SENSORS_CHECK_FIELD(sensors_driver_table, tlm_write, 9 * sizeof(void *));
SENSORS_CHECK_SIZE(sensors_driver_table, 11 * sizeof(void *));

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_DRIVER_H */
