// SPDX-License-Identifier: Apache-2.0
#include "platform/time_helpers.h"

#include <cerrno>
#include <limits>

int monotonic_now(timespec *now)
{
    if (!now)
        return -EINVAL;
    if (clock_gettime(CLOCK_MONOTONIC, now) != 0)
        return -errno;
    return 0;
}

int64_t monotonic_ns()
{
    timespec t{};
    monotonic_now(&t);
    return int64_t(t.tv_sec) * kNsPerSec + t.tv_nsec;
}

int timespec_diff(const timespec *a, const timespec *b, timespec *out)
{
    if (!out || !timespec_is_normalised(a) || !timespec_is_normalised(b))
        return -EINVAL;
    int64_t sec;
    if (__builtin_sub_overflow(int64_t(a->tv_sec), int64_t(b->tv_sec), &sec))
        return -EOVERFLOW;
    int64_t nsec = a->tv_nsec - b->tv_nsec;
    if (nsec < 0) {
        if (sec == std::numeric_limits<int64_t>::min())
            return -EOVERFLOW;
        sec -= 1;
        nsec += kNsPerSec;
    }
    out->tv_sec = sec;
    out->tv_nsec = nsec;
    return 0;
}

namespace {

// Whole microseconds of |d|, saturated at UINT64_MAX; *sub_us receives the
// nanoseconds left below the microsecond.
uint64_t magnitude_us(const timespec &d, uint64_t *sub_us)
{
    // |d| = |sec| s - (or +) nsec; work on a non-negative (sec, nsec) pair.
    uint64_t sec;
    uint64_t nsec;
    if (d.tv_sec >= 0) {
        sec = uint64_t(d.tv_sec);
        nsec = uint64_t(d.tv_nsec);
    } else if (d.tv_nsec == 0) {
        sec = uint64_t(-(d.tv_sec + 1)) + 1;
        nsec = 0;
    } else {
        sec = uint64_t(-(d.tv_sec + 1));
        nsec = uint64_t(kNsPerSec - d.tv_nsec);
    }
    *sub_us = nsec % 1000;
    uint64_t us;
    if (__builtin_mul_overflow(sec, uint64_t(kUsPerSec), &us) || __builtin_add_overflow(us, nsec / 1000, &us))
        return std::numeric_limits<uint64_t>::max();
    return us;
}

} // namespace

bool age_within(const timespec *now, const timespec *t, uint64_t range_us, uint64_t *age_us)
{
    timespec d;
    if (timespec_diff(now, t, &d) != 0) {
        if (!timespec_is_normalised(now) || !timespec_is_normalised(t))
            return false;
        // Only an overflow gets here: the two are centuries apart.
        if (age_us)
            *age_us = std::numeric_limits<uint64_t>::max();
        return false;
    }
    uint64_t sub_us = 0;
    uint64_t age = magnitude_us(d, &sub_us);
    if (age_us)
        *age_us = age;
    return age < range_us || (age == range_us && sub_us == 0);
}

int elapsed_since(const timespec *since, timespec *elapsed)
{
    if (!elapsed || !timespec_is_normalised(since))
        return -EINVAL;
    timespec now;
    int r = monotonic_now(&now);
    if (r < 0)
        return r;
    return timespec_diff(&now, since, elapsed);
}
