// SPDX-License-Identifier: Apache-2.0
#include "platform/ultrasound_service.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"

struct ranging_handle {
    msg_context *context;
    ranging_settings settings;
    ranging_measurement latest;
    uint8_t status;
    uint32_t unread; // measurements since the previous ranging_read
};

namespace {

void send_request(ranging_handle *h)
{
    msg_frame frame;
    if (message_build(&frame, kUsMsgRequest, "%lu%f", h->settings.period_us, double(h->settings.max_range_m)) == 0)
        context_send(h->context, &frame);
}

void on_event(msg_context *, int event, msg_connection *, const msg_message *message, void *user_data)
{
    auto *h = static_cast<ranging_handle *>(user_data);
    if (event == MSG_EVENT_CONNECTED) {
        // Also after the service restarted: it knows nothing of this client.
        send_request(h);
        return;
    }
    if (event != MSG_EVENT_MESSAGE || message_get_id(message) != kUsMsgMeasurement)
        return;
    ranging_measurement m = h->latest;
    uint32_t status = 0;
    if (message_read(message, "%f%f%u%u", &m.altitude, &m.altitude_v2, &status, &m.range_mode) != 0)
        return;
    h->latest = m;
    h->status = uint8_t(status);
    h->unread++;
}

} // namespace

ranging_result *result_create()
{
    auto *r = zeroed_new<ranging_result>();
    if (!r)
        return nullptr;
    r->measure = zeroed_new<ranging_measurement>();
    if (!r->measure) {
        free(r);
        return nullptr;
    }
    return r;
}

void result_destroy(ranging_result *result)
{
    if (!result)
        return;
    free(result->measure);
    free(result);
}

void ranging_close(ranging_handle *handle)
{
    if (!handle)
        return;
    context_destroy(handle->context);
    free(handle);
}

ranging_handle *ranging_open(const ranging_settings *settings)
{
    if (!settings || settings->period_us == 0) {
        errno = EINVAL;
        return nullptr;
    }
    owned<ranging_handle, ranging_close> h{zeroed_new<ranging_handle>()};
    if (!h) {
        errno = ENOMEM;
        return nullptr;
    }
    h->settings = *settings;
    h->context = context_create(on_event, h.get());
    if (!h->context) {
        errno = ENOMEM;
        return nullptr;
    }
    sockaddr_un address;
    socklen_t length;
    int r = socket_address(kUltrasoundSocketName, &address, &length);
    if (r == 0)
        r = context_connect(h->context, reinterpret_cast<const sockaddr *>(&address), length);
    if (r < 0) {
        errno = -r;
        return nullptr;
    }
    // The request goes out with the connected event, at the first read after
    // the connection came up: at once when the service listens, later when
    // it starts after us.
    return h.release();
}

ready_hint *ranging_ready_hint(ranging_handle *handle)
{
    return handle ? context_ready_hint(handle->context) : nullptr;
}

int ranging_read(ranging_handle *handle, ranging_result *result)
{
    if (!handle || !result || !result->measure)
        return -EINVAL;
    context_process_fd(handle->context);
    *result->measure = handle->latest;
    result->status = handle->status;
    result->new_count = handle->unread;
    handle->unread = 0;
    return context_is_connected(handle->context) ? 0 : -ENOTCONN;
}
