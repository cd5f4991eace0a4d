// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's sensors drift with temperature. By default they drift
// the way the calibration files say: each device model gets the inverse of
// the thermal calibration the plug-in will apply, read from the same files
// (under the same ORLUNE_ROOT), so that a calibrated reading comes back to the
// truth. A device whose scenario gives its unit's own drift drifts that way
// instead, whatever the files say: a bench recording of it shows the unit,
// and a calibration made from one can be checked against what the unit does.
#pragma once

#include <string>

#include "sim/iiod_server.h"

namespace sim {

// Installs the inverses (or the scenario's drift) on the server's devices;
// call it before clients stream. Returns 0, or -EINVAL when a calibration file exists but is
// unusable (the plug-in would refuse it too), with *error set.
// The barometer's die drives the magnetometer's calibration too: the
// plug-in corrects the field at the barometer's temperature of the same
// cycle. When the scenario has a barometer, the magnetometer's inverse runs
// at that die's temperature, else at its own.
int install_thermal_inverses(iiod_server &server, const scenario &s, std::string *error);

// Makes model (a magnetometer) run its thermal inverse at the temperature of
// a die that warms as die, rather than at its own. False for other models.
bool calibrate_at_die_of(device_model &model, const warm_up &die);

} // namespace sim
