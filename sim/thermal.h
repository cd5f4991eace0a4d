// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's sensors drift with temperature the way the
// calibration files say: each device model gets the inverse of the thermal
// calibration the plug-in will apply, read from the same files (under the
// same ORLUNE_ROOT), so that a calibrated reading comes back to the truth.
#pragma once

#include <string>

#include "sim/iiod_server.h"

namespace sim {

// Installs the inverses on the server's devices; call it before clients
// stream. Returns 0, or -EINVAL when a calibration file exists but is
// unusable (the plug-in would refuse it too), with *error set.
int install_thermal_inverses(iiod_server &server, const scenario &s, std::string *error);

} // namespace sim
