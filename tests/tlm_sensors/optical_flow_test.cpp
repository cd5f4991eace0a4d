// SPDX-License-Identifier: Apache-2.0
// The optical flow's freshness, defect and message rules, on a clock the
// test moves by hand: seconds of silence cost nothing and ages are exact.
#include <gtest/gtest.h>

#include <sensors/tlm_sensors.h>

#include <cstring>
#include <thread>

#include "platform/telemetry_test_util.h"
#include "tlm_producer.h"
#include "tlm_sensors/vision_optical_flow.h"

namespace {

// The test's monotonic clock, in nanoseconds; starts at the real clock, so
// that samples stamped on it compare with real time as the producer's do.
int64_t fake_now_ns;

int fake_now(timespec *now)
{
    *now = ns_to_timespec(fake_now_ns);
    return 0;
}
int fake_elapsed(const timespec *since, timespec *elapsed)
{
    timespec now = ns_to_timespec(fake_now_ns);
    return timespec_diff(&now, since, elapsed);
}
uint64_t fake_now_ms()
{
    return uint64_t(fake_now_ns / 1000000);
}
constexpr flow_clock kFakeClock{fake_now, fake_elapsed, fake_now_ms};

class OpticalFlow : public ::testing::Test {
protected:
    void SetUp() override
    {
        timespec now;
        ASSERT_EQ(monotonic_now(&now), 0);
        ASSERT_EQ(timespec_to_ns(&now, &fake_now_ns), 0);
        created_ns_ = fake_now_ns;
        vcam_ = vision_optical_flow_new_with(&flow_, kFakeClock);
        ASSERT_NE(vcam_, nullptr);
        ASSERT_EQ(vision_optical_flow_start(vcam_), 0);
    }
    void TearDown() override { vision_optical_flow_destroy(vcam_); }

    void start_producer()
    {
        vision_ = std::make_unique<test_producer<flow_sample>>("vcam_optical_flow", flow_fields());
        vision_->record = {{0.1234567890123, -2.5, 1e-3}, {0.5f, -0.25f, 0.125f}, 0.875f, 12, 1};
    }
    // Moves the clock, publishes a sample age_us old, reads one cycle.
    uint32_t cycle(int64_t advance_ms, int64_t age_us)
    {
        fake_now_ns += advance_ms * 1000000;
        vision_->put_aged(ns_to_timespec(fake_now_ns), age_us);
        return read(0);
    }
    uint32_t read(int64_t advance_ms)
    {
        fake_now_ns += advance_ms * 1000000;
        uint32_t updated = 0;
        EXPECT_EQ(vision_optical_flow_read_with(vcam_, &updated, kFakeClock), 0);
        return updated;
    }

