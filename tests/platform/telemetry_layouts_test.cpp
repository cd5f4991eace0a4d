// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <sensors/data.h>

#include <cstring>
#include <vector>

#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"
#include "platform/telemetry_test_util.h"

namespace {

struct kind_row {
    tlm_kind kind;
    const char *section;
    size_t record_size;
    size_t reserved_bytes; // bytes of the record that carry no field
};

const kind_row kKinds[] = {
    {tlm_kind::imu, "sensors_imu", sizeof(sensors_imu_data), 6},
    {tlm_kind::baro, "sensors_barometer", sizeof(sensors_baro_data), 4},
    {tlm_kind::magneto, "sensors_magnetometer", sizeof(sensors_magneto_data), 0},
    {tlm_kind::battery, "sensors_battery", sizeof(sensors_battery_data), 4},
    {tlm_kind::gps, "sensors_gps", sizeof(sensors_gps_data), 8 + 16 + 528},
    {tlm_kind::us, "sensors_us", sizeof(sensors_us_data), 2 + 4},
    {tlm_kind::motors, "sensors_motors", sizeof(sensors_motors_data), 4 + 4},
};

TEST(TelemetryLayouts, EveryFieldOfEachRecordIsDescribedOnceAndInsideIt)
{
    for (const kind_row &k : kKinds) {
        SCOPED_TRACE(k.section);
        const tlm_struct_desc *layout = layout_of(k.kind);
        ASSERT_NE(layout, nullptr);
        std::vector<int> owner(k.record_size, 0);
        for (uint64_t i = 0; i < layout->field_count; i++) {
            const tlm_field_desc &f = layout->fields[i];
            ASSERT_EQ(f.size, tlm_type_size(f.type)) << f.name;
            ASSERT_LE(f.offset + f.size * f.count, k.record_size) << f.name;
            for (uint64_t b = f.offset; b < f.offset + f.size * f.count; b++)
                owner[b]++;
        }
        size_t free_bytes = 0;
        for (size_t b = 0; b < k.record_size; b++) {
            EXPECT_LE(owner[b], 1) << "byte " << b << " is described twice";
            free_bytes += owner[b] == 0;
        }
        EXPECT_EQ(free_bytes, k.reserved_bytes);
    }
    EXPECT_EQ(layout_of(static_cast<tlm_kind>(99)), nullptr);
}

TEST(TelemetryLayouts, APublishedRecordIsReadBackByFieldName)
{
    for (const kind_row &k : kKinds) {
        SCOPED_TRACE(k.section);
        tlm_root root;
        std::vector<uint8_t> record(k.record_size);
        for (size_t b = 0; b < record.size(); b++)
            record[b] = uint8_t(b * 7 + 1);
        const tlm_struct_desc *layout = layout_of(k.kind);
        shm_producer *p = producer_create(k.section, 20, 100000);
        ASSERT_EQ(producer_register_struct(p, record.data(), nullptr, layout), 0);
        ASSERT_EQ(producer_complete(p), 0);
        timespec ts{12, 34};
        ASSERT_EQ(producer_put_sample(p, &ts), 0);

        // Read field by field through the same names, into a blank record.
        std::vector<uint8_t> copy(k.record_size, 0);
        shm_consumer *c = consumer_create();
        ASSERT_EQ(consumer_register_struct(c, copy.data(), k.section, layout), 0);
        ASSERT_EQ(consumer_complete(c), 0);
        timespec got{};
        ASSERT_EQ(consumer_get_sample_at(c, nullptr, 0, &got), 0);
        EXPECT_EQ(got.tv_sec, 12);
        EXPECT_EQ(got.tv_nsec, 34);
        for (uint64_t i = 0; i < layout->field_count; i++) {
            const tlm_field_desc &f = layout->fields[i];
            EXPECT_EQ(memcmp(copy.data() + f.offset, record.data() + f.offset, f.size * f.count), 0) << f.name;
        }
        consumer_destroy(c);
        producer_destroy(p);
    }
}

} // namespace
