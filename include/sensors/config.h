/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The sensor configuration record, built from the sensor configuration file
 * by sensors_config_new and released by sensors_config_destroy.
 *
 * The record begins with the parsed configuration tree; every string of the
 * record points into that tree and lives exactly as long as the record.
 * Booleans are 32-bit integers holding 0 or 1. The record is read-only for
 * everyone but the configuration reader. Offsets are part of the library's
 * interface and are checked at compile time below; fields named reserved*
 * are padding and stay zero.
 */
#ifndef SENSORS_CONFIG_H
#define SENSORS_CONFIG_H

#include <stdint.h>

#include <sensors/api.h>
#include <sensors/data.h>
#include <sensors/driver.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Room reserved for the parsed tree (the parser's own context record). */
#define SENSORS_CONFIG_TREE_SIZE 88
/* Elements read from the tofs and tofs_lib lists. */
#define SENSORS_TOF_MAX 1

/* The parsed tree: opaque here, 8-byte aligned like the parser's record. */
union sensors_config_tree {
	uint64_t align;
	unsigned char bytes[SENSORS_CONFIG_TREE_SIZE];
};

/* A section that only says whether its sensor exists. */
struct sensors_enabled_config {
	int32_t enabled;
};

/* Barometer section ("barometer", or its debug alternative). */
struct sensors_baro_config {
	int32_t enabled;
	uint32_t reserved0;
	const char *device;          /* IIO device name */
	const char *trigger;         /* IIO trigger name */
	int32_t sampling_frequency;  /* Hz; required for an lps22hb, else 0 when not configured */
	uint32_t reserved1;
};

/* Brushless motor controller section "bldc". */
struct sensors_bldc_config {
	int32_t enabled;
	uint32_t reserved0;
	const char *device;
	const char *trigger;
	int32_t tlm_frequency;       /* Hz, telemetry rate of the motors section; default 200 */
	uint32_t reserved1;
};

/* IMU sections "imu" and "imu_vcam". */
struct sensors_imu_config {
	int32_t enabled;
	uint32_t reserved0;
	const char *device;
	const char *trigger;
	double temperature_sensitivity;
	double temperature_offset;
	double accelero_scale;
	double gyro_scale;
	int32_t sampling_frequency;  /* Hz */
	int32_t sampling_rate_div;   /* samples per batch; 0 when not configured */
	uint8_t matrix_from_device_tree; /* 1: no rotation-matrix key, the device gives it */
	uint8_t reserved1[3];
	float rotation_matrix[9];    /* row-major, device frame to vehicle frame */
	int32_t rotation_after_calib;
	uint8_t rotation_enabled;    /* 0 when SENSORS_IMU_NO_ROTATION starts with 'y' */
	uint8_t reserved2[3];
	const char **thread_cfg;     /* scheduling configuration names; array owned by the record */
	int64_t thread_cfg_count;
	const char *tlm_section;     /* telemetry section name */
};

/* Magnetometer section ("magnetometer", or its debug alternative). */
struct sensors_magneto_config {
	int32_t enabled;
	uint32_t reserved0;
	const char *device;
	const char *trigger;
	uint8_t matrix_from_device_tree; /* 1: no rotation-matrix key, the device gives it */
	uint8_t reserved1[3];
	float rotation_matrix[9];    /* row-major */
	int32_t sampling_frequency;  /* Hz; 0 when not configured */
	int32_t use_temperature;
};

/* Smart battery section "battery". */
struct sensors_battery_config {
	int32_t enabled;
	uint32_t reserved0;
	const char *device;          /* sysfs directory of the battery */
	int32_t frequency;           /* Hz; default 1 */
	uint32_t reserved1;
};

/* First element of the "tofs" list. */
struct sensors_tof_config {
	const char *device;
	const char *trigger;
	const char *calib;
	int32_t sampling_frequency;  /* Hz; 0 when not configured */
	uint32_t reserved0;
	const char *type;
	float min_distance;
	float max_distance;
	float min_amplitude;
	int32_t enabled;
	int32_t type_index;          /* 0 for "vertical" */
	uint32_t reserved1;
};

/* First element of the "tofs_lib" list. */
struct sensors_tof_lib_config {
	const char *device;
	int32_t i2c_addr;
	uint32_t reserved0;
	const char *calib;
	const char *calib_per_design; /* null when not configured */
	const char *type;
	const char *hw_type;
	const char *gpio;
	int32_t flags;
	float min_distance;
	float max_distance;
	float min_amplitude;
	int32_t enabled;
	int32_t type_index;
};

