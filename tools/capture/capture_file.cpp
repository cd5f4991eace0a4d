// SPDX-License-Identifier: Apache-2.0
#include "capture/capture_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace capture {
namespace {

constexpr std::array<const char *, 11> kKindNames{"?",      "stream", "context", "attr", "scans", "layout",
                                                  "message", "sample", "file",    "drop", "end"};

std::array<uint32_t, 256> make_crc_table()
{
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t c = i;
        for (int k = 0; k < 8; k++)
            c = c & 1 ? 0xedb88320u ^ (c >> 1) : c >> 1;
        t[i] = c;
    }
    return t;
}
const std::array<uint32_t, 256> kCrcTable = make_crc_table();

void put_le(uint8_t *p, uint64_t v, size_t n)
{
    for (size_t i = 0; i < n; i++)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint64_t get_le(const uint8_t *p, size_t n)
{
    uint64_t v = 0;
    for (size_t i = n; i-- > 0;)
        v = v << 8 | p[i];
    return v;
}

} // namespace

const char *record_kind_name(record_kind kind)
{
    const auto i = static_cast<size_t>(kind);
    return i < kKindNames.size() ? kKindNames[i] : "?";
}

uint32_t crc32(const void *data, size_t size, uint32_t crc)
{
    const auto *p = static_cast<const uint8_t *>(data);
    crc = ~crc;
    for (size_t i = 0; i < size; i++)
        crc = kCrcTable[(crc ^ p[i]) & 0xff] ^ (crc >> 8);
    return ~crc;
}

std::string_view header::get(std::string_view key) const
{
    for (const auto &[k, v] : fields)
        if (k == key)
            return v;
    return {};
}

// ---- writer -----------------------------------------------------------------

writer::~writer()
{
    if (file_)
        std::fclose(file_);
}

int writer::open(const std::string &path, const header &h)
{
    file_ = std::fopen(path.c_str(), "wbe");
    if (!file_)
        return error_ = -errno;
    std::string text;
    for (const auto &[k, v] : h.fields)
        text += k + "=" + v + "\n";
    uint8_t fixed[16];
    std::memcpy(fixed, kMagic, sizeof kMagic);
    put_le(fixed + 8, kFormatVersion, 4);
    put_le(fixed + 12, text.size(), 4);
    if (std::fwrite(fixed, 1, sizeof fixed, file_) != sizeof fixed ||
        std::fwrite(text.data(), 1, text.size(), file_) != text.size())
        return error_ = -EIO;
    bytes_ = sizeof fixed + text.size();
    return 0;
}

int writer::add_stream(stream_kind kind, std::string_view name, int64_t time_ns, uint16_t *stream)
{
    if (error_)
        return error_;
    if (streams_ == UINT16_MAX)
        return error_ = -ENOSPC;
    uint8_t payload[256];
    if (name.size() + 1 > sizeof payload)
        return -ENAMETOOLONG;
    payload[0] = static_cast<uint8_t>(kind);
    std::memcpy(payload + 1, name.data(), name.size());
    const int rc = write(record_kind::stream, streams_, time_ns, payload, name.size() + 1);
    if (rc)
        return rc;
    *stream = streams_++;
    return 0;
}

int writer::write(record_kind kind, uint16_t stream, int64_t time_ns, const void *payload, size_t size)
{
    if (error_)
        return error_;
    if (!file_)
        return -EBADF;
    if (size > kMaxPayload)
        return -EMSGSIZE;
    uint8_t head[kRecordHeaderBytes];
    put_le(head, static_cast<uint16_t>(kind), 2);
    put_le(head + 2, stream, 2);
    put_le(head + 4, size, 4);
    put_le(head + 8, static_cast<uint64_t>(time_ns), 8);
    uint8_t tail[kRecordTrailerBytes];
    put_le(tail, crc32(payload, size, crc32(head, sizeof head)), 4);
    if (std::fwrite(head, 1, sizeof head, file_) != sizeof head ||
        (size && std::fwrite(payload, 1, size, file_) != size) ||
        std::fwrite(tail, 1, sizeof tail, file_) != sizeof tail)
        return error_ = errno ? -errno : -EIO;
    bytes_ += sizeof head + size + sizeof tail;
    return 0;
}

