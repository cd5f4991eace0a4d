// SPDX-License-Identifier: Apache-2.0
// The IMU module: set-up of the inertial sensor's device, trigger and buffer,
// and the per-cycle conversion of a batch into the imu sub-record.
#include <sensors/calib.h>
#include <sensors/imu.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "calib/calib_sets.h"
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
    // The six vector channels are plain 16-bit values, read as they lie.
    bool in_place;
    // And the temperature a signed 16-bit value, the timestamp 64 bits, all
    // of them at a known place in the scan: the usual layout, whose scans
    // are read without asking the decoders.
    bool plain;
    imu_calib *calibration;
    // The calibration's terms at the temperature of the batch they were
    // last evaluated for: a die warms far more slowly than a batch comes,
    // so most batches find them already at their temperature.
    imu_calib_terms terms;
    uint64_t terms_temperature; // the bits of the double
    bool has_terms;
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

// Scans of the batch that hold a value of the channel at first: those in
// which it starts before the end of the data, at most a batch.
size_t scans_holding(const char *first, const char *end, ptrdiff_t step, uint32_t fifo_size)
{
    if (!first || first >= end || step <= 0)
        return 0;
    const size_t scans = size_t((end - first + step - 1) / step);
    return scans < fifo_size ? scans : fifo_size;
}

// A vector's three values, scaled.
inline void scale_vector(int16_t x, int16_t y, int16_t z, double scale, float out[3])
{
    out[0] = float(double(x) * scale);
    out[1] = float(double(y) * scale);
    out[2] = float(double(z) * scale);
}

// A vector's three values as they lie in the usual layout (two bytes each,
// all of them the value), scaled.
inline void load_vector(const char *x, const char *y, const char *z, double scale, float out[3])
{
    scale_vector(load_unaligned<int16_t>(x), load_unaligned<int16_t>(y), load_unaligned<int16_t>(z), scale, out);
}

// One scan's vector of a three-axis group (at bytes into the batch), scaled:
// read as the values lie in the usual layout, else through the channels'
// format.
void read_vector(const imu_ctx &imu, channel_index first, const char *const p[CHANNEL_COUNT], ptrdiff_t at,
                 double scale, float out[3])
{
    if (imu.in_place)
        return load_vector(p[first] + at, p[first + 1] + at, p[first + 2] + at, scale, out);
    scale_vector(int16_t(channel_decode(imu.decoders[first], p[first] + at)),
                 int16_t(channel_decode(imu.decoders[first + 1], p[first + 1] + at)),
                 int16_t(channel_decode(imu.decoders[first + 2], p[first + 2] + at)), scale, out);
}

float temperature_of(const imu_ctx &imu, float raw)
{
    return float((double(raw) + imu.temp_offset) * imu.temp_scale + kCelsiusToKelvin);
}

struct scan_counts {
    size_t accel, gyro, temp, timestamp; // scans holding a value of each
};

// The scans of a batch through the decoders, each channel as far as it holds
// values.
void read_scans(const imu_ctx &imu, const char *const p[CHANNEL_COUNT], ptrdiff_t step, const scan_counts &n,
                sensors_imu_data &d)
{
    const size_t scans = std::max({n.accel, n.gyro, n.temp, n.timestamp});
    for (size_t k = 0; k < scans; k++) {
        const ptrdiff_t at = ptrdiff_t(k) * step;
        if (k < n.accel) {
            read_vector(imu, ACCEL_X, p, at, imu.accel_scale, d.accel[k]);
            d.sample_flags[k] = 0;
        }
        if (k < n.gyro)
            read_vector(imu, ANGLVEL_X, p, at, imu.gyro_scale, d.gyro[k]);
        if (k < n.temp)
            d.temperature[k] = temperature_of(imu, float(channel_decode(imu.decoders[TEMP], p[TEMP] + at)));
        if (k < n.timestamp)
            d.timestamps[k] = ns_to_timespec(channel_decode(imu.decoders[TIMESTAMP], p[TIMESTAMP] + at));
    }
}

