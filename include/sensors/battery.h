/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The smart battery module: the pack's state read from the sysfs attribute
 * files of its kernel driver ("smartbattery"), at the configured rate, into
 * the battery sub-record, with the pack's transitions written to the flight
 * log as "EVT:SMARTBATTERY;" events and each full read published to the
 * "sensors_battery" telemetry section.
 *
 * The configured directory is a fixed system path: when ORLUNE_ROOT is set,
 * an absolute directory is looked up under it.
 */
#ifndef SENSORS_BATTERY_H
#define SENSORS_BATTERY_H

#include <stdint.h>

#include <sensors/api.h>
#include <sensors/config.h>
#include <sensors/data.h>

#ifdef __cplusplus
extern "C" {
#endif

struct battery_ctx;

/*
 * Checks that the directory belongs to the pack's driver, that a pack is
 * present and that every attribute exists, opens the attributes, logs the
 * start event and creates the telemetry producer. Returns null, having
 * released everything, on any failure.
 */
SENSORS_API struct battery_ctx *battery_new(const struct sensors_battery_config *config,
					    struct sensors_battery_data *data);
/*
 * At most once per read period, reads every attribute into the sub-record and
 * sets bit 0x40 of *updated when a field changed; between full reads only the
 * timestamp is refreshed. Returns 0, -EINVAL, -EIO ("present" unreadable) or
 * -ENODEV (no pack, or a call within a period of a failed read).
 */
SENSORS_API int battery_read(struct battery_ctx *battery, uint32_t *updated);
/* Whether the last read found the pack (0 before the first read). */
SENSORS_API int battery_is_present(struct battery_ctx *battery);
/* Publishes the sub-record as one sample of "sensors_battery". */
SENSORS_API int battery_tlm_push(struct battery_ctx *battery);
SENSORS_API void battery_destroy(struct battery_ctx *battery);

/* Reads one integer attribute (decimal, 0x hexadecimal or 0 octal) from the start of fd. */
SENSORS_API int get_int(int fd, int32_t *value);
/*
 * Reads "cell_voltage" (the cell count, then one millivolt value per cell)
 * from fd. Both voltages are filled only for a two-cell pack; *count
 * receives the count read, -1 when none. Returns 0 or -EINVAL.
 */
SENSORS_API int get_cell_voltage(int fd, uint16_t voltages[2], int *count);

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_BATTERY_H */
