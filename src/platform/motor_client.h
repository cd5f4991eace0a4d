// SPDX-License-Identifier: Apache-2.0
// motor_client: the brushless motor controller service, over libiio.
//
// The controller is an IIO device driven by its trigger. Its samples are
// scans of a triggered buffer, one per trigger period:
//   speed0..3   u16  motor speed, controller units (rpm)
//   pwm0..3     u8   motor PWM duty, 0..255
//   error0..3   u8   motor error code (0 none)
//   status      u8   controller status
//   detail      u8   detail of the status
//   voltage     u16  supply voltage, in_voltage_scale millivolts per unit
//   timestamp   s64  ns, monotonic clock (the clock of the IMU timestamps)
// Commands and information are device attributes: "spin" (write 1),
// "stop" (write a stop code, 0 a plain stop), "speeds" ("s0 s1 s2 s3"),
// "single_stall" (1 or 0), "spin_dir" ("d0 d1 d2 d3", 0 clockwise,
// 1 counter-clockwise), "fw_major", "fw_minor", "fw_type" (a letter),
// "fw_build", "hw_version", "info_extra" ("a b"), "flight_time" (s),
// "last_error". docs/motors.md describes them with the status values.
//
// Functions return 0 (or a positive value) or a negative errno; failures of
// the set-up are logged under the tag "motor_client", per-sample calls log
// nothing.
#pragma once

#include <iio.h>
#include <sensors/data.h>

#include <cstdint>
#include <ctime>

struct motor_client;

// Controller information, in the order of the motors_info sub-record.
struct motor_info {
    uint32_t fw_major;
    uint32_t fw_minor;
    char fw_type;
    uint32_t fw_build;
    uint32_t hw_version;
    uint32_t info_extra[2];
    uint32_t flight_time; // s
    uint32_t last_error;  // low byte: a motor error code
};

// Opens the controller named (device name, label or id) and attaches the
// trigger. With samples set, creates the sample buffer (left disabled until
// controller_enable); with blocking set, a flush waits for a sample the
// device has not delivered yet (bounded by the context's timeout) instead of
// answering -EAGAIN. Null on failure.
motor_client *controller_open(iio_device *trigger, iio_context *ctx, const char *name, int samples, int blocking);
// Releases the client; null is accepted.
void controller_close(motor_client *client);

// Switch the sample stream on and off. Enabling starts a fresh queue.
int controller_enable(motor_client *client);
int controller_disable(motor_client *client);

// Reads the spin directions and writes SENSORS_MOTOR_COUNT bytes at dest, one
// per motor: 0 clockwise, 1 counter-clockwise. A null dest (a host that
// keeps no copy) still checks that the controller answers.
int spin_dir_read(motor_client *client, void *dest);
// Reads the controller information attributes.
int info_read(motor_client *client, motor_info *info);

// Takes the samples the controller took up to limit (timestamp at or before
// it), in order, keeps the newest of them queued for sample_read and drops
// the others. *count is the number found, the kept one included (so
// count - 1 were dropped); a sample kept by an earlier flush and not read
// counts again.
//
// The flush asks the device for a sample only while one up to limit can
// still come: the next sample is due one sampling period (the device's
// sampling_frequency) after the newest one taken; without that attribute it
// asks at every flush. When that lies beyond limit, the flush returns without asking.
// A sample taken beyond limit belongs to a later flush and is held back for
// it. When a sample is due, the flush waits for it (bounded by the context's
// timeout): it has not been delivered yet.
//
// Results: 0 with a sample queued; -EAGAIN when no sample up to limit came
// since the last one read (the next one belongs to a later flush); the
// wait's error (-ETIMEDOUT) when the device delivered nothing at all. A zero
// limit (no reference time) takes the oldest sample not yet read, waiting
// for the next one when there is none.
int samples_flush(motor_client *client, const timespec *limit, uint32_t *count);
// Makes the queued sample current; -ENODATA when none is queued.
int sample_read(motor_client *client);

// Fields of the current sample.
int sample_speeds(motor_client *client, sensors_motor_speed motor[SENSORS_MOTOR_COUNT]);
int sample_errors(motor_client *client, uint32_t error[SENSORS_MOTOR_COUNT]);
// status[0] holds the controller status, status[1] the detail, the rest 0
// (the five words of the motors sub-record's status area).
int sample_statuses(motor_client *client, uint32_t status[5], uint32_t *detail);
int sample_voltage(motor_client *client, float *volts);
int sample_timestamp(motor_client *client, timespec *timestamp);

// Commands. spin_start's parameter is not used by this controller (pass
// null); spin_stop's code is decimal text of 0..255, null for a plain stop.
int spin_start(motor_client *client, const char *parameter);
int spin_stop(motor_client *client, const char *code);
int speeds_set(motor_client *client, const uint16_t speeds[SENSORS_MOTOR_COUNT]);
int single_stall_set(motor_client *client, int enable);
