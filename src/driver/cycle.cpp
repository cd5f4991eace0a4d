// SPDX-License-Identifier: Apache-2.0
// The acquisition cycle: read, write and telemetry write.
//
// Read blocks only in the IMU wait; every other sensor is polled once (those
// that can tell whether anything waits, all in one poll). The frame
// allocates nothing here and formats text only when it logs.
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <sensors/baro_magneto.h>
#include <sensors/battery.h>
#include <sensors/gps_us.h>
#include <sensors/imu.h>
#include <sensors/motors.h>
#include <sensors/tlm_sensors.h>

#include "driver/driver_ctx.h"
#include "driver/driver_log.h"
#include "driver/ready_sources.h"
#include "platform/ready_poll.h"
#include "tlm_sensors/throttle.h"

namespace {

// The enabled flag at byte at of the configuration: each row names its
// sensor's by offset, read in place rather than through a call.
bool enabled(const sensors_config &config, size_t at)
{
    int32_t flag;
    memcpy(&flag, reinterpret_cast<const char *>(&config) + at, sizeof flag);
    return flag != 0;
}

// Sensors polled after the IMU whose failure is logged and the cycle goes on,
// in this order.
struct poll_row {
    size_t flag; // the sensor's enabled flag
    int (*read)(sensors_orlune_ctx *, uint32_t *mask);
    const char *failure; // one %s: strerror of the result
};

constexpr poll_row kPoll[] = {
    {offsetof(sensors_config, baro.enabled),
     [](sensors_orlune_ctx *x, uint32_t *m) { return barometer_read(x->baro, m); }, "barometer read failed: %s"},
    // The magnetometer is corrected at the barometer's temperature of this
    // cycle (stale or zero when the barometer delivered nothing).
    {offsetof(sensors_config, magneto.enabled),
     [](sensors_orlune_ctx *x, uint32_t *m) { return magneto_read(x->magneto, m, x->record->baro.temperature); },
     "magnetometer read failed: %s"},
    {offsetof(sensors_config, gps.enabled),
     [](sensors_orlune_ctx *x, uint32_t *m) { return gps_read(x->gps, m); }, "gps read failed: %s"},
    {offsetof(sensors_config, ultrasound.enabled),
     [](sensors_orlune_ctx *x, uint32_t *m) { return us_read(x->us, m); }, "us read failed: %s"},
    {offsetof(sensors_config, carpet_detection.enabled),
     [](sensors_orlune_ctx *x, uint32_t *m) { return carpet_detection_read(x->carpet, m); }, "carpet read failed: %s"},
    {offsetof(sensors_config, vcam_position.enabled),
     [](sensors_orlune_ctx *x, uint32_t *m) { return vision_position_read(x->vision_position, m); },
     "vcam_position read failed: %s"},
    {offsetof(sensors_config, vcam_optical_flow.enabled),
     [](sensors_orlune_ctx *x, uint32_t *m) { return vision_optical_flow_read(x->optical_flow, m); },
     "vision_optical_flow read failed: %s"},
};

struct push_row {
    size_t flag; // the sensor's enabled flag
    uint32_t bit;
    int (*push)(sensors_orlune_ctx *);
};

constexpr push_row kPush[] = {
    {offsetof(sensors_config, imu.enabled), SENSORS_UPDATED_IMU,
     [](sensors_orlune_ctx *x) { return imu_tlm_push(x->imu); }},
    {offsetof(sensors_config, baro.enabled), SENSORS_UPDATED_BARO,
     [](sensors_orlune_ctx *x) { return barometer_tlm_push(x->baro); }},
    {offsetof(sensors_config, magneto.enabled), SENSORS_UPDATED_MAGNETO,
     [](sensors_orlune_ctx *x) { return magneto_tlm_push(x->magneto); }},
    {offsetof(sensors_config, ultrasound.enabled), SENSORS_UPDATED_US,
     [](sensors_orlune_ctx *x) { return us_tlm_push(x->us); }},
    {offsetof(sensors_config, gps.enabled), SENSORS_UPDATED_GPS,
     [](sensors_orlune_ctx *x) { return gps_tlm_push(x->gps); }},
    {offsetof(sensors_config, bldc.enabled), SENSORS_UPDATED_MOTORS,
     [](sensors_orlune_ctx *x) { return bldc_cypress_tlm_push_motors(x->bldc); }},
    {offsetof(sensors_config, battery.enabled), SENSORS_UPDATED_BATTERY,
     [](sensors_orlune_ctx *x) { return battery_tlm_push(x->battery); }},
};

// Front-camera gimbal failures: reported at most once a second per calling
// thread, with the number swallowed since the previous report.
ORLUNE_THROTTLE_STATE msg_throttle t_gimbal_failures{};

// The battery sub-record filled from the motor controller when no smart
// battery data is available.
void battery_fallback(sensors_data *record, uint32_t *mask)
{
    sensors_battery_data &battery = record->battery;
    battery.changed_mask |= SENSORS_BATTERY_CHANGED_VOLTAGE | SENSORS_BATTERY_CHANGED_RSOC;
    *mask |= SENSORS_UPDATED_BATTERY;
    battery.present = 0;
    battery.rsoc = SENSORS_BATTERY_RSOC_UNKNOWN;
    battery.voltage = record->motors.voltage;
    battery.timestamp = record->motors.timestamp;
}

// Bits 0 to 9 of changed_mask (voltage to cycle count) count as changed when
// the pack appears.
constexpr uint32_t kBatteryAppearedMask = 0x3FF;

} // namespace

