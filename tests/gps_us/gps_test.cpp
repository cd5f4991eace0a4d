// SPDX-License-Identifier: Apache-2.0
// The GPS module against a daemon made of a msg_socket server.
#include <sensors/gps_us.h>

#include <gmock/gmock.h>

#include <cstring>

#include "gps_us_env.h"

namespace {

using ::testing::ElementsAre;

class Gps : public gps_us_env {
protected:
    void SetUp() override
    {
        server_ = server_create("gps", [](msg_server *, int, msg_connection *, const msg_message *, void *) {},
                                nullptr);
        ASSERT_NE(server_, nullptr);
        gps_ = gps_new(&data_);
        ASSERT_NE(gps_, nullptr);
        ASSERT_EQ(gps_start(gps_), 0);
        // The server binds the full-size address: the module meets it only
        // with the 110-byte address.
        server_process(server_, 1000);
        ASSERT_EQ(server_connection_count(server_), 1u);
        ASSERT_EQ(read(), 0u);
        EXPECT_THAT(cap_.texts("gps"), ElementsAre("connected to gpsd"));
    }
    void TearDown() override
    {
        gps_destroy(gps_);
        server_destroy(server_);
    }

    template <typename... Args>
    void send(uint32_t id, const char *fmt, Args... args)
    {
        msg_frame f;
        ASSERT_EQ(message_build(&f, id, fmt, args...), 0);
        ASSERT_EQ(server_broadcast(server_, &f), 1);
    }
    uint32_t read() { return read_bits(gps_read, gps_); }

