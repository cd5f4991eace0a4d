// SPDX-License-Identifier: Apache-2.0
// The motor controller module: the controller's samples into the motors
// sub-record, its information into motors_info, the host's commands to the
// controller, and the "sensors_motors" telemetry section.
#include <sensors/motors.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/owned.h"
#include "motors/bldc_rules.h"
#include "platform/iio_helper.h"
#include "platform/log.h"
#include "platform/motor_client.h"
#include "platform/sched_config.h"
#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"

namespace {

constexpr log_tag kTag{"bldc"};

// Bound on the wait for a controller sample in each read.
constexpr unsigned kFlushTimeoutMs = 5000;
// Two seconds of samples in the telemetry section.
constexpr uint32_t kTlmHistoryUs = 2000000;
constexpr int32_t kMaxTlmFrequency = 1000000;
// Stop codes that mean a plain stop.
constexpr uint8_t kStopCodePlain = 0;
constexpr uint8_t kStopCodeNormal = 240;

} // namespace

struct bldc_cypress_ctx {
    iio_device *trigger;
    iio_context *iio;
    sensors_motors_data *motors;
    sensors_motors_info *info;
    uint32_t pending;
    uint32_t brake_state;
    uint32_t ramp_state;
    uint32_t first_report;
    uint32_t info_refresh;
    motor_client *client;
    const char *device;
    uint32_t last_error[SENSORS_MOTOR_COUNT];
    shm_producer *producer;
};

namespace {

int read_infos(bldc_cypress_ctx *bldc)
{
    motor_info got;
    const int r = info_read(bldc->client, &got);
    if (r < 0)
        return r;
    sensors_motors_info &info = *bldc->info;
    info.fw_major = got.fw_major;
    info.fw_minor = got.fw_minor;
    info.fw_type = got.fw_type;
    info.fw_build = got.fw_build;
    info.hw_version = got.hw_version;
    info.info_extra[0] = got.info_extra[0];
    info.info_extra[1] = got.info_extra[1];
    info.flight_time = got.flight_time;
    info.last_error = got.last_error;
    return 0;
}

void stop_request(bldc_cypress_ctx *bldc, const char *code)
{
    if (bldc->pending == BLDC_PENDING_STOP)
        return;
    log_msg(kTag, LOG_DEBUG, "BLDC_ACTION_STOP");
    bldc->pending = BLDC_PENDING_STOP;
    spin_stop(bldc->client, code);
}

} // namespace

extern "C" void bldc_cypress_destroy(bldc_cypress_ctx *bldc)
{
    if (!bldc)
        return;
    producer_destroy(bldc->producer);
    controller_close(bldc->client);
    free(bldc);
}

extern "C" bldc_cypress_ctx *bldc_cypress_new(const sensors_bldc_config *config, iio_context *iio, void *spin_dir,
                                              void *sched, sensors_motors_data *motors, sensors_motors_info *info)
{
    // Beyond 1 MHz the sample period would be 0 us.
    if (!config || config->tlm_frequency <= 0 || config->tlm_frequency > kMaxTlmFrequency || !motors || !info)
        return nullptr;
    owned<bldc_cypress_ctx, bldc_cypress_destroy> bldc{zeroed_new<bldc_cypress_ctx>()};
    if (!bldc)
        return nullptr;
    bldc->motors = motors;
    bldc->info = info;
    bldc->iio = iio;

    bldc->trigger = trigger_init(iio, config->trigger, nullptr);
    if (!bldc->trigger)
        return nullptr;
    bldc->device = config->device;
    bldc->client = controller_open(bldc->trigger, iio, bldc->device, 1, 1);
    if (!bldc->client)
        return nullptr;
    if (spin_dir_read(bldc->client, spin_dir) < 0)
        return nullptr;
    if (read_infos(bldc.get()) < 0)
        return nullptr;
    int r = sched_config_apply(static_cast<sched_config *>(sched), "bldc");
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "can't reconfigure thread bldc: %s", strerror(-r));
        return nullptr;
    }
    bldc->first_report = 1;
    bldc->info_refresh = 0;

    const uint32_t period_us = 1000000u / uint32_t(config->tlm_frequency);
    bldc->producer = producer_create("sensors_motors", kTlmHistoryUs / period_us, period_us);
    if (!bldc->producer) {
        log_msg(kTag, LOG_ERR, "failed to create sensors_bldc tlm");
        return nullptr;
    }
    r = producer_register_struct(bldc->producer, bldc->motors, nullptr, layout_of(tlm_kind::motors));
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "bldc_cypress_new", __LINE__, "failed to register tlm bldc struct", r);
        return nullptr;
    }
    r = producer_complete(bldc->producer);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "bldc_cypress_new", __LINE__, "producer_complete", r);
        return nullptr;
    }
    return bldc.release();
}

