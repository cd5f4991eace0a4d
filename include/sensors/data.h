/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The sensor data record: owned by the host, filled by the plug-in.
 *
 * The host allocates one record and hands its address to probe; it must stay
 * at that address until shutdown, since every module keeps a pointer to its
 * own sub-record. Offsets are part of the host interface and are checked at
 * compile time below, in C and in C++. Fields named reserved* are never
 * written by the plug-in.
 */
#ifndef SENSORS_DATA_H
#define SENSORS_DATA_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
#define SENSORS_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#define SENSORS_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* Largest IMU batch (the largest hardware FIFO batch). */
#define SENSORS_IMU_MAX_SAMPLES 5
/* Samples of the front-camera gimbal delivered per cycle. */
#define SENSORS_GIMBAL_MAX_SAMPLES 5
#define SENSORS_MOTOR_COUNT 4

/* updated_sensors bits: what received new data during the last read. */
#define SENSORS_UPDATED_IMU 0x1u
#define SENSORS_UPDATED_BARO 0x2u
#define SENSORS_UPDATED_MAGNETO 0x4u
#define SENSORS_UPDATED_MOTORS 0x8u
#define SENSORS_UPDATED_US 0x10u
#define SENSORS_UPDATED_GPS 0x20u
#define SENSORS_UPDATED_BATTERY 0x40u
#define SENSORS_UPDATED_MOTORS_INFO 0x80u
#define SENSORS_UPDATED_VISION_POSITION 0x400u
#define SENSORS_UPDATED_OPTICAL_FLOW 0x800u
#define SENSORS_UPDATED_FCAM_GIMBAL 0x1000u

/* IMU batch, in the vehicle frame. */
struct sensors_imu_data {
	float gyro[SENSORS_IMU_MAX_SAMPLES][3];  /* rad/s */
	float accel[SENSORS_IMU_MAX_SAMPLES][3]; /* m/s^2 */
	float temperature[SENSORS_IMU_MAX_SAMPLES]; /* K */
	uint8_t sample_flags[SENSORS_IMU_MAX_SAMPLES];
	uint8_t nb_samples; /* valid entries of this batch, 0..5 */
	uint8_t reserved[6];
	struct timespec timestamps[SENSORS_IMU_MAX_SAMPLES];
};

struct sensors_baro_data {
	float pressure;    /* Pa, bias-corrected */
	float temperature; /* K */
	uint32_t flags;    /* bits 0 and 1 ORed in by every successful read */
	uint32_t reserved;
	struct timespec timestamp;
};

struct sensors_magneto_data {
	float field[3];    /* uT, vehicle frame, bias-corrected */
	float temperature; /* K, only with use-temperature */
	struct timespec timestamp;
};

struct sensors_motor_speed {
	uint16_t speed; /* motor controller units */
	uint8_t pwm;
	uint8_t reserved;
};

struct sensors_motors_data {
	uint32_t brake_state; /* outcome of the last stop request */
	uint32_t ramp_state;  /* outcome of the last start request */
	uint32_t spinning;    /* 1 yes, 2 no */
	uint32_t nominal;     /* 1 yes, 2 no */
	uint32_t idle;        /* 1 yes, 2 no, 3 undetermined */
	struct sensors_motor_speed motor[SENSORS_MOTOR_COUNT];
	uint32_t error[SENSORS_MOTOR_COUNT];
	uint32_t status[5]; /* controller status in the low byte of status[0] */
	struct timespec timestamp; /* on the clock of the IMU timestamps */
	float voltage;             /* V, controller supply */
	uint32_t reserved;
};

struct sensors_us_data {
	float altitude;
	float altitude_v2;
	uint16_t status;
	uint8_t reserved0[2];
	uint32_t index;
	uint32_t range_mode; /* 0 long range, 1 short range, 2 unknown */
	uint32_t reserved1;
	struct timespec timestamp;
};

/* updated bits of the gps sub-record: kinds of message received this cycle. */
#define SENSORS_GPS_UPDATED_LOC 0x1u
#define SENSORS_GPS_UPDATED_EX_COM 0x4u
#define SENSORS_GPS_UPDATED_EX_ER 0x8u
#define SENSORS_GPS_UPDATED_FW 0x10u
#define SENSORS_GPS_FW_TEXT_SIZE 50

