// SPDX-License-Identifier: Apache-2.0
// The telemetry section reader (declared in the public header, since the
// plug-in exports it): the generic consumer of one telemetry section used by
// carpet detection, vision position and vision optical flow.
#pragma once

#include <sensors/sensor_tlm.h>
