// SPDX-License-Identifier: Apache-2.0
#include "sim/iiod_command.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using sim::attr_scope;
using sim::iiod_op;

// Every request form the libiio 0.24 client sends, and lines it must refuse.
TEST(IiodCommand, ParsesEveryClientRequestForm)
{
    struct row {
        const char *line;
        iiod_op op;
        const char *device = "";
        attr_scope scope = attr_scope::device;
        const char *channel = "";
        const char *attr = "";
        uint64_t number = 0;
    };
    const row rows[] = {
        {"PRINT", iiod_op::print},
        {"ZPRINT", iiod_op::zprint},
        {"print", iiod_op::print},
        {"", iiod_op::empty},
        {"   ", iiod_op::empty},
        {"EXIT", iiod_op::exit},
        {"QUIT", iiod_op::exit},
        {"VERSION", iiod_op::version},
        {"TIMEOUT 2500", iiod_op::timeout, "", attr_scope::device, "", "", 2500},
        {"READ iio:device0 sampling_frequency", iiod_op::read, "iio:device0", attr_scope::device, "", "sampling_frequency"},
        {"READ iio:device0 DEBUG direct_reg_access", iiod_op::read, "iio:device0", attr_scope::debug, "", "direct_reg_access"},
        {"READ iio:device0 BUFFER length", iiod_op::read, "iio:device0", attr_scope::buffer, "", "length"},
        {"READ iio:device0 INPUT accel_x raw", iiod_op::read, "iio:device0", attr_scope::input, "accel_x", "raw"},
        {"READ iio:device0 ", iiod_op::read, "iio:device0"},
        {"WRITE iio:device0 sampling_frequency 5", iiod_op::write, "iio:device0", attr_scope::device, "", "sampling_frequency", 5},
        {"WRITE iio:device0 BUFFER enable 2", iiod_op::write, "iio:device0", attr_scope::buffer, "", "enable", 2},
        {"WRITE iio:device0 INPUT accel_x scale 9", iiod_op::write, "iio:device0", attr_scope::input, "accel_x", "scale", 9},
        {"WRITE iio:device0  12", iiod_op::write, "iio:device0", attr_scope::device, "", "", 12},
        {"GETTRIG iio:device0", iiod_op::gettrig, "iio:device0"},
        {"SET iio:device0 BUFFERS_COUNT 4", iiod_op::set_buffers_count, "iio:device0", attr_scope::device, "", "", 4},
        {"OPEN iio:device0 5 000000ff", iiod_op::open, "iio:device0", attr_scope::device, "", "", 5},
        {"READBUF iio:device0 120", iiod_op::readbuf, "iio:device0", attr_scope::device, "", "", 120},
        {"WRITEBUF iio:device0 120", iiod_op::writebuf, "iio:device0", attr_scope::device, "", "", 120},
        {"CLOSE iio:device0", iiod_op::close, "iio:device0"},
        // Refused: unknown words, missing or extra operands, bad numbers.
        {"HELLO", iiod_op::invalid},
        {"PRINT now", iiod_op::invalid},
        {"TIMEOUT", iiod_op::invalid},
        {"TIMEOUT -1", iiod_op::invalid},
        {"TIMEOUT 12x", iiod_op::invalid},
        {"TIMEOUT 99999999999999999999", iiod_op::invalid},
        {"READ", iiod_op::invalid},
        {"READ iio:device0 INPUT accel_x", iiod_op::invalid},
        {"READ iio:device0 SIDEWAYS accel_x raw", iiod_op::invalid},
        {"WRITE iio:device0 sampling_frequency", iiod_op::invalid},
        {"WRITE iio:device0 sampling_frequency five", iiod_op::invalid},
        {"OPEN iio:device0 5", iiod_op::invalid},
        {"OPEN iio:device0 5 000000ff LOOPED", iiod_op::invalid},
        {"READBUF iio:device0", iiod_op::invalid},
        {"SET iio:device0 BUFFERS 4", iiod_op::invalid},
        {"a b c d e f g h i j", iiod_op::invalid},
    };
    for (const row &r : rows) {
        const sim::iiod_command c = sim::parse_iiod_command(r.line);
        EXPECT_EQ(c.op, r.op) << "'" << r.line << "'";
        if (c.op != r.op || c.op == iiod_op::invalid)
            continue;
        EXPECT_EQ(c.device, r.device) << r.line;
        EXPECT_EQ(c.scope, r.scope) << r.line;
        EXPECT_EQ(c.channel, r.channel) << r.line;
        EXPECT_EQ(c.attr, r.attr) << r.line;
        EXPECT_EQ(c.number, r.number) << r.line;
    }
}

TEST(IiodCommand, SettrigAttachesOrDetachesAndOpenMayBeCyclic)
{
    EXPECT_EQ(sim::parse_iiod_command("SETTRIG iio:device0 trigger0").trigger, "trigger0");
    const sim::iiod_command detach = sim::parse_iiod_command("SETTRIG iio:device0");
    EXPECT_EQ(detach.op, iiod_op::settrig);
    EXPECT_TRUE(detach.trigger.empty());
    const sim::iiod_command open = sim::parse_iiod_command("OPEN iio:device1 1 00000007 CYCLIC");
    EXPECT_EQ(open.op, iiod_op::open);
    EXPECT_TRUE(open.cyclic);
    EXPECT_EQ(open.mask, "00000007");
}

TEST(IiodCommand, MaskHasOneWordPer32ChannelsAndNoBitBeyondThem)
{
    struct row {
        const char *text;
        size_t channels;
        int rc;
        uint64_t mask;
    };
    const row rows[] = {
        {"000000ff", 8, 0, 0xff},
        {"000000A1", 8, 0, 0xa1},
        {"00000001", 1, 0, 1},
        {"0000000100000000", 40, 0, uint64_t{1} << 32},
        {"00000100", 8, -EINVAL, 0},  // bit 8 of 8 channels
        {"000000ff", 40, -EINVAL, 0}, // 40 channels need two words
        {"0000ff", 8, -EINVAL, 0},
        {"000000fg", 8, -EINVAL, 0},
        {"", 0, -EINVAL, 0},
    };
    for (const row &r : rows) {
        uint64_t mask = 0;
        EXPECT_EQ(sim::parse_iiod_mask(r.text, r.channels, &mask), r.rc) << r.text;
        if (r.rc == 0) {
            EXPECT_EQ(mask, r.mask) << r.text;
        }
    }
}

} // namespace
