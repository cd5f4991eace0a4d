// SPDX-License-Identifier: Apache-2.0
// iio_helper: the IIO set-up and conversions every IIO sensor module shares,
// on top of libiio. It works the same on a board (libiio's local backend)
// and against a remote iiod (IIOD_REMOTE): attributes are found by their
// sysfs file name, wherever libiio lists them.
//
// Functions that can fail return 0 (or a non-negative count) or a negative
// errno, or null; each failure is logged under the tag "iio_helper".
#pragma once

#include <iio.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

// A channel to enable in buffer_create, and where to store its handle.
// storage_bits: the sample size the caller reads the channel with, 0 for any
// that channel_convert_int handles (8, 16, 32 or 64 bits).
struct iio_channel_binding {
    const char *name;
    iio_channel **channel;
    unsigned storage_bits = 0;
};

// An attribute to read with attr_read_doubles, by sysfs file name
// ("in_accel_scale", "sampling_frequency"), and where to store its value.
// A scale must also be other than 0: every reading is multiplied by it, and
// some are divided by it.
struct iio_attr_double {
    const char *name;
    double *value;
    bool scale = false;
};

// The device named (device name, label or id). With buffered set, the device
// must be able to stream (have scan elements), and one whose scans carry a
// timestamp is made to stamp them on the monotonic clock (its
// current_timestamp_clock, which a kernel sets to realtime by default). Null
// when not found, or when its timestamps cannot be monotonic.
iio_device *device_init(iio_context *ctx, const char *name, int buffered);

// The trigger named; when device is given, the trigger is attached to it
// (a triggered buffer needs its trigger before it is enabled). Null when the
// trigger is missing, is not a trigger, or cannot be attached.
iio_device *trigger_init(iio_context *ctx, const char *name, iio_device *device);

// Reads each attribute as a double; stops at the first failure (-ENOENT for
// an attribute the device does not have, -EINVAL for a value that is not a
// finite number, or a scale of 0).
int attr_read_doubles(iio_device *device, const iio_attr_double *attrs, size_t count);

// Reads a kernel mount matrix ("x1, y1, z1; x2, y2, z2; x3, y3, z3") into
// nine floats, row-major. -EINVAL when it does not hold nine numbers.
int attr_read_matrix(iio_device *device, const char *name, float matrix[9]);
inline int attr_read_matrix(iio_device *device, const char *name, float matrix[3][3])
{
    return attr_read_matrix(device, name, &matrix[0][0]);
}
// The parser behind attr_read_matrix.
int matrix_parse(const char *text, float matrix[9]);

// Checks that each bound channel holds one value per scan in storage the
// caller can read (its storage_bits, or any of 8, 16, 32 and 64 bits), with
// its value bits, shifted into place, inside that storage; then
// enables the bound channels (storing each handle), sets the kernel buffer
// length (in scans) and creates a buffer that each refill fills with up to
// samples_per_refill scans. blocking selects whether a refill waits for a
// full batch; a backend that cannot switch modes (the network one) keeps the
// device's own behaviour. Null on failure, with every channel disabled again.
iio_buffer *buffer_create(iio_device *device, const iio_channel_binding *bindings, size_t count,
                          size_t kernel_length, size_t samples_per_refill, int blocking);

// Starts and stops streaming into an existing buffer (its "enable" buffer
// attribute). device_enable also attaches the trigger when one is given.
// Results: the attribute write's byte count, or a negative errno; 0 through
// a board's iiod, which has no such attribute: there a buffer streams from
// its creation to its destruction.
int device_enable(iio_device *device, iio_device *trigger, iio_buffer *buffer);
int device_disable(iio_device *device, iio_device *trigger);

// Releases what the set-up made: destroys the buffer and detaches the
// trigger. Any argument may be null.
void device_deinit(iio_device *device, iio_device *trigger, iio_buffer *buffer);

struct channel_decoder;
// The channel's value in the buffer's first scan, in the channel's own
// format (sign, bits, storage), as a float; 0 when there is no such sample.
float buffer_first_float(const iio_buffer *buffer, const iio_channel *channel);
float buffer_first_float(const iio_buffer *buffer, const channel_decoder &decoder);
// The first scan's timestamp channel (signed nanoseconds) as a timespec.
// Returns 0, or -EINVAL for null arguments.
int buffer_first_timestamp(const iio_buffer *buffer, const iio_channel *channel, timespec *timestamp);
int buffer_first_timestamp(const iio_buffer *buffer, const channel_decoder &decoder, timespec *timestamp);
// Converts one sample at src, in the channel's format, to a float.
float channel_convert_float(const iio_channel *channel, const void *src);
// Same, as a 64-bit integer (sign-extended or zero-extended); 0 for a format
// that buffer_create would refuse.
int64_t channel_convert_int(const iio_channel *channel, const void *src);

