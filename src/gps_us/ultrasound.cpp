// SPDX-License-Identifier: Apache-2.0
// The ultrasound altimeter: polls the ultrasound ranging service once per
// cycle and copies its latest result into the us sub-record. The service may
// start after the plug-in or restart during a flight: start does not wait
// for it, each read lets the service layer reconnect, and the absence is
// reported once per absence.
#include <sensors/gps_us.h>

#include <array>
#include <cerrno>
#include <cstdlib>

#include "common/owned.h"
#include "platform/log.h"
#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "platform/ultrasound_service.h"
#include "driver/ready_sources.h"

namespace {

constexpr log_tag kTag{"us"};

// Twenty samples at a nominal 100 ms: two seconds of history.
constexpr uint32_t kTlmSamples = 20;
constexpr uint32_t kTlmPeriodUs = 100000;

// What the altimeter asks of the service: a measurement every 50 ms.
constexpr uint64_t kRangingPeriodUs = 50000;

enum range_mode : uint32_t { RANGE_LONG = 0, RANGE_SHORT = 1, RANGE_UNKNOWN = 2, RANGE_END = 3 };

constexpr std::array<const char *, RANGE_END + 1> kRangeModeNames{
    "SENSOR_US_LONG_RANGE", "SENSOR_US_SHORT_RANGE", "SENSOR_US_UNKNOWN_RANGE", "SENSOR_US_END_OF_RANGE"};

constexpr const char *range_mode_name(uint32_t mode)
{
    return mode < kRangeModeNames.size() ? kRangeModeNames[mode] : kRangeModeNames[RANGE_UNKNOWN];
}

// The service's mode as stored: long and short as they are, anything else unknown.
constexpr uint32_t stored_range_mode(uint32_t service_mode)
{
    return service_mode == kUsRangeLong ? RANGE_LONG : service_mode == kUsRangeShort ? RANGE_SHORT : RANGE_UNKNOWN;
}

} // namespace

struct us_ctx {
    ranging_handle *ranging; // null while stopped
    ranging_result *result;
    uint32_t index; // new measurements seen since creation
    sensors_us_data *record;
    shm_producer *producer;
    bool absence_reported; // "not available" logged, the service not back since
};

extern "C" void us_destroy(us_ctx *us)
{
    if (!us)
        return;
    producer_destroy(us->producer);
    result_destroy(us->result);
    ranging_close(us->ranging);
    free(us);
}

extern "C" us_ctx *us_new(sensors_us_data *data)
{
    if (!data)
        return nullptr;
    owned<us_ctx, us_destroy> us{zeroed_new<us_ctx>()};
    if (!us)
        return nullptr;
    us->record = data;
    us->result = result_create();
    if (!us->result)
        return nullptr;
    us->producer = producer_create("sensors_us", kTlmSamples, kTlmPeriodUs);
    if (!us->producer) {
        log_msg(kTag, LOG_ERR, "failed to create sensors_ultrasound tlm");
        return nullptr;
    }
    int r = producer_register_struct(us->producer, us->record, nullptr, layout_of(tlm_kind::us));
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "us_new", __LINE__, "failed to register tlm us struct", r);
        return nullptr;
    }
    r = producer_complete(us->producer);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "us_new", __LINE__, "producer_complete", r);
        return nullptr;
    }
    return us.release();
}

extern "C" int us_start(us_ctx *us)
{
    if (!us)
        return -EINVAL;
    if (us->ranging)
        return -1;
    ranging_settings settings{};
    settings.period_us = kRangingPeriodUs;
    // Opens also while the service is absent: the handle connects when it
    // listens, and the other sensors start meanwhile.
    us->ranging = ranging_open(&settings);
    if (!us->ranging) {
        log_msg(kTag, LOG_ERR, "ranging_open() failed");
        return -ENOMEM;
    }
    us->absence_reported = false;
    return 0;
}

extern "C" int us_stop(us_ctx *us)
{
    if (!us)
        return -EINVAL;
    ranging_close(us->ranging);
    us->ranging = nullptr;
    return 0;
}

ready_hint *us_ready_hint(us_ctx *us)
{
    return us ? ranging_ready_hint(us->ranging) : nullptr;
}

extern "C" int us_read(us_ctx *us, uint32_t *updated)
{
    if (!us || !updated)
        return -EINVAL;
    if (!us->ranging)
        return -1;
    const bool connected = ranging_read(us->ranging, us->result) != -ENOTCONN;
    if (!connected && !us->absence_reported) {
        log_msg(kTag, LOG_WARNING, "ultrasound service not available: retrying");
        us->absence_reported = true;
    } else if (connected && us->absence_reported) {
        log_msg(kTag, LOG_INFO, "connected to the ultrasound service");
        us->absence_reported = false;
    }
    sensors_us_data &d = *us->record;
    const bool fresh = us->result->new_count != 0;
    if (fresh) {
        us->index++;
        *updated |= SENSORS_UPDATED_US;
        monotonic_now(&d.timestamp);
    }
    const ranging_measurement &m = *us->result->measure;
    d.altitude = m.altitude;
    d.status = us->result->status;
    d.index = us->index;
    d.altitude_v2 = m.altitude_v2;
    d.range_mode = stored_range_mode(m.range_mode);
    if (fresh)
        log_msg(kTag, LOG_DEBUG, "altitude: %f (v2: %f), index: %d, range_mode: %s", double(d.altitude),
                double(d.altitude_v2), int(d.index), range_mode_name(d.range_mode));
    return 0;
}

extern "C" int us_tlm_push(us_ctx *us)
{
    if (!us || !us->producer)
        return -EINVAL;
    return producer_put_sample(us->producer, &us->record->timestamp);
}
