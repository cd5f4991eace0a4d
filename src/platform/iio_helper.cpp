// SPDX-License-Identifier: Apache-2.0
#include "platform/iio_helper.h"

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "platform/log.h"
#include "platform/time_helpers.h"

namespace {

constexpr log_tag kTag{"iio_helper"};
constexpr size_t kValueMax = 256; // a mount matrix is about 60 characters

// Where libiio keeps an attribute found by its sysfs file name.
struct attr_location {
    const iio_channel *channel; // null: a device attribute
    const char *name;           // the name libiio reads it by
};

int find_attr(const iio_device *device, const char *file, attr_location *where)
{
    const unsigned device_attrs = iio_device_get_attrs_count(device);
    for (unsigned i = 0; i < device_attrs; i++) {
        const char *name = iio_device_get_attr(device, i);
        if (name && std::strcmp(name, file) == 0) {
            *where = {nullptr, name};
            return 0;
        }
    }
    const unsigned channels = iio_device_get_channels_count(device);
    for (unsigned c = 0; c < channels; c++) {
        const iio_channel *chn = iio_device_get_channel(device, c);
        const unsigned attrs = iio_channel_get_attrs_count(chn);
        for (unsigned i = 0; i < attrs; i++) {
            const char *name = iio_channel_get_attr(chn, i);
            const char *filename = iio_channel_attr_get_filename(chn, name);
            if (filename && std::strcmp(filename, file) == 0) {
                *where = {chn, name};
                return 0;
            }
        }
    }
    return -ENOENT;
}

const char *device_label(const iio_device *device)
{
    const char *name = iio_device_get_name(device);
    return name ? name : iio_device_get_id(device);
}

int read_attr_text(iio_device *device, const char *file, char *value, size_t size)
{
    attr_location where;
    int rc = find_attr(device, file, &where);
    if (rc) {
        log_msg(kTag, LOG_ERR, "%s: no attribute %s", device_label(device), file);
        return rc;
    }
    const ssize_t n = where.channel ? iio_channel_attr_read(where.channel, where.name, value, size)
                                    : iio_device_attr_read(device, where.name, value, size);
    if (n < 0) {
        log_msg(kTag, LOG_ERR, "%s: can't read %s: %s", device_label(device), file, std::strerror(static_cast<int>(-n)));
        return static_cast<int>(n);
    }
    return 0;
}

void disable_bound(const iio_channel_binding *bindings, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (bindings[i].channel && *bindings[i].channel) {
            iio_channel_disable(*bindings[i].channel);
            *bindings[i].channel = nullptr;
        }
    }
}

// Whether libiio can convert a sample of this format: its value bits,
// shifted into place, lie inside the whole bytes of its storage. libiio's
// conversion trusts the format and reaches outside the sample when they do not.
bool format_convertible(const iio_data_format *f)
{
    const unsigned storage = f->length / 8 * 8;
    return f->bits != 0 && f->bits <= storage && f->shift <= storage - f->bits;
}

// Whether the channel's samples are what the caller can read: one value per
// scan, in its expected storage or in one that channel_convert_int handles.
bool storage_fits(const iio_device *device, const iio_channel *channel, unsigned expected_bits)
{
    const iio_data_format *f = iio_channel_get_data_format(channel);
    const char *id = iio_channel_get_id(channel);
    if (f->repeat != 1) { // 0 would give the scan no room for it
        log_msg(kTag, LOG_ERR, "%s: channel %s repeats its value %u times in a scan, once expected",
                device_label(device), id, f->repeat);
        return false;
    }
    if (expected_bits && f->length != expected_bits) {
        log_msg(kTag, LOG_ERR, "%s: channel %s has %u-bit storage, %u-bit expected", device_label(device), id,
                f->length, expected_bits);
        return false;
    }
    if (f->length != 8 && f->length != 16 && f->length != 32 && f->length != 64) {
        log_msg(kTag, LOG_ERR, "%s: channel %s has %u-bit storage, 8, 16, 32 or 64 expected", device_label(device),
                id, f->length);
        return false;
    }
    if (!format_convertible(f)) {
        log_msg(kTag, LOG_ERR, "%s: channel %s has %u value bits shifted by %u in %u-bit storage",
                device_label(device), id, f->bits, f->shift, f->length);
        return false;
    }
    return true;
}