struct sensors_config {
	union sensors_config_tree tree;
	struct sensors_baro_config baro;
	struct sensors_bldc_config bldc;
	struct sensors_enabled_config gps;
	uint32_t reserved0;
	struct sensors_imu_config imu;
	struct sensors_imu_config imu_vcam;
	struct sensors_magneto_config magneto;
	struct sensors_battery_config battery;
	struct sensors_enabled_config ultrasound;
	struct sensors_enabled_config carpet_detection;
	struct sensors_enabled_config vcam_position;
	struct sensors_enabled_config fstcam_position;
	struct sensors_enabled_config vcam_optical_flow;
	uint32_t reserved1;
	struct sensors_tof_config tof;
	struct sensors_tof_lib_config tof_lib;
	struct sensors_enabled_config fcam_gimbal;
	uint32_t reserved2;
};

/*
 * Selects, parses and validates the sensor configuration file; sections whose
 * kind bit is clear in header->sensor_mask end disabled. Returns the record,
 * or null when the file cannot be found, parsed or validated, or memory is short.
 */
SENSORS_API struct sensors_config *sensors_config_new(const struct sensors_probe_header *header);
/* Releases the record and its parsed tree; accepts null. */
SENSORS_API void sensors_config_destroy(struct sensors_config *config);

SENSORS_CHECK_SIZE(sensors_enabled_config, 4);

SENSORS_CHECK_FIELD(sensors_baro_config, enabled, 0);
SENSORS_CHECK_FIELD(sensors_baro_config, device, 8);
SENSORS_CHECK_FIELD(sensors_baro_config, trigger, 16);
SENSORS_CHECK_FIELD(sensors_baro_config, sampling_frequency, 24);
SENSORS_CHECK_SIZE(sensors_baro_config, 32);

SENSORS_CHECK_FIELD(sensors_bldc_config, enabled, 0);
SENSORS_CHECK_FIELD(sensors_bldc_config, device, 8);
SENSORS_CHECK_FIELD(sensors_bldc_config, trigger, 16);
SENSORS_CHECK_FIELD(sensors_bldc_config, tlm_frequency, 24);
SENSORS_CHECK_SIZE(sensors_bldc_config, 32);

SENSORS_CHECK_FIELD(sensors_imu_config, enabled, 0);
SENSORS_CHECK_FIELD(sensors_imu_config, device, 8);
SENSORS_CHECK_FIELD(sensors_imu_config, trigger, 16);
SENSORS_CHECK_FIELD(sensors_imu_config, temperature_sensitivity, 24);
SENSORS_CHECK_FIELD(sensors_imu_config, temperature_offset, 32);
SENSORS_CHECK_FIELD(sensors_imu_config, accelero_scale, 40);
SENSORS_CHECK_FIELD(sensors_imu_config, gyro_scale, 48);
SENSORS_CHECK_FIELD(sensors_imu_config, sampling_frequency, 56);
SENSORS_CHECK_FIELD(sensors_imu_config, sampling_rate_div, 60);
SENSORS_CHECK_FIELD(sensors_imu_config, matrix_from_device_tree, 64);
SENSORS_CHECK_FIELD(sensors_imu_config, rotation_matrix, 68);
SENSORS_CHECK_FIELD(sensors_imu_config, rotation_after_calib, 104);
SENSORS_CHECK_FIELD(sensors_imu_config, rotation_enabled, 108);
SENSORS_CHECK_FIELD(sensors_imu_config, thread_cfg, 112);
SENSORS_CHECK_FIELD(sensors_imu_config, thread_cfg_count, 120);
SENSORS_CHECK_FIELD(sensors_imu_config, tlm_section, 128);
SENSORS_CHECK_SIZE(sensors_imu_config, 136);

SENSORS_CHECK_FIELD(sensors_magneto_config, enabled, 0);
SENSORS_CHECK_FIELD(sensors_magneto_config, device, 8);
SENSORS_CHECK_FIELD(sensors_magneto_config, trigger, 16);
SENSORS_CHECK_FIELD(sensors_magneto_config, matrix_from_device_tree, 24);
SENSORS_CHECK_FIELD(sensors_magneto_config, rotation_matrix, 28);
SENSORS_CHECK_FIELD(sensors_magneto_config, sampling_frequency, 64);
SENSORS_CHECK_FIELD(sensors_magneto_config, use_temperature, 68);
SENSORS_CHECK_SIZE(sensors_magneto_config, 72);

SENSORS_CHECK_FIELD(sensors_battery_config, enabled, 0);
SENSORS_CHECK_FIELD(sensors_battery_config, device, 8);
SENSORS_CHECK_FIELD(sensors_battery_config, frequency, 16);
SENSORS_CHECK_SIZE(sensors_battery_config, 24);