struct sensors_gps_data {
	uint8_t reserved0[8];
	double loc_values[4];
	uint8_t reserved1[16];
	uint64_t loc_extra;
	uint8_t reserved2[528];
	float com_values[3];
	int32_t com_int;
	char com_text[4]; /* not terminated when four characters or longer */
	uint32_t com_uint;
	float er_values[7];
	int32_t er_int;
	char fw_text_1[SENSORS_GPS_FW_TEXT_SIZE];
	char fw_text_2[SENSORS_GPS_FW_TEXT_SIZE];
	uint32_t updated;
	struct timespec timestamp;
};

/* changed_mask bits of the battery sub-record. */
#define SENSORS_BATTERY_CHANGED_VOLTAGE 0x001u
#define SENSORS_BATTERY_CHANGED_RSOC 0x002u
#define SENSORS_BATTERY_CHANGED_CURRENT 0x004u
#define SENSORS_BATTERY_CHANGED_FULL_CHARGE_CAP 0x008u
#define SENSORS_BATTERY_CHANGED_REMAINING_CAP 0x010u
#define SENSORS_BATTERY_CHANGED_TIME_TO_EMPTY 0x020u
#define SENSORS_BATTERY_CHANGED_TEMPERATURE 0x040u
#define SENSORS_BATTERY_CHANGED_SOH 0x080u
#define SENSORS_BATTERY_CHANGED_ALERTS 0x100u
#define SENSORS_BATTERY_CHANGED_CYCLE_COUNT 0x200u
#define SENSORS_BATTERY_CHANGED_USB_ROLES 0x400u
#define SENSORS_BATTERY_CHANGED_CELL_VOLTAGES 0x800u
#define SENSORS_BATTERY_RSOC_UNKNOWN 0xFFFFFFFFu

struct sensors_battery_data {
	uint32_t present;    /* 1 smart battery data, 0 the motor controller fallback */
	uint32_t data_role;  /* 0 none, 1 host, 2 device */
	uint32_t power_role; /* 0 none, 1 source, 2 sink */
	float voltage;       /* V */
	float current;       /* A, signed */
	uint32_t rsoc;       /* %, SENSORS_BATTERY_RSOC_UNKNOWN when unknown */
	float full_charge_cap; /* Ah */
	float remaining_cap;   /* Ah */
	uint32_t avg_time_to_empty; /* s */
	float temperature;     /* K, whole degrees */
	uint32_t soh;          /* % */
	int32_t fault;
	int32_t temperature_alert;
	uint32_t cycle_count;
	float cell_voltage[2]; /* V */
	uint32_t changed_mask;
	uint32_t reserved;
	struct timespec timestamp;
};

struct sensors_motors_info {
	uint32_t fw_major;
	uint32_t fw_minor;
	char fw_type;
	uint8_t reserved0[3];
	uint32_t fw_build;
	uint32_t hw_version;
	uint32_t info_extra[2];
	uint32_t flight_time;
	uint32_t last_error; /* low byte: motor error code */
	uint8_t reserved1[124];
};

struct sensors_carpet_data {
	float position_x;
	float position_y;
	float position_z;
	float orientation; /* rad */
	int32_t nb_targets;
	uint8_t reserved0[4];
	struct timespec timestamp;
	uint8_t active; /* 1 while carpet detection is active */
	uint8_t reserved1[7];
};

struct sensors_vision_position_data {
	float x;
	float y;
	float z;
	float discriminable_ft_ratio;
	int32_t status;
	uint8_t reserved0[4];
	int64_t last_ref_image_ts;
	struct timespec timestamp;
	uint8_t reserved1[48];
};

struct sensors_optical_flow_data {
	float flow_x;
	float flow_y;
	float flow_z;
	float corr_cam_x_m_s;
	float corr_cam_y_m_s;
	float corr_cam_z_m_s;
	float quality_indicator;
	int32_t nb_valid_zones;
	uint8_t defined;
	uint8_t defective;
	uint8_t reserved[6]; /* written as 0 */
	struct timespec timestamp;
};