int write_enable(iio_device *device, const char *value)
{
    const ssize_t n = iio_device_buffer_attr_write(device, "enable", value);
    // A board's iiod lists no "enable" and refuses it: there a buffer runs
    // from its creation to its destruction.
    if (n == -ENOENT && !iio_device_find_buffer_attr(device, "enable"))
        return 0;
    if (n < 0)
        log_msg(kTag, LOG_ERR, "%s: can't write buffer enable %s: %s", device_label(device), value,
                std::strerror(static_cast<int>(-n)));
    return static_cast<int>(n);
}

// The plug-in compares scans' timestamps with the monotonic clock. A kernel
// stamps a device's scans on the clock its current_timestamp_clock names,
// realtime until someone chooses; a device without the attribute stamps on
// a clock nobody can choose.
int select_monotonic_clock(iio_device *device)
{
    const char *label = device_label(device);
    if (!iio_device_find_attr(device, "current_timestamp_clock")) {
        log_msg(kTag, LOG_ERR, "IIO device %s: no current_timestamp_clock: the clock of its timestamps is unknown",
                label);
        return -ENOTSUP;
    }
    char clock[32] = "";
    const ssize_t n = iio_device_attr_read(device, "current_timestamp_clock", clock, sizeof clock);
    clock[std::strcspn(clock, "\n")] = '\0';
    if (n > 0 && std::strcmp(clock, "monotonic") == 0)
        return 0;
    const ssize_t w = iio_device_attr_write(device, "current_timestamp_clock", "monotonic");
    if (w < 0) {
        log_msg(kTag, LOG_ERR, "IIO device %s: can't stamp its scans on the monotonic clock (it uses %s): %s", label,
                n > 0 ? clock : "an unreadable one", std::strerror(static_cast<int>(-w)));
        return static_cast<int>(w);
    }
    log_msg(kTag, LOG_INFO, "IIO device %s: scans stamped on the monotonic clock, not %s", label,
            n > 0 ? clock : "an unreadable one");
    return 0;
}

} // namespace

iio_device *device_init(iio_context *ctx, const char *name, int buffered)
{
    if (!ctx || !name)
        return nullptr;
    iio_device *device = iio_context_find_device(ctx, name);
    if (!device) {
        log_msg(kTag, LOG_ERR, "IIO device %s not found", name);
        return nullptr;
    }
    if (buffered) {
        bool streams = false;
        for (unsigned i = 0; i < iio_device_get_channels_count(device); i++)
            streams = streams || iio_channel_is_scan_element(iio_device_get_channel(device, i));
        if (!streams) {
            log_msg(kTag, LOG_ERR, "IIO device %s has no buffer", name);
            return nullptr;
        }
        if (iio_device_find_channel(device, "timestamp", false) && select_monotonic_clock(device) < 0)
            return nullptr;
    }
    return device;
}

iio_device *trigger_init(iio_context *ctx, const char *name, iio_device *device)
{
    if (!ctx || !name)
        return nullptr;
    iio_device *trigger = iio_context_find_device(ctx, name);
    if (!trigger || !iio_device_is_trigger(trigger)) {
        log_msg(kTag, LOG_ERR, "IIO trigger %s not found", name);
        return nullptr;
    }
    if (device) {
        const iio_device *current = nullptr;
        // A trigger cannot change under an enabled buffer: leave it alone when
        // it is already the one.
        if (iio_device_get_trigger(device, &current) == 0 && current == trigger)
            return trigger;
        const int rc = iio_device_set_trigger(device, trigger);
        if (rc < 0) {
            log_msg(kTag, LOG_ERR, "%s: can't attach trigger %s: %s", device_label(device), name, std::strerror(-rc));
            return nullptr;
        }
    }
    return trigger;
}

int attr_read_doubles(iio_device *device, const iio_attr_double *attrs, size_t count)
{
    if (!device || (!attrs && count))
        return -EINVAL;
    for (size_t i = 0; i < count; i++) {
        if (!attrs[i].name || !attrs[i].value)
            return -EINVAL;
        attr_location where;
        int rc = find_attr(device, attrs[i].name, &where);
        if (rc) {
            log_msg(kTag, LOG_ERR, "%s: no attribute %s", device_label(device), attrs[i].name);
            return rc;
        }
        rc = where.channel ? iio_channel_attr_read_double(where.channel, where.name, attrs[i].value)
                           : iio_device_attr_read_double(device, where.name, attrs[i].value);
        if (rc < 0) {
            log_msg(kTag, LOG_ERR, "%s: can't read %s: %s", device_label(device), attrs[i].name, std::strerror(-rc));
            return rc;
        }
        // A NaN or an infinity would reach every reading through it.
        const double v = *attrs[i].value;
        if (!std::isfinite(v) || (attrs[i].scale && v == 0.0)) {
            log_msg(kTag, LOG_ERR, "%s: %s is %g, not a usable %s", device_label(device), attrs[i].name, v,
                    attrs[i].scale ? "scale" : "value");
            return -EINVAL;
        }
    }
    return 0;
}

