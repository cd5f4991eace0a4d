// SPDX-License-Identifier: Apache-2.0
// The driver table and the plug-in's lifecycle: probe, start, stop,
// shutdown, activate and deactivate.
//
// Each lifecycle operation walks its own table of module rows, in the order
// the flight stack relies on; a module joins the frame by adding its rows.
#include <iio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sensors/baro_magneto.h>
#include <sensors/battery.h>
#include <sensors/gps_us.h>
#include <sensors/imu.h>
#include <sensors/motors.h>
#include <sensors/tlm_sensors.h>

#include "driver/driver_ctx.h"
#include "driver/driver_log.h"
#include "platform/iio_helper.h"

namespace {

// Arguments that probe hands to the module constructors.
struct probe_args {
    sensors_orlune_ctx *ctx;
    void *spin_dir;
    void *sched;
};

using enabled_fn = bool (*)(const sensors_config &);

struct create_row {
    enabled_fn enabled;
    bool (*create)(const probe_args &);
    const char *failure; // logged when the constructor returns null
    bool fatal;          // false: probe goes on without the module
};

constexpr create_row kCreate[] = {
    {[](const sensors_config &c) { return c.imu.enabled || c.bldc.enabled; },
     [](const probe_args &a) {
         a.ctx->imu = imu_new(&a.ctx->config->imu, a.ctx->iio, a.sched, &a.ctx->record->imu);
         return a.ctx->imu != nullptr;
     },
     "can't init imu", true},
    {[](const sensors_config &c) { return c.battery.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->battery = battery_new(&a.ctx->config->battery, &a.ctx->record->battery);
         return a.ctx->battery != nullptr;
     },
     "can't init battery: continue", false},
    {[](const sensors_config &c) { return c.bldc.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->bldc = bldc_cypress_new(&a.ctx->config->bldc, a.ctx->iio, a.spin_dir, a.sched,
                                        &a.ctx->record->motors, &a.ctx->record->motors_info);
         return a.ctx->bldc != nullptr;
     },
     "can't init bldc", true},
    {[](const sensors_config &c) { return c.gps.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->gps = gps_new(&a.ctx->record->gps);
         return a.ctx->gps != nullptr;
     },
     "can't init gps", true},
    {[](const sensors_config &c) { return c.magneto.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->magneto = magneto_new(&a.ctx->config->magneto, a.ctx->iio, a.sched, &a.ctx->record->magneto);
         return a.ctx->magneto != nullptr;
     },
     "can't init magnetometer", true},
    {[](const sensors_config &c) { return c.baro.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->baro = barometer_new(&a.ctx->config->baro, a.ctx->iio, a.sched, &a.ctx->record->baro);
         return a.ctx->baro != nullptr;
     },
     "can't init barometer", true},
    {[](const sensors_config &c) { return c.ultrasound.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->us = us_new(&a.ctx->record->us);
         return a.ctx->us != nullptr;
     },
     "can't init us", true},
    {[](const sensors_config &c) { return c.carpet_detection.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->carpet = carpet_detection_new(&a.ctx->record->carpet);
         return a.ctx->carpet != nullptr;
     },
     "can't init carpet", true},
    {[](const sensors_config &c) { return c.vcam_position.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->vision_position =
             vision_position_new(&a.ctx->record->vision_position, "vcam_position", SENSORS_UPDATED_VISION_POSITION);
         return a.ctx->vision_position != nullptr;
     },
     "can't init vcam_position", true},
    {[](const sensors_config &c) { return c.vcam_optical_flow.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->optical_flow = vision_optical_flow_new(&a.ctx->record->optical_flow);
         return a.ctx->optical_flow != nullptr;
     },
     "can't init vision_optical_flow", true},
    {[](const sensors_config &c) { return c.fcam_gimbal.enabled != 0; },
     [](const probe_args &a) {
         a.ctx->fcam_gimbal = fcam_gimbal_new(&a.ctx->config->fcam_gimbal, nullptr, &a.ctx->record->fcam_gimbal);
         return a.ctx->fcam_gimbal != nullptr;
     },
     "can't init fcam_gimbal", true},
};

struct start_row {
    enabled_fn enabled;
    int (*start)(sensors_orlune_ctx *);
    const char *failure; // format with one %s: strerror of the result
};

constexpr start_row kStart[] = {
    {[](const sensors_config &c) { return c.ultrasound.enabled != 0; },
     [](sensors_orlune_ctx *x) { return us_start(x->us); }, "Fail to start ultrasound: %s"},
    {[](const sensors_config &c) { return c.gps.enabled != 0; },
     [](sensors_orlune_ctx *x) { return gps_start(x->gps); }, "Fail to start gps: %s"},
    {[](const sensors_config &c) { return c.magneto.enabled != 0; },
     [](sensors_orlune_ctx *x) { return magneto_start(x->magneto); }, "Fail to start magnetometer: %s"},
    {[](const sensors_config &c) { return c.baro.enabled != 0; },
     [](sensors_orlune_ctx *x) { return barometer_start(x->baro); }, "Fail to start barometer: %s"},
    {[](const sensors_config &c) { return c.bldc.enabled != 0; },
     [](sensors_orlune_ctx *x) { return bldc_cypress_start(x->bldc); }, "can't start bldc acquisition %s"},
    {[](const sensors_config &c) { return c.imu.enabled != 0; },
     [](sensors_orlune_ctx *x) { return imu_start(x->imu); }, "can't start imu acquisition %s"},
    {[](const sensors_config &c) { return c.carpet_detection.enabled != 0; },
     [](sensors_orlune_ctx *x) { return carpet_detection_start(x->carpet); }, "Fail to start carpet: %s"},
    {[](const sensors_config &c) { return c.vcam_position.enabled != 0; },
     [](sensors_orlune_ctx *x) { return vision_position_start(x->vision_position); },
     "Fail to start vcam_position: %s"},
    {[](const sensors_config &c) { return c.vcam_optical_flow.enabled != 0; },
     [](sensors_orlune_ctx *x) { return vision_optical_flow_start(x->optical_flow); },
     "Fail to start vcam_optical_flow: %s"},
    {[](const sensors_config &c) { return c.fcam_gimbal.enabled != 0; },
     [](sensors_orlune_ctx *x) { return fcam_gimbal_start(x->fcam_gimbal); }, "Failed to start fcam_gimbal: %s"},
};

// Stop: the six acquisition modules, whatever the configuration; results
// ignored. The battery and the telemetry-fed readers stay as they are.
constexpr int (*kStop[])(sensors_orlune_ctx *) = {
    [](sensors_orlune_ctx *x) { return imu_stop(x->imu); },
    [](sensors_orlune_ctx *x) { return bldc_cypress_stop(x->bldc); },
    [](sensors_orlune_ctx *x) { return barometer_stop(x->baro); },
    [](sensors_orlune_ctx *x) { return magneto_stop(x->magneto); },
    [](sensors_orlune_ctx *x) { return gps_stop(x->gps); },
    [](sensors_orlune_ctx *x) { return us_stop(x->us); },
};

// Shutdown: every module, created or not (each destroy accepts null).
constexpr void (*kDestroy[])(sensors_orlune_ctx *) = {
    [](sensors_orlune_ctx *x) { imu_destroy(std::exchange(x->imu, nullptr)); },
    [](sensors_orlune_ctx *x) { battery_destroy(std::exchange(x->battery, nullptr)); },
    [](sensors_orlune_ctx *x) { bldc_cypress_destroy(std::exchange(x->bldc, nullptr)); },
    [](sensors_orlune_ctx *x) { barometer_destroy(std::exchange(x->baro, nullptr)); },
    [](sensors_orlune_ctx *x) { magneto_destroy(std::exchange(x->magneto, nullptr)); },
    [](sensors_orlune_ctx *x) { gps_destroy(std::exchange(x->gps, nullptr)); },
    [](sensors_orlune_ctx *x) { us_destroy(std::exchange(x->us, nullptr)); },
    [](sensors_orlune_ctx *x) { carpet_detection_destroy(std::exchange(x->carpet, nullptr)); },
    [](sensors_orlune_ctx *x) { vision_position_destroy(std::exchange(x->vision_position, nullptr)); },
    [](sensors_orlune_ctx *x) { vision_optical_flow_destroy(std::exchange(x->optical_flow, nullptr)); },
    [](sensors_orlune_ctx *x) { fcam_gimbal_destroy(std::exchange(x->fcam_gimbal, nullptr)); },
};

constexpr uint32_t kCarpetKind = SENSORS_KIND_CARPET_DETECTION;

int switch_carpet(sensors_orlune_ctx *ctx, uint32_t kinds, int (*op)(carpet_detection_ctx *),
                  const char *disabled_message, const char *failure)
{
    if (!(kinds & kCarpetKind))
        return 0;
    if (!ctx || !ctx->config || !ctx->config->carpet_detection.enabled) {
        log_msg(kFrameTag, LOG_ERR, "%s", disabled_message);
        return -EINVAL;
    }
    int r = op(ctx->carpet);
    if (r < 0) {
        log_msg(kFrameTag, LOG_ERR, failure, strerror(-r));
        return r;
    }
    return 0;
}

} // namespace

