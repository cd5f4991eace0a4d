// SPDX-License-Identifier: Apache-2.0
// The IMU module: set-up of the inertial sensor's device, trigger and buffer,
// and the per-cycle conversion of a batch into the imu sub-record.
#include <sensors/calib.h>
#include <sensors/imu.h>

#include <cerrno>
#include <cstring>

#include "common/owned.h"
#include "platform/iio_helper.h"
#include "platform/log.h"
#include "platform/sched_config.h"
#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"

namespace {

constexpr log_tag kTag{"imu"};

// Samples per batch when the configuration sets no rate divider, and the most
// the imu sub-record holds.
constexpr uint32_t kDefaultFifoSize = 5;
constexpr uint32_t kMaxFifoSize = SENSORS_IMU_MAX_SAMPLES;
// The kernel buffer holds this many batches.
constexpr uint32_t kKernelBatches = 5;
// Two seconds of batches in the telemetry section.
constexpr uint32_t kTlmHistoryUs = 2000000;
// 273.15 as the single-precision constant the flight logs were made with:
// 273.1499938964844 once widened to double.
constexpr double kCelsiusToKelvin = double(273.15f);

enum channel_index { ACCEL_X, ACCEL_Y, ACCEL_Z, ANGLVEL_X, ANGLVEL_Y, ANGLVEL_Z, TEMP, TIMESTAMP, CHANNEL_COUNT };

constexpr const char *kChannelNames[CHANNEL_COUNT] = {
    "accel_x", "accel_y", "accel_z", "anglvel_x", "anglvel_y", "anglvel_z", "temp0", "timestamp",
};

// Scheduling names applied when the configuration lists none.
constexpr const char *kDefaultThreads[] = {"imu", "imu_spi", "imu_spi_ksoftirq"};

} // namespace

struct imu_ctx {
    const sensors_imu_config *config;
    iio_device *device;
    iio_device *trigger;
    iio_buffer *buffer;
    uint32_t fifo_size;
    iio_channel *channels[CHANNEL_COUNT];
    channel_decoder decoders[CHANNEL_COUNT];
    double gyro_scale;
    double accel_scale;
    double temp_offset;
    double temp_scale;
    float gyro_matrix[9];
    float accel_matrix[9];
    imu_calib *calibration;
    sensors_imu_data *record;
    shm_producer *producer;
};

namespace {

// Checks what the device cannot be asked to do: a batch period below one
// microsecond or more samples than the sub-record holds.
bool config_usable(const sensors_imu_config &config)
{
    if (config.sampling_rate_div < 0 || uint32_t(config.sampling_rate_div) > kMaxFifoSize) {
        log_msg(kTag, LOG_ERR, "invalid imu sampling-rate-div %d: a batch holds 0 (for %u) to %u samples",
                config.sampling_rate_div, kDefaultFifoSize, kMaxFifoSize);
        return false;
    }
    if (config.sampling_frequency <= 0) {
        log_msg(kTag, LOG_ERR, "invalid imu sampling-frequency %d: must be positive", config.sampling_frequency);
        return false;
    }
    uint32_t fifo = config.sampling_rate_div ? uint32_t(config.sampling_rate_div) : kDefaultFifoSize;
    if (uint64_t(fifo) * 1000000u < uint64_t(config.sampling_frequency)) {
        log_msg(kTag, LOG_ERR, "invalid imu sampling-frequency %d: a batch of %u would last less than 1 us",
                config.sampling_frequency, fifo);
        return false;
    }
    return true;
}

int apply_scheduling(void *sched, const sensors_imu_config &config)
{
    auto *handle = static_cast<sched_config *>(sched);
    if (config.thread_cfg_count <= 0 || !config.thread_cfg) {
        for (size_t i = 0; i < std::size(kDefaultThreads); i++) {
            int r = sched_config_apply(handle, kDefaultThreads[i]);
            if (r >= 0)
                continue;
            if (i == 0)
                log_msg(kTag, LOG_ERR, "%s:%d: can't reconfigure imu thread: err=%d(%s)", "imu_new", __LINE__, -r,
                        strerror(-r));
            else
                log_msg(kTag, LOG_ERR, "%s:%d: can't reconfigure spi imu thread err=%d(%s)", "imu_new", __LINE__, -r,
                        strerror(-r));
            return r;
        }
        return 0;
    }
    for (int64_t i = 0; i < config.thread_cfg_count; i++) {
        const char *name = config.thread_cfg[i];
        int r = sched_config_apply(handle, name);
        if (r < 0) {
            log_msg(kTag, LOG_ERR, "%s:%d: can't reconfigure %s thread err=%d(%s)", "imu_new", __LINE__, name, -r,
                    strerror(-r));
            return r;
        }
    }
    return 0;
}

// Converts one three-axis group of the batch (16-bit channels) into vectors.
size_t read_vectors(const imu_ctx &imu, channel_index first, double scale, float (*out)[3], const char *debug_fmt)
{
    const iio_buffer *buffer = imu.buffer;
    const ptrdiff_t step = iio_buffer_step(buffer);
    const char *end = static_cast<const char *>(iio_buffer_end(buffer));
    const char *p[3];
    for (int axis = 0; axis < 3; axis++)
        p[axis] = static_cast<const char *>(iio_buffer_first(buffer, imu.channels[first + axis]));
    // The usual layout, three 16-bit values in place: read as they are.
    bool in_place = true;
    for (int axis = 0; axis < 3; axis++) {
        const channel_decoder &d = imu.decoders[first + axis];
        in_place = in_place && d.bytes == 2 && d.shift == 0 && d.width == 16;
    }
    size_t n = 0;
    if (in_place) {
        const ptrdiff_t y_at = p[1] - p[0], z_at = p[2] - p[0];
        for (const char *scan = p[0]; n < imu.fifo_size && scan < end; scan += step, n++) {
            int16_t x, y, z;
            memcpy(&x, scan, 2);
            memcpy(&y, scan + y_at, 2);
            memcpy(&z, scan + z_at, 2);
            out[n][0] = float(double(x) * scale);
            out[n][1] = float(double(y) * scale);
            out[n][2] = float(double(z) * scale);
            log_msg(kTag, LOG_DEBUG, debug_fmt, out[n][0], out[n][1], out[n][2]);
        }
        return n;
    }
    while (n < imu.fifo_size && p[0] < end) {
        for (int axis = 0; axis < 3; axis++) {
            const auto raw = int16_t(channel_decode(imu.decoders[first + axis], p[axis]));
            out[n][axis] = float(double(raw) * scale);
            p[axis] += step;
        }
        log_msg(kTag, LOG_DEBUG, debug_fmt, out[n][0], out[n][1], out[n][2]);
        n++;
    }
    return n;
}

} // namespace

