// SPDX-License-Identifier: Apache-2.0
// The GPS module: a client of the GPS daemon's message socket. The daemon's
// messages are decoded, while the cycle polls the module, into the gps
// sub-record at fixed places; the module keeps the values as the daemon
// sent them.
#include <sensors/gps_us.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"
#include "platform/log.h"
#include "platform/msg_socket.h"
#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "driver/ready_sources.h"

namespace {

constexpr log_tag kTag{"gps"};

// Ten samples of one second: the daemon's fixes come a few times a second
// and the cycle publishes at most one sample per cycle that received any.
constexpr uint32_t kTlmSamples = 10;
constexpr uint32_t kTlmPeriodUs = 1000000;

// The daemon's abstract socket name.
constexpr char kDaemonName[] = "gps";

enum gps_message_id : uint32_t { MSG_LOC = 0, MSG_EX_COM = 1, MSG_EX_ER = 2, MSG_FW = 3 };

} // namespace

struct gps_ctx {
    msg_loop *loop;
    msg_context *context;
    sensors_gps_data *record;
    shm_producer *producer;
};

namespace {

void handle_message(gps_ctx *gps, const msg_message *message)
{
    sensors_gps_data &d = *gps->record;
    const uint32_t id = message_get_id(message);
    int r = 0;
    switch (id) {
    case MSG_LOC:
        r = message_read(message, "%lf%lf%lf%lf%lu", &d.loc_values[0], &d.loc_values[1], &d.loc_values[2],
                         &d.loc_values[3], &d.loc_extra);
        if (r != 0)
            log_msg(kTag, LOG_ERR, "error receiving message from gps");
        d.updated |= SENSORS_GPS_UPDATED_LOC;
        log_msg(kTag, LOG_DEBUG, "loc %lf %lf %lf %lf %lu", d.loc_values[0], d.loc_values[1], d.loc_values[2],
                d.loc_values[3], (unsigned long)d.loc_extra);
        break;
    case MSG_EX_COM: {
        char *text = nullptr;
        r = message_read(message, "%f%f%f%i%u%ms", &d.com_values[0], &d.com_values[1], &d.com_values[2],
                         &d.com_int, &d.com_uint, &text);
        if (r == 0) {
            // Four bytes, zero-padded when shorter, not terminated otherwise.
            const size_t n = strnlen(text, sizeof d.com_text);
            memset(d.com_text, 0, sizeof d.com_text);
            memcpy(d.com_text, text, n);
            free(text);
        } else {
            log_msg(kTag, LOG_ERR, "error receiving message from gps");
        }
        d.updated |= SENSORS_GPS_UPDATED_EX_COM;
        log_msg(kTag, LOG_DEBUG, "ex com %f %f %f %i %u %.*s", double(d.com_values[0]), double(d.com_values[1]),
                double(d.com_values[2]), d.com_int, d.com_uint, int(sizeof d.com_text), d.com_text);
        break;
    }
    case MSG_EX_ER:
        r = message_read(message, "%f%f%f%f%f%f%f%i", &d.er_values[0], &d.er_values[1], &d.er_values[2],
                         &d.er_values[3], &d.er_values[4], &d.er_values[5], &d.er_values[6], &d.er_int);
        if (r != 0)
            log_msg(kTag, LOG_ERR, "error receiving message from gps");
        d.updated |= SENSORS_GPS_UPDATED_EX_ER;
        log_msg(kTag, LOG_DEBUG, "ex er %f %f %f %f %f %f %f %i", double(d.er_values[0]), double(d.er_values[1]),
                double(d.er_values[2]), double(d.er_values[3]), double(d.er_values[4]), double(d.er_values[5]),
                double(d.er_values[6]), d.er_int);
        break;
    case MSG_FW: {
        char *text_1 = nullptr;
        char *text_2 = nullptr;
        r = message_read(message, "%ms%ms", &text_1, &text_2);
        if (r == 0) {
            snprintf(d.fw_text_1, sizeof d.fw_text_1, "%s", text_1);
            snprintf(d.fw_text_2, sizeof d.fw_text_2, "%s", text_2);
            log_msg(kTag, LOG_DEBUG, "fw %s %s", text_1, text_2);
            free(text_1);
            free(text_2);
        } else {
            log_msg(kTag, LOG_ERR, "error receiving message from gps");
        }
        d.updated |= SENSORS_GPS_UPDATED_FW;
        break;
    }
    default:
        log_msg(kTag, LOG_ERR, "MSG_UNKNOWN : %u", id);
        log_msg(kTag, LOG_ERR, "error receiving message from gps");
        break;
    }
}

} // namespace

