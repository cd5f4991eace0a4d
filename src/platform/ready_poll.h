// SPDX-License-Identifier: Apache-2.0
// One poll, without waiting, over the descriptors that a cycle would
// otherwise ask one by one with reads that mostly find nothing (a polled
// IIO device between its scans, a service's socket between its messages).
// Each source whose descriptor has nothing waiting is told so, and its next
// read answers "nothing new" without a system call of its own.
#pragma once

#include <cstddef>

struct ready_hint {
    const int *fd;  // the source's descriptor, read at each poll (< 0: none now)
    int polled_fd;  // the descriptor the last poll asked about
    bool empty;     // that poll found nothing waiting on it
};

// The hint of a source whose descriptor is at fd.
inline ready_hint ready_hint_for(const int *fd)
{
    return ready_hint{fd, -1, false};
}

// Asks about every hint's descriptor in one poll and marks each empty or
// not (null hints and negative descriptors are left out). A poll that fails
// marks none: each read then asks for itself, as without the poll.
void ready_poll(ready_hint *const *hints, size_t count);

// True, once, when the last poll found nothing waiting on fd: the read that
// follows may answer "nothing new" without asking.
inline bool ready_hint_take_empty(ready_hint *hint, int fd)
{
    if (!hint || !hint->empty)
        return false;
    hint->empty = false;
    return hint->polled_fd == fd && fd >= 0;
}