    sensors_optical_flow_data flow_{};
    vision_optical_flow_ctx *vcam_ = nullptr;
    std::unique_ptr<test_producer<flow_sample>> vision_;
    int64_t created_ns_ = 0;
    tlm_root root_;
    log_capture cap_;
};

TEST_F(OpticalFlow, FreshRepeatedStaleAndMissingSamples)
{
    EXPECT_EQ(read(10), 0u); // nothing published yet: not valid, not defective
    EXPECT_EQ(flow_.defective, 0);
    EXPECT_TRUE(cap_.texts("vision_optical_flow").empty());

    start_producer();
    EXPECT_EQ(cycle(10, 50000), SENSORS_UPDATED_OPTICAL_FLOW); // 50 ms old: fresh
    EXPECT_EQ(flow_.flow_x, float(0.1234567890123));
    EXPECT_EQ(flow_.flow_y, -2.5f);
    EXPECT_EQ(flow_.flow_z, float(1e-3));
    EXPECT_EQ(flow_.corr_cam_x_m_s, 0.5f);
    EXPECT_EQ(flow_.corr_cam_z_m_s, 0.125f);
    EXPECT_EQ(flow_.quality_indicator, 0.875f);
    EXPECT_EQ(flow_.nb_valid_zones, 12);
    EXPECT_EQ(flow_.defined, 1);
    EXPECT_EQ(flow_.defective, 0);
    const timespec sampled = ns_to_timespec(fake_now_ns - 50000000);
    EXPECT_EQ(timespec_compare(&flow_.timestamp, &sampled), 0);
    EXPECT_EQ(cap_.texts("vision_optical_flow"), std::vector<std::string>{"Got valid input sample"});

    sensors_optical_flow_data before = flow_;
    EXPECT_EQ(read(5), 0u); // the same sample, still fresh
    EXPECT_EQ(memcmp(&before, &flow_, sizeof flow_), 0);

    // Stale right after a valid period: quietly invalidated, flows kept.
    vision_->record.flow[0] = 9.0;
    vision_->record.corr[0] = 7.0f;
    EXPECT_EQ(cycle(20, 100000), 0u);
    EXPECT_EQ(flow_.flow_x, float(0.1234567890123));
    EXPECT_EQ(flow_.corr_cam_x_m_s, 7.0f);
    EXPECT_EQ(flow_.quality_indicator, 0.0f);
    EXPECT_EQ(flow_.nb_valid_zones, 0);
    EXPECT_EQ(flow_.defined, 0);
    EXPECT_EQ(flow_.defective, 0);
    EXPECT_TRUE(cap_.texts("vision_optical_flow").empty());
    EXPECT_EQ(cycle(20, 100000), 0u); // the next stale cycle says so
    EXPECT_EQ(cap_.texts("vision_optical_flow"),
              std::vector<std::string>{"Optical flow measure too old: 100000us"});

    // Fresh again, then the producer stops: said once.
    EXPECT_EQ(cycle(20, 0), SENSORS_UPDATED_OPTICAL_FLOW);
    EXPECT_EQ(flow_.flow_x, 9.0f);
    EXPECT_EQ(flow_.defined, 1);
    vision_->stop();
    EXPECT_EQ(read(20), 0u);
    EXPECT_EQ(read(20), 0u);
    EXPECT_EQ(flow_.defined, 0);
    EXPECT_EQ(flow_.quality_indicator, 0.0f);
    EXPECT_EQ(flow_.flow_x, 9.0f);
    EXPECT_EQ(cap_.texts("vision_optical_flow"),
              (std::vector<std::string>{"Got valid input sample", "Optical flow measure unavailable"}));
    for (uint8_t b : flow_.reserved)
        EXPECT_EQ(b, 0);
}

TEST_F(OpticalFlow, TenSilentSecondsMakeItDefectiveUntilAFreshSample)
{
    const int64_t ten_s_ms = 10000;
    EXPECT_EQ(read(ten_s_ms - 1), 0u); // 9.999 s: not yet
    EXPECT_EQ(flow_.defective, 0);
    fake_now_ns = created_ns_ + ten_s_ms * 1000000; // 10 000 000 us: beyond 9 999 999
    EXPECT_EQ(read(0), 0u);
    EXPECT_EQ(flow_.defective, 1);
    EXPECT_EQ(cap_.texts("vision_optical_flow"),
              std::vector<std::string>{"VISION_OPTICAL_FLOW_DEFECTIVE_TIMEOUT"});
    for (int i = 0; i < 50; i++)
        read(100);
    EXPECT_EQ(flow_.defective, 1);
    EXPECT_TRUE(cap_.texts("vision_optical_flow").empty()); // once per defective period

    start_producer();
    EXPECT_EQ(cycle(100, 30000), SENSORS_UPDATED_OPTICAL_FLOW);
    EXPECT_EQ(flow_.defective, 0);
    EXPECT_EQ(flow_.defined, 1);
    EXPECT_EQ(cap_.texts("vision_optical_flow"), std::vector<std::string>{"Got valid input sample"});

    // A second outage, counted from the accepted sample's time (30 ms before
    // it was read): a new defective period, reported again.
    vision_->stop();
    EXPECT_EQ(read(9969), 0u);
    EXPECT_EQ(flow_.defective, 0);
    EXPECT_EQ(read(1), 0u);
    EXPECT_EQ(flow_.defective, 1);
    EXPECT_EQ(cap_.texts("vision_optical_flow"), (std::vector<std::string>{"Optical flow measure unavailable",
                                                                           "VISION_OPTICAL_FLOW_DEFECTIVE_TIMEOUT"}));
}

TEST_F(OpticalFlow, StaleSamplesForTwelveSecondsGiveTwoMessagesPerThread)
{
    start_producer();
    std::vector<std::string> texts;
    for (int i = 0; i < 120; i++) { // one cycle every 100 ms
        EXPECT_EQ(cycle(100, 70000), 0u);
        for (std::string &t : cap_.texts("vision_optical_flow"))
            texts.push_back(std::to_string(i) + " " + t);
    }
    // The first at once, the masked 99 with the one 10 s later, and the defect at 10 s.
    EXPECT_EQ(texts, (std::vector<std::string>{"0 Optical flow measure too old: 70000us",
                                               "99 VISION_OPTICAL_FLOW_DEFECTIVE_TIMEOUT",
                                               "100 [99] Optical flow measure too old: 70000us"}));
    EXPECT_EQ(flow_.defective, 1);

    // Another acquisition thread has its own throttle: its first message is due at once.
    std::thread other([&] { cycle(100, 80000); });
    other.join();
    EXPECT_EQ(cap_.texts("vision_optical_flow"),
              std::vector<std::string>{"Optical flow measure too old: 80000us"});
}

} // namespace