extern "C" void gps_client_cb(msg_context *context, int event, msg_connection *connection,
                              const msg_message *message, void *user_data)
{
    (void)context;
    (void)connection;
    auto *gps = static_cast<gps_ctx *>(user_data);
    switch (event) {
    case MSG_EVENT_CONNECTED:
        log_msg(kTag, LOG_INFO, "connected to gpsd");
        break;
    case MSG_EVENT_DISCONNECTED:
        log_msg(kTag, LOG_INFO, "disconnected from gpsd");
        break;
    case MSG_EVENT_MESSAGE:
        if (gps && message)
            handle_message(gps, message);
        break;
    default:
        log_msg(kTag, LOG_ERR, "Unknown msg_socket event : %d", event);
        break;
    }
}

extern "C" void gps_destroy(gps_ctx *gps)
{
    if (!gps)
        return;
    producer_destroy(gps->producer);
    context_stop(gps->context);
    context_destroy(gps->context);
    free(gps);
}

extern "C" gps_ctx *gps_new(sensors_gps_data *data)
{
    if (!data)
        return nullptr;
    owned<gps_ctx, gps_destroy> gps{zeroed_new<gps_ctx>()};
    if (!gps)
        return nullptr;
    gps->record = data;
    gps->context = context_create(gps_client_cb, gps.get());
    if (!gps->context)
        return nullptr;
    gps->loop = context_get_loop(gps->context);
    if (!gps->loop)
        return nullptr;
    gps->producer = producer_create("sensors_gps", kTlmSamples, kTlmPeriodUs);
    if (!gps->producer) {
        log_msg(kTag, LOG_ERR, "failed to create sensors_gpsmeter tlm");
        return nullptr;
    }
    int r = producer_register_struct(gps->producer, gps->record, nullptr, layout_of(tlm_kind::gps));
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "gps_new", __LINE__, "failed to register tlm gps struct", r);
        return nullptr;
    }
    r = producer_complete(gps->producer);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "gps_new", __LINE__, "producer_complete", r);
        return nullptr;
    }
    return gps.release();
}

extern "C" int gps_start(gps_ctx *gps)
{
    if (!gps)
        return -EINVAL;
    // The whole sockaddr_un, not just the name: the daemon binds the abstract
    // name "gps" padded with zeros to the full 108 path bytes, and an
    // abstract name is matched on every byte of the given length.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, kDaemonName, sizeof kDaemonName - 1);
    int r = context_connect(gps->context, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "context_connect() failed : %d(%s)", r, strerror(-r));
        return r;
    }
    return 0;
}

extern "C" int gps_stop(gps_ctx *gps)
{
    if (!gps)
        return -EINVAL;
    int r = context_stop(gps->context);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "context_stop() failed : %d(%s)", r, strerror(-r));
        return r;
    }
    return 0;
}

ready_hint *gps_ready_hint(gps_ctx *gps)
{
    return gps ? context_ready_hint(gps->context) : nullptr;
}

extern "C" int gps_read(gps_ctx *gps, uint32_t *updated)
{
    if (!gps || !updated)
        return -EINVAL;
    gps->record->updated = 0;
    context_process_fd(gps->context);
    if (gps->record->updated) {
        *updated |= SENSORS_UPDATED_GPS;
        monotonic_now(&gps->record->timestamp);
    }
    return 0;
}

extern "C" int gps_tlm_push(gps_ctx *gps)
{
    if (!gps || !gps->producer)
        return -EINVAL;
    return producer_put_sample(gps->producer, &gps->record->timestamp);
}
