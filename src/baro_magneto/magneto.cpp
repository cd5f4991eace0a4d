// SPDX-License-Identifier: Apache-2.0
// The magnetometer module: the three-axis field of a polled IIO sensor in
// microtesla, turned into the vehicle frame and corrected for its thermal
// bias at the temperature the caller gives (the barometer's of the same
// cycle, since the magnetometer's own die is not characterised), published
// to "sensors_magnetometer".
#include <sensors/baro_magneto.h>
#include <sensors/calib.h>

#include <cerrno>
#include <cstring>

#include "baro_magneto/polled_sensor.h"
#include "common/owned.h"
#include "platform/iio_helper.h"
#include "platform/sched_config.h"
#include "driver/ready_sources.h"

namespace {

constexpr log_tag kTag{"magneto"};

// Telemetry rate assumed when the device keeps its own sampling rate.
constexpr uint32_t kDefaultPeriodUs = 10000;
// The device reports gauss per raw unit.
constexpr double kMicroteslaPerGauss = 100.0;
// The temperature scale is in milli-degrees per unit; the offset then needs
// 1000 x the single-precision 273.15 (273.1499938964844 widened to double).
constexpr double kMilliDegreesPerDegree = 1000.0;
constexpr double kCelsiusToKelvinMilli = 273149.9938964844;

enum channel_index { MAGN_X, MAGN_Y, MAGN_Z, TIMESTAMP, TEMPERATURE, CHANNEL_COUNT };

} // namespace

struct magneto_ctx {
    const sensors_magneto_config *config;
    iio_device *device;
    iio_device *trigger;
    iio_buffer *buffer;
    polled::source source; // what the cycle's one poll found on buffer
    iio_channel *channels[CHANNEL_COUNT];
    channel_decoder decoders[CHANNEL_COUNT];
    double scales[3];   // uT per raw unit
    double temp_offset; // raw units, including the shift to kelvin
    double temp_scale;  // K per raw unit
    float matrix[3][3]; // sensor frame to vehicle frame
    magneto_calib *calibration;
    sensors_magneto_data *record;
    shm_producer *producer;
};

namespace {

// Binds the channels and reads the scales (and the temperature's scale and
// offset when the configuration asks for the temperature). The device
// samples every period_us, 0 when it keeps a rate of its own.
bool bind_channels(magneto_ctx &m, uint32_t period_us)
{
    const bool with_temp = m.config->use_temperature != 0;
    iio_channel_binding bindings[CHANNEL_COUNT] = {
        {"magn_x", &m.channels[MAGN_X]},
        {"magn_y", &m.channels[MAGN_Y]},
        {"magn_z", &m.channels[MAGN_Z]},
        {"temp0", &m.channels[TEMPERATURE]},
        {"timestamp", &m.channels[TIMESTAMP]},
    };
    if (!with_temp)
        bindings[3] = bindings[4];
    const size_t channel_count = with_temp ? 5 : 4;
    const iio_attr_double attrs[] = {
        {"in_magn_x_scale", &m.scales[0], true},
        {"in_magn_y_scale", &m.scales[1], true},
        {"in_magn_z_scale", &m.scales[2], true},
        {"in_temp0_scale", &m.temp_scale}, // 0 has a message of its own below
        {"in_temp0_offset", &m.temp_offset},
    };
    const size_t attr_count = with_temp ? 5 : 3;

    m.buffer = buffer_create(m.device, bindings, channel_count, polled::kKernelLength, polled::kScansPerRefill, 0);
    if (!m.buffer)
        return false;
    polled::watch(&m.source, m.buffer, period_us);
    for (int i = 0; i < CHANNEL_COUNT; i++)
        m.decoders[i] = channel_decoder_of(m.channels[i], m.buffer);
    return attr_read_doubles(m.device, attrs, attr_count) >= 0;
}

int apply_scheduling(const magneto_ctx &m, void *sched)
{
    auto *handle = static_cast<sched_config *>(sched);
    const char *name = polled::device_name(m.device);
    int r = sched_config_apply(handle, "magnetometer");
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "%s: can't reconfigure '%s' thread: %s", name, name, strerror(-r));
        return r;
    }
    r = sched_config_apply(handle, m.config->trigger);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "%s: can't reconfigure '%s' thread: %s", name, polled::device_name(m.trigger),
                strerror(-r));
        return r;
    }
    return 0;
}

} // namespace

extern "C" void magneto_destroy(magneto_ctx *magneto)
{
    if (!magneto)
        return;
    producer_destroy(magneto->producer);
    device_deinit(magneto->device, magneto->trigger, magneto->buffer);
    magneto_calib_destroy(magneto->calibration);
    free(magneto);
}

