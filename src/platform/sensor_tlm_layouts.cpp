// SPDX-License-Identifier: Apache-2.0
#include "platform/sensor_tlm_layouts.h"

#include <sensors/data.h>

#include <array>
#include <cstddef>

namespace {

template <typename T>
constexpr tlm_field_desc field(const char *name, size_t offset, uint32_t type, size_t count = 1)
{
    return tlm_field_desc{offset, name, type, 0, sizeof(T), count, {0, 0}};
}

constexpr std::array kImu{
    field<float>("gyro", offsetof(sensors_imu_data, gyro), TLM_TYPE_FLOAT, SENSORS_IMU_MAX_SAMPLES * 3),
    field<float>("accel", offsetof(sensors_imu_data, accel), TLM_TYPE_FLOAT, SENSORS_IMU_MAX_SAMPLES * 3),
    field<float>("temperature", offsetof(sensors_imu_data, temperature), TLM_TYPE_FLOAT, SENSORS_IMU_MAX_SAMPLES),
    field<uint8_t>("sample_flags", offsetof(sensors_imu_data, sample_flags), TLM_TYPE_UINT8, SENSORS_IMU_MAX_SAMPLES),
    field<uint8_t>("nb_samples", offsetof(sensors_imu_data, nb_samples), TLM_TYPE_UINT8),
    field<timespec>("timestamps", offsetof(sensors_imu_data, timestamps), TLM_TYPE_TIMESPEC, SENSORS_IMU_MAX_SAMPLES),
};

constexpr std::array kBaro{
    field<float>("pressure", offsetof(sensors_baro_data, pressure), TLM_TYPE_FLOAT),
    field<float>("temperature", offsetof(sensors_baro_data, temperature), TLM_TYPE_FLOAT),
    field<uint32_t>("flags", offsetof(sensors_baro_data, flags), TLM_TYPE_UINT32),
    field<timespec>("timestamp", offsetof(sensors_baro_data, timestamp), TLM_TYPE_TIMESPEC),
};

constexpr std::array kMagneto{
    field<float>("field", offsetof(sensors_magneto_data, field), TLM_TYPE_FLOAT, 3),
    field<float>("temperature", offsetof(sensors_magneto_data, temperature), TLM_TYPE_FLOAT),
    field<timespec>("timestamp", offsetof(sensors_magneto_data, timestamp), TLM_TYPE_TIMESPEC),
};

constexpr std::array kBattery{
    field<uint32_t>("present", offsetof(sensors_battery_data, present), TLM_TYPE_UINT32),
    field<uint32_t>("data_role", offsetof(sensors_battery_data, data_role), TLM_TYPE_UINT32),
    field<uint32_t>("power_role", offsetof(sensors_battery_data, power_role), TLM_TYPE_UINT32),
    field<float>("voltage", offsetof(sensors_battery_data, voltage), TLM_TYPE_FLOAT),
    field<float>("current", offsetof(sensors_battery_data, current), TLM_TYPE_FLOAT),
    field<uint32_t>("rsoc", offsetof(sensors_battery_data, rsoc), TLM_TYPE_UINT32),
    field<float>("full_charge_cap", offsetof(sensors_battery_data, full_charge_cap), TLM_TYPE_FLOAT),
    field<float>("remaining_cap", offsetof(sensors_battery_data, remaining_cap), TLM_TYPE_FLOAT),
    field<uint32_t>("avg_time_to_empty", offsetof(sensors_battery_data, avg_time_to_empty), TLM_TYPE_UINT32),
    field<float>("temperature", offsetof(sensors_battery_data, temperature), TLM_TYPE_FLOAT),
    field<uint32_t>("soh", offsetof(sensors_battery_data, soh), TLM_TYPE_UINT32),
    field<int32_t>("fault", offsetof(sensors_battery_data, fault), TLM_TYPE_INT32),
    field<int32_t>("temperature_alert", offsetof(sensors_battery_data, temperature_alert), TLM_TYPE_INT32),
    field<uint32_t>("cycle_count", offsetof(sensors_battery_data, cycle_count), TLM_TYPE_UINT32),
    field<float>("cell_voltage", offsetof(sensors_battery_data, cell_voltage), TLM_TYPE_FLOAT, 2),
    field<uint32_t>("changed_mask", offsetof(sensors_battery_data, changed_mask), TLM_TYPE_UINT32),
    field<timespec>("timestamp", offsetof(sensors_battery_data, timestamp), TLM_TYPE_TIMESPEC),
};

constexpr std::array kGps{
    field<double>("loc_values", offsetof(sensors_gps_data, loc_values), TLM_TYPE_DOUBLE, 4),
    field<uint64_t>("loc_extra", offsetof(sensors_gps_data, loc_extra), TLM_TYPE_UINT64),
    field<float>("com_values", offsetof(sensors_gps_data, com_values), TLM_TYPE_FLOAT, 3),
    field<int32_t>("com_int", offsetof(sensors_gps_data, com_int), TLM_TYPE_INT32),
    field<char>("com_text", offsetof(sensors_gps_data, com_text), TLM_TYPE_CHAR, 4),
    field<uint32_t>("com_uint", offsetof(sensors_gps_data, com_uint), TLM_TYPE_UINT32),
    field<float>("er_values", offsetof(sensors_gps_data, er_values), TLM_TYPE_FLOAT, 7),
    field<int32_t>("er_int", offsetof(sensors_gps_data, er_int), TLM_TYPE_INT32),
    field<char>("fw_text_1", offsetof(sensors_gps_data, fw_text_1), TLM_TYPE_CHAR, SENSORS_GPS_FW_TEXT_SIZE),
    field<char>("fw_text_2", offsetof(sensors_gps_data, fw_text_2), TLM_TYPE_CHAR, SENSORS_GPS_FW_TEXT_SIZE),
    field<uint32_t>("updated", offsetof(sensors_gps_data, updated), TLM_TYPE_UINT32),
    field<timespec>("timestamp", offsetof(sensors_gps_data, timestamp), TLM_TYPE_TIMESPEC),
};

constexpr std::array kUs{
    field<float>("altitude", offsetof(sensors_us_data, altitude), TLM_TYPE_FLOAT),
    field<float>("altitude_v2", offsetof(sensors_us_data, altitude_v2), TLM_TYPE_FLOAT),
    field<uint16_t>("status", offsetof(sensors_us_data, status), TLM_TYPE_UINT16),
    field<uint32_t>("index", offsetof(sensors_us_data, index), TLM_TYPE_UINT32),
    field<uint32_t>("range_mode", offsetof(sensors_us_data, range_mode), TLM_TYPE_UINT32),
    field<timespec>("timestamp", offsetof(sensors_us_data, timestamp), TLM_TYPE_TIMESPEC),
};

constexpr size_t motor_offset(size_t motor)
{
    return offsetof(sensors_motors_data, motor) + motor * sizeof(sensors_motor_speed);
}

constexpr std::array kMotors{
    field<uint32_t>("brake_state", offsetof(sensors_motors_data, brake_state), TLM_TYPE_UINT32),
    field<uint32_t>("ramp_state", offsetof(sensors_motors_data, ramp_state), TLM_TYPE_UINT32),
    field<uint32_t>("spinning", offsetof(sensors_motors_data, spinning), TLM_TYPE_UINT32),
    field<uint32_t>("nominal", offsetof(sensors_motors_data, nominal), TLM_TYPE_UINT32),
    field<uint32_t>("idle", offsetof(sensors_motors_data, idle), TLM_TYPE_UINT32),
    field<uint16_t>("motor[0].speed", motor_offset(0) + offsetof(sensors_motor_speed, speed), TLM_TYPE_UINT16),
    field<uint8_t>("motor[0].pwm", motor_offset(0) + offsetof(sensors_motor_speed, pwm), TLM_TYPE_UINT8),
    field<uint16_t>("motor[1].speed", motor_offset(1) + offsetof(sensors_motor_speed, speed), TLM_TYPE_UINT16),
    field<uint8_t>("motor[1].pwm", motor_offset(1) + offsetof(sensors_motor_speed, pwm), TLM_TYPE_UINT8),
    field<uint16_t>("motor[2].speed", motor_offset(2) + offsetof(sensors_motor_speed, speed), TLM_TYPE_UINT16),
    field<uint8_t>("motor[2].pwm", motor_offset(2) + offsetof(sensors_motor_speed, pwm), TLM_TYPE_UINT8),
    field<uint16_t>("motor[3].speed", motor_offset(3) + offsetof(sensors_motor_speed, speed), TLM_TYPE_UINT16),
    field<uint8_t>("motor[3].pwm", motor_offset(3) + offsetof(sensors_motor_speed, pwm), TLM_TYPE_UINT8),
    field<uint32_t>("error", offsetof(sensors_motors_data, error), TLM_TYPE_UINT32, SENSORS_MOTOR_COUNT),
    field<uint32_t>("status", offsetof(sensors_motors_data, status), TLM_TYPE_UINT32, 5),
    field<timespec>("timestamp", offsetof(sensors_motors_data, timestamp), TLM_TYPE_TIMESPEC),
    field<float>("voltage", offsetof(sensors_motors_data, voltage), TLM_TYPE_FLOAT),
};
static_assert(SENSORS_MOTOR_COUNT == 4, "the motors layout names four motors");

template <typename Table>
constexpr tlm_struct_desc describe(const Table &table)
{
    return tlm_struct_desc{0, table.size(), table.data()};
}

constexpr std::array kLayouts{
    describe(kImu), describe(kBaro), describe(kMagneto), describe(kBattery),
    describe(kGps), describe(kUs),   describe(kMotors),
};

} // namespace

const tlm_struct_desc *layout_of(tlm_kind kind)
{
    size_t i = static_cast<size_t>(kind);
    return i < kLayouts.size() ? &kLayouts[i] : nullptr;
}
