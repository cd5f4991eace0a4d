// SPDX-License-Identifier: Apache-2.0
// Vision optical flow: the vision process's flow measurement, accepted only
// while fresh; a missing or stale measurement is published with its quality
// cleared, and a long silence marks the sensor defective.
#include "tlm_sensors/vision_optical_flow.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"
#include "platform/log.h"
#include "platform/time_helpers.h"
#include "tlm_sensors/sensor_tlm.h"
#include "tlm_sensors/throttle.h"

namespace {

constexpr log_tag kTag{"vision_optical_flow"};
constexpr const char *kSection = "vcam_optical_flow";

// Two frames of the vision camera: an older flow no longer describes the
// vehicle's motion.
constexpr uint64_t kFreshUs = 64000;
// Longer than this without an accepted sample, the sensor is defective.
constexpr uint64_t kDefectiveAfterUs = 9999999;
// At most one "too old" message per thread in this interval.
constexpr uint64_t kTooOldIntervalMs = 10000;

// Per acquisition thread: the "too old" messages emitted and masked.
ORLUNE_THROTTLE_STATE msg_throttle too_old_throttle;

} // namespace

struct vision_optical_flow_ctx {
    sensors_optical_flow_data *data;
    sensors_optical_flow_data staging; // filled by the reader, then published whole
    sensor_tlm reader;
    timespec last_accepted; // time of the last accepted sample; creation time at first
    uint8_t valid;
    uint8_t defective;
    double raw_flow[3]; // flow_x_s, flow_y_s, flow_z_s as the section gives them
};

namespace {

// Offset in the context of a field of the staging copy.
constexpr uint64_t staging_at(size_t field_offset)
{
    return offsetof(vision_optical_flow_ctx, staging) + field_offset;
}
constexpr uint64_t raw_flow_at(size_t axis)
{
    return offsetof(vision_optical_flow_ctx, raw_flow) + axis * sizeof(double);
}

// The reader writes into the context: flows at full precision, the rest
// straight into the staging copy.
constexpr tlm_field_desc kFlowFields[] = {
    {raw_flow_at(0), "flow_x_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
    {raw_flow_at(1), "flow_y_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
    {raw_flow_at(2), "flow_z_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
    {staging_at(offsetof(sensors_optical_flow_data, corr_cam_x_m_s)), "corr_cam_x_m_s", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {staging_at(offsetof(sensors_optical_flow_data, corr_cam_y_m_s)), "corr_cam_y_m_s", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {staging_at(offsetof(sensors_optical_flow_data, corr_cam_z_m_s)), "corr_cam_z_m_s", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {staging_at(offsetof(sensors_optical_flow_data, quality_indicator)), "quality_indicator", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {staging_at(offsetof(sensors_optical_flow_data, nb_valid_zones)), "nb_valid_zones", TLM_TYPE_INT32, 0, 4, 1, {}},
    {staging_at(offsetof(sensors_optical_flow_data, defined)), "defined", TLM_TYPE_BOOL, 0, 1, 1, {}},
};
constexpr tlm_struct_desc kFlowDesc{0, std::size(kFlowFields), kFlowFields};

bool usable(const vision_optical_flow_ctx *vcam)
{
    if (vcam && vcam->data)
        return true;
    log_msg(kTag, LOG_ERR, "vcam=%p, data=%p", static_cast<const void *>(vcam),
            static_cast<const void *>(vcam ? vcam->data : nullptr));
    return false;
}

void free_context(vision_optical_flow_ctx *vcam)
{
    free(vcam);
}

void publish(vision_optical_flow_ctx *vcam)
{
    memcpy(vcam->data, &vcam->staging, sizeof vcam->staging);
}

void warn_too_old(uint64_t age_us, uint64_t now_ms)
{
    uint32_t masked = 0;
    if (!throttle_due(&too_old_throttle, now_ms, kTooOldIntervalMs, &masked))
        return;
    if (masked == 0) {
        log_msg(kTag, LOG_WARNING, "Optical flow measure too old: %luus", static_cast<unsigned long>(age_us));
        return;
    }
    if (!log_admits(kTag, LOG_WARNING))
        return;
    char text[256];
    snprintf(text, sizeof text, "[%u] Optical flow measure too old: %luus", masked,
             static_cast<unsigned long>(age_us));
    log_str(kTag, LOG_WARNING, text);
}

// Whether nothing was accepted for too long; a time that cannot be computed
// counts as too long.
bool check_defects(const vision_optical_flow_ctx *vcam, const flow_clock &clock)
{
    timespec elapsed{};
    int r = clock.elapsed_since(&vcam->last_accepted, &elapsed);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "check_defects", __LINE__, "elapsed_since", r);
        return true;
    }
    uint64_t us = 0;
    r = duration_in_us(&elapsed, &us);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "check_defects", __LINE__, "duration_in_us", r);
        return true;
    }
    if (us > kDefectiveAfterUs) {
        log_msg(kTag, LOG_ERR, "VISION_OPTICAL_FLOW_DEFECTIVE_TIMEOUT");
        return true;
    }
    return false;
}

int invalidate(vision_optical_flow_ctx *vcam, const flow_clock &clock)
{
    const bool was_defective = vcam->defective;
    vcam->valid = 0;
    vcam->staging.quality_indicator = 0.0f;
    vcam->staging.nb_valid_zones = 0;
    vcam->staging.defined = 0;
    // The defect is reported once per defective period.
    if (!was_defective && check_defects(vcam, clock))
        vcam->defective = 1;
    vcam->staging.defective = vcam->defective;
    publish(vcam);
    return 0;
}

int monotonic_now_fn(timespec *now)
{
    return monotonic_now(now);
}

int elapsed_since_fn(const timespec *since, timespec *elapsed)
{
    return elapsed_since(since, elapsed);
}

} // namespace

const flow_clock kMonotonicFlowClock{monotonic_now_fn, elapsed_since_fn, monotonic_ms};

vision_optical_flow_ctx *vision_optical_flow_new_with(sensors_optical_flow_data *data, const flow_clock &clock)
{
    if (!data) {
        log_msg(kTag, LOG_ERR, "data=%p", static_cast<void *>(data));
        return nullptr;
    }
    owned<vision_optical_flow_ctx, free_context> vcam{zeroed_new<vision_optical_flow_ctx>()};
    if (!vcam)
        return nullptr;
    vcam->data = data;
    int r = clock.now(&vcam->last_accepted);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "vision_optical_flow_new", __LINE__, "monotonic_now", r);
        return nullptr;
    }
    r = sensor_tlm_init(&vcam->reader, kSection, &kFlowDesc, vcam.get(), &vcam->staging.timestamp);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "vision_optical_flow_new", __LINE__, "sensor_tlm_init", r);
        return nullptr;
    }
    return vcam.release();
}

