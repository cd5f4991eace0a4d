// SPDX-License-Identifier: Apache-2.0
// The telemetry section reader, reading the carpet estimator's section into
// a record laid out as the section.
#include <gmock/gmock.h>

#include <sensors/data.h>
#include <sensors/sensor_tlm.h>

#include <cerrno>
#include <cstring>

#include "platform/failpoint.h"
#include "platform/telemetry_test_util.h"
#include "tlm_producer.h"

namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr const char *kSection = "vision_carpet_estimation";

class SensorTlm : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(sensor_tlm_init(&reader_, kSection, &desc_, &out_, &stamp_), 0); }
    void TearDown() override { sensor_tlm_clean(&reader_); }

    tlm_root root_;
    log_capture cap_;
    const std::vector<tlm_field_desc> fields_ = carpet_fields();
    const tlm_struct_desc desc_{0, fields_.size(), fields_.data()};
    carpet_sample out_{};
    timespec stamp_{};
    sensor_tlm reader_{};
};

TEST_F(SensorTlm, FilterErrorRules)
{
    const struct row {
        bool have_reader;
        bool no_sample_yet;
        int result;
        int expected;
        bool flag_after;
    } rows[] = {
        {false, true, -EIO, -EIO, true},         {true, true, -EIO, -EAGAIN, true},
        {true, true, -ENOENT, -EAGAIN, true},    {true, true, 0, 0, false},
        {true, true, 3, 3, false},               {true, false, -EIO, -EIO, false},
        {true, false, -EAGAIN, -EAGAIN, false},  {true, false, 0, 0, false},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(testing::Message() << "result " << r.result << " flag " << r.no_sample_yet);
        sensor_tlm reader{};
        reader.no_sample_yet = r.no_sample_yet;
        EXPECT_EQ(sensor_tlm_filter_error(r.have_reader ? &reader : nullptr, r.result), r.expected);
        EXPECT_EQ(reader.no_sample_yet, r.flag_after);
    }

    // The same rules through the reader: no section and a section without a
    // sample are "try again"; after the first sample a producer that has gone
    // is a failure, and cleaning and starting again does not bring the grace back.
    ASSERT_EQ(sensor_tlm_start(&reader_), 0);
    EXPECT_EQ(sensor_tlm_read_latest(&reader_), -EAGAIN);
    test_producer<carpet_sample> estimator(kSection, carpet_fields());
    EXPECT_EQ(sensor_tlm_read_latest(&reader_), -EAGAIN);
    EXPECT_TRUE(reader_.no_sample_yet);
    estimator.record = {1.5f, 0.0f, 0.0f, 0.1f, 1};
    estimator.put({51, 0});
    ASSERT_EQ(sensor_tlm_read_latest(&reader_), 0);
    EXPECT_FALSE(reader_.no_sample_yet);
    EXPECT_EQ(out_.px, 1.5f);
    EXPECT_EQ(out_.orientation, 0.1f);
    EXPECT_EQ(out_.targets, 1);
    EXPECT_EQ(stamp_.tv_sec, 51);

    estimator.stop();
    EXPECT_EQ(sensor_tlm_read_latest(&reader_), -ENOENT);
    sensor_tlm_clean(&reader_);
    EXPECT_EQ(reader_.consumer, nullptr);
    ASSERT_EQ(sensor_tlm_start(&reader_), 0);
    EXPECT_EQ(sensor_tlm_read_latest(&reader_), -ENOENT);
}

TEST_F(SensorTlm, InitChecksItsArgumentsAndNeverTouchesAStartedReader)
{
    sensor_tlm fresh{};
    EXPECT_EQ(sensor_tlm_init(nullptr, kSection, &desc_, &out_, &stamp_), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&fresh, nullptr, &desc_, &out_, &stamp_), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&fresh, kSection, nullptr, &out_, &stamp_), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&fresh, kSection, &desc_, nullptr, &stamp_), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&fresh, kSection, &desc_, &out_, nullptr), -EINVAL);

    EXPECT_TRUE(reader_.no_sample_yet);
    EXPECT_EQ(reader_.consumer, nullptr); // init creates nothing
    ASSERT_EQ(sensor_tlm_start(&reader_), 0);
    EXPECT_EQ(sensor_tlm_start(&reader_), -EINVAL);
    const sensor_tlm before = reader_;
    sensors_vision_position_data other{};
    EXPECT_EQ(sensor_tlm_init(&reader_, "vcam_position", &desc_, &other, &other.timestamp), -EINVAL);
    EXPECT_EQ(memcmp(&before, &reader_, sizeof reader_), 0);
    EXPECT_EQ(sensor_tlm_start(nullptr), -EINVAL);
    EXPECT_EQ(sensor_tlm_read_latest(nullptr), -EINVAL);
    sensor_tlm_clean(&reader_);
    sensor_tlm_clean(&reader_); // nothing left to clean
    EXPECT_EQ(reader_.consumer, nullptr);
}

TEST_F(SensorTlm, AFailedStartSaysWhyAndLeavesTheReaderReadyForAnotherStart)
{
    const struct {
        const char *point;
        int err;
        const char *text;
    } rows[] = {
        {"shm_consumer_create", -ENOMEM, "consumer_create failed"},
        {"shm_consumer_register", -EIO,
         "sensor_tlm_start:[0-9]+: consumer_register_struct err=5\\(Input/output error\\)"},
        {"shm_consumer_complete", -ENOMEM,
         "sensor_tlm_start:[0-9]+: consumer_complete err=12\\(Cannot allocate memory\\)"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.point);
        failpoint_arm(r.point, r.err, 1);
        EXPECT_EQ(sensor_tlm_start(&reader_), r.err);
        EXPECT_EQ(reader_.consumer, nullptr);
        EXPECT_THAT(cap_.texts("sensor_tlm"), ElementsAre(MatchesRegex(r.text)));
    }

    // A description the telemetry service refuses is a registration failure too.
    const tlm_struct_desc empty{0, 0, desc_.fields};
    sensor_tlm bad{};
    ASSERT_EQ(sensor_tlm_init(&bad, kSection, &empty, &out_, &stamp_), 0);
    EXPECT_EQ(sensor_tlm_start(&bad), -EINVAL);
    EXPECT_EQ(bad.consumer, nullptr);
    cap_.take();

    EXPECT_EQ(sensor_tlm_start(&reader_), 0);
    sensor_tlm_clean(&reader_);
    EXPECT_TRUE(cap_.texts("sensor_tlm").empty());

    sensor_tlm_clean(nullptr);
    EXPECT_THAT(cap_.texts("sensor_tlm"), ElementsAre("sensor_tlm_clean: sensor=(nil)"));
}

} // namespace
