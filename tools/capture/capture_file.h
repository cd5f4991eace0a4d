// SPDX-License-Identifier: Apache-2.0
// The capture file: what orlune-capture records of a vehicle's device
// streams, and what orlune-sim --replay serves back. One file, little-endian:
//
//   header   "ORLCAPT\n", u32 format version, u32 length of the text that
//            follows, then that text: "key=value" lines, among them
//            "source=" (where the streams came from, a libiio URI)
//   records  u16 kind, u16 stream, u32 payload length, i64 time (ns, the
//            recording machine's monotonic clock), the payload, then a
//            CRC-32 of everything from the kind to the payload's end
//
// A stream is declared (kind `stream`) before its first record. A complete
// capture ends with a record of kind `end`; a capture without one was cut
// off. docs/replay.md describes each kind's payload.
//
// The reader checks everything before handing out a record: it refuses a
// file of another kind, a newer format, a damaged record (checksum, length,
// undeclared stream, unknown kind) with a message naming the byte offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace capture {

inline constexpr char kMagic[8] = {'O', 'R', 'L', 'C', 'A', 'P', 'T', '\n'};
inline constexpr uint32_t kFormatVersion = 1;
inline constexpr size_t kRecordHeaderBytes = 16; // kind, stream, length, time
inline constexpr size_t kRecordTrailerBytes = 4; // CRC-32
// No record is larger: a length beyond it is damage, not data.
inline constexpr uint32_t kMaxPayload = 16u << 20;
// Header text beyond this is damage too.
inline constexpr uint32_t kMaxHeaderText = 64u << 10;

enum class record_kind : uint16_t {
    stream = 1, // declares a stream: u8 stream_kind, then its name
    context = 2, // an IIO context's XML description, as libiio prints it
    attr = 3,    // an attribute's value: u8 attr_scope, channel id NUL, name NUL, value
    scans = 4,   // raw scans of an IIO stream, in the layout its `layout` record gives
    layout = 5,  // an IIO stream's scan layout: u64 channel mask, u32 scan size
    message = 6, // one message of a socket stream, as received
    sample = 7,  // one telemetry sample, as its section holds it
    file = 8,    // the whole content of a file stream after a change
    drop = 9,    // u64: how many samples or messages of the stream were lost
    end = 10,    // the capture is complete; payload: none
};

enum class stream_kind : uint8_t {
    iio_device = 1, // name: the device's id ("iio:device0")
    file = 2,       // name: the file's path
    socket = 3,     // name: the socket's name ("gps")
    telemetry = 4,  // name: the section's name
};

// observed: what the capture saw of a stream rather than read from it
// ("blocking": "0" when the device answered a refill with nothing new).
enum class attr_scope : uint8_t { device = 0, channel = 1, buffer = 2, trigger = 3, observed = 4 };

const char *record_kind_name(record_kind kind);

uint32_t crc32(const void *data, size_t size, uint32_t crc = 0);

struct header {
    uint32_t version = kFormatVersion;
    // "key=value" pairs, in file order.
    std::vector<std::pair<std::string, std::string>> fields;

    // The value of key, or empty.
    std::string_view get(std::string_view key) const;
};

struct record {
    record_kind kind;
    uint16_t stream;
    int64_t time_ns;
    const uint8_t *payload; // valid until the reader reads on or goes away
    uint32_t size;
    uint64_t offset; // of the record in the file
};

struct stream_info {
    stream_kind kind;
    std::string name;
};

// Appends records to a file. Errors are sticky: the first failure of a write
// is kept in error() and every later call returns it again.
class writer {
public:
    writer() = default;
    ~writer();
    writer(const writer &) = delete;
    writer &operator=(const writer &) = delete;

    // Creates (or truncates) path and writes the header. 0 or -errno.
    int open(const std::string &path, const header &h);
    // Declares a stream; its number in *stream. 0 or -errno.
    int add_stream(stream_kind kind, std::string_view name, int64_t time_ns, uint16_t *stream);
    int write(record_kind kind, uint16_t stream, int64_t time_ns, const void *payload, size_t size);
    int write_attr(uint16_t stream, int64_t time_ns, attr_scope scope, std::string_view channel,
                   std::string_view name, std::string_view value);
    // Writes the end record and closes the file. 0 or -errno.
    int close(int64_t time_ns);
    // Pushes what is buffered to the file.
    int flush();

    uint64_t bytes() const { return bytes_; }
    int error() const { return error_; }

private:
    FILE *file_ = nullptr;
    uint64_t bytes_ = 0;
    int error_ = 0;
    uint16_t streams_ = 0;
};

// Reads a capture held in memory (the file is mapped by open_file).
class reader {
public:
    reader() = default;
    ~reader();
    reader(const reader &) = delete;
    reader &operator=(const reader &) = delete;

    // Checks the header. 0, or -EINVAL (not a capture, damaged header),
    // -EPROTONOSUPPORT (a newer format) or -errno (cannot read the file),
    // with the reason in message().
    int open_file(const std::string &path);
    int open_memory(const void *data, size_t size);

    // The next record in *out: 1; 0 at the end record; -EINVAL when the
    // record is damaged or the capture stops without an end record
    // (message() says where).
    int next(record *out);

    const header &head() const { return header_; }
    const std::vector<stream_info> &streams() const { return streams_; }
    const std::string &message() const { return message_; }
    uint64_t size() const { return size_; }

private:
    int fail(int err, const std::string &what);

    const uint8_t *data_ = nullptr;
    uint64_t size_ = 0;
    uint64_t pos_ = 0;
    void *map_ = nullptr;
    bool ended_ = false;
    header header_;
    std::vector<stream_info> streams_;
    std::string message_;
    std::string name_ = "capture";
};

// Payload helpers, for the kinds whose payload has fields.
struct attr_value {
    attr_scope scope;
    std::string_view channel; // empty for a device, buffer or trigger attribute
    std::string_view name;
    std::string_view value;
};
// False when the payload is not an attribute record's.
bool parse_attr(const record &r, attr_value *out);

struct scan_layout {
    uint64_t mask;
    uint32_t scan_size;
};
bool parse_layout(const record &r, scan_layout *out);

// The scans a drop record says its stream lost; false for any other record.
bool parse_drop(const record &r, uint64_t *lost);

} // namespace capture