extern "C" vision_optical_flow_ctx *vision_optical_flow_new(sensors_optical_flow_data *data)
{
    return vision_optical_flow_new_with(data, kMonotonicFlowClock);
}

extern "C" int vision_optical_flow_start(vision_optical_flow_ctx *vcam)
{
    if (!usable(vcam))
        return -EINVAL;
    return sensor_tlm_start(&vcam->reader);
}

int vision_optical_flow_read_with(vision_optical_flow_ctx *vcam, uint32_t *updated, const flow_clock &clock)
{
    if (!vcam) {
        log_msg(kTag, LOG_ERR, "%s:%d vcam=%p", "vision_optical_flow_read", __LINE__, static_cast<void *>(vcam));
        return -EINVAL;
    }
    if (!vcam->data) {
        log_msg(kTag, LOG_ERR, "%s:%d data=%p", "vision_optical_flow_read", __LINE__,
                static_cast<void *>(vcam->data));
        return -EINVAL;
    }
    if (!updated)
        return -EINVAL;

    if (sensor_tlm_read_latest(&vcam->reader) < 0) {
        if (vcam->valid)
            log_msg(kTag, LOG_WARNING, "Optical flow measure unavailable");
        return invalidate(vcam, clock);
    }
    timespec now{};
    int r = clock.now(&now);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "vision_optical_flow_read", __LINE__, "monotonic_now", r);
        return -EINVAL;
    }
    uint64_t age_us = 0;
    if (!age_within(&now, &vcam->staging.timestamp, kFreshUs, &age_us)) {
        // The first stale cycle after a valid period is silent.
        if (!vcam->valid)
            warn_too_old(age_us, clock.now_ms());
        return invalidate(vcam, clock);
    }
    if (!vcam->valid)
        log_msg(kTag, LOG_INFO, "Got valid input sample");
    if (timespec_compare(&vcam->staging.timestamp, &vcam->last_accepted) == 0)
        return 0; // the sample already accepted: nothing new
    sensors_optical_flow_data &s = vcam->staging;
    s.flow_x = float(vcam->raw_flow[0]);
    s.flow_y = float(vcam->raw_flow[1]);
    s.flow_z = float(vcam->raw_flow[2]);
    vcam->last_accepted = s.timestamp;
    s.defective = 0;
    vcam->valid = 1;
    vcam->defective = 0;
    publish(vcam);
    *updated |= SENSORS_UPDATED_OPTICAL_FLOW;
    return 0;
}

extern "C" int vision_optical_flow_read(vision_optical_flow_ctx *vcam, uint32_t *updated)
{
    return vision_optical_flow_read_with(vcam, updated, kMonotonicFlowClock);
}

extern "C" void vision_optical_flow_stop(vision_optical_flow_ctx *vcam)
{
    if (!usable(vcam))
        return;
    sensor_tlm_clean(&vcam->reader);
}

extern "C" void vision_optical_flow_destroy(vision_optical_flow_ctx *vcam)
{
    usable(vcam); // reports a missing context or sub-record
    if (!vcam)
        return;
    vcam->data = nullptr;
    sensor_tlm_clean(&vcam->reader);
    free(vcam);
}
