// SPDX-License-Identifier: Apache-2.0
// The telemetry section reader: one shm_telemetry consumer of one section,
// read into the owning module's record, with errors before the first sample
// reported as "try again".
#include "tlm_sensors/sensor_tlm.h"

#include <cerrno>

#include "platform/log.h"
#include "platform/shm_telemetry.h"

namespace {
constexpr log_tag kTag{"sensor_tlm"};
}

extern "C" int sensor_tlm_init(sensor_tlm *reader, const char *section, const tlm_struct_desc *description,
                               void *destination, timespec *timestamp)
{
    if (!reader || reader->consumer || !section || !description || !destination || !timestamp)
        return -EINVAL;
    reader->no_sample_yet = true;
    reader->section = section;
    reader->description = description;
    reader->destination = destination;
    reader->timestamp = timestamp;
    return 0;
}

extern "C" int sensor_tlm_start(sensor_tlm *reader)
{
    if (!reader || reader->consumer)
        return -EINVAL;
    reader->consumer = consumer_create();
    if (!reader->consumer) {
        log_msg(kTag, LOG_ERR, "consumer_create failed");
        sensor_tlm_clean(reader);
        return -ENOMEM;
    }
    int r = consumer_register_struct(reader->consumer, reader->destination, reader->section, reader->description);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, __func__, __LINE__, "consumer_register_struct", r);
        sensor_tlm_clean(reader);
        return r;
    }
    r = consumer_complete(reader->consumer);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, __func__, __LINE__, "consumer_complete", r);
        sensor_tlm_clean(reader);
        return r;
    }
    return r;
}

extern "C" int sensor_tlm_read_latest(sensor_tlm *reader)
{
    if (!reader)
        return -EINVAL;
    int r = consumer_get_sample_at(reader->consumer, nullptr, kTlmMethodLatest, reader->timestamp);
    return sensor_tlm_filter_error(reader, r);
}

extern "C" int sensor_tlm_filter_error(sensor_tlm *reader, int result)
{
    if (!reader)
        return result;
    if (result >= 0) {
        reader->no_sample_yet = false;
        return result;
    }
    return reader->no_sample_yet ? -EAGAIN : result;
}

extern "C" void sensor_tlm_clean(sensor_tlm *reader)
{
    if (!reader) {
        log_msg(kTag, LOG_ERR, "%s: sensor=%p", __func__, static_cast<void *>(reader));
        return;
    }
    consumer_destroy(reader->consumer);
    reader->consumer = nullptr;
}