// A channel's sample format, resolved once (when its buffer is made) so that
// the scans of every batch are converted without asking libiio: plain
// little-endian formats (1, 2, 4 or 8 bytes, one value a scan) inline,
// every other through channel_convert_int. Both give the same values.
struct channel_decoder {
    const iio_channel *channel;
    uint8_t bytes; // 1, 2, 4 or 8 for a plain format; 0: channel_convert_int
    uint8_t shift;
    uint8_t width; // bits that hold the value once shifted
    bool is_signed;
    uint8_t unused; // 64 - width: the high bits dropped once shifted
    // How channel_decode reads it: through channel_convert_int; shifted,
    // then masked or sign-extended; or, the usual case, a value that fills
    // its storage, read as it lies.
    enum kind_t : uint8_t { general, shifted, u8, s8, u16, s16, u32, s32, whole64 };
    kind_t kind;
    // Where the channel lies in a scan, known when the decoder was made for
    // a buffer: the channel mask of a buffer never changes, so neither does
    // the place.
    bool placed;
    uint32_t offset; // bytes from the start of a scan
};
channel_decoder channel_decoder_of(const iio_channel *channel);
// The same, and the channel's place in the scans of buffer.
channel_decoder channel_decoder_of(const iio_channel *channel, const iio_buffer *buffer);

// The channel's value in the buffer's first scan, start being
// iio_buffer_start(buffer): iio_buffer_first, without asking libiio once
// the place is known.
inline const char *buffer_first(const iio_buffer *buffer, const char *start, const channel_decoder &d)
{
    return d.placed ? start + d.offset : static_cast<const char *>(iio_buffer_first(buffer, d.channel));
}
inline const char *buffer_first(const iio_buffer *buffer, const channel_decoder &d)
{
    return buffer_first(buffer, static_cast<const char *>(iio_buffer_start(buffer)), d);
}

template <typename T>
inline T load_unaligned(const void *src)
{
    T x;
    __builtin_memcpy(&x, src, sizeof x);
    return x;
}

// channel_convert_int(d.channel, src), computed inline for a plain format.
inline int64_t channel_decode(const channel_decoder &d, const void *src)
{
    switch (d.kind) {
    case channel_decoder::u8: return load_unaligned<uint8_t>(src);
    case channel_decoder::s8: return load_unaligned<int8_t>(src);
    case channel_decoder::u16: return load_unaligned<uint16_t>(src);
    case channel_decoder::s16: return load_unaligned<int16_t>(src);
    case channel_decoder::u32: return load_unaligned<uint32_t>(src);
    case channel_decoder::s32: return load_unaligned<int32_t>(src);
    case channel_decoder::whole64: return load_unaligned<int64_t>(src);
    case channel_decoder::shifted: break;
    default: return channel_convert_int(d.channel, src);
    }
    uint64_t v;
    switch (d.bytes) {
    case 1: v = *static_cast<const uint8_t *>(src); break;
    case 2: { uint16_t x; __builtin_memcpy(&x, src, 2); v = x; break; }
    case 4: { uint32_t x; __builtin_memcpy(&x, src, 4); v = x; break; }
    case 8: __builtin_memcpy(&v, src, 8); break;
    default: return channel_convert_int(d.channel, src);
    }
    v = (v >> d.shift) << d.unused;
    return d.is_signed ? static_cast<int64_t>(v) >> d.unused : static_cast<int64_t>(v >> d.unused);
}

// Whether the context is libiio's local backend: a board reading its own
// devices (character devices that can be polled, refills that can be asked
// not to wait).
bool context_is_local(const iio_context *ctx);

// The IIO context's timeout in force, in milliseconds. libiio can set a
// context's timeout but not tell it, so the platform keeps, per context, the
// value it last set there, and otherwise libiio's own default for the
// context's backend (1000 ms on the local one, 5000 ms on the others).
unsigned context_timeout(const iio_context *ctx);
// Sets the context's timeout. A value already in force costs nothing: on the
// network backend every change is a request to the server.
int context_timeout_set(iio_context *ctx, unsigned timeout_ms);
// Forgets what was set on a context that is about to be destroyed.
void context_timeout_forget(const iio_context *ctx);

// vec = matrix x vec, the matrix row-major, the vector a column. Inline: the
// IMU turns ten vectors a cycle.
inline void vector_rotate(float vec[3], const float matrix[9])
{
    if (!vec || !matrix)
        return;
    const float x = vec[0], y = vec[1], z = vec[2];
    vec[0] = matrix[0] * x + matrix[1] * y + matrix[2] * z;
    vec[1] = matrix[3] * x + matrix[4] * y + matrix[5] * z;
    vec[2] = matrix[6] * x + matrix[7] * y + matrix[8] * z;
}
inline void vector_rotate(float vec[3], const float matrix[3][3])
{
    vector_rotate(vec, &matrix[0][0]);
}
