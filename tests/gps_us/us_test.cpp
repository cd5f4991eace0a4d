// SPDX-License-Identifier: Apache-2.0
// The ultrasound module against a service made of a msg_socket server, and
// the constructors' exits of both modules.
#include <sensors/gps_us.h>

#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "gps_us_env.h"
#include "platform/failpoint.h"
#include "platform/ultrasound_service.h"

namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

class Ultrasound : public gps_us_env {
protected:
    void SetUp() override
    {
        server_ = server_create(kUltrasoundSocketName, on_event, this);
        ASSERT_NE(server_, nullptr);
        us_ = us_new(&data_);
        ASSERT_NE(us_, nullptr);
    }
    void TearDown() override
    {
        us_destroy(us_);
        server_destroy(server_);
    }
    static void on_event(msg_server *, int event, msg_connection *conn, const msg_message *message, void *user)
    {
        auto *self = static_cast<Ultrasound *>(user);
        if (event == MSG_EVENT_CONNECTED)
            self->client_ = conn;
        else if (event == MSG_EVENT_MESSAGE && message_get_id(message) == kUsMsgRequest)
            self->requests_++;
    }
    // Starts and lets the request reach the service.
    void start()
    {
        ASSERT_EQ(us_start(us_), 0);
        ASSERT_EQ(read(), 0u);
        server_process(server_, 100);
        ASSERT_NE(client_, nullptr);
    }
    void measure(float altitude, float v2, uint32_t status, uint32_t mode)
    {
        msg_frame f;
        ASSERT_EQ(message_build(&f, kUsMsgMeasurement, "%f%f%u%u", double(altitude), double(v2), status, mode), 0);
        ASSERT_EQ(connection_send(client_, &f), 0);
    }
    uint32_t read() { return read_bits(us_read, us_); }

    msg_server *server_ = nullptr;
    msg_connection *client_ = nullptr;
    unsigned requests_ = 0; // ranging requests received
    sensors_us_data data_{};
    us_ctx *us_ = nullptr;
};

TEST_F(Ultrasound, EachNewMeasurementRaisesTheIndexAndRangeModesAreNamed)
{
    ASSERT_EQ(log_set_levels("info,us=debug"), 0);
    start();
    struct row {
        uint32_t service_mode;
        uint32_t stored;
        const char *name;
    } rows[] = {{0, 0, "SENSOR_US_LONG_RANGE"}, {1, 1, "SENSOR_US_SHORT_RANGE"}, {5, 2, "SENSOR_US_UNKNOWN_RANGE"}};
    uint32_t index = 0;
    for (const row &r : rows) {
        measure(1.5f, 1.25f, 3, r.service_mode);
        EXPECT_EQ(read(), SENSORS_UPDATED_US);
        EXPECT_EQ(data_.index, ++index);
        EXPECT_EQ(data_.range_mode, r.stored);
        EXPECT_EQ(data_.altitude, 1.5f);
        EXPECT_EQ(data_.altitude_v2, 1.25f);
        EXPECT_EQ(data_.status, 3);
        EXPECT_THAT(cap_.texts("us"), ElementsAre("altitude: 1.500000 (v2: 1.250000), index: " +
                                                  std::to_string(index) + ", range_mode: " + r.name));
    }
    log_set_levels("info");

    // Nothing new: no bit, same index and time.
    const timespec stamp = data_.timestamp;
    EXPECT_EQ(read(), 0u);
    EXPECT_EQ(data_.index, 3u);
    EXPECT_EQ(data_.timestamp.tv_nsec, stamp.tv_nsec);

    ASSERT_EQ(us_tlm_push(us_), 0);
    tlm_section_view view{};
    ASSERT_EQ(tlm_view_open("sensors_us", &view), 0);
    EXPECT_EQ(view.sample_count, 20u);
    EXPECT_EQ(view.period_us, 100000u);
    sensors_us_data published{};
    ASSERT_EQ(tlm_view_read(&view, 0, &published, sizeof published, nullptr), 0);
    EXPECT_EQ(published.index, 3u);
    tlm_view_close(&view);

    // A started module refuses a second start; stopped, it refuses reads.
    // Started again, it goes on from its index.
    EXPECT_EQ(us_start(us_), -1);
    EXPECT_EQ(us_stop(us_), 0);
    uint32_t mask = 0;
    EXPECT_EQ(us_read(us_, &mask), -1);
    client_ = nullptr;
    start();
    measure(2, 2, 0, 0);
    EXPECT_EQ(read(), SENSORS_UPDATED_US);
    EXPECT_EQ(data_.index, 4u);
    EXPECT_EQ(data_.altitude, 2.0f);
}

