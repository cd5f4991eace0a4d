// SPDX-License-Identifier: Apache-2.0
// Vision position: the latest position estimate of a vision process, with
// the host's update bit set whenever the estimate's time changes.
#include <sensors/tlm_sensors.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "common/owned.h"
#include "platform/log.h"
#include "platform/time_helpers.h"
#include "tlm_sensors/sensor_tlm.h"

namespace {

constexpr log_tag kTag{"vision_position"};

constexpr tlm_field_desc kPositionFields[] = {
    {offsetof(sensors_vision_position_data, x), "x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_vision_position_data, y), "y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_vision_position_data, z), "z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(sensors_vision_position_data, discriminable_ft_ratio), "discriminable_ft_ratio", TLM_TYPE_FLOAT, 0, 4,
     1, {}},
    {offsetof(sensors_vision_position_data, status), "status", TLM_TYPE_INT32, 0, 4, 1, {}},
    {offsetof(sensors_vision_position_data, last_ref_image_ts), "last_ref_image_ts", TLM_TYPE_INT64, 0, 8, 1, {}},
};
constexpr tlm_struct_desc kPositionDesc{0, std::size(kPositionFields), kPositionFields};

} // namespace

struct vision_position_ctx {
    sensors_vision_position_data *data;
    sensor_tlm reader;
    timespec last_timestamp; // of the last sample reported; creation time at first
    uint32_t update_bit;
};

namespace {

bool usable(const vision_position_ctx *vp, const char *function)
{
    if (vp && vp->data)
        return true;
    log_msg(kTag, LOG_ERR, "%s: sensor=%p, data=%p", function, static_cast<const void *>(vp),
            static_cast<const void *>(vp ? vp->data : nullptr));
    return false;
}

void free_context(vision_position_ctx *vp)
{
    free(vp);
}

} // namespace

extern "C" vision_position_ctx *vision_position_new(sensors_vision_position_data *data, const char *section,
                                                    uint32_t update_bit)
{
    if (!data || !section) {
        log_msg(kTag, LOG_ERR, "%s: data=%p, section=%p", "vision_position_new", static_cast<void *>(data),
                static_cast<const void *>(section));
        return nullptr;
    }
    owned<vision_position_ctx, free_context> vp{zeroed_new<vision_position_ctx>()};
    if (!vp)
        return nullptr;
    vp->update_bit = update_bit;
    int r = monotonic_now(&vp->last_timestamp);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "vision_position_new", __LINE__, "monotonic_now", r);
        return nullptr;
    }
    r = sensor_tlm_init(&vp->reader, section, &kPositionDesc, data, &data->timestamp);
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "vision_position_new", __LINE__, "sensor_tlm_init", r);
        return nullptr;
    }
    vp->data = data;
    return vp.release();
}

extern "C" int vision_position_start(vision_position_ctx *vp)
{
    if (!usable(vp, "vision_position_start"))
        return -EINVAL;
    return sensor_tlm_start(&vp->reader);
}

extern "C" int vision_position_read(vision_position_ctx *vp, uint32_t *updated)
{
    if (!usable(vp, "vision_position_read"))
        return -EINVAL;
    if (!updated)
        return -EINVAL;
    int r = sensor_tlm_read_latest(&vp->reader);
    if (r == -EAGAIN)
        return 0; // no first sample yet, or nothing to give: not a failure
    if (r < 0) {
        log_call_failed(kTag, LOG_ERR, "vision_position_read", __LINE__, "sensor_tlm_read_latest", r);
        return r;
    }
    if (timespec_compare(&vp->data->timestamp, &vp->last_timestamp) != 0) {
        vp->last_timestamp = vp->data->timestamp;
        *updated |= vp->update_bit;
    }
    return 0;
}

extern "C" void vision_position_stop(vision_position_ctx *vp)
{
    if (!usable(vp, "vision_position_stop"))
        return;
    sensor_tlm_clean(&vp->reader);
}

extern "C" void vision_position_destroy(vision_position_ctx *vp)
{
    usable(vp, "vision_position_destroy"); // reports a missing context or sub-record
    if (!vp)
        return;
    vp->data = nullptr;
    sensor_tlm_clean(&vp->reader);
    free(vp);
}
