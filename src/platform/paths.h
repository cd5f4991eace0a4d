// SPDX-License-Identifier: Apache-2.0
// Relocation of the fixed system paths (/etc/sensors, /data, /factory, the
// properties file): when ORLUNE_ROOT is set, every fixed absolute path is
// looked up under it, so tests and the virtual vehicle can run side by side
// with a real system. Unset, the fixed paths are used as they are.
#pragma once

#include <cstddef>

inline constexpr const char *kRootEnv = "ORLUNE_ROOT";

// Writes ORLUNE_ROOT + fixed (or fixed alone) into out. Returns 0,
// -EINVAL for a null or relative fixed path, -ENAMETOOLONG when out is too small.
int platform_path(const char *fixed, char *out, size_t size);