int matrix_parse(const char *text, float matrix[9])
{
    if (!text || !matrix)
        return -EINVAL;
    float values[9];
    const char *p = text;
    for (int i = 0; i < 9; i++) {
        // Numbers separated by ',' within a row and ';' between rows.
        while (*p == ' ' || *p == '\t')
            p++;
        char *end;
        errno = 0;
        const double v = std::strtod(p, &end);
        if (end == p || errno == ERANGE)
            return -EINVAL;
        values[i] = static_cast<float>(v);
        // "nan", "inf" or a number beyond a float would reach every rotated
        // reading.
        if (!std::isfinite(values[i]))
            return -EINVAL;
        p = end;
        while (*p == ' ' || *p == '\t')
            p++;
        const char expected = i == 8 ? '\0' : (i % 3 == 2 ? ';' : ',');
        if (i == 8) {
            while (*p == '\n' || *p == ' ')
                p++;
        }
        if (*p != expected)
            return -EINVAL;
        if (*p)
            p++;
    }
    std::memcpy(matrix, values, sizeof values);
    return 0;
}

int attr_read_matrix(iio_device *device, const char *name, float matrix[9])
{
    if (!device || !name || !matrix)
        return -EINVAL;
    char value[kValueMax];
    int rc = read_attr_text(device, name, value, sizeof value);
    if (rc)
        return rc;
    rc = matrix_parse(value, matrix);
    if (rc)
        log_msg(kTag, LOG_ERR, "%s: %s is not a 3x3 matrix: '%s'", device_label(device), name, value);
    return rc;
}

iio_buffer *buffer_create(iio_device *device, const iio_channel_binding *bindings, size_t count,
                          size_t kernel_length, size_t samples_per_refill, int blocking)
{
    if (!device || !bindings || !count || !samples_per_refill)
        return nullptr;
    for (size_t i = 0; i < count; i++)
        if (bindings[i].channel)
            *bindings[i].channel = nullptr;
    for (size_t i = 0; i < count; i++) {
        iio_channel *chn = bindings[i].name ? iio_device_find_channel(device, bindings[i].name, false) : nullptr;
        if (!chn || !bindings[i].channel || !iio_channel_is_scan_element(chn)) {
            log_msg(kTag, LOG_ERR, "%s: no channel %s to stream", device_label(device),
                    bindings[i].name ? bindings[i].name : "(null)");
            disable_bound(bindings, count);
            return nullptr;
        }
        if (!storage_fits(device, chn, bindings[i].storage_bits)) {
            disable_bound(bindings, count);
            return nullptr;
        }
        iio_channel_enable(chn);
        *bindings[i].channel = chn;
    }
    if (kernel_length && iio_device_find_buffer_attr(device, "length")) {
        const int rc = iio_device_buffer_attr_write_longlong(device, "length", static_cast<long long>(kernel_length));
        if (rc < 0) {
            log_msg(kTag, LOG_ERR, "%s: can't set buffer length %zu: %s", device_label(device), kernel_length,
                    std::strerror(-rc));
            disable_bound(bindings, count);
            return nullptr;
        }
    } else if (kernel_length) {
        // On a board, libiio hides buffer/length and writes it itself when it
        // creates the buffer: the samples of a refill times its count of
        // kernel buffers (4 unless told otherwise). A backend without kernel
        // buffers (-ENOSYS) has nothing to size.
        const unsigned buffers = unsigned((kernel_length + samples_per_refill - 1) / samples_per_refill);
        const int rc = iio_device_set_kernel_buffers_count(device, buffers);
        if (rc < 0 && rc != -ENOSYS) {
            log_msg(kTag, LOG_ERR, "%s: can't set buffer length %zu: %s", device_label(device), kernel_length,
                    std::strerror(-rc));
            disable_bound(bindings, count);
            return nullptr;
        }
    }
    iio_buffer *buffer = iio_device_create_buffer(device, samples_per_refill, false);
    if (!buffer) {
        const int err = errno;
        log_msg(kTag, LOG_ERR, "%s: can't create buffer of %zu samples: %s", device_label(device), samples_per_refill,
                std::strerror(err));
        disable_bound(bindings, count);
        return nullptr;
    }
    // The network backend cannot switch modes (-ENOSYS): there the device
    // itself blocks (a batched sensor) or answers -EAGAIN (a polled one).
    const int rc = iio_buffer_set_blocking_mode(buffer, blocking != 0);
    if (rc < 0 && rc != -ENOSYS) {
        log_msg(kTag, LOG_ERR, "%s: can't set blocking mode %d: %s", device_label(device), blocking, std::strerror(-rc));
        iio_buffer_destroy(buffer);
        disable_bound(bindings, count);
        return nullptr;
    }
    return buffer;
}

