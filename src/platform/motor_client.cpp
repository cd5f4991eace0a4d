// SPDX-License-Identifier: Apache-2.0
#include "platform/motor_client.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/owned.h"
#include "platform/iio_helper.h"
#include "platform/log.h"
#include "platform/time_helpers.h"

namespace {

constexpr log_tag kTag{"motor_client"};

enum channel_index {
    SPEED0, SPEED1, SPEED2, SPEED3,
    PWM0, PWM1, PWM2, PWM3,
    ERROR0, ERROR1, ERROR2, ERROR3,
    STATUS, DETAIL, VOLTAGE, TIMESTAMP,
    CHANNEL_COUNT
};

constexpr const char *kChannelNames[CHANNEL_COUNT] = {
    "speed0", "speed1", "speed2", "speed3", "pwm0",   "pwm1",   "pwm2",    "pwm3",
    "error0", "error1", "error2", "error3", "status", "detail", "voltage", "timestamp",
};

// The kernel buffer keeps this many samples (a third of a second at 200 Hz)
// before it drops the oldest; a refill takes one sample.
constexpr size_t kKernelSamples = 64;

struct sample {
    uint16_t speed[SENSORS_MOTOR_COUNT];
    uint8_t pwm[SENSORS_MOTOR_COUNT];
    uint8_t error[SENSORS_MOTOR_COUNT];
    uint8_t status;
    uint8_t detail;
    float volts;
    int64_t timestamp_ns;
};

} // namespace

struct motor_client {
    iio_device *device;
    iio_device *trigger;
    iio_buffer *buffer;
    iio_channel *channels[CHANNEL_COUNT];
    channel_decoder decoders[CHANNEL_COUNT];
    // Every channel in the controller's usual format (16-bit speeds and
    // voltage, bytes, a 64-bit timestamp) at its place in the scan: read as
    // the values lie, without asking the decoders.
    bool plain;
    double volts_per_unit;
    int64_t period_ns; // sampling period; 0: unknown
    sample queued;     // kept by a flush for sample_read
    bool has_queued;
    sample ahead;      // taken beyond the last flush's limit
    bool has_ahead;
    int64_t newest_ns; // timestamp of the newest sample taken from the device
    bool has_newest;
    bool read_first; // a fetch reads once without waiting before it waits
    sample current;
    bool has_current;
};

namespace {

const char *label(const iio_device *device)
{
    const char *name = iio_device_get_name(device);
    return name ? name : iio_device_get_id(device);
}

int read_text(motor_client *client, const char *attr, char *text, size_t size)
{
    const ssize_t r = iio_device_attr_read(client->device, attr, text, size);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "%s: can't read %s: %s", label(client->device), attr, strerror(int(-r)));
        return int(r);
    }
    return 0;
}

int read_u32(motor_client *client, const char *attr, uint32_t *value)
{
    long long v = 0;
    const int r = iio_device_attr_read_longlong(client->device, attr, &v);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "%s: can't read %s: %s", label(client->device), attr, strerror(-r));
        return r;
    }
    *value = uint32_t(v);
    return 0;
}

int write_text(motor_client *client, const char *attr, const char *text)
{
    if (!client)
        return -EINVAL;
    const ssize_t r = iio_device_attr_write(client->device, attr, text);
    return r < 0 ? int(r) : 0;
}

// A refill of a board's buffer that may wait polls before it reads, even
// when the sample is there. A sample that is due mostly is: so it is first
// asked for without waiting (one read), and waited for only when it is not.
ssize_t refill(motor_client *client)
{
    if (client->read_first) {
        iio_buffer_set_blocking_mode(client->buffer, false);
        const ssize_t r = iio_buffer_refill(client->buffer);
        iio_buffer_set_blocking_mode(client->buffer, true);
        if (r != -EAGAIN)
            return r;
    }
    return iio_buffer_refill(client->buffer);
}

// The format a channel usually has.
channel_decoder::kind_t usual_kind(int c)
{
    if (c < PWM0 || c == VOLTAGE)
        return channel_decoder::u16;
    return c == TIMESTAMP ? channel_decoder::whole64 : channel_decoder::u8;
}

// A sample from one scan, field(c) giving channel c's value.
template <typename Field>
void sample_of(const motor_client *client, Field field, sample *out)
{
    for (int m = 0; m < SENSORS_MOTOR_COUNT; m++) {
        out->speed[m] = uint16_t(field(channel_index(SPEED0 + m)));
        out->pwm[m] = uint8_t(field(channel_index(PWM0 + m)));
        out->error[m] = uint8_t(field(channel_index(ERROR0 + m)));
    }
    out->status = uint8_t(field(STATUS));
    out->detail = uint8_t(field(DETAIL));
    out->volts = float(double(field(VOLTAGE)) * client->volts_per_unit);
    out->timestamp_ns = field(TIMESTAMP);
}