SENSORS_CHECK_FIELD(sensors_tof_config, device, 0);
SENSORS_CHECK_FIELD(sensors_tof_config, trigger, 8);
SENSORS_CHECK_FIELD(sensors_tof_config, calib, 16);
SENSORS_CHECK_FIELD(sensors_tof_config, sampling_frequency, 24);
SENSORS_CHECK_FIELD(sensors_tof_config, type, 32);
SENSORS_CHECK_FIELD(sensors_tof_config, min_distance, 40);
SENSORS_CHECK_FIELD(sensors_tof_config, max_distance, 44);
SENSORS_CHECK_FIELD(sensors_tof_config, min_amplitude, 48);
SENSORS_CHECK_FIELD(sensors_tof_config, enabled, 52);
SENSORS_CHECK_FIELD(sensors_tof_config, type_index, 56);
SENSORS_CHECK_SIZE(sensors_tof_config, 64);

SENSORS_CHECK_FIELD(sensors_tof_lib_config, device, 0);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, i2c_addr, 8);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, calib, 16);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, calib_per_design, 24);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, type, 32);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, hw_type, 40);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, gpio, 48);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, flags, 56);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, min_distance, 60);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, max_distance, 64);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, min_amplitude, 68);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, enabled, 72);
SENSORS_CHECK_FIELD(sensors_tof_lib_config, type_index, 76);
SENSORS_CHECK_SIZE(sensors_tof_lib_config, 80);

SENSORS_CHECK_FIELD(sensors_config, tree, 0);
SENSORS_CHECK_FIELD(sensors_config, baro.enabled, 88);
SENSORS_CHECK_FIELD(sensors_config, baro.device, 96);
SENSORS_CHECK_FIELD(sensors_config, baro.trigger, 104);
SENSORS_CHECK_FIELD(sensors_config, baro.sampling_frequency, 112);
SENSORS_CHECK_FIELD(sensors_config, bldc.enabled, 120);
SENSORS_CHECK_FIELD(sensors_config, bldc.device, 128);
SENSORS_CHECK_FIELD(sensors_config, bldc.trigger, 136);
SENSORS_CHECK_FIELD(sensors_config, bldc.tlm_frequency, 144);
SENSORS_CHECK_FIELD(sensors_config, gps.enabled, 152);
SENSORS_CHECK_FIELD(sensors_config, imu, 160);
SENSORS_CHECK_FIELD(sensors_config, imu_vcam, 296);
SENSORS_CHECK_FIELD(sensors_config, magneto.enabled, 432);
SENSORS_CHECK_FIELD(sensors_config, magneto.device, 440);
SENSORS_CHECK_FIELD(sensors_config, magneto.trigger, 448);
SENSORS_CHECK_FIELD(sensors_config, magneto.matrix_from_device_tree, 456);
SENSORS_CHECK_FIELD(sensors_config, magneto.rotation_matrix, 460);
SENSORS_CHECK_FIELD(sensors_config, magneto.sampling_frequency, 496);
SENSORS_CHECK_FIELD(sensors_config, magneto.use_temperature, 500);
SENSORS_CHECK_FIELD(sensors_config, battery.enabled, 504);
SENSORS_CHECK_FIELD(sensors_config, battery.device, 512);
SENSORS_CHECK_FIELD(sensors_config, battery.frequency, 520);
SENSORS_CHECK_FIELD(sensors_config, ultrasound.enabled, 528);
SENSORS_CHECK_FIELD(sensors_config, carpet_detection.enabled, 532);
SENSORS_CHECK_FIELD(sensors_config, vcam_position.enabled, 536);
SENSORS_CHECK_FIELD(sensors_config, fstcam_position.enabled, 540);
SENSORS_CHECK_FIELD(sensors_config, vcam_optical_flow.enabled, 544);
SENSORS_CHECK_FIELD(sensors_config, tof.device, 552);
SENSORS_CHECK_FIELD(sensors_config, tof.trigger, 560);
SENSORS_CHECK_FIELD(sensors_config, tof.calib, 568);
SENSORS_CHECK_FIELD(sensors_config, tof.sampling_frequency, 576);
SENSORS_CHECK_FIELD(sensors_config, tof.type, 584);
SENSORS_CHECK_FIELD(sensors_config, tof.min_distance, 592);
SENSORS_CHECK_FIELD(sensors_config, tof.max_distance, 596);
SENSORS_CHECK_FIELD(sensors_config, tof.min_amplitude, 600);
SENSORS_CHECK_FIELD(sensors_config, tof.enabled, 604);
SENSORS_CHECK_FIELD(sensors_config, tof.type_index, 608);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.device, 616);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.i2c_addr, 624);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.calib, 632);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.calib_per_design, 640);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.type, 648);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.hw_type, 656);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.gpio, 664);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.flags, 672);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.min_distance, 676);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.max_distance, 680);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.min_amplitude, 684);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.enabled, 688);
SENSORS_CHECK_FIELD(sensors_config, tof_lib.type_index, 692);
SENSORS_CHECK_FIELD(sensors_config, fcam_gimbal.enabled, 696);
SENSORS_CHECK_SIZE(sensors_config, 704);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_CONFIG_H */
