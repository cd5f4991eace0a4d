/* SPDX-License-Identifier: (GPL-2.0 OR Apache-2.0) */
/*
 * The exchange between the virtual vehicle's IIO driver (orlune_vehicle.ko)
 * and the simulator that stands for the hardware behind it, through the
 * character device ORLUNE_VEHICLE_NODE. One process (the feeder) holds the
 * node open at a time; a second open gives EBUSY.
 *
 * The driver registers the IIO devices and their triggers and holds no
 * model: every attribute read or write of a unit is asked of the feeder,
 * and the scans the feeder writes are pushed through the unit's trigger into
 * its kernel buffer, stamped on the clock the device selects.
 *
 * Every message is a struct orlune_vehicle_msg followed by `length` bytes of
 * payload. A read() of the node returns one or more whole messages (those
 * that fit), blocking until there is one unless the node is non-blocking; a
 * write() carries exactly one message. A write of SCANS returns less than
 * its length by the scans that a full kernel buffer refused (the reader
 * fell behind: the kernel keeps the oldest scans and refuses new ones).
 */
#ifndef ORLUNE_VEHICLE_H
#define ORLUNE_VEHICLE_H

#include <linux/types.h>

#define ORLUNE_VEHICLE_NODE "/dev/orlune-vehicle"

/* The units, in the order the driver registers them (iio:device0 to 3 and
 * trigger0 to 3 when no other IIO device exists). */
enum orlune_vehicle_unit {
	ORLUNE_VEHICLE_IMU,	/* "orlune-imu", trigger "orlune-imu-trig" */
	ORLUNE_VEHICLE_BARO,	/* "orlune-lps22hb", trigger "orlune-baro-trig" */
	ORLUNE_VEHICLE_MAGNETO,	/* "orlune-magneto", trigger "orlune-magneto-trig" */
	ORLUNE_VEHICLE_MOTORS,	/* "orlune-esc", trigger "orlune-esc-trig" */
	ORLUNE_VEHICLE_UNITS,
};

/* Added to a unit in READ and WRITE: the attribute is its trigger's. */
#define ORLUNE_VEHICLE_TRIGGER 0x100

enum orlune_vehicle_kind {
	/* From the driver (read from the node). */
	ORLUNE_VEHICLE_READ = 1,	/* id; payload: the attribute's file name */
	ORLUNE_VEHICLE_WRITE = 2,	/* id; payload: file name, NUL, the bytes written */
	ORLUNE_VEHICLE_BUFFER = 3,	/* status: 1 the unit's buffer was enabled, 0 disabled */
	/* From the feeder (written to the node). */
	ORLUNE_VEHICLE_ANSWER = 16,	/* id; status: 0 or a negative errno; payload: a
					 * read's value, without its newline */
	ORLUNE_VEHICLE_SCANS = 17,	/* count scans of the unit, each of the unit's
					 * full scan size with every channel in place and
					 * the timestamp (last 8 bytes) in CLOCK_MONOTONIC ns */
};

struct orlune_vehicle_msg {
	__u32 kind;
	__u32 unit;
	__u32 id;
	__s32 status;
	__u32 count;
	__u32 length;	/* bytes of payload after this header */
};

/* The largest payload either way. */
#define ORLUNE_VEHICLE_PAYLOAD_MAX 4096

/* Full scan sizes: every channel enabled, timestamp included. */
#define ORLUNE_VEHICLE_IMU_SCAN 24
#define ORLUNE_VEHICLE_BARO_SCAN 16
#define ORLUNE_VEHICLE_MAGNETO_SCAN 16
#define ORLUNE_VEHICLE_MOTORS_SCAN 32

#endif
