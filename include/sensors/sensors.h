/* SPDX-License-Identifier: Apache-2.0 */
/* Everything a sensor host needs to load and drive the plug-in. */
#ifndef SENSORS_SENSORS_H
#define SENSORS_SENSORS_H

#include <sensors/api.h>
#include <sensors/calib.h>
#include <sensors/config.h>
#include <sensors/data.h>
#include <sensors/driver.h>
#include <sensors/sensor_tlm.h>

#endif /* SENSORS_SENSORS_H */
