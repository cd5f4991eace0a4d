// SPDX-License-Identifier: Apache-2.0
// The capture reader on arbitrary files: every record it hands out, the
// payload parsers on each, and the replay's reading of a capture that the
// reader accepts (its IIO description, scan layouts and attributes). A
// record's checksum stops nearly every mutation at the record it touched, so
// each input is read twice: as it is, and with every checksum made right,
// which lets the mutations reach the framing and the payloads behind it.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "capture/capture_file.h"
#include "sim/replay.h"

namespace {

void read_all(const uint8_t *data, size_t size)
{
    capture::reader r;
    if (r.open_memory(data, size) != 0)
        return;
    capture::record rec;
    while (r.next(&rec) > 0) {
        capture::attr_value a;
        capture::scan_layout l;
        if (capture::parse_attr(rec, &a) && a.name.empty())
            __builtin_trap(); // a parsed attribute always has a name
        if (capture::parse_layout(rec, &l) && (l.mask == 0 || l.scan_size == 0))
            __builtin_trap();
        if (rec.stream >= r.streams().size() && rec.kind != capture::record_kind::context)
            __builtin_trap(); // records of undeclared streams never come out
    }
    std::string error;
    auto replayed = sim::replay_capture::load_memory(data, size, &error);
    if (!replayed)
        return;
    sim::replay_clock clock(replayed->first_ns());
    std::vector<sim::replay_device> devices;
    int64_t pass = std::max<int64_t>(replayed->last_ns() - replayed->first_ns(), 1);
    if (sim::replay_devices(*replayed, clock, replayed->first_ns(), &pass, &devices, &error) == 0)
        for (const sim::replay_device &d : devices)
            if (d.per_pass() && d.until(d.stamp(d.per_pass() - 1)) < d.per_pass())
                __builtin_trap(); // a pass's last scan is stamped after all the others
}

uint32_t le32(const uint8_t *p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    read_all(data, size);

    if (size < 16 || std::memcmp(data, capture::kMagic, sizeof capture::kMagic) != 0)
        return 0;
    static std::vector<uint8_t> fixed;
    fixed.assign(data, data + size);
    size_t pos = 16 + static_cast<size_t>(le32(data + 12));
    while (pos <= size && size - pos >= capture::kRecordHeaderBytes + capture::kRecordTrailerBytes) {
        const size_t payload = le32(&fixed[pos + 4]);
        const size_t total = capture::kRecordHeaderBytes + payload;
        if (payload > size - pos - capture::kRecordHeaderBytes - capture::kRecordTrailerBytes)
            break;
        const uint32_t crc = capture::crc32(&fixed[pos], total);
        for (int i = 0; i < 4; i++)
            fixed[pos + total + static_cast<size_t>(i)] = static_cast<uint8_t>(crc >> (8 * i));
        pos += total + capture::kRecordTrailerBytes;
    }
    read_all(fixed.data(), fixed.size());
    return 0;
}