// A whole batch in the usual layout, every channel in every scan at its
// place: the number of scans the batch's data holds whole, or 0 for any
// other batch.
size_t plain_scans(const imu_ctx &imu, const char *start, const char *end, ptrdiff_t step)
{
    const ptrdiff_t bytes = end - start;
    if (!imu.plain || step <= 0 || bytes <= 0 || bytes % step != 0)
        return 0;
    return std::min(size_t(bytes / step), size_t(imu.fifo_size));
}

// A value of a plain batch's scan.
template <typename T>
T plain_value(const imu_ctx &imu, const char *scan, channel_index c)
{
    return load_unaligned<T>(scan + imu.decoders[c].offset);
}

void read_plain_vector(const imu_ctx &imu, const char *scan, channel_index first, double scale, float out[3])
{
    const channel_decoder *d = &imu.decoders[first];
    load_vector(scan + d[0].offset, scan + d[1].offset, scan + d[2].offset, scale, out);
}

// The temperatures and times of a plain batch's scans, read as they lie (as
// the decoders would give them). Its vectors come after: their thermal
// correction needs the batch's mean temperature.
void read_plain_stamps(const imu_ctx &imu, const char *start, ptrdiff_t step, size_t scans, sensors_imu_data &d)
{
    const char *scan = start;
    for (size_t k = 0; k < scans; k++, scan += step) {
        d.sample_flags[k] = 0;
        d.temperature[k] = temperature_of(imu, float(plain_value<int16_t>(imu, scan, TEMP)));
        d.timestamps[k] = ns_to_timespec(plain_value<int64_t>(imu, scan, TIMESTAMP));
    }
}

// Where the turn into the vehicle's axes comes: before the thermal
// correction, after it, or nowhere.
enum class turn { before, after, none };

turn turn_of(const sensors_imu_config &config)
{
    return !config.rotation_enabled ? turn::none : config.rotation_after_calib ? turn::after : turn::before;
}

// One vector turned and corrected, in the configured order.
template <turn T>
inline void settle(float v[3], const float rotation[9], const double bias[3], const double m[3][3])
{
    if constexpr (T == turn::before)
        vector_rotate(v, rotation);
    imu_calib_correct(v, bias, m);
    if constexpr (T == turn::after)
        vector_rotate(v, rotation);
}

// The batch's n vectors of each kind, read, settled in place.
template <turn T>
void settle_read(const imu_ctx &imu, sensors_imu_data &d, unsigned n)
{
    const imu_calib_terms &t = imu.terms;
    for (unsigned i = 0; i < n; i++) {
        settle<T>(d.accel[i], imu.accel_matrix, t.accel_bias, t.accel_matrix);
        settle<T>(d.gyro[i], imu.gyro_matrix, t.gyro_bias, t.gyro_matrix);
    }
}

// The n vectors of each kind of a plain batch, each read, settled and
// stored in one go.
template <turn T>
void settle_plain(const imu_ctx &imu, const char *start, ptrdiff_t step, unsigned n, sensors_imu_data &d)
{
    const imu_calib_terms &t = imu.terms;
    const char *scan = start;
    for (unsigned k = 0; k < n; k++, scan += step) {
        float accel[3], gyro[3];
        read_plain_vector(imu, scan, ACCEL_X, imu.accel_scale, accel);
        read_plain_vector(imu, scan, ANGLVEL_X, imu.gyro_scale, gyro);
        settle<T>(accel, imu.accel_matrix, t.accel_bias, t.accel_matrix);
        settle<T>(gyro, imu.gyro_matrix, t.gyro_bias, t.gyro_matrix);
        memcpy(d.accel[k], accel, sizeof accel);
        memcpy(d.gyro[k], gyro, sizeof gyro);
    }
}

