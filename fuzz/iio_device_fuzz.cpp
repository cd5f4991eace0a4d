// SPDX-License-Identifier: Apache-2.0
// Arbitrary device descriptions through the IIO set-up and conversions that
// every IIO sensor module shares. The input is a libiio XML context
// description, optionally followed by a line "%%", the text of a mount
// matrix, another line "%%" and the bytes of one scan (whose first bytes
// also give each channel's expected storage size). The description is
// made into a context in memory (libiio's XML backend: nothing to read or
// stream), then for each device: device_init by id, name and label,
// trigger_init, attr_read_doubles and attr_read_matrix on every attribute,
// buffer_create on all its scan elements and on each alone (with and without
// an expected storage size), and every channel's conversion of the scan.
// Failed buffer creations must leave no channel enabled, and a converted
// value must fit in the bits its format defines.
#include <dlfcn.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/iio_helper.h"
#include "platform/log.h"

namespace {

constexpr std::string_view kSeparator = "\n%%\n";
constexpr size_t kMaxChannels = 64;

// The next part of the input, up to the separator or the end.
std::string_view next_part(std::string_view *input)
{
    const size_t at = input->find(kSeparator);
    const std::string_view part = input->substr(0, at);
    input->remove_prefix(at == std::string_view::npos ? input->size() : at + kSeparator.size());
    return part;
}

// Quiet: our log says nothing, and libxml2, which libiio parses the
// description with, reports its validity errors nowhere (looked up at run
// time: libiio brings it in).
void ignore(void *, const char *, ...) {}

bool quiet()
{
    using handler = void (*)(void *, const char *, ...);
    using setter = void (*)(void *, handler);
    if (auto set = reinterpret_cast<setter>(dlsym(RTLD_DEFAULT, "xmlSetGenericErrorFunc")))
        set(nullptr, ignore);
    return log_set_levels("none") == 0;
}

void require(bool condition)
{
    if (!condition)
        std::abort();
}

// The value fits in the format's defined bits: all the storage when the
// format says so, else its value bits, sign-extended or masked.
void check_range(const iio_channel *channel, int64_t v)
{
    const iio_data_format *f = iio_channel_get_data_format(channel);
    const unsigned bits = f->is_fully_defined ? f->length : f->bits;
    if (bits == 0 || bits >= 64 || v == 0)
        return;
    if (f->is_signed)
        require(v >= -(int64_t{1} << (bits - 1)) && v < (int64_t{1} << (bits - 1)));
    else
        require(v >= 0 && v < (int64_t{1} << bits));
}

void check_none_enabled(const iio_device *device, const iio_channel_binding *bindings, size_t count)
{
    for (size_t i = 0; i < count; i++)
        require(*bindings[i].channel == nullptr);
    for (unsigned c = 0; c < iio_device_get_channels_count(device); c++)
        require(!iio_channel_is_enabled(iio_device_get_channel(device, c)));
}

void create_buffer(iio_device *device, const iio_channel_binding *bindings, size_t count, size_t kernel_length)
{
    iio_buffer *buffer = buffer_create(device, bindings, count, kernel_length, 4, 1);
    if (buffer) { // not on the XML backend, which cannot stream
        device_deinit(device, nullptr, buffer);
        for (size_t i = 0; i < count; i++)
            iio_channel_disable(*bindings[i].channel);
    } else {
        check_none_enabled(device, bindings, count);
    }
}

void exercise(iio_context *ctx, iio_device *device, const unsigned char *scan, std::string_view sizes)
{
    const char *id = iio_device_get_id(device);
    const char *name = iio_device_get_name(device);
    const char *label = iio_device_get_label(device);
    for (const char *n : {id, name, label})
        if (n && device_init(ctx, n, 1))
            require(device_init(ctx, n, 0) != nullptr);

    if (iio_device_is_trigger(device) && id) {
        trigger_init(ctx, id, nullptr);
        for (unsigned i = 0; i < iio_context_get_devices_count(ctx); i++)
            trigger_init(ctx, id, iio_context_get_device(ctx, i));
    }

    // Attributes by file name: the XML backend reads none, but each must be
    // found and its failure reported without harm.
    double value = 0;
    float matrix[9];
    for (unsigned i = 0; i < iio_device_get_attrs_count(device); i++) {
        const iio_attr_double attr{iio_device_get_attr(device, i), &value, i % 2 == 0};
        attr_read_doubles(device, &attr, 1);
        attr_read_matrix(device, attr.name, matrix);
    }

    std::vector<iio_channel *> bound(kMaxChannels);
    std::vector<iio_channel_binding> bindings;
    const unsigned channels = iio_device_get_channels_count(device);
    for (unsigned c = 0; c < channels; c++) {
        const iio_channel *chn = iio_device_get_channel(device, c);
        for (unsigned i = 0; i < iio_channel_get_attrs_count(chn); i++) {
            const iio_attr_double attr{iio_channel_attr_get_filename(chn, iio_channel_get_attr(chn, i)), &value, true};
            attr_read_doubles(device, &attr, 1);
        }
        const int64_t v = channel_convert_int(chn, scan);
        check_range(chn, v);
        channel_convert_float(chn, scan);
        if (iio_channel_is_scan_element(chn) && !iio_channel_is_output(chn) && bindings.size() < kMaxChannels)
            bindings.push_back({iio_channel_get_id(chn), &bound[bindings.size()], 0});
    }
    if (bindings.empty())
        return;
    create_buffer(device, bindings.data(), bindings.size(), 0);
    create_buffer(device, bindings.data(), bindings.size(), 16);
    // Each channel alone, with the storage size the input asks for.
    for (size_t i = 0; i < bindings.size(); i++) {
        iio_channel_binding one = bindings[i];
        one.storage_bits = i < sizes.size() ? static_cast<unsigned char>(sizes[i]) : 0;
        create_buffer(device, &one, 1, 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool silenced = quiet();
    (void)silenced;
    std::string_view input(reinterpret_cast<const char *>(data), size);
    const std::string_view xml = next_part(&input);
    const std::string matrix_text(next_part(&input));
    const std::string_view scan_part = input;

    float matrix[9];
    if (matrix_parse(matrix_text.c_str(), matrix) == 0)
        for (float m : matrix)
            require(m == m && m - m == 0.0f); // finite

    // The scan, padded so that any format the conversion accepts has its bytes.
    alignas(8) unsigned char scan[128] = {};
    std::memcpy(scan, scan_part.data(), std::min(scan_part.size(), sizeof scan));

    // Printable ASCII only: a stray byte would make most inputs fail as
    // XML (an encoding error) before any device is made.
    std::string text(xml);
    for (char &c : text)
        if ((c < ' ' && c != '\n' && c != '\t') || c > '~')
            c = ' ';
    iio_context *ctx = iio_create_xml_context_mem(text.data(), text.size());
    if (!ctx)
        return 0;
    for (unsigned i = 0; i < iio_context_get_devices_count(ctx); i++)
        exercise(ctx, iio_context_get_device(ctx, i), scan, scan_part);
    iio_context_destroy(ctx);
    return 0;
}
