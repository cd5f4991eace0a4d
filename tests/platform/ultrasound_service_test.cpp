// SPDX-License-Identifier: Apache-2.0
// The ranging client against a service made of a msg_socket server.
#include <gtest/gtest.h>

#include "platform/ultrasound_service.h"
#include "support/test_env.h"

namespace {

struct fake_service {
    msg_server *server = nullptr;
    msg_connection *client = nullptr;
    uint64_t period_us = 0;
    int requests = 0;

    static void cb(msg_server *, int event, msg_connection *conn, const msg_message *m, void *user)
    {
        auto *f = static_cast<fake_service *>(user);
        if (event == MSG_EVENT_CONNECTED)
            f->client = conn;
        float range = 0;
        if (event == MSG_EVENT_MESSAGE && message_read(m, "%lu%f", &f->period_us, &range) == 0)
            f->requests++;
    }
    void send(float altitude, float v2, uint32_t status, uint32_t mode)
    {
        msg_frame frame;
        ASSERT_EQ(message_build(&frame, kUsMsgMeasurement, "%f%f%u%u", double(altitude), double(v2), status, mode),
                  0);
        ASSERT_EQ(connection_send(client, &frame), 0);
    }
};

TEST(UltrasoundService, ReadDeliversTheNewestMeasurementAndCountsTheNewOnes)
{
    test_root root; // a private socket name
    fake_service svc;
    svc.server = server_create(kUltrasoundSocketName, fake_service::cb, &svc);
    ASSERT_NE(svc.server, nullptr);
    ranging_settings settings{50000, 0, 0};
    ranging_handle *h = ranging_open(&settings);
    ASSERT_NE(h, nullptr);
    ranging_result *result = result_create();
    ASSERT_NE(result, nullptr);

    // The request leaves with the first read.
    EXPECT_EQ(ranging_read(h, result), 0);
    EXPECT_EQ(result->new_count, 0u);
    server_process(svc.server, 100);
    ASSERT_EQ(svc.requests, 1);
    EXPECT_EQ(svc.period_us, 50000u);

    svc.send(1.0f, 1.5f, 0, kUsRangeShort);
    svc.send(2.0f, 2.5f, 1, kUsRangeLong);
    EXPECT_EQ(ranging_read(h, result), 0);
    EXPECT_EQ(result->new_count, 2u);
    EXPECT_EQ(result->measure->altitude, 2.0f);
    EXPECT_EQ(result->measure->altitude_v2, 2.5f);
    EXPECT_EQ(result->measure->range_mode, kUsRangeLong);
    EXPECT_EQ(result->status, 1);

    EXPECT_EQ(ranging_read(h, result), 0);
    EXPECT_EQ(result->new_count, 0u);
    EXPECT_EQ(result->measure->altitude, 2.0f);

    server_destroy(svc.server);
    EXPECT_EQ(ranging_read(h, result), -ENOTCONN);
    EXPECT_EQ(result->measure->altitude, 2.0f);
    ranging_close(h);
    result_destroy(result);
}

} // namespace
