// SPDX-License-Identifier: Apache-2.0
// The capture file: what is written is read back as written, and a file that
// is not an intact capture of a format this reader knows is refused with a
// message saying what is wrong and where.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "capture/capture_file.h"

namespace {

class CaptureFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        path_ = ::testing::TempDir() + "capture-" + std::to_string(getpid()) + ".cap";
        capture::writer w;
        capture::header h;
        h.fields = {{"source", "ip:127.0.0.1:30431"}, {"clock", "monotonic"}};
        ASSERT_EQ(w.open(path_, h), 0);
        uint16_t imu = 9, gps = 9;
        ASSERT_EQ(w.add_stream(capture::stream_kind::iio_device, "iio:device0", 10, &imu), 0);
        ASSERT_EQ(w.add_stream(capture::stream_kind::socket, "gps", 11, &gps), 0);
        EXPECT_EQ(imu, 0);
        EXPECT_EQ(gps, 1);
        ASSERT_EQ(w.write_attr(imu, 12, capture::attr_scope::channel, "in:anglvel_x", "scale", "0.001065"), 0);
        const uint8_t layout[12] = {0x0b, 0, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0};
        ASSERT_EQ(w.write(capture::record_kind::layout, imu, 13, layout, sizeof layout), 0);
        ASSERT_EQ(w.write(capture::record_kind::scans, imu, -14, "0123456789abcdef", 16), 0);
        ASSERT_EQ(w.write(capture::record_kind::message, gps, 15, "", 0), 0);
        ASSERT_EQ(w.close(16), 0);
        std::ifstream in(path_, std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(in), {});
    }
    void TearDown() override { unlink(path_.c_str()); }

    std::string path_;
    std::string bytes_;
};

TEST_F(CaptureFile, ReadsBackWhatWasWritten)
{
    capture::reader r;
    ASSERT_EQ(r.open_file(path_), 0) << r.message();
    EXPECT_EQ(r.head().version, capture::kFormatVersion);
    EXPECT_EQ(r.head().get("source"), "ip:127.0.0.1:30431");
    capture::record rec;
    std::string kinds;
    capture::attr_value attr{};
    capture::scan_layout layout{};
    int rc;
    while ((rc = r.next(&rec)) > 0) {
        kinds += std::string(capture::record_kind_name(rec.kind)) + "@" + std::to_string(rec.time_ns) + " ";
        if (rec.kind == capture::record_kind::attr) {
            ASSERT_TRUE(capture::parse_attr(rec, &attr));
        } else if (rec.kind == capture::record_kind::layout) {
            ASSERT_TRUE(capture::parse_layout(rec, &layout));
        } else if (rec.kind == capture::record_kind::scans) {
            EXPECT_EQ(std::string(reinterpret_cast<const char *>(rec.payload), rec.size), "0123456789abcdef");
        }
    }
    EXPECT_EQ(rc, 0) << r.message();
    EXPECT_EQ(kinds, "stream@10 stream@11 attr@12 layout@13 scans@-14 message@15 ");
    ASSERT_EQ(r.streams().size(), 2u);
    EXPECT_EQ(r.streams()[1].name, "gps");
    EXPECT_EQ(r.streams()[1].kind, capture::stream_kind::socket);
    EXPECT_EQ(attr.channel, "in:anglvel_x");
    EXPECT_EQ(attr.name, "scale");
    EXPECT_EQ(attr.value, "0.001065");
    EXPECT_EQ(layout.mask, 0x0bu);
    EXPECT_EQ(layout.scan_size, 16u);
}

TEST_F(CaptureFile, RefusesWhatIsNotAnIntactCaptureSayingWhy)
{
    const size_t first_record = 16 + std::strlen("source=ip:127.0.0.1:30431\nclock=monotonic\n");
    struct damage {
        const char *what;
        size_t at;         // byte to change, or the length to cut the file to
        char value;        // 0: cut instead
        int err;           // from open (header) or from next (records)
        const char *says;
    };
    const damage cases[] = {
        {"another file", 0, 'X', -EINVAL, "not a capture"},
        {"a newer format", 8, 2, -EPROTONOSUPPORT, "format version 2 is newer"},
        {"header text past the end", 14, 0x7f, -EINVAL, "runs past the end"},
        {"a header line without =", 16 + 6, '-', -EINVAL, "is not key=value"},
        {"a flipped payload bit", first_record + 16, 0x02, -EINVAL, "checksum mismatch"},
        {"a cut-off file", bytes_.size() - 4, 0, -EINVAL, "truncated"},
        {"a file without its end record", bytes_.size() - 20, 0, -EINVAL, "no end record"},
    };
    for (const damage &d : cases) {
        std::string file = bytes_;
        if (d.value)
            file[d.at] = d.value;
        else
            file.resize(d.at);
        capture::reader r;
        int rc = r.open_memory(file.data(), file.size());
        capture::record rec;
        if (rc == 0)
            while ((rc = r.next(&rec)) > 0) {
            }
        EXPECT_EQ(rc, d.err) << d.what;
        EXPECT_NE(r.message().find(d.says), std::string::npos) << d.what << ": " << r.message();
    }
}

} // namespace
