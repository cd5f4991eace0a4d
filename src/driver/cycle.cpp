// SPDX-License-Identifier: Apache-2.0
// The acquisition cycle: read, write and telemetry write.
//
// Read blocks only in the IMU wait; every other sensor is polled once. The
// frame allocates nothing here and formats text only when it logs.
#include <array>
#include <cerrno>
#include <cstring>

#include <sensors/imu.h>

#include "driver/driver_ctx.h"
#include "driver/driver_log.h"

namespace {

using enabled_fn = bool (*)(const sensors_config &);

// Sensors polled after the IMU whose failure is logged and the cycle goes on.
struct poll_row {
    enabled_fn enabled;
    int (*read)(sensors_orlune_ctx *, uint32_t *mask);
    const char *failure; // one %s: strerror of the result
};

// Barometer, magnetometer (with the barometer's temperature), gps,
// ultrasound, carpet detection, vision position and optical flow, in that
// order, as their modules are built.
constexpr std::array<poll_row, 0> kPoll{};

struct push_row {
    enabled_fn enabled;
    uint32_t bit;
    int (*push)(sensors_orlune_ctx *);
};

constexpr push_row kPush[] = {
    {[](const sensors_config &c) { return c.imu.enabled != 0; }, SENSORS_UPDATED_IMU,
     [](sensors_orlune_ctx *x) { return imu_tlm_push(x->imu); }},
};

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

    for (const poll_row &row : kPoll) {
        if (!row.enabled(config))
            continue;
        int r = row.read(ctx, mask);
        if (r < 0)
            log_msg(kFrameTag, LOG_ERR, row.failure, strerror(-r));
    }

    battery_fallback(ctx->record, mask);
    return 0;
}

int sensors_orlune_write(const sensors_motor_command *command, sensors_orlune_ctx *ctx)
{
    (void)command;
    if (!ctx || !ctx->config)
        return -EINVAL;
    // Motor commands reach the controller once its module is built; with
    // the controller disabled they are ignored.
    return 0;
}

int sensors_orlune_tlm_write(sensors_orlune_ctx *ctx)
{
    if (!ctx || !ctx->config || !ctx->record)
        return 0;
    uint32_t updated = ctx->record->updated_sensors;
    for (const push_row &row : kPush)
        if (row.enabled(*ctx->config) && (updated & row.bit))
            row.push(ctx);
    return 0;
}
