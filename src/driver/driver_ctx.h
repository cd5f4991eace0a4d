// SPDX-License-Identifier: Apache-2.0
// The driver context that probe creates and every operation receives.
#pragma once

#include <sensors/config.h>
#include <sensors/driver.h>

struct iio_context;
struct imu_ctx;
struct barometer_ctx;
struct magneto_ctx;
struct gps_ctx;
struct bldc_cypress_ctx;
struct battery_ctx;
struct us_ctx;
struct carpet_detection_ctx;
struct vision_position_ctx;
struct vision_optical_flow_ctx;
struct fcam_gimbal_ctx;

struct sensors_orlune_ctx {
    sensors_config *config;
    iio_context *iio;
    imu_ctx *imu;
    barometer_ctx *baro;
    magneto_ctx *magneto;
    gps_ctx *gps;
    bldc_cypress_ctx *bldc;
    battery_ctx *battery; // may stay null while the battery is enabled
    us_ctx *us;
    carpet_detection_ctx *carpet;
    vision_position_ctx *vision_position;
    vision_optical_flow_ctx *optical_flow;
    fcam_gimbal_ctx *fcam_gimbal;
    sensors_data *record; // the host's, must outlive the context
};

int sensors_orlune_probe(void *spin_dir, sensors_orlune_ctx **out, void *sched, const sensors_probe_header *header,
                         sensors_data *record);
int sensors_orlune_start(sensors_orlune_ctx *ctx);
int sensors_orlune_stop(sensors_orlune_ctx *ctx);
int sensors_orlune_read(sensors_data *record, sensors_orlune_ctx *ctx);
int sensors_orlune_write(const sensors_motor_command *command, sensors_orlune_ctx *ctx);
void sensors_orlune_shutdown(sensors_orlune_ctx *ctx);
int sensors_orlune_activate(sensors_orlune_ctx *ctx, uint32_t kinds);
int sensors_orlune_deactivate(sensors_orlune_ctx *ctx, uint32_t kinds);
int sensors_orlune_tlm_write(sensors_orlune_ctx *ctx);
