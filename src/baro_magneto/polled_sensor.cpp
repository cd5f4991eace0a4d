// SPDX-License-Identifier: Apache-2.0
#include "baro_magneto/polled_sensor.h"

#include <algorithm>
#include <cerrno>

#include "platform/iio_helper.h"

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

void watch(source *s, iio_buffer *buffer)
{
    s->fd = -1;
    const iio_device *device = buffer ? iio_buffer_get_device(buffer) : nullptr;
    if (device && context_is_local(iio_device_get_context(device)))
        s->fd = std::max(iio_buffer_get_poll_fd(buffer), -1);
    s->hint = ready_hint_for(&s->fd);
}

int poll(iio_buffer *buffer, source *s)
{
    if (ready_hint_take_empty(&s->hint, s->fd))
        return 0;
    ssize_t r = iio_buffer_refill(buffer);
    if (r == -EAGAIN || r == 0)
        return 0;
    return int(r);
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