template <turn T>
void settle_batch(const imu_ctx &imu, const char *start, ptrdiff_t step, bool plain, unsigned n, sensors_imu_data &d)
{
    if (plain)
        settle_plain<T>(imu, start, step, n, d);
    else
        settle_read<T>(imu, d, n);
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
    imu->in_place = true;
    for (int i = 0; i < CHANNEL_COUNT; i++) {
        const channel_decoder &d = imu->decoders[i] = channel_decoder_of(imu->channels[i], imu->buffer);
        if (i < TEMP)
            imu->in_place = imu->in_place && (d.kind == channel_decoder::s16 || d.kind == channel_decoder::u16);
    }
    imu->plain = imu->in_place && imu->decoders[TEMP].kind == channel_decoder::s16 &&
                 imu->decoders[TIMESTAMP].kind == channel_decoder::whole64 &&
                 std::all_of(std::begin(imu->decoders), std::end(imu->decoders),
                             [](const channel_decoder &d) { return d.placed; });

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
    const char *start = static_cast<const char *>(iio_buffer_start(buffer));
    // A plain batch has its vectors read as they are settled, unless they
    // are to be logged as read. Any other is read scan by scan, each
    // channel as far as it holds values (one step apart).
    const bool debug = LOG_DEBUG <= g_log_ceiling.load(std::memory_order_relaxed);
    const size_t plain = debug ? 0 : plain_scans(*imu, start, end, step);
    size_t accel_count = plain, gyro_count = plain, temp_count = plain, ts_count = plain;
    if (plain) {
        read_plain_stamps(*imu, start, step, plain, d);
    } else {
        const char *p[CHANNEL_COUNT];
        for (int c = 0; c < CHANNEL_COUNT; c++)
            p[c] = buffer_first(buffer, start, imu->decoders[c]);
        accel_count = scans_holding(p[ACCEL_X], end, step, imu->fifo_size);
        gyro_count = scans_holding(p[ANGLVEL_X], end, step, imu->fifo_size);
        temp_count = scans_holding(p[TEMP], end, step, imu->fifo_size);
        ts_count = scans_holding(p[TIMESTAMP], end, step, imu->fifo_size);
        read_scans(*imu, p, step, {accel_count, gyro_count, temp_count, ts_count}, d);
    }
    const size_t scans = std::max({accel_count, gyro_count, temp_count, ts_count});
    const bool whole = accel_count == scans && gyro_count == scans && temp_count == scans && ts_count == scans;
    if (debug) {
        for (size_t k = 0; k < accel_count; k++)
            log_msg(kTag, LOG_DEBUG, "Accel\t%+f\t%+f\t%+f", d.accel[k][0], d.accel[k][1], d.accel[k][2]);
        for (size_t k = 0; k < gyro_count; k++)
            log_msg(kTag, LOG_DEBUG, "Gyro\t\t%+f\t%+f\t%+f", d.gyro[k][0], d.gyro[k][1], d.gyro[k][2]);
        for (size_t k = 0; k < temp_count; k++)
            log_msg(kTag, LOG_DEBUG, "Temperature\t%f", d.temperature[k]);
    }

    if (!whole)
        log_msg(kTag, LOG_WARNING, "channels samples number read error: %zu, %zu, %zu, %zu", accel_count, gyro_count,
                temp_count, ts_count);
    if (accel_count != imu->fifo_size)
        log_msg(kTag, LOG_WARNING, "samples count mismatch: nb_read:%zu, fifo_size:%zu", accel_count,
                size_t(imu->fifo_size));
    d.nb_samples = uint8_t(accel_count);

    // The thermal correction at the batch's temperature, and the rotation
    // into the vehicle's axes, before or after it, vector by vector.
    const unsigned n = d.nb_samples;
    if (n > 0) {
        const double temperature = imu_calib_batch_temperature(d, n);
        const auto bits = std::bit_cast<uint64_t>(temperature);
        if (!imu->has_terms || bits != imu->terms_temperature) {
            imu_calib_terms_at(*imu->calibration, temperature, &imu->terms);
            imu->terms_temperature = bits;
            imu->has_terms = true;
        }
    }
    switch (turn_of(*imu->config)) {
    case turn::before: settle_batch<turn::before>(*imu, start, step, plain != 0, n, d); break;
    case turn::after: settle_batch<turn::after>(*imu, start, step, plain != 0, n, d); break;
    case turn::none: settle_batch<turn::none>(*imu, start, step, plain != 0, n, d); break;
    }
    // The record's slots beyond the batch are turned too, as the whole
    // record always was.
    if (imu->config->rotation_enabled) {
        for (unsigned i = n; i < SENSORS_IMU_MAX_SAMPLES; i++) {
            vector_rotate(d.accel[i], imu->accel_matrix);
            vector_rotate(d.gyro[i], imu->gyro_matrix);
        }
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