extern "C" void imu_destroy(imu_ctx *imu)
{
    if (!imu)
        return;
    device_deinit(imu->device, imu->trigger, imu->buffer);
    imu_calib_destroy(imu->calibration);
    producer_destroy(imu->producer);
    free(imu);
}

extern "C" imu_ctx *imu_new(const sensors_imu_config *config, iio_context *iio, void *sched, sensors_imu_data *data)
{
    if (!config || !iio || !data)
        return nullptr;
    if (!config_usable(*config))
        return nullptr;
    owned<imu_ctx, imu_destroy> imu{zeroed_new<imu_ctx>()};
    if (!imu)
        return nullptr;
    imu->config = config;
    imu->record = data;
    imu->fifo_size = config->sampling_rate_div ? uint32_t(config->sampling_rate_div) : kDefaultFifoSize;

    imu->device = device_init(iio, config->device, 1);
    if (!imu->device)
        return nullptr;
    imu->trigger = trigger_init(iio, config->trigger, imu->device);
    if (!imu->trigger)
        return nullptr;

    const iio_attr_double attrs[] = {
        {"in_anglvel_scale", &imu->gyro_scale, true},
        {"in_accel_scale", &imu->accel_scale, true},
        {"in_temp0_scale", &imu->temp_scale, true},
        {"in_temp0_offset", &imu->temp_offset},
    };
    if (attr_read_doubles(imu->device, attrs, std::size(attrs)) < 0)
        return nullptr;

    int r = iio_device_attr_write_longlong(imu->device, "sampling_frequency", (long long)config->sampling_frequency);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "can't set imu sampling frequency to %d: %s", config->sampling_frequency,
                strerror(-r));
        return nullptr;
    }
    if (config->sampling_rate_div) {
        r = iio_device_attr_write_longlong(imu->trigger, "rate_divider", (long long)imu->fifo_size);
        if (r < 0)
            log_msg(kTag, LOG_ERR, "%s:%d: Failed to set sample rate div to %u err=%d(%s)", "imu_new", __LINE__,
                    imu->fifo_size, -r, strerror(-r));
    }

    if (config->matrix_from_device_tree) {
        if (attr_read_matrix(imu->device, "in_anglvel_mount_matrix", imu->gyro_matrix) < 0 ||
            attr_read_matrix(imu->device, "in_accel_mount_matrix", imu->accel_matrix) < 0)
            return nullptr;
    } else {
        memcpy(imu->gyro_matrix, config->rotation_matrix, sizeof imu->gyro_matrix);
        memcpy(imu->accel_matrix, config->rotation_matrix, sizeof imu->accel_matrix);
    }

    iio_channel_binding bindings[CHANNEL_COUNT];
    // The vectors are read as 16-bit values, the timestamp as 64 bits.
    for (int i = 0; i < CHANNEL_COUNT; i++)
        bindings[i] = {kChannelNames[i], &imu->channels[i], i == TIMESTAMP ? 64u : i == TEMP ? 0u : 16u};
    imu->buffer = buffer_create(imu->device, bindings, CHANNEL_COUNT, kKernelBatches * imu->fifo_size,
                                imu->fifo_size, 1);
    if (!imu->buffer)
        return nullptr;
    for (int i = 0; i < CHANNEL_COUNT; i++)
        imu->decoders[i] = channel_decoder_of(imu->channels[i]);

    if (apply_scheduling(sched, *config) < 0)
        return nullptr;

    imu->calibration = imu_calib_new();
    if (!imu->calibration) {
        log_msg(kTag, LOG_ERR, "can't init calibration");
        return nullptr;
    }

    uint32_t period_us = imu->fifo_size * 1000000u / uint32_t(config->sampling_frequency);
    imu->producer = producer_create(config->tlm_section, kTlmHistoryUs / period_us, period_us);
    if (!imu->producer) {
        log_msg(kTag, LOG_ERR, "failed to create sensors_imu tlm");
        return nullptr;
    }
    r = producer_register_struct(imu->producer, imu->record, nullptr, layout_of(tlm_kind::imu));
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "imu_new", __LINE__, "failed to register tlm imu struct", r);
        return nullptr;
    }
    r = producer_complete(imu->producer);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "imu_new", __LINE__, "producer_complete", r);
        return nullptr;
    }
    return imu.release();
}