    msg_server *server_ = nullptr;
    sensors_gps_data data_{};
    gps_ctx *gps_ = nullptr;
};

TEST_F(Gps, TwoLocsInACycleLeaveTheSecondAndAQuietCycleTouchesNothing)
{
    send(0, "%lf%lf%lf%lf%lu", 1.0, 2.0, 3.0, 4.0, uint64_t(5));
    send(0, "%lf%lf%lf%lf%lu", 11.0, 12.0, 13.0, 14.0, uint64_t(15));
    EXPECT_EQ(read(), SENSORS_UPDATED_GPS);
    EXPECT_EQ(data_.updated, SENSORS_GPS_UPDATED_LOC);
    EXPECT_THAT(data_.loc_values, ElementsAre(11.0, 12.0, 13.0, 14.0));
    EXPECT_EQ(data_.loc_extra, 15u);
    EXPECT_NE(data_.timestamp.tv_sec + data_.timestamp.tv_nsec, 0);

    const timespec stamp = data_.timestamp;
    EXPECT_EQ(read(), 0u);
    EXPECT_EQ(data_.updated, 0u);
    EXPECT_EQ(data_.timestamp.tv_sec, stamp.tv_sec);
    EXPECT_EQ(data_.timestamp.tv_nsec, stamp.tv_nsec);

    send(0, "%lf%lf%lf%lf%lu", 1.0, 2.0, 3.0, 4.0, uint64_t(5));
    send(2, "%f%f%f%f%f%f%f%i", 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8);
    EXPECT_EQ(read(), SENSORS_UPDATED_GPS);
    EXPECT_EQ(data_.updated, 0x9u);
    EXPECT_THAT(data_.er_values, ElementsAre(1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(data_.er_int, 8);

    // Published whole, stamped with the cycle's time.
    ASSERT_EQ(gps_tlm_push(gps_), 0);
    tlm_section_view view{};
    ASSERT_EQ(tlm_view_open("sensors_gps", &view), 0);
    EXPECT_EQ(view.sample_count, 10u);
    EXPECT_EQ(view.period_us, 1000000u);
    sensors_gps_data published{};
    timespec at{};
    ASSERT_EQ(tlm_view_read(&view, 0, &published, sizeof published, &at), 0);
    EXPECT_EQ(memcmp(&published, &data_, sizeof data_), 0);
    EXPECT_EQ(at.tv_nsec, data_.timestamp.tv_nsec);
    tlm_view_close(&view);
}

TEST_F(Gps, TextsKeepTheirPlaces)
{
    struct row {
        const char *text;
        char expected[4];
    } rows[] = {{"ab", {'a', 'b', 0, 0}}, {"abcd", {'a', 'b', 'c', 'd'}}, {"abcdefgh", {'a', 'b', 'c', 'd'}}};
    for (const row &r : rows) {
        memset(data_.com_text, 'x', sizeof data_.com_text);
        send(1, "%f%f%f%i%u%s", 1.5, 2.5, 3.5, -4, 5u, r.text);
        EXPECT_EQ(read(), SENSORS_UPDATED_GPS);
        EXPECT_EQ(data_.updated, SENSORS_GPS_UPDATED_EX_COM);
        EXPECT_EQ(memcmp(data_.com_text, r.expected, 4), 0) << r.text;
        EXPECT_EQ(data_.com_int, -4);
        EXPECT_EQ(data_.com_uint, 5u);
        EXPECT_EQ(data_.com_values[2], 3.5f);
    }
    const std::string sixty(60, 'f');
    send(3, "%s%s", sixty.c_str(), "v2");
    EXPECT_EQ(read(), SENSORS_UPDATED_GPS);
    EXPECT_EQ(data_.updated, SENSORS_GPS_UPDATED_FW);
    EXPECT_EQ(std::string(data_.fw_text_1), sixty.substr(0, 49));
    EXPECT_STREQ(data_.fw_text_2, "v2");

    // The debug lines carry the decoded values, the text as the record keeps it.
    ASSERT_EQ(log_set_levels("info,gps=debug"), 0);
    send(0, "%lf%lf%lf%lf%lu", 1.0, 2.0, 3.0, 4.0, uint64_t(5));
    send(1, "%f%f%f%i%u%s", 1.0, 2.0, 3.0, 4, 5u, "GNSS-L1");
    send(3, "%s%s", "fw", "hw");
    read();
    EXPECT_THAT(cap_.texts("gps"),
                ElementsAre("loc 1.000000 2.000000 3.000000 4.000000 5",
                            "ex com 1.000000 2.000000 3.000000 4 5 GNSS", "fw fw hw"));
    log_set_levels("info");
}

TEST_F(Gps, UnknownAndUndecodableMessagesAreReported)
{
    send(9, "%u", 1u);
    EXPECT_EQ(read(), 0u);
    EXPECT_THAT(cap_.texts("gps"), ElementsAre("MSG_UNKNOWN : 9", "error receiving message from gps"));

    // A loc whose values are texts: its bit is set all the same; a fw that
    // cannot be read leaves the texts alone.
    strcpy(data_.fw_text_1, "kept");
    send(0, "%s", "not a fix");
    send(3, "%u", 7u);
    EXPECT_EQ(read(), SENSORS_UPDATED_GPS);
    EXPECT_EQ(data_.updated, SENSORS_GPS_UPDATED_LOC | SENSORS_GPS_UPDATED_FW);
    EXPECT_STREQ(data_.fw_text_1, "kept");
    EXPECT_THAT(cap_.texts("gps"), ElementsAre("error receiving message from gps", "error receiving message from gps"));

    gps_client_cb(nullptr, 7, nullptr, nullptr, gps_);
    EXPECT_THAT(cap_.texts("gps"), ElementsAre("Unknown msg_socket event : 7"));
}

TEST_F(Gps, ADaemonThatRestartsIsFoundAgain)
{
    std::vector<std::string> seen;
    auto until_said = [&] {
        EXPECT_EQ(read(), 0u);
        for (auto &t : cap_.texts("gps"))
            seen.push_back(t);
        return !seen.empty();
    };
    server_destroy(server_);
    server_ = nullptr;
    ASSERT_TRUE(eventually(until_said));
    EXPECT_THAT(seen, ElementsAre("disconnected from gpsd"));
    seen.clear();
    server_ = server_create("gps", [](msg_server *, int, msg_connection *, const msg_message *, void *) {}, nullptr);
    ASSERT_NE(server_, nullptr);
    ASSERT_TRUE(eventually(until_said));
    EXPECT_THAT(seen, ElementsAre("connected to gpsd"));
    server_process(server_, 100);
    send(0, "%lf%lf%lf%lf%lu", 1.0, 2.0, 3.0, 4.0, uint64_t(5));
    EXPECT_EQ(read(), SENSORS_UPDATED_GPS);

    EXPECT_EQ(gps_stop(gps_), 0);
    EXPECT_EQ(gps_start(gps_), 0);
}

} // namespace
