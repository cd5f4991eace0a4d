// SPDX-License-Identifier: Apache-2.0
#include "baro_magneto/polled_sensor.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/iio_helper.h"
#include "platform/time_helpers.h"

namespace polled {

const char *device_name(const iio_device *device)
{
    const char *name = iio_device_get_name(device);
    return name ? name : iio_device_get_id(device);
}

int as_status(int r)
{
    return r < 0 ? r : 0;
}

void gate_scan(due_gate *g, int64_t stamp_ns, int64_t now_ns)
{
    if (g->period_ns == 0 || g->answers_at_once)
        return;
    // A thousandth of a period a scan: a clock a thousand times more
    // accurate than that is followed.
    const int64_t lag = now_ns - stamp_ns;
    g->lag_ns = g->lag_known ? std::min(g->lag_ns + g->period_ns / 1024, lag) : lag;
    g->lag_known = true;
    if (g->pace_scans == kPaceScans) {
        const int64_t stamps = stamp_ns - g->pace_stamp_ns;
        const int64_t takings = now_ns - g->pace_now_ns;
        g->paced = std::abs(takings - stamps) <= std::abs(stamps) / 8 + g->period_ns;
        g->step_ns = std::clamp(stamps / kPaceScans, g->period_ns / 2, g->period_ns);
        g->pace_scans = 0;
    }
    if (g->pace_scans++ == 0) {
        g->pace_stamp_ns = stamp_ns;
        g->pace_now_ns = now_ns;
    }
    g->next_ns = stamp_ns + g->step_ns + g->lag_ns - g->period_ns / 8;
}

void watch(source *s, iio_buffer *buffer, uint32_t period_us)
{
    s->fd = -1;
    const iio_device *device = buffer ? iio_buffer_get_device(buffer) : nullptr;
    if (device && context_is_local(iio_device_get_context(device)))
        s->fd = std::max(iio_buffer_get_poll_fd(buffer), -1);
    s->hint = ready_hint_for(&s->fd);
    // A board's descriptor answers for itself without a round trip.
    s->gate = due_gate{};
    s->gate.period_ns = device && s->fd < 0 ? int64_t(period_us) * kNsPerUs : 0;
    s->gate.step_ns = s->gate.period_ns;
}

int poll(iio_buffer *buffer, source *s)
{
    if (ready_hint_take_empty(&s->hint, s->fd))
        return 0;
    // The clock is read only while the gate is in force.
    if (gate_in_force(s->gate) && !gate_open(s->gate, monotonic_ns()))
        return 0;
    ssize_t r = iio_buffer_refill(buffer);
    if (r == -EAGAIN || r == 0) {
        gate_empty(&s->gate);
        return 0;
    }
    return int(r);
}

void arrived(source *s, const timespec &stamp)
{
    int64_t stamp_ns = 0;
    if (s->gate.period_ns && !s->gate.answers_at_once && timespec_to_ns(&stamp, &stamp_ns) == 0)
        gate_scan(&s->gate, stamp_ns, monotonic_ns());
}

void restart(source *s)
{
    s->gate.paced = false;
    s->gate.pace_scans = 0;
}

shm_producer *make_producer(const log_tag &tag, const char *function, const char *section, uint32_t period,
                            const void *record, tlm_kind kind, const char *register_op)
{
    shm_producer *producer = producer_create(section, sample_count(period), period);
    if (!producer) {
        log_msg(tag, LOG_ERR, "failed to create %s tlm", section);
        return nullptr;
    }
    int r = producer_register_struct(producer, record, nullptr, layout_of(kind));
    if (r < 0) {
        log_call_failed(tag, LOG_ERR, function, __LINE__, register_op, r);
        producer_destroy(producer);
        return nullptr;
    }
    r = producer_complete(producer);
    if (r < 0) {
        log_call_failed(tag, LOG_ERR, function, __LINE__, "producer_complete", r);
        producer_destroy(producer);
        return nullptr;
    }
    return producer;
}

} // namespace polled