extern "C" int bldc_cypress_start(bldc_cypress_ctx *bldc)
{
    if (!bldc)
        return -EINVAL;
    const int r = controller_enable(bldc->client);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "controller_enable failure");
        return r;
    }
    return 0;
}

extern "C" int bldc_cypress_stop(bldc_cypress_ctx *bldc)
{
    if (!bldc || !bldc->client)
        return -EINVAL;
    const int r = controller_disable(bldc->client);
    return r < 0 ? r : 0;
}

extern "C" int bldc_cypress_read(bldc_cypress_ctx *bldc, uint32_t *updated, const timespec *imu_time)
{
    if (!bldc || !updated)
        return -EINVAL;
    const timespec none{};
    const timespec *limit = imu_time ? imu_time : &none;
    sensors_motors_data &m = *bldc->motors;
    const char *device = bldc->device;

    // Where the timeout in force is already the flush's (the network
    // backend's default), it is left as it is.
    const unsigned saved_timeout_ms = context_timeout(bldc->iio);
    const bool own_timeout = saved_timeout_ms != kFlushTimeoutMs;
    if (own_timeout)
        context_timeout_set(bldc->iio, kFlushTimeoutMs);
    uint32_t count = 0;
    int r = samples_flush(bldc->client, limit, &count);
    if (own_timeout)
        context_timeout_set(bldc->iio, saved_timeout_ms);

    // The first read after creation drops the backlog quietly.
    if (count > 1 && !bldc->first_report)
        log_msg(kTag, LOG_WARNING, "%s: %u samples flushed", device, count - 1);
    if (r == -ETIMEDOUT || r == -EAGAIN)
        return 0;
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "%s: Fail to read data from bldc: %d(%s)", device, r, strerror(-r));
        return r;
    }
    r = sample_read(bldc->client);
    if (r < 0)
        return r;

    sample_speeds(bldc->client, m.motor);
    log_msg(kTag, LOG_DEBUG, "%s: speeds: %d %d %d %d", device, m.motor[0].speed, m.motor[1].speed,
            m.motor[2].speed, m.motor[3].speed);
    log_msg(kTag, LOG_DEBUG, "%s: pwms: %hhu %hhu %hhu %hhu", device, m.motor[0].pwm, m.motor[1].pwm,
            m.motor[2].pwm, m.motor[3].pwm);
    m.brake_state = bldc->brake_state;
    m.ramp_state = bldc->ramp_state;

    sample_errors(bldc->client, m.error);
    const bool faulty = bldc_error_step(m.error, bldc->last_error, device);

    uint32_t detail = 0;
    sample_statuses(bldc->client, m.status, &detail);
    const bldc_status_out st =
        bldc_status_step({bldc->pending, m.status[0], detail, faulty, m.brake_state, m.ramp_state});
    bldc->pending = st.pending;
    if (st.refresh_info)
        bldc->info_refresh = 1;
    m.brake_state = st.brake_state;
    m.ramp_state = st.ramp_state;
    m.spinning = st.spinning;
    m.nominal = st.nominal;
    m.idle = st.idle;
    log_msg(kTag, LOG_DEBUG, "%s:Status %d\tramping %d\tbraking %d\tidle %d\tspinning %d\tnominal %d", device,
            int(m.status[0]), int(m.ramp_state), int(m.brake_state), int(m.idle), int(m.spinning), int(m.nominal));
    bldc->brake_state = m.brake_state;
    bldc->ramp_state = m.ramp_state;

    sample_voltage(bldc->client, &m.voltage);
    log_msg(kTag, LOG_DEBUG, "%s: voltage: %f", device, double(m.voltage));
    sample_timestamp(bldc->client, &m.timestamp);
    *updated |= SENSORS_UPDATED_MOTORS;

    if (bldc->info_refresh) {
        log_msg(kTag, LOG_DEBUG, "Retrieving motor infos");
        if (read_infos(bldc) == 0) {
            *updated |= SENSORS_UPDATED_MOTORS_INFO;
            bldc->info_refresh = 0;
            log_msg(kTag, LOG_NOTICE, "EVT:ESC;flight_time=%d;device='%s'", int(bldc->info->flight_time), device);
        }
    }
    if (bldc->first_report) {
        const sensors_motors_info &info = *bldc->info;
        *updated |= SENSORS_UPDATED_MOTORS_INFO;
        log_msg(kTag, LOG_INFO, "%s: Motors controller HW %d / FW %d.%d.%c.%d", device, int(info.hw_version),
                int(info.fw_major), int(info.fw_minor), info.fw_type, int(info.fw_build));
        log_msg(kTag, LOG_NOTICE, "EVT:ESC;flight_time=%d;last_error='%s';device='%s'", int(info.flight_time),
                motor_error(info.last_error & 0xffu).name, device);
        bldc->first_report = 0;
    }
    return 0;
}

