// SPDX-License-Identifier: Apache-2.0
// The barometer module: pressure and die temperature of a polled IIO
// pressure sensor, in pascal and kelvin, with the factory pressure bias
// taken out, published to "sensors_barometer".
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

constexpr log_tag kTag{"baro"};

// The device reports kilopascal and milli-degrees Celsius per raw unit.
constexpr double kPascalPerKilopascal = 1000.0;
constexpr double kMilliDegreesPerDegree = 1000.0;
// 273.15 as the single-precision constant the flight logs were made with:
// 273.1499938964844 once widened to double.
constexpr double kCelsiusToKelvin = double(273.15f);
// Bits 0 and 1 of the sub-record's flags: a pressure and a temperature.
constexpr uint32_t kFlagsValid = 0x3;

enum channel_index { PRESSURE, TEMPERATURE, TIMESTAMP, CHANNEL_COUNT };

} // namespace

struct barometer_ctx {
    const sensors_baro_config *config;
    iio_device *device;
    iio_device *trigger;
    iio_buffer *buffer;
    polled::source source; // what the cycle's one poll found on buffer
    iio_channel *channels[CHANNEL_COUNT];
    channel_decoder decoders[CHANNEL_COUNT];
    double pressure_offset; // raw units; always 0
    double pressure_scale;  // Pa per raw unit
    double temp_offset;     // raw units, including the shift to kelvin
    double temp_scale;      // K per raw unit
    baro_calib *calibration;
    sensors_baro_data *record;
    shm_producer *producer;
};

extern "C" void barometer_destroy(barometer_ctx *baro)
{
    if (!baro)
        return;
    producer_destroy(baro->producer);
    device_deinit(baro->device, baro->trigger, baro->buffer);
    baro_calib_destroy(baro->calibration);
    free(baro);
}

extern "C" barometer_ctx *barometer_new(const sensors_baro_config *config, iio_context *iio, void *sched,
                                        sensors_baro_data *data)
{
    if (!config || !iio || !data)
        return nullptr;
    // The rate gives the telemetry period. Devices other than an lps22hb
    // get no rate from the configuration reader and stop here.
    if (config->sampling_frequency <= 0) {
        log_msg(kTag, LOG_ERR, "invalid barometer sampling-frequency %d: must be positive", config->sampling_frequency);
        return nullptr;
    }
    owned<barometer_ctx, barometer_destroy> baro{zeroed_new<barometer_ctx>()};
    if (!baro)
        return nullptr;
    baro->config = config;
    baro->record = data;

    baro->device = device_init(iio, config->device, 1);
    if (!baro->device)
        return nullptr;
    baro->trigger = trigger_init(iio, config->trigger, baro->device);
    if (!baro->trigger)
        return nullptr;

    const iio_channel_binding bindings[CHANNEL_COUNT] = {
        {"pressure0", &baro->channels[PRESSURE]},
        {"temp1", &baro->channels[TEMPERATURE]},
        {"timestamp", &baro->channels[TIMESTAMP]},
    };
    baro->buffer = buffer_create(baro->device, bindings, CHANNEL_COUNT, polled::kKernelLength,
                                 polled::kScansPerRefill, 0);
    if (!baro->buffer)
        return nullptr;
    polled::watch(&baro->source, baro->buffer, polled::period_us(config->sampling_frequency));
    for (int i = 0; i < CHANNEL_COUNT; i++)
        baro->decoders[i] = channel_decoder_of(baro->channels[i], baro->buffer);

    const iio_attr_double attrs[] = {
        {"in_pressure0_scale", &baro->pressure_scale, true},
        {"in_temp1_scale", &baro->temp_scale, true},
    };
    if (attr_read_doubles(baro->device, attrs, std::size(attrs)) < 0)
        return nullptr;
    baro->pressure_scale *= kPascalPerKilopascal;
    baro->pressure_offset = 0;
    baro->temp_scale /= kMilliDegreesPerDegree;
    baro->temp_offset = kCelsiusToKelvin / baro->temp_scale;
    log_msg(kTag, LOG_DEBUG, "barometer pressure offset=%f scale=%f", baro->pressure_offset, baro->pressure_scale);
    log_msg(kTag, LOG_DEBUG, "barometer temperature offset=%f scale=%f", baro->temp_offset, baro->temp_scale);

    const char *name = polled::device_name(baro->device);
    int r = iio_device_attr_write_longlong(baro->device, "sampling_frequency", (long long)config->sampling_frequency);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "%s: can't set barometer sampling frequency: %s", name, strerror(-r));
        return nullptr;
    }
    r = sched_config_apply(static_cast<sched_config *>(sched), "barometer");
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "can't reconfigure thread %s: %s", name, strerror(-r));
        return nullptr;
    }

    baro->calibration = baro_calib_new();
    if (!baro->calibration) {
        log_msg(kTag, LOG_ERR, "can't init calibration");
        return nullptr;
    }

    const uint32_t period = polled::period_us(config->sampling_frequency);
    if (period == 0) {
        log_msg(kTag, LOG_ERR, "%s: barometer sampling frequency %d Hz is above %d Hz", name,
                config->sampling_frequency, polled::kMaxFrequencyHz);
        return nullptr;
    }
    baro->producer = polled::make_producer(kTag, "barometer_new", "sensors_barometer", period, baro->record,
                                           tlm_kind::baro, "failed to register tlm baro struct");
    if (!baro->producer)
        return nullptr;
    return baro.release();
}

extern "C" int barometer_start(barometer_ctx *baro)
{
    if (!baro)
        return -EINVAL;
    polled::restart(&baro->source);
    return polled::as_status(device_enable(baro->device, baro->trigger, baro->buffer));
}

extern "C" int barometer_stop(barometer_ctx *baro)
{
    if (!baro)
        return -EINVAL;
    return polled::as_status(device_disable(baro->device, baro->trigger));
}

ready_hint *barometer_ready_hint(barometer_ctx *baro)
{
    return baro ? &baro->source.hint : nullptr;
}

extern "C" int barometer_read(barometer_ctx *baro, uint32_t *updated)
{
    if (!baro || !updated)
        return -EINVAL;
    int r = polled::poll(baro->buffer, &baro->source);
    if (r <= 0)
        return r;
    sensors_baro_data &d = *baro->record;
    const float raw_pressure = buffer_first_float(baro->buffer, baro->decoders[PRESSURE]);
    d.pressure = float((double(raw_pressure) + baro->pressure_offset) * baro->pressure_scale);
    const float raw_temp = buffer_first_float(baro->buffer, baro->decoders[TEMPERATURE]);
    d.temperature = float((double(raw_temp) + baro->temp_offset) * baro->temp_scale);
    buffer_first_timestamp(baro->buffer, baro->decoders[TIMESTAMP], &d.timestamp);
    polled::arrived(&baro->source, d.timestamp);
    baro_calib_apply(baro->calibration, &d);
    d.flags |= kFlagsValid;
    *updated |= SENSORS_UPDATED_BARO;
    return r;
}

extern "C" int barometer_tlm_push(barometer_ctx *baro)
{
    if (!baro || !baro->producer)
        return -EINVAL;
    return producer_put_sample(baro->producer, &baro->record->timestamp);
}