// Takes the next sample from the device into *out.
int fetch(motor_client *client, sample *out)
{
    const ssize_t r = refill(client);
    if (r < 0)
        return int(r);
    if (r == 0)
        return -EAGAIN;
    const iio_buffer *buffer = client->buffer;
    const char *scan = static_cast<const char *>(iio_buffer_start(buffer));
    if (client->plain) {
        sample_of(
            client,
            [&](channel_index c) -> int64_t {
                const char *at = scan + client->decoders[c].offset;
                switch (usual_kind(c)) {
                case channel_decoder::u16: return load_unaligned<uint16_t>(at);
                case channel_decoder::whole64: return load_unaligned<int64_t>(at);
                default: return load_unaligned<uint8_t>(at);
                }
            },
            out);
    } else {
        sample_of(
            client,
            [&](channel_index c) {
                return channel_decode(client->decoders[c], buffer_first(buffer, scan, client->decoders[c]));
            },
            out);
    }
    client->newest_ns = out->timestamp_ns;
    client->has_newest = true;
    return 0;
}

const sample *current(const motor_client *client)
{
    return client && client->has_current ? &client->current : nullptr;
}

} // namespace

void controller_close(motor_client *client)
{
    if (!client)
        return;
    device_deinit(client->device, client->trigger, client->buffer);
    free(client);
}

motor_client *controller_open(iio_device *trigger, iio_context *ctx, const char *name, int samples, int blocking)
{
    if (!trigger || !ctx || !name)
        return nullptr;
    owned<motor_client, controller_close> client{zeroed_new<motor_client>()};
    if (!client)
        return nullptr;
    client->device = device_init(ctx, name, samples);
    if (!client->device)
        return nullptr;
    if (!trigger_init(ctx, iio_device_get_name(trigger) ? iio_device_get_name(trigger) : iio_device_get_id(trigger),
                      client->device))
        return nullptr;
    client->trigger = trigger;
    if (!samples)
        return client.release();

    double millivolts_per_unit = 0;
    const iio_attr_double scale{"in_voltage_scale", &millivolts_per_unit, true};
    if (attr_read_doubles(client->device, &scale, 1) < 0)
        return nullptr;
    client->volts_per_unit = millivolts_per_unit / 1000.0;

    iio_channel_binding bindings[CHANNEL_COUNT];
    for (int i = 0; i < CHANNEL_COUNT; i++)
        bindings[i] = {kChannelNames[i], &client->channels[i]};
    client->buffer = buffer_create(client->device, bindings, CHANNEL_COUNT, kKernelSamples, 1, blocking);
    if (!client->buffer)
        return nullptr;
    client->plain = true;
    for (int i = 0; i < CHANNEL_COUNT; i++) {
        const channel_decoder &d = client->decoders[i] = channel_decoder_of(client->channels[i], client->buffer);
        client->plain = client->plain && d.placed && d.kind == usual_kind(i);
    }
    // Only libiio's local backend can be asked not to wait for one refill
    // (the mode is the device's, switched without a system call).
    client->read_first = blocking && context_is_local(ctx) && iio_buffer_set_blocking_mode(client->buffer, true) == 0;
    // Nothing is queued before controller_enable.
    const int r = device_disable(client->device, client->trigger);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "%s: can't stop the sample stream: %s", name, strerror(-r));
        return nullptr;
    }
    return client.release();
}

int controller_enable(motor_client *client)
{
    if (!client || !client->buffer)
        return -EINVAL;
    client->has_queued = client->has_ahead = client->has_newest = false;
    // The sampling period tells a flush when the next sample is due; a
    // device that does not tell it gets asked at every flush.
    double hz = 0;
    const bool rated = iio_device_find_attr(client->device, "sampling_frequency") &&
                       iio_device_attr_read_double(client->device, "sampling_frequency", &hz) == 0 && hz > 0;
    client->period_ns = rated ? int64_t(1e9 / hz + 0.5) : 0;
    return device_enable(client->device, client->trigger, client->buffer);
}

int controller_disable(motor_client *client)
{
    if (!client || !client->buffer)
        return -EINVAL;
    return device_disable(client->device, client->trigger);
}

int spin_dir_read(motor_client *client, void *dest)
{
    if (!client)
        return -EINVAL;
    char text[64];
    int r = read_text(client, "spin_dir", text, sizeof text);
    if (r < 0)
        return r;
    unsigned dir[SENSORS_MOTOR_COUNT];
    if (sscanf(text, "%u %u %u %u", &dir[0], &dir[1], &dir[2], &dir[3]) != SENSORS_MOTOR_COUNT) {
        log_msg(kTag, LOG_ERR, "%s: bad spin_dir '%s'", label(client->device), text);
        return -EINVAL;
    }
    auto *out = static_cast<uint8_t *>(dest);
    for (int m = 0; out && m < SENSORS_MOTOR_COUNT; m++)
        out[m] = dir[m] ? 1 : 0;
    return 0;
}