int writer::write_attr(uint16_t stream, int64_t time_ns, attr_scope scope, std::string_view channel,
                       std::string_view name, std::string_view value)
{
    // Attribute values are short (a sysfs page at most): one buffer serves.
    char payload[4096 + 512];
    const size_t size = 1 + channel.size() + 1 + name.size() + 1 + value.size();
    if (size > sizeof payload)
        return -EMSGSIZE;
    char *p = payload;
    *p++ = static_cast<char>(scope);
    p = std::copy(channel.begin(), channel.end(), p);
    *p++ = '\0';
    p = std::copy(name.begin(), name.end(), p);
    *p++ = '\0';
    std::copy(value.begin(), value.end(), p);
    return write(record_kind::attr, stream, time_ns, payload, size);
}

int writer::flush()
{
    if (error_)
        return error_;
    if (file_ && std::fflush(file_) != 0)
        return error_ = -errno;
    return 0;
}

int writer::close(int64_t time_ns)
{
    if (!file_)
        return error_ ? error_ : -EBADF;
    int rc = write(record_kind::end, 0, time_ns, nullptr, 0);
    if (std::fclose(file_) != 0 && !rc)
        rc = error_ = -errno;
    file_ = nullptr;
    return rc;
}

// ---- reader -----------------------------------------------------------------

reader::~reader()
{
    if (map_)
        munmap(map_, size_);
}

int reader::fail(int err, const std::string &what)
{
    message_ = name_ + ": " + what;
    return err;
}

int reader::open_file(const std::string &path)
{
    name_ = path;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return fail(-errno, std::strerror(errno));
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        const int err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        ::close(fd);
        return fail(-err, err == EISDIR ? "is a directory" : "not a regular file");
    }
    if (st.st_size == 0) {
        ::close(fd);
        return fail(-EINVAL, "empty file, not a capture");
    }
    void *map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    const int err = errno;
    ::close(fd);
    if (map == MAP_FAILED)
        return fail(-err, std::strerror(err));
    map_ = map;
    return open_memory(map, static_cast<size_t>(st.st_size));
}

int reader::open_memory(const void *data, size_t size)
{
    data_ = static_cast<const uint8_t *>(data);
    size_ = size;
    pos_ = 0;
    ended_ = false;
    streams_.clear();
    header_ = header{};
    if (size < 16 || std::memcmp(data_, kMagic, sizeof kMagic) != 0)
        return fail(-EINVAL, "not a capture (no capture header)");
    header_.version = static_cast<uint32_t>(get_le(data_ + 8, 4));
    if (header_.version == 0)
        return fail(-EINVAL, "damaged header: format version 0");
    if (header_.version > kFormatVersion)
        return fail(-EPROTONOSUPPORT, "capture format version " + std::to_string(header_.version) +
                                          " is newer than this program reads (" + std::to_string(kFormatVersion) +
                                          "): use a newer orlune-sim");
    const uint64_t text_size = get_le(data_ + 12, 4);
    if (text_size > kMaxHeaderText || 16 + text_size > size)
        return fail(-EINVAL, "damaged header: its text runs past the end of the file");
    const std::string_view text(reinterpret_cast<const char *>(data_ + 16), text_size);
    size_t line_start = 0;
    while (line_start < text.size()) {
        size_t nl = text.find('\n', line_start);
        if (nl == std::string_view::npos)
            return fail(-EINVAL, "damaged header: its last line has no end");
        const std::string_view line = text.substr(line_start, nl - line_start);
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos || eq == 0 || line.find('\0') != std::string_view::npos)
            return fail(-EINVAL, "damaged header: line '" + std::string(line.substr(0, 40)) + "' is not key=value");
        header_.fields.emplace_back(line.substr(0, eq), line.substr(eq + 1));
        line_start = nl + 1;
    }
    if (header_.get("source").empty())
        return fail(-EINVAL, "damaged header: no source");
    pos_ = 16 + text_size;
    return 0;
}

