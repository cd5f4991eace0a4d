/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The GPS module, a client of the GPS daemon's message socket, and the
 * ultrasound altimeter, a client of the ultrasound ranging service. Both are
 * polled by each acquisition cycle and never block it.
 */
#ifndef SENSORS_GPS_US_H
#define SENSORS_GPS_US_H

#include <sensors/api.h>
#include <sensors/data.h>

#ifdef __cplusplus
extern "C" {
#endif

struct gps_ctx;
struct us_ctx;
struct msg_context;
struct msg_connection;
struct msg_message;

/* Creates the socket context (not connected yet) and the "sensors_gps"
 * telemetry producer; null, having released everything, on failure. */
SENSORS_API struct gps_ctx *gps_new(struct sensors_gps_data *data);
/* Asks for the connection to the daemon's socket "gps"; the daemon may come later. */
SENSORS_API int gps_start(struct gps_ctx *gps);
SENSORS_API int gps_stop(struct gps_ctx *gps);
/* Decodes every message that arrived since the previous call into the gps
 * sub-record; sets bit 0x20 of *updated when any did. */
SENSORS_API int gps_read(struct gps_ctx *gps, uint32_t *updated);
SENSORS_API int gps_tlm_push(struct gps_ctx *gps);
SENSORS_API void gps_destroy(struct gps_ctx *gps);
/* The socket callback; user_data is the module. Runs inside gps_read. */
SENSORS_API void gps_client_cb(struct msg_context *context, int event, struct msg_connection *connection,
			       const struct msg_message *message, void *user_data);

/* Creates the result object and the "sensors_us" telemetry producer. */
SENSORS_API struct us_ctx *us_new(struct sensors_us_data *data);
/* Opens the ranging handle; -1 when one is already open, -ENOMEM when the service refuses. */
SENSORS_API int us_start(struct us_ctx *us);
SENSORS_API int us_stop(struct us_ctx *us);
/* Copies the latest result into the us sub-record; sets bit 0x10 of *updated
 * when it holds a new measurement. -1 while stopped. */
SENSORS_API int us_read(struct us_ctx *us, uint32_t *updated);
SENSORS_API int us_tlm_push(struct us_ctx *us);
SENSORS_API void us_destroy(struct us_ctx *us);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_GPS_US_H */