extern "C" int imu_start(imu_ctx *imu)
{
    if (!imu)
        return -EINVAL;
    int r = device_enable(imu->device, imu->trigger, imu->buffer);
    return r < 0 ? r : 0;
}

extern "C" int imu_stop(imu_ctx *imu)
{
    if (!imu)
        return -EINVAL;
    int r = device_disable(imu->device, imu->trigger);
    return r < 0 ? r : 0;
}

extern "C" int imu_wait(imu_ctx *imu)
{
    if (!imu)
        return -EINVAL;
    ssize_t r = iio_buffer_refill(imu->buffer);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "imu iio_buffer_refill() failed : %d(%s)", int(r), strerror(int(-r)));
        return int(r);
    }
    return 0;
}

extern "C" void imu_rotate_data(imu_ctx *imu)
{
    if (!imu)
        return;
    sensors_imu_data &d = *imu->record;
    for (unsigned i = 0; i < SENSORS_IMU_MAX_SAMPLES; i++) {
        vector_rotate(d.accel[i], imu->accel_matrix);
        vector_rotate(d.gyro[i], imu->gyro_matrix);
    }
}

extern "C" int imu_read(imu_ctx *imu, uint32_t *updated)
{
    if (!imu || !updated)
        return -EINVAL;
    sensors_imu_data &d = *imu->record;
    const iio_buffer *buffer = imu->buffer;
    const ptrdiff_t step = iio_buffer_step(buffer);
    const char *end = static_cast<const char *>(iio_buffer_end(buffer));

    size_t accel_count = read_vectors(*imu, ACCEL_X, imu->accel_scale, d.accel, "Accel\t%+f\t%+f\t%+f");
    for (size_t i = 0; i < accel_count; i++)
        d.sample_flags[i] = 0;
    size_t gyro_count = read_vectors(*imu, ANGLVEL_X, imu->gyro_scale, d.gyro, "Gyro\t\t%+f\t%+f\t%+f");

    size_t temp_count = 0;
    for (const char *p = static_cast<const char *>(iio_buffer_first(buffer, imu->channels[TEMP]));
         temp_count < imu->fifo_size && p < end; p += step, temp_count++) {
        float raw = float(channel_decode(imu->decoders[TEMP], p));
        d.temperature[temp_count] =
            float((double(raw) + imu->temp_offset) * imu->temp_scale + kCelsiusToKelvin);
        log_msg(kTag, LOG_DEBUG, "Temperature\t%f", d.temperature[temp_count]);
    }

    size_t ts_count = 0;
    for (const char *p = static_cast<const char *>(iio_buffer_first(buffer, imu->channels[TIMESTAMP]));
         ts_count < imu->fifo_size && p < end; p += step, ts_count++) {
        d.timestamps[ts_count] = ns_to_timespec(channel_decode(imu->decoders[TIMESTAMP], p));
    }

    if (accel_count != gyro_count || accel_count != temp_count || accel_count != ts_count)
        log_msg(kTag, LOG_WARNING, "channels samples number read error: %zu, %zu, %zu, %zu", accel_count, gyro_count,
                temp_count, ts_count);
    if (accel_count != imu->fifo_size)
        log_msg(kTag, LOG_WARNING, "samples count mismatch: nb_read:%zu, fifo_size:%zu", accel_count,
                size_t(imu->fifo_size));
    d.nb_samples = uint8_t(accel_count);

    if (imu->config->rotation_enabled && !imu->config->rotation_after_calib) {
        imu_rotate_data(imu);
        imu_calib_apply(imu->calibration, &d);
    } else if (imu->config->rotation_enabled) {
        imu_calib_apply(imu->calibration, &d);
        imu_rotate_data(imu);
    } else {
        imu_calib_apply(imu->calibration, &d);
    }
    *updated |= SENSORS_UPDATED_IMU;
    return 0;
}

extern "C" int imu_tlm_push(imu_ctx *imu)
{
    if (!imu || !imu->producer)
        return -EINVAL;
    // A batch without samples has no time to stamp a sample with: nothing new to publish.
    if (imu->record->nb_samples == 0)
        return -ENODATA;
    return producer_put_sample(imu->producer, &imu->record->timestamps[imu->record->nb_samples - 1]);
}
