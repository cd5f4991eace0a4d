// SPDX-License-Identifier: Apache-2.0
// Carpet detection: the vision estimator's carpet (position, orientation,
// number of targets), read from its telemetry section while the host keeps
// detection active.
#include <sensors/tlm_sensors.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "common/owned.h"
#include "platform/log.h"
#include "tlm_sensors/sensor_tlm.h"

namespace {

constexpr log_tag kTag{"carpet_detect"};
constexpr const char *kSection = "vision_carpet_estimation";

constexpr tlm_field_desc kCarpetFields[] = {
    {offsetof(sensors_carpet_data, position_x), "position_x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, position_y), "position_y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, position_z), "position_z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, orientation), "orientation", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_carpet_data, nb_targets), "nb_targets", TLM_TYPE_UINT32, 0, 4, 1, {}},
};
constexpr tlm_struct_desc kCarpetDesc{0, std::size(kCarpetFields), kCarpetFields};

// The estimator gives millimetres with y and z pointing the other way, and
// an orientation measured from the vehicle's y axis.
constexpr float kMmPerM = 1000.0f;
constexpr double kHalfPi = 1.5707963267948966;

} // namespace

struct carpet_detection_ctx {
    sensors_carpet_data *data;
    sensor_tlm reader;
};

namespace {

bool usable(const carpet_detection_ctx *cd, const char *function)
{
    if (cd && cd->data)
        return true;
    log_msg(kTag, LOG_ERR, "%s: cd=%p, data=%p", function, static_cast<const void *>(cd),
            static_cast<const void *>(cd ? cd->data : nullptr));
    return false;
}

void free_context(carpet_detection_ctx *cd)
{
    free(cd);
}

} // namespace

extern "C" carpet_detection_ctx *carpet_detection_new(sensors_carpet_data *data)
{
    if (!data) {
        log_msg(kTag, LOG_ERR, "%s: data=%p", "carpet_detection_new", static_cast<void *>(data));
        return nullptr;
    }
    owned<carpet_detection_ctx, free_context> cd{zeroed_new<carpet_detection_ctx>()};
    if (!cd)
        return nullptr;
    int r = sensor_tlm_init(&cd->reader, kSection, &kCarpetDesc, data, &data->timestamp);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "carpet_detection_new", __LINE__, "sensor_tlm_init", r);
        return nullptr;
    }
    cd->data = data;
    data->active = 0;
    return cd.release();
}

extern "C" int carpet_detection_start(carpet_detection_ctx *cd)
{
    if (!usable(cd, "carpet_detection_start"))
        return -EINVAL;
    return cd->data->active ? -EINVAL : 0;
}

extern "C" int carpet_detection_activate(carpet_detection_ctx *cd)
{
    if (!usable(cd, "carpet_detection_activate"))
        return -EINVAL;
    if (cd->data->active) {
        log_msg(kTag, LOG_WARNING, "carpet detection already active");
        return 0;
    }
    int r = sensor_tlm_start(&cd->reader);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "carpet_detection_activate", __LINE__, "sensor_tlm_start", r);
        return r;
    }
    cd->data->active = 1;
    return 0;
}

extern "C" int carpet_detection_deactivate(carpet_detection_ctx *cd)
{
    if (!usable(cd, "carpet_detection_deactivate"))
        return -EINVAL;
    if (!cd->data->active) {
        log_msg(kTag, LOG_WARNING, "carpet detection already deactivated");
        return 0;
    }
    sensor_tlm_clean(&cd->reader);
    cd->data->active = 0;
    return 0;
}

extern "C" int carpet_detection_read(carpet_detection_ctx *cd, uint32_t *updated)
{
    if (!usable(cd, "carpet_detection_read"))
        return -EINVAL;
    // Carpet detection sets no bit, but refuses a missing mask as every read does.
    if (!updated)
        return -EINVAL;
    sensors_carpet_data &d = *cd->data;
    if (!d.active)
        return 0;
    int r = sensor_tlm_read_latest(&cd->reader);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "carpet_detection_read", __LINE__, "sensor_tlm_read_latest", r);
        return r;
    }
    // In place: every successful read has just rewritten all five fields.
    d.position_x = d.position_x / kMmPerM;
    d.position_y = d.position_y / -kMmPerM;
    d.position_z = d.position_z / -kMmPerM;
    d.orientation = float(double(d.orientation) - kHalfPi);
    return 0;
}

extern "C" void carpet_detection_stop(carpet_detection_ctx *cd)
{
    if (!usable(cd, "carpet_detection_stop"))
        return;
    if (cd->data->active && carpet_detection_deactivate(cd) < 0)
        log_msg(kTag, LOG_WARNING, "%s: failed to deactivate carpet", "carpet_detection_stop");
}

extern "C" void carpet_detection_destroy(carpet_detection_ctx *cd)
{
    usable(cd, "carpet_detection_destroy"); // reports a missing context or sub-record
    if (!cd)
        return;
    cd->data = nullptr;
    sensor_tlm_clean(&cd->reader);
    free(cd);
}
