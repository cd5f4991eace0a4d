// SPDX-License-Identifier: Apache-2.0
// Which transport the IIO devices are read through in this run of the
// tests: the network (the default: the simulator's iiod server), or a
// board's, through libiio's local backend: ORLUNE_TEST_TRANSPORT=board (the
// sysfs stand-in, under scripts/board.sh) or ORLUNE_TEST_TRANSPORT=kernel
// (a genuine kernel's devices, in a guest with the orlune_vehicle module).
#pragma once

#include <stdlib.h>

#include <cstring>

inline bool kernel_transport()
{
    const char *transport = getenv("ORLUNE_TEST_TRANSPORT");
    return transport && strcmp(transport, "kernel") == 0;
}

// A board's transport: the sysfs stand-in or the kernel.
inline bool board_transport()
{
    const char *transport = getenv("ORLUNE_TEST_TRANSPORT");
    return transport && (strcmp(transport, "board") == 0 || kernel_transport());
}
