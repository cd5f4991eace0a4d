// SPDX-License-Identifier: Apache-2.0
#include "baro_magneto/polled_sensor.h"

#include <cerrno>

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

int poll(iio_buffer *buffer)
{
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