struct sensors_fcam_gimbal_data {
	float ef_rate[SENSORS_GIMBAL_MAX_SAMPLES][3];
	float ef_q_w[SENSORS_GIMBAL_MAX_SAMPLES];
	float ef_q_x[SENSORS_GIMBAL_MAX_SAMPLES];
	float ef_q_y[SENSORS_GIMBAL_MAX_SAMPLES];
	float ef_q_z[SENSORS_GIMBAL_MAX_SAMPLES];
	uint8_t reserved0[4];
	struct timespec timestamps[SENSORS_GIMBAL_MAX_SAMPLES];
	uint32_t count; /* earlier samples delivered with the latest one */
	uint8_t reserved1[4];
};

struct sensors_data {
	struct sensors_imu_data imu;
	struct sensors_baro_data baro;
	struct sensors_magneto_data magneto;
	struct sensors_motors_data motors;
	struct sensors_us_data us;
	struct sensors_gps_data gps;
	struct sensors_battery_data battery;
	struct sensors_motors_info motors_info;
	struct sensors_carpet_data carpet;
	struct sensors_vision_position_data vision_position;
	struct sensors_optical_flow_data optical_flow;
	struct sensors_fcam_gimbal_data fcam_gimbal;
	uint32_t updated_sensors; /* SENSORS_UPDATED_* bits, cleared by every read */
	uint8_t host_reserved[4]; /* the plug-in uses nothing from here on */
};

