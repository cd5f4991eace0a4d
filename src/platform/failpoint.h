// SPDX-License-Identifier: Apache-2.0
// Named fail points, for failures the real world rarely produces (a telemetry
// producer that cannot be created, a scheduling configuration refused).
//
// A fail point is inert until armed, by a test (failpoint_arm) or by the
// environment: ORLUNE_FAILPOINTS="name=-12,other=-5:2" arms "name" with
// -ENOMEM for every hit and "other" with -EIO for its next two hits.
// An unarmed check costs one atomic load.
//
// Fail points exist only in builds made for tests (CMake option
// ORLUNE_FAILPOINTS, off by default and in every build for a vehicle). In
// other builds a check is a constant 0, the environment is not read and
// failpoint_arm returns -ENOSYS.
#pragma once

inline constexpr const char *kFailpointsEnv = "ORLUNE_FAILPOINTS";

#if ORLUNE_FAILPOINTS
// 0 when the point is not armed, else the negative errno it was armed with.
int failpoint_check(const char *name);
#else
inline int failpoint_check(const char *)
{
    return 0;
}
#endif

// Arms name with err (a negative errno) for count hits (count < 0: every hit).
// Returns 0, or -EINVAL / -ENOSPC; -ENOSYS in a build without fail points.
int failpoint_arm(const char *name, int err, int count = -1);
void failpoint_disarm(const char *name);
void failpoint_disarm_all();

// Times an armed point fired since it was armed.
int failpoint_fired(const char *name);