int device_enable(iio_device *device, iio_device *trigger, iio_buffer *buffer)
{
    if (!device || !buffer)
        return -EINVAL;
    if (trigger) {
        const iio_device *current = nullptr;
        if (iio_device_get_trigger(device, &current) != 0 || current != trigger) {
            const int rc = iio_device_set_trigger(device, trigger);
            if (rc < 0) {
                log_msg(kTag, LOG_ERR, "%s: can't attach trigger %s: %s", device_label(device), device_label(trigger),
                        std::strerror(-rc));
                return rc;
            }
        }
    }
    return write_enable(device, "1");
}

int device_disable(iio_device *device, iio_device *trigger)
{
    (void)trigger; // stays attached: the kernel refuses to swap it under an enabled buffer
    if (!device)
        return -EINVAL;
    return write_enable(device, "0");
}

void device_deinit(iio_device *device, iio_device *trigger, iio_buffer *buffer)
{
    if (buffer)
        iio_buffer_destroy(buffer);
    if (device && trigger) {
        const int rc = iio_device_set_trigger(device, nullptr);
        if (rc < 0)
            log_msg(kTag, LOG_WARNING, "%s: can't detach trigger: %s", device_label(device), std::strerror(-rc));
    }
}

int64_t channel_convert_int(const iio_channel *channel, const void *src)
{
    if (!channel || !src)
        return 0;
    const iio_data_format *f = iio_channel_get_data_format(channel);
    const unsigned bytes = f->length / 8;
    const unsigned repeat = f->repeat ? f->repeat : 1;
    alignas(8) unsigned char out[64] = {};
    if (bytes == 0 || bytes > 8 || bytes * repeat > sizeof out || !format_convertible(f))
        return 0;
    // Byte order, shift, sign extension or masking, as libiio does it.
    iio_channel_convert(channel, out, src);
    switch (bytes) {
    case 1: {
        uint8_t v;
        std::memcpy(&v, out, 1);
        return f->is_signed ? static_cast<int8_t>(v) : v;
    }
    case 2: {
        uint16_t v;
        std::memcpy(&v, out, 2);
        return f->is_signed ? static_cast<int16_t>(v) : v;
    }
    case 4: {
        uint32_t v;
        std::memcpy(&v, out, 4);
        return f->is_signed ? int64_t{static_cast<int32_t>(v)} : int64_t{v};
    }
    case 8: {
        uint64_t v;
        std::memcpy(&v, out, 8);
        return static_cast<int64_t>(v);
    }
    default:
        return 0;
    }
}