int reader::next(record *out)
{
    if (ended_)
        return 0;
    // Messages are made only on failure: a replay reads millions of records.
    const auto at = [this] { return " at byte " + std::to_string(pos_); };
    if (pos_ == size_)
        return fail(-EINVAL, "truncated: no end record" + at() + " (the capture was cut off)");
    if (size_ - pos_ < kRecordHeaderBytes + kRecordTrailerBytes)
        return fail(-EINVAL, "truncated record" + at());
    const uint8_t *p = data_ + pos_;
    const auto kind = static_cast<record_kind>(get_le(p, 2));
    const auto stream = static_cast<uint16_t>(get_le(p + 2, 2));
    const uint64_t size = get_le(p + 4, 4);
    if (size > kMaxPayload)
        return fail(-EINVAL, "damaged record" + at() + ": length " + std::to_string(size));
    if (size > size_ - pos_ - kRecordHeaderBytes - kRecordTrailerBytes)
        return fail(-EINVAL, "truncated record" + at());
    const uint32_t crc = static_cast<uint32_t>(get_le(p + kRecordHeaderBytes + size, 4));
    if (crc32(p, kRecordHeaderBytes + size) != crc)
        return fail(-EINVAL, "damaged record" + at() + ": checksum mismatch");
    const uint16_t k = static_cast<uint16_t>(kind);
    if (k == 0 || k >= kKindNames.size())
        return fail(-EINVAL, "damaged record" + at() + ": unknown kind " + std::to_string(k));
    record r{kind, stream, static_cast<int64_t>(get_le(p + 8, 8)), p + kRecordHeaderBytes,
             static_cast<uint32_t>(size), pos_};
    if (kind == record_kind::stream) {
        if (stream != streams_.size())
            return fail(-EINVAL, "damaged record" + at() + ": stream " + std::to_string(stream) + " declared out of order");
        const uint8_t sk = size ? r.payload[0] : 0;
        if (sk < static_cast<uint8_t>(stream_kind::iio_device) || sk > static_cast<uint8_t>(stream_kind::telemetry) ||
            size < 2)
            return fail(-EINVAL, "damaged record" + at() + ": bad stream declaration");
        streams_.push_back({static_cast<stream_kind>(sk), std::string(reinterpret_cast<const char *>(r.payload + 1),
                                                                      size - 1)});
    } else if (kind != record_kind::end && kind != record_kind::context && stream >= streams_.size()) {
        return fail(-EINVAL, "damaged record" + at() + ": stream " + std::to_string(stream) + " was never declared");
    }
    pos_ += kRecordHeaderBytes + size + kRecordTrailerBytes;
    if (kind == record_kind::end) {
        ended_ = true;
        if (pos_ != size_)
            return fail(-EINVAL, "damaged capture: " + std::to_string(size_ - pos_) + " bytes after its end record");
        return 0;
    }
    *out = r;
    return 1;
}

bool parse_attr(const record &r, attr_value *out)
{
    if (r.kind != record_kind::attr || r.size < 3 || r.payload[0] > static_cast<uint8_t>(attr_scope::observed))
        return false;
    const std::string_view all(reinterpret_cast<const char *>(r.payload + 1), r.size - 1);
    const size_t a = all.find('\0');
    if (a == std::string_view::npos)
        return false;
    const size_t b = all.find('\0', a + 1);
    if (b == std::string_view::npos || b == a + 1)
        return false;
    *out = {static_cast<attr_scope>(r.payload[0]), all.substr(0, a), all.substr(a + 1, b - a - 1), all.substr(b + 1)};
    return (out->scope == attr_scope::channel) == !out->channel.empty();
}

bool parse_layout(const record &r, scan_layout *out)
{
    if (r.kind != record_kind::layout || r.size != 12)
        return false;
    out->mask = get_le(r.payload, 8);
    out->scan_size = static_cast<uint32_t>(get_le(r.payload + 8, 4));
    return out->mask != 0 && out->scan_size != 0;
}

bool parse_drop(const record &r, uint64_t *lost)
{
    if (r.kind != record_kind::drop || r.size != 8)
        return false;
    *lost = get_le(r.payload, 8);
    return true;
}

} // namespace capture