#define SENSORS_CHECK_FIELD(type, field, offset) \
	SENSORS_STATIC_ASSERT(offsetof(struct type, field) == (offset), #type "." #field " offset")
#define SENSORS_CHECK_SIZE(type, size) \
	SENSORS_STATIC_ASSERT(sizeof(struct type) == (size), #type " size")

SENSORS_CHECK_FIELD(sensors_imu_data, gyro, 0);
SENSORS_CHECK_FIELD(sensors_imu_data, accel, 60);
SENSORS_CHECK_FIELD(sensors_imu_data, temperature, 120);
SENSORS_CHECK_FIELD(sensors_imu_data, sample_flags, 140);
SENSORS_CHECK_FIELD(sensors_imu_data, nb_samples, 145);
SENSORS_CHECK_FIELD(sensors_imu_data, reserved, 146);
SENSORS_CHECK_FIELD(sensors_imu_data, timestamps, 152);
SENSORS_CHECK_SIZE(sensors_imu_data, 232);

SENSORS_CHECK_FIELD(sensors_baro_data, pressure, 0);
SENSORS_CHECK_FIELD(sensors_baro_data, temperature, 4);
SENSORS_CHECK_FIELD(sensors_baro_data, flags, 8);
SENSORS_CHECK_FIELD(sensors_baro_data, reserved, 12);
SENSORS_CHECK_FIELD(sensors_baro_data, timestamp, 16);
SENSORS_CHECK_SIZE(sensors_baro_data, 32);

SENSORS_CHECK_FIELD(sensors_magneto_data, field, 0);
SENSORS_CHECK_FIELD(sensors_magneto_data, temperature, 12);
SENSORS_CHECK_FIELD(sensors_magneto_data, timestamp, 16);
SENSORS_CHECK_SIZE(sensors_magneto_data, 32);

SENSORS_CHECK_SIZE(sensors_motor_speed, 4);
SENSORS_CHECK_FIELD(sensors_motor_speed, pwm, 2);
SENSORS_CHECK_FIELD(sensors_motors_data, brake_state, 0);
SENSORS_CHECK_FIELD(sensors_motors_data, ramp_state, 4);
SENSORS_CHECK_FIELD(sensors_motors_data, spinning, 8);
SENSORS_CHECK_FIELD(sensors_motors_data, nominal, 12);
SENSORS_CHECK_FIELD(sensors_motors_data, idle, 16);
SENSORS_CHECK_FIELD(sensors_motors_data, motor, 20);
SENSORS_CHECK_FIELD(sensors_motors_data, error, 36);
SENSORS_CHECK_FIELD(sensors_motors_data, status, 52);
SENSORS_CHECK_FIELD(sensors_motors_data, timestamp, 72);
SENSORS_CHECK_FIELD(sensors_motors_data, voltage, 88);
SENSORS_CHECK_SIZE(sensors_motors_data, 96);

SENSORS_CHECK_FIELD(sensors_us_data, altitude, 0);
SENSORS_CHECK_FIELD(sensors_us_data, altitude_v2, 4);
SENSORS_CHECK_FIELD(sensors_us_data, status, 8);
SENSORS_CHECK_FIELD(sensors_us_data, index, 12);
SENSORS_CHECK_FIELD(sensors_us_data, range_mode, 16);
SENSORS_CHECK_FIELD(sensors_us_data, timestamp, 24);
SENSORS_CHECK_SIZE(sensors_us_data, 40);

SENSORS_CHECK_FIELD(sensors_gps_data, loc_values, 8);
SENSORS_CHECK_FIELD(sensors_gps_data, loc_extra, 56);
SENSORS_CHECK_FIELD(sensors_gps_data, com_values, 592);
SENSORS_CHECK_FIELD(sensors_gps_data, com_int, 604);
SENSORS_CHECK_FIELD(sensors_gps_data, com_text, 608);
SENSORS_CHECK_FIELD(sensors_gps_data, com_uint, 612);
SENSORS_CHECK_FIELD(sensors_gps_data, er_values, 616);
SENSORS_CHECK_FIELD(sensors_gps_data, er_int, 644);
SENSORS_CHECK_FIELD(sensors_gps_data, fw_text_1, 648);
SENSORS_CHECK_FIELD(sensors_gps_data, fw_text_2, 698);
SENSORS_CHECK_FIELD(sensors_gps_data, updated, 748);
SENSORS_CHECK_FIELD(sensors_gps_data, timestamp, 752);
SENSORS_CHECK_SIZE(sensors_gps_data, 768);

SENSORS_CHECK_FIELD(sensors_battery_data, present, 0);
SENSORS_CHECK_FIELD(sensors_battery_data, data_role, 4);
SENSORS_CHECK_FIELD(sensors_battery_data, power_role, 8);
SENSORS_CHECK_FIELD(sensors_battery_data, voltage, 12);
SENSORS_CHECK_FIELD(sensors_battery_data, current, 16);
SENSORS_CHECK_FIELD(sensors_battery_data, rsoc, 20);
SENSORS_CHECK_FIELD(sensors_battery_data, full_charge_cap, 24);
SENSORS_CHECK_FIELD(sensors_battery_data, remaining_cap, 28);
SENSORS_CHECK_FIELD(sensors_battery_data, avg_time_to_empty, 32);
SENSORS_CHECK_FIELD(sensors_battery_data, temperature, 36);
SENSORS_CHECK_FIELD(sensors_battery_data, soh, 40);
SENSORS_CHECK_FIELD(sensors_battery_data, fault, 44);
SENSORS_CHECK_FIELD(sensors_battery_data, temperature_alert, 48);
SENSORS_CHECK_FIELD(sensors_battery_data, cycle_count, 52);
SENSORS_CHECK_FIELD(sensors_battery_data, cell_voltage, 56);
SENSORS_CHECK_FIELD(sensors_battery_data, changed_mask, 64);
SENSORS_CHECK_FIELD(sensors_battery_data, reserved, 68);
SENSORS_CHECK_FIELD(sensors_battery_data, timestamp, 72);
SENSORS_CHECK_SIZE(sensors_battery_data, 88);

SENSORS_CHECK_FIELD(sensors_motors_info, fw_major, 0);
SENSORS_CHECK_FIELD(sensors_motors_info, fw_minor, 4);
SENSORS_CHECK_FIELD(sensors_motors_info, fw_type, 8);
SENSORS_CHECK_FIELD(sensors_motors_info, fw_build, 12);
SENSORS_CHECK_FIELD(sensors_motors_info, hw_version, 16);
SENSORS_CHECK_FIELD(sensors_motors_info, info_extra, 20);
SENSORS_CHECK_FIELD(sensors_motors_info, flight_time, 28);
SENSORS_CHECK_FIELD(sensors_motors_info, last_error, 32);
SENSORS_CHECK_SIZE(sensors_motors_info, 160);

SENSORS_CHECK_FIELD(sensors_carpet_data, position_x, 0);
SENSORS_CHECK_FIELD(sensors_carpet_data, position_y, 4);
SENSORS_CHECK_FIELD(sensors_carpet_data, position_z, 8);
SENSORS_CHECK_FIELD(sensors_carpet_data, orientation, 12);
SENSORS_CHECK_FIELD(sensors_carpet_data, nb_targets, 16);
SENSORS_CHECK_FIELD(sensors_carpet_data, reserved0, 20);
SENSORS_CHECK_FIELD(sensors_carpet_data, timestamp, 24);
SENSORS_CHECK_FIELD(sensors_carpet_data, active, 40);
SENSORS_CHECK_FIELD(sensors_carpet_data, reserved1, 41);
SENSORS_CHECK_SIZE(sensors_carpet_data, 48);

SENSORS_CHECK_FIELD(sensors_vision_position_data, x, 0);
SENSORS_CHECK_FIELD(sensors_vision_position_data, y, 4);
SENSORS_CHECK_FIELD(sensors_vision_position_data, z, 8);
SENSORS_CHECK_FIELD(sensors_vision_position_data, discriminable_ft_ratio, 12);
SENSORS_CHECK_FIELD(sensors_vision_position_data, status, 16);
SENSORS_CHECK_FIELD(sensors_vision_position_data, reserved0, 20);
SENSORS_CHECK_FIELD(sensors_vision_position_data, last_ref_image_ts, 24);
SENSORS_CHECK_FIELD(sensors_vision_position_data, timestamp, 32);
SENSORS_CHECK_SIZE(sensors_vision_position_data, 96);

SENSORS_CHECK_FIELD(sensors_optical_flow_data, flow_x, 0);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, flow_y, 4);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, flow_z, 8);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, corr_cam_x_m_s, 12);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, corr_cam_y_m_s, 16);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, corr_cam_z_m_s, 20);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, quality_indicator, 24);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, nb_valid_zones, 28);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, defined, 32);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, defective, 33);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, reserved, 34);
SENSORS_CHECK_FIELD(sensors_optical_flow_data, timestamp, 40);
SENSORS_CHECK_SIZE(sensors_optical_flow_data, 56);

SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, ef_rate, 0);
SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, ef_q_w, 60);
SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, ef_q_x, 80);
SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, ef_q_y, 100);
SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, ef_q_z, 120);
SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, reserved0, 140);
SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, timestamps, 144);
SENSORS_CHECK_FIELD(sensors_fcam_gimbal_data, count, 224);
SENSORS_CHECK_SIZE(sensors_fcam_gimbal_data, 232);

SENSORS_CHECK_FIELD(sensors_data, imu, 0);
SENSORS_CHECK_FIELD(sensors_data, baro, 232);
SENSORS_CHECK_FIELD(sensors_data, magneto, 264);
SENSORS_CHECK_FIELD(sensors_data, motors, 296);
SENSORS_CHECK_FIELD(sensors_data, us, 392);
SENSORS_CHECK_FIELD(sensors_data, gps, 432);
SENSORS_CHECK_FIELD(sensors_data, battery, 1200);
SENSORS_CHECK_FIELD(sensors_data, motors_info, 1288);
SENSORS_CHECK_FIELD(sensors_data, carpet, 1448);
SENSORS_CHECK_FIELD(sensors_data, vision_position, 1496);
SENSORS_CHECK_FIELD(sensors_data, optical_flow, 1592);
SENSORS_CHECK_FIELD(sensors_data, fcam_gimbal, 1648);
SENSORS_CHECK_FIELD(sensors_data, updated_sensors, 1880);
SENSORS_CHECK_SIZE(sensors_data, 1888);

SENSORS_STATIC_ASSERT(sizeof(struct timespec) == 16, "timespec is two 64-bit words");

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_DATA_H */
