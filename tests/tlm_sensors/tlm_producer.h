// SPDX-License-Identifier: Apache-2.0
// Helpers of the telemetry-fed sensor tests: an in-process producer of one
// telemetry section (the test fills the record and publishes it with the
// time it chooses), the sections' layouts, and the four modules of a record.
#pragma once

#include <gtest/gtest.h>

#include <sensors/tlm_sensors.h>

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

// The four telemetry-fed modules of one record, started as the driver
// starts them, with carpet detection active.
struct modules {
    sensors_data record{};
    sensors_enabled_config gimbal_config{1};
    carpet_detection_ctx *carpet = carpet_detection_new(&record.carpet);
    vision_position_ctx *position = vision_position_new(&record.vision_position, "vcam_position", 0x400);
    vision_optical_flow_ctx *flow = vision_optical_flow_new(&record.optical_flow);
    fcam_gimbal_ctx *gimbal = fcam_gimbal_new(&gimbal_config, nullptr, &record.fcam_gimbal);

    modules()
    {
        EXPECT_EQ(carpet_detection_activate(carpet), 0);
        EXPECT_EQ(vision_position_start(position), 0);
        EXPECT_EQ(vision_optical_flow_start(flow), 0);
        EXPECT_EQ(fcam_gimbal_start(gimbal), 0);
    }
    ~modules()
    {
        carpet_detection_destroy(carpet);
        vision_position_destroy(position);
        vision_optical_flow_destroy(flow);
        fcam_gimbal_destroy(gimbal);
    }

    // One acquisition cycle of the four readers: the bits they set.
    uint32_t cycle()
    {
        record.updated_sensors = 0;
        carpet_detection_read(carpet, &record.updated_sensors);
        vision_position_read(position, &record.updated_sensors);
        vision_optical_flow_read(flow, &record.updated_sensors);
        fcam_gimbal_read(gimbal, &record.updated_sensors);
        return record.updated_sensors;
    }
};