extern "C" magneto_ctx *magneto_new(const sensors_magneto_config *config, iio_context *iio, void *sched,
                                    sensors_magneto_data *data)
{
    if (!config || !iio || !data)
        return nullptr;
    owned<magneto_ctx, magneto_destroy> magneto{zeroed_new<magneto_ctx>()};
    if (!magneto)
        return nullptr;
    magneto->config = config;
    magneto->record = data;

    magneto->device = device_init(iio, config->device, 1);
    if (!magneto->device)
        return nullptr;
    magneto->trigger = trigger_init(iio, config->trigger, magneto->device);
    if (!magneto->trigger)
        return nullptr;

    uint32_t period = kDefaultPeriodUs;
    if (config->sampling_frequency != 0) {
        int r = iio_device_attr_write_longlong(magneto->device, "sampling_frequency",
                                               (long long)config->sampling_frequency);
        if (r < 0) {
            log_msg(kTag, LOG_ERR, "%s:%d: can't set magneto sampling frequency to %d err=%d(%s)", "magneto_new",
                    __LINE__, config->sampling_frequency, -r, strerror(-r));
            return nullptr;
        }
        // The device decides which rates it takes; one it took must still
        // give a telemetry period of a whole microsecond or more.
        if (config->sampling_frequency < 0 || config->sampling_frequency > polled::kMaxFrequencyHz) {
            log_msg(kTag, LOG_ERR, "%s: magneto sampling frequency %d Hz is not in 1..%d Hz",
                    polled::device_name(magneto->device), config->sampling_frequency, polled::kMaxFrequencyHz);
            return nullptr;
        }
        period = polled::period_us(config->sampling_frequency);
    }

    if (!bind_channels(*magneto, config->sampling_frequency != 0 ? period : 0))
        return nullptr;
    for (double &scale : magneto->scales)
        scale *= kMicroteslaPerGauss;
    if (config->use_temperature) {
        if (magneto->temp_scale == 0.0) {
            log_msg(kTag, LOG_ERR, "%s: temperature scale cannot be equal to zero",
                    polled::device_name(magneto->device));
            return nullptr;
        }
        magneto->temp_offset += kCelsiusToKelvinMilli / magneto->temp_scale;
        magneto->temp_scale /= kMilliDegreesPerDegree;
    }

    if (config->matrix_from_device_tree) {
        if (attr_read_matrix(magneto->device, "in_mount_matrix", magneto->matrix) < 0)
            return nullptr;
    } else {
        memcpy(magneto->matrix, config->rotation_matrix, sizeof magneto->matrix);
    }

    if (apply_scheduling(*magneto, sched) < 0)
        return nullptr;

    magneto->calibration = magneto_calib_new();
    if (!magneto->calibration) {
        log_msg(kTag, LOG_ERR, "can't init calibration");
        return nullptr;
    }

    magneto->producer = polled::make_producer(kTag, "magneto_new", "sensors_magnetometer", period, magneto->record,
                                              tlm_kind::magneto, "failed to register tlm magneto struct");
    if (!magneto->producer)
        return nullptr;
    return magneto.release();
}

extern "C" int magneto_start(magneto_ctx *magneto)
{
    if (!magneto)
        return -EINVAL;
    polled::restart(&magneto->source);
    return polled::as_status(device_enable(magneto->device, magneto->trigger, magneto->buffer));
}

extern "C" int magneto_stop(magneto_ctx *magneto)
{
    if (!magneto)
        return -EINVAL;
    return polled::as_status(device_disable(magneto->device, magneto->trigger));
}

ready_hint *magneto_ready_hint(magneto_ctx *magneto)
{
    return magneto ? &magneto->source.hint : nullptr;
}

extern "C" int magneto_read(magneto_ctx *magneto, uint32_t *updated, float temperature)
{
    if (!magneto || !updated)
        return -EINVAL;
    int r = polled::poll(magneto->buffer, &magneto->source);
    if (r <= 0)
        return r;
    sensors_magneto_data &d = *magneto->record;
    for (int axis = 0; axis < 3; axis++)
        d.field[axis] =
            float(double(buffer_first_float(magneto->buffer, magneto->decoders[MAGN_X + axis])) * magneto->scales[axis]);
    // The flag is consulted at every read; the channel exists only when it
    // was set at creation.
    if (magneto->config->use_temperature && magneto->channels[TEMPERATURE])
        d.temperature = float((buffer_first_float(magneto->buffer, magneto->decoders[TEMPERATURE]) +
                               magneto->temp_offset) *
                              magneto->temp_scale);
    buffer_first_timestamp(magneto->buffer, magneto->decoders[TIMESTAMP], &d.timestamp);
    polled::arrived(&magneto->source, d.timestamp);
    vector_rotate(d.field, magneto->matrix);
    magneto_calib_apply(magneto->calibration, d.field, temperature);
    *updated |= SENSORS_UPDATED_MAGNETO;
    return r;
}

extern "C" int magneto_tlm_push(magneto_ctx *magneto)
{
    if (!magneto || !magneto->producer)
        return -EINVAL;
    return producer_put_sample(magneto->producer, &magneto->record->timestamp);
}