extern "C" int bldc_cypress_write(bldc_cypress_ctx *bldc, const sensors_motor_command *command)
{
    if (!bldc || !command)
        return -EINVAL;
    switch (command->action) {
    case BLDC_ACTION_START:
        if (bldc->pending != BLDC_PENDING_NONE)
            break;
        log_msg(kTag, LOG_DEBUG, "BLDC_ACTION_START");
        bldc->pending = BLDC_PENDING_START;
        spin_start(bldc->client, nullptr);
        break;
    case BLDC_ACTION_STOP:
        stop_request(bldc, nullptr);
        break;
    case BLDC_ACTION_STOP_CODE: {
        const uint8_t code = uint8_t(command->stop_code & 0xffu);
        if (code == kStopCodePlain || code == kStopCodeNormal) {
            stop_request(bldc, nullptr);
            break;
        }
        char text[4];
        snprintf(text, sizeof text, "%hhu", code);
        spin_stop(bldc->client, text);
        break;
    }
    case BLDC_ACTION_SET_SPEEDS:
        log_msg(kTag, LOG_DEBUG, "write speeds : %hu %hu %hu %hu", command->speeds[0], command->speeds[1],
                command->speeds[2], command->speeds[3]);
        speeds_set(bldc->client, command->speeds);
        break;
    case BLDC_ACTION_SINGLE_STALL_ON:
        log_msg(kTag, LOG_INFO, "enabling single motor stall in flight");
        single_stall_set(bldc->client, 1);
        break;
    case BLDC_ACTION_SINGLE_STALL_OFF:
        log_msg(kTag, LOG_INFO, "disabling single motor stall in flight");
        single_stall_set(bldc->client, 0);
        break;
    default:
        break;
    }
    return 0;
}

extern "C" int bldc_cypress_tlm_push_motors(bldc_cypress_ctx *bldc)
{
    if (!bldc || !bldc->producer)
        return -EINVAL;
    return producer_put_sample(bldc->producer, &bldc->motors->timestamp);
}
