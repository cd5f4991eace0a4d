// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <sensors/data.h>
#include <sensors/sensor_tlm.h>

#include <cerrno>
#include <cctype>
#include <string>

#include "platform/failpoint.h"
#include "platform/shm_telemetry.h"
#include "platform/telemetry_test_util.h"

namespace {

// The carpet estimator's section, described as the carpet module does.
constexpr tlm_field_desc kCarpetFields[] = {
    {offsetof(sensors_carpet_data, position_x), "position_x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, position_y), "position_y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, position_z), "position_z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, orientation), "orientation", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, nb_targets), "nb_targets", TLM_TYPE_UINT32, 0, 4, 1, {}},
};
constexpr tlm_struct_desc kCarpet{0, 5, kCarpetFields};
constexpr const char *kSection = "vision_carpet_estimation";

// "sensor_tlm_start:<line>: <tail>" with a decimal line number.
bool start_failure(const std::string &text, const std::string &tail)
{
    const std::string head = "sensor_tlm_start:";
    size_t colon = text.find(": ", head.size());
    if (text.rfind(head, 0) != 0 || colon == std::string::npos || colon == head.size())
        return false;
    for (size_t i = head.size(); i < colon; i++)
        if (!isdigit(static_cast<unsigned char>(text[i])))
            return false;
    return text.substr(colon + 2) == tail;
}

// The estimator: publishes one sample per step, ends on 'q'.
int estimator(const child_process::link &link)
{
    struct {
        float px, py, pz, orientation;
        uint32_t targets;
    } out{};
    static const tlm_field_desc fields[] = {
        {0, "position_x", TLM_TYPE_FLOAT, 0, 4, 1, {}},  {4, "position_y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
        {8, "position_z", TLM_TYPE_FLOAT, 0, 4, 1, {}},  {12, "orientation", TLM_TYPE_FLOAT, 0, 4, 1, {}},
        {16, "nb_targets", TLM_TYPE_UINT32, 0, 4, 1, {}},
    };
    static const tlm_struct_desc desc{0, 5, fields};
    shm_producer *p = producer_create(kSection, 30, 33333);
    if (!p || producer_register_struct(p, &out, nullptr, &desc) < 0 || producer_complete(p) < 0)
        return 1;
    link.signal();
    for (int i = 1; link.wait() == '.'; i++) {
        out.px = 1.5f * float(i);
        out.orientation = 0.1f;
        out.targets = uint32_t(i);
        timespec ts{50 + i, 0};
        producer_put_sample(p, &ts);
        link.signal();
    }
    producer_destroy(p);
    return 0;
}

TEST(SensorTlm, ErrorsBeforeTheFirstSampleAreTryAgainAndAfterItAsTheyAre)
{
    tlm_root root;
    sensors_carpet_data carpet{};
    sensor_tlm reader{};
    ASSERT_EQ(sensor_tlm_init(&reader, kSection, &kCarpet, &carpet, &carpet.timestamp), 0);
    ASSERT_EQ(sensor_tlm_start(&reader), 0);
    EXPECT_EQ(sensor_tlm_read_latest(&reader), -EAGAIN); // no section at all
    EXPECT_TRUE(reader.no_sample_yet);

    child_process child(estimator);
    ASSERT_TRUE(child.wait_step());
    EXPECT_EQ(sensor_tlm_read_latest(&reader), -EAGAIN); // a section without a sample
    child.step();
    ASSERT_TRUE(child.wait_step());
    ASSERT_EQ(sensor_tlm_read_latest(&reader), 0);
    EXPECT_FALSE(reader.no_sample_yet);
    EXPECT_EQ(carpet.position_x, 1.5f);
    EXPECT_EQ(carpet.orientation, 0.1f);
    EXPECT_EQ(carpet.nb_targets, 1);
    EXPECT_EQ(carpet.timestamp.tv_sec, 51);

    child.step('q');
    EXPECT_EQ(child.join(), 0);
    EXPECT_EQ(sensor_tlm_read_latest(&reader), -ENOENT); // the producer has gone

    // Cleaned and started again, the grace does not come back.
    sensor_tlm_clean(&reader);
    EXPECT_EQ(reader.consumer, nullptr);
    ASSERT_EQ(sensor_tlm_start(&reader), 0);
    EXPECT_EQ(sensor_tlm_read_latest(&reader), -ENOENT);
    sensor_tlm_clean(&reader);
}

TEST(SensorTlm, FilterErrorRules)
{
    struct row {
        bool have_reader;
        bool no_sample_yet;
        int result;
        int expected;
        bool flag_after;
    };
    const row rows[] = {
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
}

TEST(SensorTlm, InitChecksItsArgumentsAndNeverTouchesAStartedReader)
{
    tlm_root root;
    sensors_carpet_data carpet{};
    timespec *ts = &carpet.timestamp;
    sensor_tlm reader{};
    EXPECT_EQ(sensor_tlm_init(nullptr, kSection, &kCarpet, &carpet, ts), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&reader, nullptr, &kCarpet, &carpet, ts), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&reader, kSection, nullptr, &carpet, ts), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&reader, kSection, &kCarpet, nullptr, ts), -EINVAL);
    EXPECT_EQ(sensor_tlm_init(&reader, kSection, &kCarpet, &carpet, nullptr), -EINVAL);