TEST_F(Ultrasound, AnAbsentServiceIsReportedOnceAndDeliversOnceItListens)
{
    // Round 1: no service when acquisition starts. Round 2: the service
    // delivered, then went away.
    server_destroy(server_);
    server_ = nullptr;
    EXPECT_EQ(us_start(us_), 0);
    for (unsigned round = 1; round <= 2; round++) {
        server_destroy(server_);
        server_ = nullptr;
        client_ = nullptr;
        // Cycles over several connection retries: one report, nothing new.
        std::vector<std::string> texts;
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(3 * kMsgRetryMs);
        while (std::chrono::steady_clock::now() < until) {
            EXPECT_EQ(read(), 0u);
            for (const std::string &t : cap_.texts("us"))
                texts.push_back(t);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_THAT(texts, ElementsAre("ultrasound service not available: retrying")) << "round " << round;
        EXPECT_EQ(data_.index, round - 1);

        server_ = server_create(kUltrasoundSocketName, on_event, this);
        ASSERT_NE(server_, nullptr);
        ASSERT_TRUE(eventually([&] {
            read();
            server_process(server_, 0);
            return requests_ == round;
        })) << "the request goes out on every connection, round " << round;
        measure(float(round), 0.5f, 0, 0);
        EXPECT_EQ(read(), SENSORS_UPDATED_US);
        EXPECT_EQ(data_.index, round);
        EXPECT_EQ(data_.altitude, float(round));
        EXPECT_THAT(cap_.texts("us"), ElementsAre("connected to the ultrasound service")) << "round " << round;
    }
}

class ModuleConstruction : public gps_us_env {};

TEST_F(ModuleConstruction, EveryTelemetryFailureIsReportedAndReleasesTheModule)
{
    struct row {
        const char *failpoint;
        const char *gps_message;
        const char *us_message;
    } rows[] = {
        {"shm_producer_create", "failed to create sensors_gpsmeter tlm", "failed to create sensors_ultrasound tlm"},
        {"shm_producer_register_struct",
         "gps_new:[0-9]+: failed to register tlm gps struct err=12\\(Cannot allocate memory\\)",
         "us_new:[0-9]+: failed to register tlm us struct err=12\\(Cannot allocate memory\\)"},
        {"shm_producer_complete", "gps_new:[0-9]+: producer_complete err=12\\(Cannot allocate memory\\)",
         "us_new:[0-9]+: producer_complete err=12\\(Cannot allocate memory\\)"},
    };
    for (const row &r : rows) {
        ASSERT_EQ(failpoint_arm(r.failpoint, -ENOMEM), 0);
        sensors_gps_data gps{};
        sensors_us_data us{};
        EXPECT_EQ(gps_new(&gps), nullptr) << r.failpoint;
        EXPECT_THAT(cap_.texts("gps"), ElementsAre(MatchesRegex(r.gps_message))) << r.failpoint;
        EXPECT_EQ(us_new(&us), nullptr) << r.failpoint;
        EXPECT_THAT(cap_.texts("us"), ElementsAre(MatchesRegex(r.us_message))) << r.failpoint;
        failpoint_disarm_all();
    }
}

} // namespace