channel_decoder channel_decoder_of(const iio_channel *channel)
{
    channel_decoder d{};
    d.channel = channel;
    const iio_data_format *f = channel ? iio_channel_get_data_format(channel) : nullptr;
    if (!f || f->is_be || f->repeat != 1 || !format_convertible(f) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
        return d;
    if (f->length != 8 && f->length != 16 && f->length != 32 && f->length != 64)
        return d;
    // libiio shifts the storage right, then sign-extends or masks from the
    // value bits unless the format is fully defined (the whole storage is
    // the value); channel_convert_int then reads the storage's width.
    d.bytes = uint8_t(f->length / 8);
    d.shift = uint8_t(f->shift);
    d.width = uint8_t(f->is_fully_defined ? f->length : f->bits);
    d.is_signed = f->is_signed;
    d.unused = uint8_t(64 - d.width);
    d.kind = channel_decoder::shifted;
    if (d.shift == 0 && d.width == f->length) {
        static constexpr channel_decoder::kind_t kWhole[4][2] = {
            {channel_decoder::u8, channel_decoder::s8},
            {channel_decoder::u16, channel_decoder::s16},
            {channel_decoder::u32, channel_decoder::s32},
            {channel_decoder::whole64, channel_decoder::whole64},
        };
        d.kind = kWhole[std::countr_zero(unsigned(d.bytes))][d.is_signed];
    }
    return d;
}

channel_decoder channel_decoder_of(const iio_channel *channel, const iio_buffer *buffer)
{
    channel_decoder d = channel_decoder_of(channel);
    if (!channel || !buffer)
        return d;
    // libiio places a channel by the buffer's mask and the formats of the
    // channels before it, from the start of the buffer; a disabled channel
    // is placed at the end. (A board's buffer has no memory before its first
    // refill: the places are then counted from null.)
    const auto start = reinterpret_cast<uintptr_t>(iio_buffer_start(buffer));
    const auto first = reinterpret_cast<uintptr_t>(iio_buffer_first(buffer, channel));
    const auto end = reinterpret_cast<uintptr_t>(iio_buffer_end(buffer));
    const ptrdiff_t step = iio_buffer_step(buffer);
    if (first != end && first >= start && first - start < uintptr_t(step)) {
        d.placed = true;
        d.offset = uint32_t(first - start);
    }
    return d;
}

float channel_convert_float(const iio_channel *channel, const void *src)
{
    return static_cast<float>(channel_convert_int(channel, src));
}

float buffer_first_float(const iio_buffer *buffer, const channel_decoder &decoder)
{
    if (!buffer || !decoder.channel)
        return 0.0f;
    const char *p = buffer_first(buffer, decoder);
    if (!p || p >= static_cast<const char *>(iio_buffer_end(buffer)))
        return 0.0f;
    return static_cast<float>(channel_decode(decoder, p));
}

float buffer_first_float(const iio_buffer *buffer, const iio_channel *channel)
{
    return buffer_first_float(buffer, channel_decoder_of(channel));
}

int buffer_first_timestamp(const iio_buffer *buffer, const channel_decoder &decoder, timespec *timestamp)
{
    if (!buffer || !decoder.channel || !timestamp)
        return -EINVAL;
    const char *p = buffer_first(buffer, decoder);
    if (!p || p >= static_cast<const char *>(iio_buffer_end(buffer)))
        return -ENODATA;
    *timestamp = ns_to_timespec(channel_decode(decoder, p));
    return 0;
}

int buffer_first_timestamp(const iio_buffer *buffer, const iio_channel *channel, timespec *timestamp)
{
    return buffer_first_timestamp(buffer, channel_decoder_of(channel), timestamp);
}

namespace {

// libiio's own defaults: the local backend's, and every other's.
constexpr unsigned kLocalTimeoutMs = 1000;
constexpr unsigned kRemoteTimeoutMs = 5000;

// The timeouts set on the contexts in use; a plug-in has one context, tests
// a few at a time. Operations run on the host's thread, one at a time.
struct context_timeout_entry {
    const iio_context *ctx;
    unsigned timeout_ms;
};
context_timeout_entry g_timeouts[16];
size_t g_timeouts_next; // the slot reused when every one is taken

context_timeout_entry *timeout_entry(const iio_context *ctx)
{
    for (context_timeout_entry &e : g_timeouts)
        if (e.ctx == ctx)
            return &e;
    return nullptr;
}

} // namespace

bool context_is_local(const iio_context *ctx)
{
    const char *backend = ctx ? iio_context_get_name(ctx) : nullptr;
    return backend && std::strcmp(backend, "local") == 0;
}

unsigned context_timeout(const iio_context *ctx)
{
    if (!ctx)
        return 0;
    if (const context_timeout_entry *e = timeout_entry(ctx))
        return e->timeout_ms;
    const unsigned timeout_ms = context_is_local(ctx) ? kLocalTimeoutMs : kRemoteTimeoutMs;
    // Kept where a slot is free, so that the next question is one comparison.
    if (context_timeout_entry *e = timeout_entry(nullptr))
        *e = {ctx, timeout_ms};
    return timeout_ms;
}

int context_timeout_set(iio_context *ctx, unsigned timeout_ms)
{
    if (!ctx)
        return -EINVAL;
    if (context_timeout(ctx) == timeout_ms)
        return 0;
    const int rc = iio_context_set_timeout(ctx, timeout_ms);
    if (rc < 0)
        return rc;
    context_timeout_entry *e = timeout_entry(ctx);
    if (!e)
        e = timeout_entry(nullptr);
    if (!e) {
        e = &g_timeouts[g_timeouts_next];
        g_timeouts_next = (g_timeouts_next + 1) % std::size(g_timeouts);
    }
    *e = {ctx, timeout_ms};
    return 0;
}

void context_timeout_forget(const iio_context *ctx)
{
    if (context_timeout_entry *e = ctx ? timeout_entry(ctx) : nullptr)
        *e = {};
}
