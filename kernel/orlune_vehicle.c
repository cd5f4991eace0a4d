// SPDX-License-Identifier: (GPL-2.0 OR Apache-2.0)
/*
 * The virtual vehicle's IIO devices: the IMU, the barometer, the
 * magnetometer and the motor controller, each with its own trigger and a
 * kfifo triggered buffer, registered with the kernel's IIO core as a board's
 * drivers register them. The hardware behind them is a user-space process
 * (the feeder: orlune-sim --kernel) holding ORLUNE_VEHICLE_NODE open.
 *
 * The driver holds no model. An attribute read or write is a request to the
 * feeder, answered within a bounded time; the scans the feeder writes are
 * pushed through the unit's trigger, like a data-ready interrupt, into the
 * buffers of the unit, each stamped with the time at which it was sampled,
 * converted to the clock the device selects (current_timestamp_clock).
 * What the IIO core does with them is the core's: a full buffer keeps its
 * oldest scans, reads return whole scans, the device node opens once.
 */
#include <linux/completion.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/timekeeping.h>
#include <linux/uaccess.h>
#include <linux/wait.h>
#include <asm/unaligned.h>

#include <linux/iio/buffer.h>
#include <linux/iio/iio.h>
#include <linux/iio/sysfs.h>
#include <linux/iio/trigger.h>
#include <linux/iio/trigger_consumer.h>
#include <linux/iio/triggered_buffer.h>

#include "orlune_vehicle.h"

/* How long an attribute waits for the feeder's answer. */
#define ANSWER_TIMEOUT (5 * HZ)
/* The largest full scan of any unit. */
#define SCAN_MAX 32

/* Channel attributes: the file name the feeder knows the attribute by. */
#define ATTR_RO(_name, _shared, _file) {		\
	.name = _name, .shared = _shared,		\
	.read = vehicle_ext_read, .private = (uintptr_t)(_file) }

#define SCAN(_sign, _bits, _storage) {			\
	.sign = _sign, .realbits = _bits,		\
	.storagebits = _storage, .endianness = IIO_LE }

static ssize_t vehicle_ext_read(struct iio_dev *indio_dev, uintptr_t private,
				const struct iio_chan_spec *chan, char *buf);

/* A modified channel (accel_x) with its raw value, its type's scale and a
 * mount matrix shared as given. */
#define MODIFIED(_type, _mod, _index, _ext) {		\
	.type = _type, .modified = 1, .channel2 = _mod,	\
	.scan_index = _index, .scan_type = SCAN('s', 16, 16), .ext_info = _ext }

#define INDEXED(_type, _chan, _index, _scan, _ext) {	\
	.type = _type, .indexed = 1, .channel = _chan,	\
	.scan_index = _index, .scan_type = _scan, .ext_info = _ext }

/* A motor controller channel: no kernel type says what it is, so libiio
 * finds it by the name its files carry (in_count0_speed0_en: "speed0"). */
#define NAMED(_type, _chan, _index, _name, _bits) {	\
	.type = _type, .indexed = 1, .channel = _chan,	\
	.extend_name = _name, .scan_index = _index,	\
	.scan_type = SCAN('u', _bits, _bits) }

#define AXIS_EXT(_var, _raw, _scale, _matrix)				\
static const struct iio_chan_spec_ext_info _var[] = {			\
	ATTR_RO("raw", IIO_SEPARATE, _raw),				\
	ATTR_RO("scale", IIO_SHARED_BY_TYPE, _scale),			\
	ATTR_RO("mount_matrix", IIO_SHARED_BY_TYPE, _matrix),		\
	{ } }