int sensors_orlune_read(sensors_data *record, sensors_orlune_ctx *ctx)
{
    if (!record || !ctx || !ctx->config || !ctx->record) {
        log_msg(kFrameTag, LOG_ERR, "%s: cd=%p, data=%p", __func__, static_cast<void *>(ctx),
                static_cast<void *>(record));
        return -EINVAL;
    }
    const sensors_config &config = *ctx->config;
    uint32_t *mask = &record->updated_sensors;
    *mask = 0;

    if (config.imu.enabled) {
        int r = imu_wait(ctx->imu);
        if (r < 0) {
            log_msg(kFrameTag, LOG_ERR, "imu wait failed: %s", strerror(-r));
            return r;
        }
        r = imu_read(ctx->imu, mask);
        if (r < 0) {
            log_msg(kFrameTag, LOG_ERR, "imu read failed: %s", strerror(-r));
            return r;
        }
    }

    // The polled sources that can tell whether something waits are asked
    // together, once: those with nothing are not read one by one.
    ready_hint *hints[4];
    size_t hint_count = 0;
    if (config.baro.enabled)
        hints[hint_count++] = barometer_ready_hint(ctx->baro);
    if (config.magneto.enabled)
        hints[hint_count++] = magneto_ready_hint(ctx->magneto);
    if (config.gps.enabled)
        hints[hint_count++] = gps_ready_hint(ctx->gps);
    if (config.ultrasound.enabled)
        hints[hint_count++] = us_ready_hint(ctx->us);
    ready_poll(hints, hint_count);

    for (const poll_row &row : kPoll) {
        if (!enabled(config, row.flag))
            continue;
        int r = row.read(ctx, mask);
        if (r < 0)
            log_msg(kFrameTag, LOG_ERR, row.failure, strerror(-r));
    }

    if (config.fcam_gimbal.enabled) {
        int r = fcam_gimbal_read(ctx->fcam_gimbal, mask);
        if (r < 0)
            fcam_gimbal_report_read_failure(kFrameTag, &t_gimbal_failures, r, monotonic_ms());
    }

    if (config.bldc.enabled) {
        const sensors_imu_data &imu = ctx->record->imu;
        const timespec *imu_time = imu.nb_samples ? &imu.timestamps[0] : nullptr;
        int r = bldc_cypress_read(ctx->bldc, mask, imu_time);
        if (r < 0) {
            log_msg(kFrameTag, LOG_ERR, "bldc read failed: %s", strerror(-r));
            return r;
        }
    }

    if (config.battery.enabled && ctx->battery) {
        bool was_present = battery_is_present(ctx->battery) > 0;
        int r = battery_read(ctx->battery, mask);
        if (r >= 0) {
            if (!was_present) {
                log_msg(kFrameTag, LOG_NOTICE, "EVT:SMARTBATTERY;event='present'");
                *mask |= SENSORS_UPDATED_BATTERY;
                ctx->record->battery.changed_mask |= kBatteryAppearedMask;
            }
            return 0;
        }
        if (was_present)
            log_msg(kFrameTag, LOG_NOTICE, "EVT:SMARTBATTERY;event='absent'");
    }

    battery_fallback(ctx->record, mask);
    return 0;
}

int sensors_orlune_write(const sensors_motor_command *command, sensors_orlune_ctx *ctx)
{
    if (!ctx || !ctx->config)
        return -EINVAL;
    if (!ctx->config->bldc.enabled)
        return 0;
    int r = bldc_cypress_write(ctx->bldc, command);
    if (r < 0)
        log_msg(kFrameTag, LOG_ERR, "bldc write failed: %s", strerror(-r));
    return r;
}

int sensors_orlune_tlm_write(sensors_orlune_ctx *ctx)
{
    if (!ctx || !ctx->config || !ctx->record)
        return 0;
    uint32_t updated = ctx->record->updated_sensors;
    for (const push_row &row : kPush)
        if ((updated & row.bit) && enabled(*ctx->config, row.flag))
            row.push(ctx);
    return 0;
}
