/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The telemetry-fed sensors: carpet detection, vision position, vision
 * optical flow and the front-camera gimbal attitude. Their values are
 * published by other processes (vision, gimbal stabilisation) in shared-memory
 * telemetry; each module copies the latest sample into its sub-record of the
 * sensor data record once per acquisition cycle.
 *
 * Every operation returns 0 or a negative errno and answers -EINVAL for a
 * missing context; every destroy accepts null.
 */
#ifndef SENSORS_TLM_SENSORS_H
#define SENSORS_TLM_SENSORS_H

#include <stdint.h>

#include <sensors/api.h>
#include <sensors/config.h>
#include <sensors/data.h>

#ifdef __cplusplus
extern "C" {
#endif

struct carpet_detection_ctx;
struct vision_position_ctx;
struct vision_optical_flow_ctx;
struct fcam_gimbal_ctx;

/*
 * Carpet detection: reads "vision_carpet_estimation" while active. Created
 * inactive; activate opens the section, deactivate closes it. Read sets no
 * bit of the updated-sensors mask and does nothing while inactive.
 */
SENSORS_API struct carpet_detection_ctx *carpet_detection_new(struct sensors_carpet_data *data);
/* -EINVAL when already active: the host activates only after start. */
SENSORS_API int carpet_detection_start(struct carpet_detection_ctx *cd);
SENSORS_API int carpet_detection_activate(struct carpet_detection_ctx *cd);
SENSORS_API int carpet_detection_deactivate(struct carpet_detection_ctx *cd);
SENSORS_API int carpet_detection_read(struct carpet_detection_ctx *cd, uint32_t *updated);
SENSORS_API void carpet_detection_stop(struct carpet_detection_ctx *cd);
SENSORS_API void carpet_detection_destroy(struct carpet_detection_ctx *cd);

/*
 * Vision position: copies the latest sample of section into the sub-record
 * and sets update_bit in the updated-sensors mask when its time changed.
 */
SENSORS_API struct vision_position_ctx *vision_position_new(struct sensors_vision_position_data *data,
							    const char *section, uint32_t update_bit);
SENSORS_API int vision_position_start(struct vision_position_ctx *vp);
SENSORS_API int vision_position_read(struct vision_position_ctx *vp, uint32_t *updated);
SENSORS_API void vision_position_stop(struct vision_position_ctx *vp);
SENSORS_API void vision_position_destroy(struct vision_position_ctx *vp);

/*
 * Vision optical flow: reads "vcam_optical_flow", accepts samples at most
 * 64 ms old (bit 0x800), publishes a missing or stale measurement with its
 * quality fields cleared, and marks the sensor defective after 10 s without
 * an accepted sample. Read fails only for a missing context or clock.
 */
SENSORS_API struct vision_optical_flow_ctx *vision_optical_flow_new(struct sensors_optical_flow_data *data);
SENSORS_API int vision_optical_flow_start(struct vision_optical_flow_ctx *vcam);
SENSORS_API int vision_optical_flow_read(struct vision_optical_flow_ctx *vcam, uint32_t *updated);
SENSORS_API void vision_optical_flow_stop(struct vision_optical_flow_ctx *vcam);
SENSORS_API void vision_optical_flow_destroy(struct vision_optical_flow_ctx *vcam);

/*
 * Front-camera gimbal: the latest five rate and attitude-quaternion samples
 * of the gimbal stabilisation's entries. The second argument of new is
 * unused. Read sets bit 0x1000 on every success and gives -EAGAIN whenever
 * the samples cannot be read.
 */
SENSORS_API struct fcam_gimbal_ctx *fcam_gimbal_new(const struct sensors_enabled_config *config, void *unused,
						    struct sensors_fcam_gimbal_data *data);
SENSORS_API int fcam_gimbal_start(struct fcam_gimbal_ctx *gimbal);
SENSORS_API int fcam_gimbal_read(struct fcam_gimbal_ctx *gimbal, uint32_t *updated);
SENSORS_API void fcam_gimbal_destroy(struct fcam_gimbal_ctx *gimbal);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_TLM_SENSORS_H */
