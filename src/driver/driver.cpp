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

#include <sensors/imu.h>

#include "driver/driver_ctx.h"
#include "driver/driver_log.h"

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
};

struct start_row {
    enabled_fn enabled;
    int (*start)(sensors_orlune_ctx *);
    const char *failure; // format with one %s: strerror of the result
};

constexpr start_row kStart[] = {
    {[](const sensors_config &c) { return c.imu.enabled != 0; }, [](sensors_orlune_ctx *x) { return imu_start(x->imu); },
     "can't start imu acquisition %s"},
};

// Stop: every acquisition module, whatever the configuration; results ignored.
constexpr int (*kStop[])(sensors_orlune_ctx *) = {
    [](sensors_orlune_ctx *x) { return imu_stop(x->imu); },
};

// Shutdown: every module, created or not (each destroy accepts null).
constexpr void (*kDestroy[])(sensors_orlune_ctx *) = {
    [](sensors_orlune_ctx *x) { imu_destroy(x->imu); x->imu = nullptr; },
};

// Sections the configuration can enable but for which this build has no
// module yet: said once at probe instead of being silently ignored.
struct pending_row {
    enabled_fn enabled;
    const char *section;
};
constexpr pending_row kPending[] = {
    {[](const sensors_config &c) { return c.battery.enabled != 0; }, "battery"},
    {[](const sensors_config &c) { return c.bldc.enabled != 0; }, "bldc"},
    {[](const sensors_config &c) { return c.gps.enabled != 0; }, "gps"},
    {[](const sensors_config &c) { return c.magneto.enabled != 0; }, "magnetometer"},
    {[](const sensors_config &c) { return c.baro.enabled != 0; }, "barometer"},
    {[](const sensors_config &c) { return c.ultrasound.enabled != 0; }, "ultrasound"},
    {[](const sensors_config &c) { return c.carpet_detection.enabled != 0; }, "carpet_detection"},
    {[](const sensors_config &c) { return c.vcam_position.enabled != 0; }, "vcam_position"},
    {[](const sensors_config &c) { return c.vcam_optical_flow.enabled != 0; }, "vcam_optical_flow"},
    {[](const sensors_config &c) { return c.fcam_gimbal.enabled != 0; }, "fcam_gimbal"},
};

constexpr uint32_t kCarpetKind = SENSORS_KIND_CARPET_DETECTION;

int switch_carpet(sensors_orlune_ctx *ctx, uint32_t kinds, const char *disabled_message, const char *failure)
{
    if (!(kinds & kCarpetKind))
        return 0;
    if (!ctx || !ctx->config || !ctx->config->carpet_detection.enabled) {
        log_msg(kFrameTag, LOG_ERR, "%s", disabled_message);
        return -EINVAL;
    }
    // Carpet detection has no module in this build: a missing module answers
    // as a null handle does.
    int r = -EINVAL;
    log_msg(kFrameTag, LOG_ERR, failure, strerror(-r));
    return r;
}

} // namespace

void sensors_orlune_shutdown(sensors_orlune_ctx *ctx)
{
    if (!ctx)
        return;
    for (auto destroy : kDestroy)
        destroy(ctx);
    if (ctx->iio)
        iio_context_destroy(ctx->iio);
    if (ctx->config)
        sensors_config_destroy(ctx->config);
    free(ctx);
}

int sensors_orlune_probe(void *spin_dir, sensors_orlune_ctx **out, void *sched, const sensors_probe_header *header,
                         sensors_data *record)
{
    if (!header || !out)
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
    for (const pending_row &row : kPending)
        if (row.enabled(*ctx->config))
            log_msg(kFrameTag, LOG_WARNING, "%s is enabled but this build has no module for it: ignored", row.section);

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
    return switch_carpet(ctx, kinds, "Cannot activate disabled carpet sensor", "Fail to activate carpet: %s");
}

int sensors_orlune_deactivate(sensors_orlune_ctx *ctx, uint32_t kinds)
{
    return switch_carpet(ctx, kinds, "Cannot deactivate disabled carpet sensor", "Fail to deactivate carpet: %s");
}

extern "C" SENSORS_API const sensors_driver_table sensors_driver = {
    "sensors_orlune",        sensors_orlune_probe,    sensors_orlune_start,    sensors_orlune_stop,
    sensors_orlune_read,     sensors_orlune_write,    sensors_orlune_shutdown, sensors_orlune_activate,
    sensors_orlune_deactivate, sensors_orlune_tlm_write, nullptr,
};