void sensors_orlune_shutdown(sensors_orlune_ctx *ctx)
{
    if (!ctx)
        return;
    for (auto destroy : kDestroy)
        destroy(ctx);
    if (ctx->iio) {
        context_timeout_forget(ctx->iio);
        iio_context_destroy(ctx->iio);
    }
    if (ctx->config)
        sensors_config_destroy(ctx->config);
    free(ctx);
}

int sensors_orlune_probe(void *spin_dir, sensors_orlune_ctx **out, void *sched, const sensors_probe_header *header,
                         sensors_data *record)
{
    // Every module keeps a pointer into the record from its creation on.
    if (!header || !out || !record)
        return -EINVAL;
    if (header->sensor_mask_ref != header->sensor_mask)
        return -EOPNOTSUPP;
    auto *ctx = static_cast<sensors_orlune_ctx *>(calloc(1, sizeof(sensors_orlune_ctx)));
    if (!ctx)
        return -ENOMEM;

    ctx->config = sensors_config_new(header);
    if (!ctx->config) {
        log_msg(kFrameTag, LOG_ERR, "can't get sensors configuration");
        sensors_orlune_shutdown(ctx);
        return -EINVAL;
    }
    ctx->record = record;

    ctx->iio = iio_create_default_context();
    if (!ctx->iio) {
        log_msg(kFrameTag, LOG_ERR, "can't create iio context");
        sensors_orlune_shutdown(ctx);
        return -EIO;
    }

    const probe_args args{ctx, spin_dir, sched};
    for (const create_row &row : kCreate) {
        if (!row.enabled(*ctx->config) || row.create(args))
            continue;
        if (!row.fatal) {
            log_msg(kFrameTag, LOG_WARNING, "%s", row.failure);
            continue;
        }
        log_msg(kFrameTag, LOG_ERR, "%s", row.failure);
        sensors_orlune_shutdown(ctx);
        return -EIO;
    }

    *out = ctx;
    return 0;
}