int info_read(motor_client *client, motor_info *info)
{
    if (!client || !info)
        return -EINVAL;
    motor_info got{};
    char type[16];
    char extra[64];
    int r;
    if ((r = read_u32(client, "fw_major", &got.fw_major)) < 0 || (r = read_u32(client, "fw_minor", &got.fw_minor)) < 0 ||
        (r = read_text(client, "fw_type", type, sizeof type)) < 0 ||
        (r = read_u32(client, "fw_build", &got.fw_build)) < 0 ||
        (r = read_u32(client, "hw_version", &got.hw_version)) < 0 ||
        (r = read_text(client, "info_extra", extra, sizeof extra)) < 0 ||
        (r = read_u32(client, "flight_time", &got.flight_time)) < 0 ||
        (r = read_u32(client, "last_error", &got.last_error)) < 0)
        return r;
    if (sscanf(extra, "%u %u", &got.info_extra[0], &got.info_extra[1]) != 2) {
        log_msg(kTag, LOG_ERR, "%s: bad info_extra '%s'", label(client->device), extra);
        return -EINVAL;
    }
    got.fw_type = type[0];
    *info = got;
    return 0;
}

int samples_flush(motor_client *client, const timespec *limit, uint32_t *count)
{
    if (!client || !client->buffer || !limit || !count)
        return -EINVAL;
    int64_t limit_ns = 0;
    if (timespec_to_ns(limit, &limit_ns) < 0)
        return -EINVAL;
    uint32_t found = client->has_queued ? 1 : 0;
    if (limit_ns == 0) {
        if (!found && client->has_ahead) {
            client->queued = client->ahead;
            client->has_ahead = false;
            found = 1;
        }
        int r = 0;
        if (!found && (r = fetch(client, &client->queued)) == 0)
            found = 1;
        client->has_queued = found != 0;
        *count = found;
        return found ? 0 : r;
    }
    int r = -EAGAIN;
    if (client->has_ahead) {
        if (client->ahead.timestamp_ns > limit_ns) {
            *count = found;
            return found ? 0 : -EAGAIN;
        }
        client->queued = client->ahead;
        client->has_queued = true;
        client->has_ahead = false;
        found++;
    }
    // Ask for the next sample while it is due at or before the limit.
    while (!client->has_newest || client->period_ns == 0 || client->newest_ns + client->period_ns <= limit_ns) {
        sample next;
        r = fetch(client, &next);
        if (r < 0)
            break;
        if (next.timestamp_ns > limit_ns) {
            client->ahead = next;
            client->has_ahead = true;
            r = -EAGAIN;
            break;
        }
        client->queued = next;
        client->has_queued = true;
        found++;
    }
    *count = found;
    return found ? 0 : r;
}

int sample_read(motor_client *client)
{
    if (!client)
        return -EINVAL;
    if (!client->has_queued)
        return -ENODATA;
    client->current = client->queued;
    client->has_current = true;
    client->has_queued = false;
    return 0;
}

int sample_speeds(motor_client *client, sensors_motor_speed motor[SENSORS_MOTOR_COUNT])
{
    const sample *s = current(client);
    if (!s || !motor)
        return -EINVAL;
    for (int m = 0; m < SENSORS_MOTOR_COUNT; m++) {
        motor[m].speed = s->speed[m];
        motor[m].pwm = s->pwm[m];
    }
    return 0;
}

int sample_errors(motor_client *client, uint32_t error[SENSORS_MOTOR_COUNT])
{
    const sample *s = current(client);
    if (!s || !error)
        return -EINVAL;
    for (int m = 0; m < SENSORS_MOTOR_COUNT; m++)
        error[m] = s->error[m];
    return 0;
}

int sample_statuses(motor_client *client, uint32_t status[5], uint32_t *detail)
{
    const sample *s = current(client);
    if (!s || !status || !detail)
        return -EINVAL;
    status[0] = s->status;
    status[1] = s->detail;
    status[2] = status[3] = status[4] = 0;
    *detail = s->detail;
    return 0;
}

int sample_voltage(motor_client *client, float *volts)
{
    const sample *s = current(client);
    if (!s || !volts)
        return -EINVAL;
    *volts = s->volts;
    return 0;
}

int sample_timestamp(motor_client *client, timespec *timestamp)
{
    const sample *s = current(client);
    if (!s || !timestamp)
        return -EINVAL;
    *timestamp = ns_to_timespec(s->timestamp_ns);
    return 0;
}

int spin_start(motor_client *client, const char *)
{
    return write_text(client, "spin", "1");
}

int spin_stop(motor_client *client, const char *code)
{
    return write_text(client, "stop", code ? code : "0");
}

int speeds_set(motor_client *client, const uint16_t speeds[SENSORS_MOTOR_COUNT])
{
    if (!speeds)
        return -EINVAL;
    char text[32];
    snprintf(text, sizeof text, "%u %u %u %u", unsigned(speeds[0]), unsigned(speeds[1]), unsigned(speeds[2]),
             unsigned(speeds[3]));
    return write_text(client, "speeds", text);
}

int single_stall_set(motor_client *client, int enable)
{
    return write_text(client, "single_stall", enable ? "1" : "0");
}
