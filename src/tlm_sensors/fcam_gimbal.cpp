// SPDX-License-Identifier: Apache-2.0
// Front-camera gimbal attitude: the gimbal stabilisation's angular rate and
// attitude quaternion, the latest sample and the four before it, every cycle.
#include <sensors/tlm_sensors.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"
#include "platform/log.h"
#include "platform/shm_telemetry.h"

namespace {

constexpr log_tag kTag{"fcam_gimbal"};
constexpr size_t kEntryCount = 5;
// The latest sample and up to this many before it.
constexpr uint32_t kEarlierSamples = SENSORS_GIMBAL_MAX_SAMPLES - 1;

} // namespace

struct fcam_gimbal_ctx {
    const sensors_enabled_config *config; // kept, not consulted after creation
    sensors_fcam_gimbal_data *data;
    shm_consumer *consumer;
};

extern "C" void fcam_gimbal_destroy(fcam_gimbal_ctx *gimbal)
{
    if (!gimbal)
        return;
    consumer_destroy(gimbal->consumer);
    free(gimbal);
}

extern "C" fcam_gimbal_ctx *fcam_gimbal_new(const sensors_enabled_config *config, void * /*unused*/,
                                            sensors_fcam_gimbal_data *data)
{
    if (!config || !data)
        return nullptr;
    owned<fcam_gimbal_ctx, fcam_gimbal_destroy> gimbal{zeroed_new<fcam_gimbal_ctx>()};
    if (!gimbal)
        return nullptr;
    gimbal->config = config;
    gimbal->data = data;

    // The consumer copies what it needs: the table lives only here.
    const tlm_array_entry entries[kEntryCount] = {
        {data->ef_rate, "gimbal_stab.est.state.ef_rate", TLM_TYPE_FLOAT, 0, 4, 3, SENSORS_GIMBAL_MAX_SAMPLES,
         data->timestamps},
        {data->ef_q_w, "gimbal_stab.est.state.ef_q.w", TLM_TYPE_FLOAT, 0, 4, 1, SENSORS_GIMBAL_MAX_SAMPLES, nullptr},
        {data->ef_q_x, "gimbal_stab.est.state.ef_q.x", TLM_TYPE_FLOAT, 0, 4, 1, SENSORS_GIMBAL_MAX_SAMPLES, nullptr},
        {data->ef_q_y, "gimbal_stab.est.state.ef_q.y", TLM_TYPE_FLOAT, 0, 4, 1, SENSORS_GIMBAL_MAX_SAMPLES, nullptr},
        {data->ef_q_z, "gimbal_stab.est.state.ef_q.z", TLM_TYPE_FLOAT, 0, 4, 1, SENSORS_GIMBAL_MAX_SAMPLES, nullptr},
    };
    gimbal->consumer = consumer_create();
    if (!gimbal->consumer) {
        log_msg(kTag, LOG_ERR, "Unable to create shm_consumer");
        return nullptr;
    }
    int r = consumer_register_array(gimbal->consumer, entries, kEntryCount);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "Unable to register telemetry array: %s", strerror(-r));
        return nullptr;
    }
    r = consumer_complete(gimbal->consumer);
    if (r < 0) {
        log_msg(kTag, LOG_ERR, "Unable to complete telemetry consumer registration");
        return nullptr;
    }
    return gimbal.release();
}

extern "C" int fcam_gimbal_start(fcam_gimbal_ctx *gimbal)
{
    return gimbal ? 0 : -EINVAL;
}

extern "C" int fcam_gimbal_read(fcam_gimbal_ctx *gimbal, uint32_t *updated)
{
    if (!gimbal || !updated)
        return -EINVAL;
    uint32_t after = 0;
    int r = consumer_get_samples(gimbal->consumer, nullptr, kTlmMethodLatest, kEarlierSamples, 0,
                                 &gimbal->data->count, &after);
    if (r < 0)
        return -EAGAIN; // whatever the reason: the host judges the age from the timestamps
    *updated |= SENSORS_UPDATED_FCAM_GIMBAL;
    return 0;
}
