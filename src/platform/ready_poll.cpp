// SPDX-License-Identifier: Apache-2.0
#include "platform/ready_poll.h"

#include <poll.h>

namespace {

// The sources one cycle polls: the barometer, the magnetometer and two
// services' sockets, with room to spare.
constexpr size_t kMaxSources = 8;

} // namespace

void ready_poll(ready_hint *const *hints, size_t count)
{
    pollfd fds[kMaxSources];
    ready_hint *asked[kMaxSources];
    size_t n = 0;
    for (size_t i = 0; i < count; i++) {
        ready_hint *h = hints[i];
        if (!h)
            continue;
        h->empty = false;
        h->polled_fd = h->fd ? *h->fd : -1;
        if (h->polled_fd < 0 || n == kMaxSources)
            continue;
        fds[n] = {h->polled_fd, POLLIN, 0};
        asked[n++] = h;
    }
    if (n == 0 || poll(fds, nfds_t(n), 0) < 0)
        return;
    // Anything but silence (data, a hang-up, an error) is for the read to see.
    for (size_t i = 0; i < n; i++)
        asked[i]->empty = fds[i].revents == 0;
}