int sensors_orlune_start(sensors_orlune_ctx *ctx)
{
    if (!ctx || !ctx->config)
        return -EINVAL;
    for (const start_row &row : kStart) {
        if (!row.enabled(*ctx->config))
            continue;
        int r = row.start(ctx);
        if (r < 0) {
            log_msg(kFrameTag, LOG_ERR, row.failure, strerror(-r));
            return r;
        }
    }
    log_msg(kFrameTag, LOG_INFO, "orlune sensors acquisition started");
    return 0;
}

int sensors_orlune_stop(sensors_orlune_ctx *ctx)
{
    if (ctx)
        for (auto stop : kStop)
            stop(ctx);
    log_msg(kFrameTag, LOG_INFO, "orlune sensors acquisition stopped");
    return 0;
}

int sensors_orlune_activate(sensors_orlune_ctx *ctx, uint32_t kinds)
{
    return switch_carpet(ctx, kinds, carpet_detection_activate, "Cannot activate disabled carpet sensor",
                         "Fail to activate carpet: %s");
}

int sensors_orlune_deactivate(sensors_orlune_ctx *ctx, uint32_t kinds)
{
    return switch_carpet(ctx, kinds, carpet_detection_deactivate, "Cannot deactivate disabled carpet sensor",
                         "Fail to deactivate carpet: %s");
}

extern "C" SENSORS_API const sensors_driver_table sensors_driver = {
    "sensors_orlune",        sensors_orlune_probe,    sensors_orlune_start,    sensors_orlune_stop,
    sensors_orlune_read,     sensors_orlune_write,    sensors_orlune_shutdown, sensors_orlune_activate,
    sensors_orlune_deactivate, sensors_orlune_tlm_write, nullptr,
};