    ASSERT_EQ(sensor_tlm_init(&reader, kSection, &kCarpet, &carpet, ts), 0);
    EXPECT_TRUE(reader.no_sample_yet);
    EXPECT_EQ(reader.consumer, nullptr); // init creates nothing
    ASSERT_EQ(sensor_tlm_start(&reader), 0);
    EXPECT_EQ(sensor_tlm_start(&reader), -EINVAL);
    sensor_tlm before = reader;
    sensors_vision_position_data other{};
    EXPECT_EQ(sensor_tlm_init(&reader, "vcam_position", &kCarpet, &other, &other.timestamp), -EINVAL);
    EXPECT_EQ(memcmp(&before, &reader, sizeof reader), 0);
    EXPECT_EQ(sensor_tlm_start(nullptr), -EINVAL);
    EXPECT_EQ(sensor_tlm_read_latest(nullptr), -EINVAL);
    sensor_tlm_clean(&reader);
    sensor_tlm_clean(&reader); // nothing left to clean
    EXPECT_EQ(reader.consumer, nullptr);
}

TEST(SensorTlm, AFailedStartSaysWhyAndLeavesTheReaderReadyForAnotherStart)
{
    tlm_root root;
    sensors_carpet_data carpet{};
    sensor_tlm reader{};
    ASSERT_EQ(sensor_tlm_init(&reader, kSection, &kCarpet, &carpet, &carpet.timestamp), 0);
    log_capture cap;

    failpoint_arm("shm_consumer_create", -ENOMEM, 1);
    EXPECT_EQ(sensor_tlm_start(&reader), -ENOMEM);
    EXPECT_EQ(reader.consumer, nullptr);
    EXPECT_EQ(cap.texts("sensor_tlm"), std::vector<std::string>{"consumer_create failed"});

    failpoint_arm("shm_consumer_register", -EIO, 1);
    EXPECT_EQ(sensor_tlm_start(&reader), -EIO);
    EXPECT_EQ(reader.consumer, nullptr);
    std::vector<std::string> texts = cap.texts("sensor_tlm");
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_TRUE(start_failure(texts[0], "consumer_register_struct err=5(Input/output error)")) << texts[0];

    failpoint_arm("shm_consumer_complete", -ENOMEM, 1);
    EXPECT_EQ(sensor_tlm_start(&reader), -ENOMEM);
    EXPECT_EQ(reader.consumer, nullptr);
    texts = cap.texts("sensor_tlm");
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_TRUE(start_failure(texts[0], "consumer_complete err=12(Cannot allocate memory)")) << texts[0];

    // A description the telemetry service refuses is a registration failure too.
    const tlm_struct_desc empty{0, 0, kCarpetFields};
    sensor_tlm bad{};
    ASSERT_EQ(sensor_tlm_init(&bad, kSection, &empty, &carpet, &carpet.timestamp), 0);
    EXPECT_EQ(sensor_tlm_start(&bad), -EINVAL);
    EXPECT_EQ(bad.consumer, nullptr);
    cap.take();

    EXPECT_EQ(sensor_tlm_start(&reader), 0);
    sensor_tlm_clean(&reader);
    EXPECT_TRUE(cap.texts("sensor_tlm").empty());

    sensor_tlm_clean(nullptr);
    EXPECT_EQ(cap.texts("sensor_tlm"), std::vector<std::string>{"sensor_tlm_clean: sensor=(nil)"});
}

} // namespace
