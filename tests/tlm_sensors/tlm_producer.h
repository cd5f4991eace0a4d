// SPDX-License-Identifier: Apache-2.0
// An in-process producer of one telemetry section for the module tests:
// the test fills the record and publishes it with the time it chooses.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"

template <typename Record>
class test_producer {
public:
    // fields describe Record; prefix, when given, names them "prefix.field".
    test_producer(const char *section, std::vector<tlm_field_desc> fields, const char *prefix = nullptr)
        : fields_(std::move(fields))
    {
        desc_ = {0, fields_.size(), fields_.data()};
        producer_ = producer_create(section, 16, 10000);
        EXPECT_NE(producer_, nullptr);
        EXPECT_EQ(producer_register_struct(producer_, &record, prefix, &desc_), 0);
        EXPECT_EQ(producer_complete(producer_), 0);
    }
    ~test_producer() { producer_destroy(producer_); }
    test_producer(const test_producer &) = delete;
    test_producer &operator=(const test_producer &) = delete;

    void put(const timespec &t) { ASSERT_EQ(producer_put_sample(producer_, &t), 0); }
    // Stamped age_us before now.
    void put_aged(const timespec &now, int64_t age_us)
    {
        int64_t ns = 0;
        ASSERT_EQ(timespec_to_ns(&now, &ns), 0);
        put(ns_to_timespec(ns - age_us * 1000));
    }
    // Gone, as a producer that stopped.
    void stop()
    {
        producer_destroy(producer_);
        producer_ = nullptr;
    }

    Record record{};

private:
    std::vector<tlm_field_desc> fields_;
    tlm_struct_desc desc_{};
    shm_producer *producer_ = nullptr;
};

// The sections as their producers lay them out (the samples below).
struct carpet_sample {
    float px, py, pz, orientation;
    int32_t targets;
};
struct position_sample {
    float x, y, z, ratio;
    int32_t status, pad;
    int64_t ref_ts;
};
struct flow_sample {
    double flow[3];
    float corr[3];
    float quality;
    int32_t zones;
    uint8_t defined;
};
struct gimbal_sample {
    float ef_rate[3];
    float w, x, y, z;
};

inline tlm_field_desc f32(uint64_t offset, const char *name, uint64_t count = 1)
{
    return {offset, name, TLM_TYPE_FLOAT, 0, 4, count, {}};
}

inline std::vector<tlm_field_desc> carpet_fields()
{
    return {f32(0, "position_x"), f32(4, "position_y"), f32(8, "position_z"), f32(12, "orientation"),
            {16, "nb_targets", TLM_TYPE_UINT32, 0, 4, 1, {}}};
}
inline std::vector<tlm_field_desc> position_fields()
{
    return {f32(0, "x"), f32(4, "y"), f32(8, "z"), f32(12, "discriminable_ft_ratio"),
            {16, "status", TLM_TYPE_INT32, 0, 4, 1, {}}, {24, "last_ref_image_ts", TLM_TYPE_INT64, 0, 8, 1, {}}};
}
inline std::vector<tlm_field_desc> flow_fields()
{
    return {{0, "flow_x_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}}, {8, "flow_y_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
            {16, "flow_z_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}}, f32(24, "corr_cam_x_m_s"), f32(28, "corr_cam_y_m_s"),
            f32(32, "corr_cam_z_m_s"), f32(36, "quality_indicator"), {40, "nb_valid_zones", TLM_TYPE_INT32, 0, 4, 1, {}},
            {44, "defined", TLM_TYPE_BOOL, 0, 1, 1, {}}};
}
// Published with the prefix "est.state" in the section "gimbal_stab".
inline std::vector<tlm_field_desc> gimbal_fields()
{
    return {f32(0, "ef_rate", 3), f32(12, "ef_q.w"), f32(16, "ef_q.x"), f32(20, "ef_q.y"), f32(24, "ef_q.z")};
}

// "<function>:<line>: <tail>" with a decimal line number, the shape of a
// failed platform call's report.
inline bool call_failed(const std::string &text, const std::string &function, const std::string &tail)
{
    const std::string head = function + ":";
    size_t colon = text.find(": ", head.size());
    if (text.rfind(head, 0) != 0 || colon == std::string::npos || colon == head.size())
        return false;
    for (size_t i = head.size(); i < colon; i++)
        if (text[i] < '0' || text[i] > '9')
            return false;
    return text.substr(colon + 2) == tail;
}
