// SPDX-License-Identifier: Apache-2.0
// The GPS and ultrasound reads and pushes allocate nothing: the only
// allocations of the cycle are the texts a GPS message carries.
#include <sensors/gps_us.h>

#include "gps_us_env.h"
#include "platform/ultrasound_service.h"
#include "support/alloc_counter.h"

namespace {

class CycleAllocations : public gps_us_env {};

void keep_client(msg_server *, int event, msg_connection *conn, const msg_message *, void *user)
{
    if (event == MSG_EVENT_CONNECTED)
        *static_cast<msg_connection **>(user) = conn;
}

TEST_F(CycleAllocations, AThousandCyclesWithFreshDataAllocateNothing)
{
    if (!alloc_counting_available())
        GTEST_SKIP() << "a sanitizer owns the allocator";
    msg_connection *gps_client = nullptr, *us_client = nullptr;
    msg_server *gpsd = server_create("gps", keep_client, &gps_client);
    msg_server *service = server_create(kUltrasoundSocketName, keep_client, &us_client);
    ASSERT_TRUE(gpsd && service);
    sensors_gps_data gps_data{};
    sensors_us_data us_data{};
    gps_ctx *gps = gps_new(&gps_data);
    us_ctx *us = us_new(&us_data);
    ASSERT_TRUE(gps && us);
    ASSERT_EQ(gps_start(gps), 0);
    ASSERT_EQ(us_start(us), 0);
    uint32_t mask = 0;
    ASSERT_EQ(gps_read(gps, &mask), 0);
    ASSERT_EQ(us_read(us, &mask), 0);
    server_process(gpsd, 100);
    server_process(service, 100);
    ASSERT_TRUE(gps_client && us_client);

    alloc_count count;
    for (int i = 0; i < 1000; i++) {
        count.pause();
        msg_frame loc, er, echo;
        message_build(&loc, 0, "%lf%lf%lf%lf%lu", 1.0, 2.0, 3.0 + i, 4.0, uint64_t(i));
        message_build(&er, 2, "%f%f%f%f%f%f%f%i", 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, i);
        message_build(&echo, kUsMsgMeasurement, "%f%f%u%u", 1.0 + i, 1.0, 0u, 0u);
        ASSERT_EQ(connection_send(gps_client, &loc), 0);
        ASSERT_EQ(connection_send(gps_client, &er), 0);
        ASSERT_EQ(connection_send(us_client, &echo), 0);
        count.resume();
        mask = 0;
        ASSERT_EQ(gps_read(gps, &mask), 0);
        ASSERT_EQ(us_read(us, &mask), 0);
        ASSERT_EQ(mask, SENSORS_UPDATED_GPS | SENSORS_UPDATED_US);
        ASSERT_EQ(gps_tlm_push(gps), 0);
        ASSERT_EQ(us_tlm_push(us), 0);
    }
    EXPECT_EQ(count.value(), 0);
    EXPECT_EQ(us_data.index, 1000u);
    EXPECT_EQ(gps_data.loc_values[2], 1002.0);
    gps_destroy(gps);
    us_destroy(us);
    server_destroy(gpsd);
    server_destroy(service);
}

} // namespace