#define TEMP_EXT(_var, _n)						\
static const struct iio_chan_spec_ext_info _var[] = {			\
	ATTR_RO("raw", IIO_SEPARATE, "in_temp" #_n "_raw"),		\
	ATTR_RO("scale", IIO_SEPARATE, "in_temp" #_n "_scale"),	\
	ATTR_RO("offset", IIO_SEPARATE, "in_temp" #_n "_offset"),	\
	{ } }

/* IMU: 24-byte scans. */
AXIS_EXT(accel_x_ext, "in_accel_x_raw", "in_accel_scale", "in_accel_mount_matrix");
AXIS_EXT(accel_y_ext, "in_accel_y_raw", "in_accel_scale", "in_accel_mount_matrix");
AXIS_EXT(accel_z_ext, "in_accel_z_raw", "in_accel_scale", "in_accel_mount_matrix");
AXIS_EXT(anglvel_x_ext, "in_anglvel_x_raw", "in_anglvel_scale", "in_anglvel_mount_matrix");
AXIS_EXT(anglvel_y_ext, "in_anglvel_y_raw", "in_anglvel_scale", "in_anglvel_mount_matrix");
AXIS_EXT(anglvel_z_ext, "in_anglvel_z_raw", "in_anglvel_scale", "in_anglvel_mount_matrix");
TEMP_EXT(imu_temp_ext, 0);

static const struct iio_chan_spec imu_channels[] = {
	MODIFIED(IIO_ACCEL, IIO_MOD_X, 0, accel_x_ext),
	MODIFIED(IIO_ACCEL, IIO_MOD_Y, 1, accel_y_ext),
	MODIFIED(IIO_ACCEL, IIO_MOD_Z, 2, accel_z_ext),
	MODIFIED(IIO_ANGL_VEL, IIO_MOD_X, 3, anglvel_x_ext),
	MODIFIED(IIO_ANGL_VEL, IIO_MOD_Y, 4, anglvel_y_ext),
	MODIFIED(IIO_ANGL_VEL, IIO_MOD_Z, 5, anglvel_z_ext),
	INDEXED(IIO_TEMP, 0, 6, SCAN('s', 16, 16), imu_temp_ext),
	IIO_CHAN_SOFT_TIMESTAMP(7),
};

/* Barometer: 16-byte scans, the pressure in 24 bits of 32. */
static const struct iio_chan_spec_ext_info pressure_ext[] = {
	ATTR_RO("raw", IIO_SEPARATE, "in_pressure0_raw"),
	ATTR_RO("scale", IIO_SEPARATE, "in_pressure0_scale"),
	{ }
};

static const struct iio_chan_spec_ext_info baro_temp_ext[] = {
	ATTR_RO("raw", IIO_SEPARATE, "in_temp1_raw"),
	ATTR_RO("scale", IIO_SEPARATE, "in_temp1_scale"),
	{ }
};

static const struct iio_chan_spec baro_channels[] = {
	INDEXED(IIO_PRESSURE, 0, 0, SCAN('u', 24, 32), pressure_ext),
	INDEXED(IIO_TEMP, 1, 1, SCAN('s', 16, 16), baro_temp_ext),
	IIO_CHAN_SOFT_TIMESTAMP(2),
};

/* Magnetometer: 16-byte scans; each axis has its own scale, one matrix. */
#define MAGN_EXT(_var, _axis)						\
static const struct iio_chan_spec_ext_info _var[] = {			\
	ATTR_RO("raw", IIO_SEPARATE, "in_magn_" #_axis "_raw"),	\
	ATTR_RO("scale", IIO_SEPARATE, "in_magn_" #_axis "_scale"),	\
	ATTR_RO("mount_matrix", IIO_SHARED_BY_DIR, "in_mount_matrix"),	\
	{ } }

MAGN_EXT(magn_x_ext, x);
MAGN_EXT(magn_y_ext, y);
MAGN_EXT(magn_z_ext, z);
TEMP_EXT(magneto_temp_ext, 0);

static const struct iio_chan_spec magneto_channels[] = {
	MODIFIED(IIO_MAGN, IIO_MOD_X, 0, magn_x_ext),
	MODIFIED(IIO_MAGN, IIO_MOD_Y, 1, magn_y_ext),
	MODIFIED(IIO_MAGN, IIO_MOD_Z, 2, magn_z_ext),
	INDEXED(IIO_TEMP, 0, 3, SCAN('s', 16, 16), magneto_temp_ext),
	IIO_CHAN_SOFT_TIMESTAMP(4),
};

/* Motor controller: 32-byte scans. */
static const struct iio_chan_spec_ext_info voltage_ext[] = {
	ATTR_RO("scale", IIO_SHARED_BY_TYPE, "in_voltage_scale"),
	{ }
};

static const struct iio_chan_spec motors_channels[] = {
	NAMED(IIO_COUNT, 0, 0, "speed0", 16),
	NAMED(IIO_COUNT, 1, 1, "speed1", 16),
	NAMED(IIO_COUNT, 2, 2, "speed2", 16),
	NAMED(IIO_COUNT, 3, 3, "speed3", 16),
	NAMED(IIO_COUNT, 4, 4, "pwm0", 8),
	NAMED(IIO_COUNT, 5, 5, "pwm1", 8),
	NAMED(IIO_COUNT, 6, 6, "pwm2", 8),
	NAMED(IIO_COUNT, 7, 7, "pwm3", 8),
	NAMED(IIO_COUNT, 8, 8, "error0", 8),
	NAMED(IIO_COUNT, 9, 9, "error1", 8),
	NAMED(IIO_COUNT, 10, 10, "error2", 8),
	NAMED(IIO_COUNT, 11, 11, "error3", 8),
	NAMED(IIO_COUNT, 12, 12, "status", 8),
	NAMED(IIO_COUNT, 13, 13, "detail", 8),
	{
		.type = IIO_VOLTAGE, .indexed = 1, .channel = 0,
		.extend_name = "voltage", .scan_index = 14,
		.scan_type = SCAN('u', 16, 16), .ext_info = voltage_ext,
	},
	IIO_CHAN_SOFT_TIMESTAMP(15),
};

/* The scan is always made whole; the core hands each buffer its channels. */
static const unsigned long imu_masks[] = { GENMASK(6, 0), 0 };
static const unsigned long baro_masks[] = { GENMASK(1, 0), 0 };
static const unsigned long magneto_masks[] = { GENMASK(3, 0), 0 };
static const unsigned long motors_masks[] = { GENMASK(14, 0), 0 };

/* Device attributes: asked of the feeder by their file name. */
static ssize_t vehicle_attr_show(struct device *dev, struct device_attribute *attr, char *buf);
static ssize_t vehicle_attr_store(struct device *dev, struct device_attribute *attr,
				  const char *buf, size_t len);

#define RW(_name) IIO_DEVICE_ATTR(_name, 0644, vehicle_attr_show, vehicle_attr_store, 0)
#define RO(_name) IIO_DEVICE_ATTR(_name, 0444, vehicle_attr_show, NULL, 0)

RW(sampling_frequency);
RW(spin);
RW(stop);
RW(speeds);
RW(single_stall);
RO(spin_dir);
RO(fw_major);
RO(fw_minor);
RO(fw_type);
RO(fw_build);
RO(hw_version);
RO(info_extra);
RO(flight_time);
RO(last_error);

static struct attribute *sensor_attrs[] = {
	&iio_dev_attr_sampling_frequency.dev_attr.attr,
	NULL,
};

static const struct attribute_group sensor_group = { .attrs = sensor_attrs };

static struct attribute *motors_attrs[] = {
	&iio_dev_attr_sampling_frequency.dev_attr.attr,
	&iio_dev_attr_spin.dev_attr.attr,
	&iio_dev_attr_stop.dev_attr.attr,
	&iio_dev_attr_speeds.dev_attr.attr,
	&iio_dev_attr_single_stall.dev_attr.attr,
	&iio_dev_attr_spin_dir.dev_attr.attr,
	&iio_dev_attr_fw_major.dev_attr.attr,
	&iio_dev_attr_fw_minor.dev_attr.attr,
	&iio_dev_attr_fw_type.dev_attr.attr,
	&iio_dev_attr_fw_build.dev_attr.attr,
	&iio_dev_attr_hw_version.dev_attr.attr,
	&iio_dev_attr_info_extra.dev_attr.attr,
	&iio_dev_attr_flight_time.dev_attr.attr,
	&iio_dev_attr_last_error.dev_attr.attr,
	NULL,
};

static const struct attribute_group motors_group = { .attrs = motors_attrs };

static int vehicle_validate_trigger(struct iio_dev *indio_dev, struct iio_trigger *trig);

static const struct iio_info sensor_info = {
	.attrs = &sensor_group,
	.validate_trigger = vehicle_validate_trigger,
};

static const struct iio_info motors_info = {
	.attrs = &motors_group,
	.validate_trigger = vehicle_validate_trigger,
};

/* The IMU's trigger fires once per batch of rate_divider samples. */
static ssize_t vehicle_trigger_show(struct device *dev, struct device_attribute *attr, char *buf);
static ssize_t vehicle_trigger_store(struct device *dev, struct device_attribute *attr,
				     const char *buf, size_t len);
static DEVICE_ATTR(rate_divider, 0644, vehicle_trigger_show, vehicle_trigger_store);

static struct attribute *imu_trigger_attrs[] = {
	&dev_attr_rate_divider.attr,
	NULL,
};

static const struct attribute_group imu_trigger_group = { .attrs = imu_trigger_attrs };
static const struct attribute_group *imu_trigger_groups[] = { &imu_trigger_group, NULL };

struct unit_desc {
	const char *name;
	const char *trigger;
	const struct iio_chan_spec *channels;
	unsigned int num_channels;
	const unsigned long *masks;
	const struct iio_info *info;
	const struct attribute_group **trigger_groups;
	unsigned int scan_bytes;
};

static const struct unit_desc units[ORLUNE_VEHICLE_UNITS] = {
	[ORLUNE_VEHICLE_IMU] = {
		"orlune-imu", "orlune-imu-trig", imu_channels, ARRAY_SIZE(imu_channels),
		imu_masks, &sensor_info, imu_trigger_groups, ORLUNE_VEHICLE_IMU_SCAN,
	},
	[ORLUNE_VEHICLE_BARO] = {
		"orlune-lps22hb", "orlune-baro-trig", baro_channels, ARRAY_SIZE(baro_channels),
		baro_masks, &sensor_info, NULL, ORLUNE_VEHICLE_BARO_SCAN,
	},
	[ORLUNE_VEHICLE_MAGNETO] = {
		"orlune-magneto", "orlune-magneto-trig", magneto_channels, ARRAY_SIZE(magneto_channels),
		magneto_masks, &sensor_info, NULL, ORLUNE_VEHICLE_MAGNETO_SCAN,
	},
	[ORLUNE_VEHICLE_MOTORS] = {
		"orlune-esc", "orlune-esc-trig", motors_channels, ARRAY_SIZE(motors_channels),
		motors_masks, &motors_info, NULL, ORLUNE_VEHICLE_MOTORS_SCAN,
	},
};

struct vehicle_unit {
	unsigned int index;
	const struct unit_desc *desc;
	struct iio_dev *indio_dev;
	struct iio_trigger *trig;
	/* One batch at a time goes through the trigger. */
	struct mutex push_lock;
	u8 *batch;
	unsigned int batch_count;
	unsigned int refused;	/* scans of the batch a full buffer refused */
};

/* A message on its way to the feeder. */
struct outgoing {
	struct list_head node;
	struct orlune_vehicle_msg msg;
	char payload[];
};

/* An attribute waiting for the feeder's answer. */
struct request {
	struct list_head node;
	u32 id;
	struct completion done;
	bool answered;		/* off the list, status and value set */
	int status;
	size_t length;
	char value[PAGE_SIZE];
};

static struct {
	spinlock_t lock;	/* everything below */
	bool feeder;		/* the node is open */
	u32 next_id;
	struct list_head outgoing;
	struct list_head requests;
	wait_queue_head_t readable;
	struct vehicle_unit *units[ORLUNE_VEHICLE_UNITS];
} vehicle;

static struct miscdevice vehicle_misc;

/* Queues a message for the feeder. -ENODEV when there is none. */
static int send(u32 kind, u32 unit, u32 id, s32 status, const char *a, size_t a_len,
		const char *b, size_t b_len)
{
	struct outgoing *out;
	unsigned long flags;
	int rc = 0;

	out = kmalloc(sizeof(*out) + a_len + b_len, GFP_KERNEL);
	if (!out)
		return -ENOMEM;
	out->msg = (struct orlune_vehicle_msg){
		.kind = kind, .unit = unit, .id = id, .status = status,
		.length = a_len + b_len,
	};
	if (a_len)
		memcpy(out->payload, a, a_len);
	if (b_len)
		memcpy(out->payload + a_len, b, b_len);
	spin_lock_irqsave(&vehicle.lock, flags);
	if (vehicle.feeder)
		list_add_tail(&out->node, &vehicle.outgoing);
	else
		rc = -ENODEV;
	spin_unlock_irqrestore(&vehicle.lock, flags);
	if (rc)
		kfree(out);
	else
		wake_up_interruptible(&vehicle.readable);
	return rc;
}

/*
 * Asks the feeder to read (value null) or write an attribute of a unit.
 * Returns the length of the value read, 0 for a write, or a negative errno:
 * the feeder's, -ENODEV without a feeder, -ETIMEDOUT without an answer.
 */
static ssize_t ask(u32 unit, const char *file, const char *value, size_t value_len, char *buf)
{
	struct request *req;
	unsigned long flags;
	ssize_t rc;
	long left;

	if (value_len > ORLUNE_VEHICLE_PAYLOAD_MAX - strlen(file) - 1)
		return -EINVAL;
	req = kzalloc(sizeof(*req), GFP_KERNEL);
	if (!req)
		return -ENOMEM;
	init_completion(&req->done);
	spin_lock_irqsave(&vehicle.lock, flags);
	if (!vehicle.feeder) {
		spin_unlock_irqrestore(&vehicle.lock, flags);
		kfree(req);
		return -ENODEV;
	}
	req->id = ++vehicle.next_id;
	list_add_tail(&req->node, &vehicle.requests);
	spin_unlock_irqrestore(&vehicle.lock, flags);

	if (value)
		rc = send(ORLUNE_VEHICLE_WRITE, unit, req->id, 0, file, strlen(file) + 1, value, value_len);
	else
		rc = send(ORLUNE_VEHICLE_READ, unit, req->id, 0, file, strlen(file), NULL, 0);
	left = rc ? 0 : wait_for_completion_killable_timeout(&req->done, ANSWER_TIMEOUT);

	spin_lock_irqsave(&vehicle.lock, flags);
	if (req->answered) {
		rc = req->status < 0 ? req->status : (value ? 0 : req->length);
	} else {
		/* Nobody answered: the request is withdrawn. */
		list_del(&req->node);
		if (!rc)
			rc = left < 0 ? left : -ETIMEDOUT;
	}
	spin_unlock_irqrestore(&vehicle.lock, flags);
	if (rc >= 0 && !value)
		rc = sysfs_emit(buf, "%.*s\n", (int)req->length, req->value);
	kfree(req);
	return rc;
}

static ssize_t vehicle_ext_read(struct iio_dev *indio_dev, uintptr_t private,
				const struct iio_chan_spec *chan, char *buf)
{
	struct vehicle_unit *u = iio_priv(indio_dev);
	const char *file = (const char *)private;
	size_t len = strlen(file);
	ssize_t rc;

	/* A raw value is a single conversion: not while the buffer runs. */
	if (len > 4 && !strcmp(file + len - 4, "_raw")) {
		rc = iio_device_claim_direct_mode(indio_dev);
		if (rc)
			return rc;
		rc = ask(u->index, file, NULL, 0, buf);
		iio_device_release_direct_mode(indio_dev);
		return rc;
	}
	return ask(u->index, file, NULL, 0, buf);
}

static ssize_t vehicle_attr_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	struct vehicle_unit *u = iio_priv(dev_to_iio_dev(dev));

	return ask(u->index, attr->attr.name, NULL, 0, buf);
}

static ssize_t vehicle_attr_store(struct device *dev, struct device_attribute *attr,
				  const char *buf, size_t len)
{
	struct vehicle_unit *u = iio_priv(dev_to_iio_dev(dev));
	ssize_t rc = ask(u->index, attr->attr.name, buf, len, NULL);

	return rc < 0 ? rc : len;
}

static ssize_t vehicle_trigger_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	struct vehicle_unit *u = iio_trigger_get_drvdata(to_iio_trigger(dev));

	return ask(u->index | ORLUNE_VEHICLE_TRIGGER, attr->attr.name, NULL, 0, buf);
}

static ssize_t vehicle_trigger_store(struct device *dev, struct device_attribute *attr,
				     const char *buf, size_t len)
{
	struct vehicle_unit *u = iio_trigger_get_drvdata(to_iio_trigger(dev));
	ssize_t rc = ask(u->index | ORLUNE_VEHICLE_TRIGGER, attr->attr.name, buf, len, NULL);

	return rc < 0 ? rc : len;
}

/* A CLOCK_MONOTONIC time on the clock the device stamps with. */
static s64 on_device_clock(struct iio_dev *indio_dev, s64 mono)
{
	switch (iio_device_get_clock(indio_dev)) {
	case CLOCK_MONOTONIC:
	case CLOCK_MONOTONIC_COARSE:
		return mono;
	case CLOCK_REALTIME:
	case CLOCK_REALTIME_COARSE:
		return ktime_mono_to_real(mono);
	case CLOCK_BOOTTIME:
		return ktime_mono_to_any(mono, TK_OFFS_BOOT);
	case CLOCK_TAI:
		return ktime_mono_to_any(mono, TK_OFFS_TAI);
	default:
		/* monotonic_raw runs at its own rate: today's offset. */
		return mono + iio_get_time_ns(indio_dev) - ktime_get_ns();
	}
}

/* Runs inside iio_trigger_poll_chained, in the feeder's write: pushes the
 * batch, each scan stamped on the device's clock. */
static irqreturn_t vehicle_trigger_handler(int irq, void *p)
{
	struct iio_poll_func *pf = p;
	struct iio_dev *indio_dev = pf->indio_dev;
	struct vehicle_unit *u = iio_priv(indio_dev);
	unsigned int size = u->desc->scan_bytes;
	u8 scan[SCAN_MAX] __aligned(8);
	unsigned int i;
	s64 mono;

	for (i = 0; i < u->batch_count; i++) {
		memcpy(scan, u->batch + i * size, size);
		/* The feeder stamps on CLOCK_MONOTONIC. */
		mono = get_unaligned_le64(scan + size - 8);
		if (iio_push_to_buffers_with_timestamp(indio_dev, scan,
						       on_device_clock(indio_dev, mono)))
			u->refused++;
	}
	iio_trigger_notify_done(indio_dev->trig);
	return IRQ_HANDLED;
}

static int vehicle_postenable(struct iio_dev *indio_dev)
{
	struct vehicle_unit *u = iio_priv(indio_dev);

	send(ORLUNE_VEHICLE_BUFFER, u->index, 0, 1, NULL, 0, NULL, 0);
	return 0;
}

static int vehicle_predisable(struct iio_dev *indio_dev)
{
	struct vehicle_unit *u = iio_priv(indio_dev);

	send(ORLUNE_VEHICLE_BUFFER, u->index, 0, 0, NULL, 0, NULL, 0);
	return 0;
}

static const struct iio_buffer_setup_ops vehicle_buffer_ops = {
	.postenable = vehicle_postenable,
	.predisable = vehicle_predisable,
};

/* Each unit's trigger serves that unit alone, and the unit no other. */
static int vehicle_validate_trigger(struct iio_dev *indio_dev, struct iio_trigger *trig)
{
	struct vehicle_unit *u = iio_priv(indio_dev);

	return trig == u->trig ? 0 : -EINVAL;
}


static const struct iio_trigger_ops vehicle_trigger_ops = {
	.validate_device = iio_trigger_validate_own_device,
};

/* The feeder's SCANS: through the trigger into the unit's buffers. A unit
 * with no buffer running, or whose trigger is not attached, drops them, as
 * hardware does. Returns the number of scans a full buffer refused. */
static ssize_t push_scans(const struct orlune_vehicle_msg *msg, const char __user *payload)
{
	struct vehicle_unit *u;
	ssize_t rc = 0;

	if (msg->unit >= ORLUNE_VEHICLE_UNITS)
		return -EINVAL;
	u = vehicle.units[msg->unit];
	if (msg->count > ORLUNE_VEHICLE_PAYLOAD_MAX / u->desc->scan_bytes ||
	    msg->length != msg->count * u->desc->scan_bytes)
		return -EINVAL;
	mutex_lock(&u->push_lock);
	if (copy_from_user(u->batch, payload, msg->length)) {
		rc = -EFAULT;
	} else {
		u->batch_count = msg->count;
		u->refused = 0;
		iio_trigger_poll_chained(u->trig);
		rc = u->refused;
		u->batch_count = 0;
	}
	mutex_unlock(&u->push_lock);
	return rc;
}

static ssize_t take_answer(const struct orlune_vehicle_msg *msg, const char __user *payload)
{
	struct request *req, *found = NULL;
	char value[128];
	char *text = value;
	unsigned long flags;
	ssize_t rc = 0;

	/* Copied before the lock is taken: the user's pages may fault. */
	if (msg->length > sizeof(value)) {
		text = kmalloc(msg->length, GFP_KERNEL);
		if (!text)
			return -ENOMEM;
	}
	if (copy_from_user(text, payload, msg->length)) {
		rc = -EFAULT;
		goto out;
	}
	spin_lock_irqsave(&vehicle.lock, flags);
	list_for_each_entry(req, &vehicle.requests, node) {
		if (req->id == msg->id) {
			found = req;
			break;
		}
	}
	if (found) {
		list_del(&found->node);
		found->answered = true;
		found->status = msg->status > 0 ? -EIO : msg->status;
		found->length = min_t(size_t, msg->length, sizeof(found->value) - 2);
		memcpy(found->value, text, found->length);
		complete(&found->done);
	}
	spin_unlock_irqrestore(&vehicle.lock, flags);
	/* An answer after its time is not an error: the reader has gone. */
out:
	if (text != value)
		kfree(text);
	return rc;
}

static ssize_t vehicle_write(struct file *file, const char __user *buf, size_t len, loff_t *pos)
{
	struct orlune_vehicle_msg msg;
	ssize_t rc;

	if (len < sizeof(msg) || copy_from_user(&msg, buf, sizeof(msg)))
		return len < sizeof(msg) ? -EINVAL : -EFAULT;
	if (msg.length != len - sizeof(msg) || msg.length > ORLUNE_VEHICLE_PAYLOAD_MAX)
		return -EINVAL;
	switch (msg.kind) {
	case ORLUNE_VEHICLE_SCANS:
		rc = push_scans(&msg, buf + sizeof(msg));
		/* Short by the scans refused. */
		if (rc > 0)
			return len - rc * vehicle.units[msg.unit]->desc->scan_bytes;
		break;
	case ORLUNE_VEHICLE_ANSWER:
		rc = take_answer(&msg, buf + sizeof(msg));
		break;
	default:
		rc = -EINVAL;
	}
	return rc ? rc : len;
}

static ssize_t vehicle_read(struct file *file, char __user *buf, size_t len, loff_t *pos)
{
	struct outgoing *out;
	unsigned long flags;
	size_t done = 0, size;
	int rc;

	for (;;) {
		spin_lock_irqsave(&vehicle.lock, flags);
		if (!list_empty(&vehicle.outgoing))
			break;
		spin_unlock_irqrestore(&vehicle.lock, flags);
		if (file->f_flags & O_NONBLOCK)
			return -EAGAIN;
		rc = wait_event_interruptible(vehicle.readable, !list_empty(&vehicle.outgoing));
		if (rc)
			return rc;
	}
	/* Whole messages, as many as fit; each is taken off the list first, so
	 * that the copy runs without the lock. */
	while (!list_empty(&vehicle.outgoing)) {
		out = list_first_entry(&vehicle.outgoing, struct outgoing, node);
		size = sizeof(out->msg) + out->msg.length;
		if (done + size > len)
			break;
		list_del(&out->node);
		spin_unlock_irqrestore(&vehicle.lock, flags);
		rc = copy_to_user(buf + done, &out->msg, sizeof(out->msg)) ||
		     copy_to_user(buf + done + sizeof(out->msg), out->payload, out->msg.length);
		kfree(out);
		if (rc)
			return -EFAULT;
		done += size;
		spin_lock_irqsave(&vehicle.lock, flags);
	}
	spin_unlock_irqrestore(&vehicle.lock, flags);
	return done ? done : -EINVAL;
}

static __poll_t vehicle_poll(struct file *file, poll_table *wait)
{
	__poll_t mask = EPOLLOUT | EPOLLWRNORM;

	poll_wait(file, &vehicle.readable, wait);
	if (!list_empty(&vehicle.outgoing))
		mask |= EPOLLIN | EPOLLRDNORM;
	return mask;
}

static int vehicle_open(struct inode *inode, struct file *file)
{
	unsigned long flags;
	unsigned int i;

	spin_lock_irqsave(&vehicle.lock, flags);
	if (vehicle.feeder) {
		spin_unlock_irqrestore(&vehicle.lock, flags);
		return -EBUSY;
	}
	vehicle.feeder = true;
	spin_unlock_irqrestore(&vehicle.lock, flags);
	/* A new feeder learns of the buffers already running. */
	for (i = 0; i < ORLUNE_VEHICLE_UNITS; i++)
		if (iio_buffer_enabled(vehicle.units[i]->indio_dev))
			send(ORLUNE_VEHICLE_BUFFER, i, 0, 1, NULL, 0, NULL, 0);
	return stream_open(inode, file);
}

static int vehicle_release(struct inode *inode, struct file *file)
{
	struct outgoing *out, *next_out;
	struct request *req, *next_req;
	unsigned long flags;
	LIST_HEAD(gone);

	spin_lock_irqsave(&vehicle.lock, flags);
	vehicle.feeder = false;
	list_splice_init(&vehicle.outgoing, &gone);
	list_for_each_entry_safe(req, next_req, &vehicle.requests, node) {
		list_del(&req->node);
		req->answered = true;
		req->status = -ENODEV;
		complete(&req->done);
	}
	spin_unlock_irqrestore(&vehicle.lock, flags);
	list_for_each_entry_safe(out, next_out, &gone, node)
		kfree(out);
	return 0;
}

static const struct file_operations vehicle_fops = {
	.owner = THIS_MODULE,
	.open = vehicle_open,
	.release = vehicle_release,
	.read = vehicle_read,
	.write = vehicle_write,
	.poll = vehicle_poll,
	.llseek = no_llseek,
};

static struct miscdevice vehicle_misc = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "orlune-vehicle",
	.fops = &vehicle_fops,
	.mode = 0600,
};

static void unit_remove(struct vehicle_unit *u)
{
	iio_device_unregister(u->indio_dev);
	iio_triggered_buffer_cleanup(u->indio_dev);
	iio_trigger_unregister(u->trig);
	iio_trigger_free(u->trig);
	kfree(u->batch);
	iio_device_free(u->indio_dev);
}

static int unit_add(unsigned int index, struct vehicle_unit **out)
{
	const struct unit_desc *desc = &units[index];
	struct iio_dev *indio_dev;
	struct vehicle_unit *u;
	int rc = -ENOMEM;

	indio_dev = iio_device_alloc(vehicle_misc.this_device, sizeof(*u));
	if (!indio_dev)
		return -ENOMEM;
	u = iio_priv(indio_dev);
	u->index = index;
	u->desc = desc;
	u->indio_dev = indio_dev;
	mutex_init(&u->push_lock);
	u->batch = kmalloc(ORLUNE_VEHICLE_PAYLOAD_MAX, GFP_KERNEL);
	if (!u->batch)
		goto free_dev;
	indio_dev->name = desc->name;
	indio_dev->info = desc->info;
	indio_dev->modes = INDIO_DIRECT_MODE;
	indio_dev->channels = desc->channels;
	indio_dev->num_channels = desc->num_channels;
	indio_dev->available_scan_masks = desc->masks;

	u->trig = iio_trigger_alloc(vehicle_misc.this_device, "%s", desc->trigger);
	if (!u->trig)
		goto free_batch;
	u->trig->ops = &vehicle_trigger_ops;
	u->trig->dev.groups = desc->trigger_groups;
	iio_trigger_set_drvdata(u->trig, u);
	rc = iio_trigger_register(u->trig);
	if (rc)
		goto free_trigger;
	rc = iio_triggered_buffer_setup(indio_dev, NULL, vehicle_trigger_handler, &vehicle_buffer_ops);
	if (rc)
		goto unregister_trigger;
	rc = iio_device_register(indio_dev);
	if (rc)
		goto cleanup_buffer;
	*out = u;
	return 0;

cleanup_buffer:
	iio_triggered_buffer_cleanup(indio_dev);
unregister_trigger:
	iio_trigger_unregister(u->trig);
free_trigger:
	iio_trigger_free(u->trig);
free_batch:
	kfree(u->batch);
free_dev:
	iio_device_free(indio_dev);
	return rc;
}

static int __init vehicle_init(void)
{
	unsigned int i;
	int rc;

	spin_lock_init(&vehicle.lock);
	INIT_LIST_HEAD(&vehicle.outgoing);
	INIT_LIST_HEAD(&vehicle.requests);
	init_waitqueue_head(&vehicle.readable);
	rc = misc_register(&vehicle_misc);
	if (rc)
		return rc;
	for (i = 0; i < ORLUNE_VEHICLE_UNITS; i++) {
		rc = unit_add(i, &vehicle.units[i]);
		if (rc) {
			pr_err("orlune_vehicle: cannot register %s: %d\n", units[i].name, rc);
			while (i--)
				unit_remove(vehicle.units[i]);
			misc_deregister(&vehicle_misc);
			return rc;
		}
	}
	return 0;
}

static void __exit vehicle_exit(void)
{
	unsigned int i = ORLUNE_VEHICLE_UNITS;

	while (i--)
		unit_remove(vehicle.units[i]);
	misc_deregister(&vehicle_misc);
}

module_init(vehicle_init);
module_exit(vehicle_exit);

MODULE_DESCRIPTION("orlune virtual vehicle: IIO devices fed from user space");
/* GPL-2.0 or Apache-2.0, at your choice. */
MODULE_LICENSE("GPL and additional rights");
