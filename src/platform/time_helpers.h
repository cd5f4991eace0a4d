// SPDX-License-Identifier: Apache-2.0
// Monotonic clock and timespec arithmetic; the small ones inline, as the
// acquisition cycle calls them several times over.
//
// Every timespec handed back is normalised: 0 <= tv_nsec < 1 000 000 000,
// the sign carried by tv_sec. Functions that can fail return 0 or a negative
// errno: -EINVAL for a null pointer or a timespec that is not normalised,
// -ERANGE for a negative duration where a duration is expected, -EOVERFLOW
// when the result does not fit.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

inline constexpr int64_t kNsPerSec = 1000000000;
inline constexpr int64_t kNsPerUs = 1000;
inline constexpr int64_t kUsPerSec = 1000000;

// Reads CLOCK_MONOTONIC.
int monotonic_now(timespec *now);
// The same in nanoseconds, for the simulator and the tools.
int64_t monotonic_ns();

// <0, 0 or >0 as a is before, equal to or after b. A null timespec sorts
// before any other; two nulls are equal.
inline int timespec_compare(const timespec *a, const timespec *b)
{
    if (!a || !b)
        return (a != nullptr) - (b != nullptr);
    if (a->tv_sec != b->tv_sec)
        return a->tv_sec < b->tv_sec ? -1 : 1;
    if (a->tv_nsec != b->tv_nsec)
        return a->tv_nsec < b->tv_nsec ? -1 : 1;
    return 0;
}

inline bool timespec_is_normalised(const timespec *t)
{
    return t && t->tv_nsec >= 0 && t->tv_nsec < kNsPerSec;
}

// *out = a - b.
int timespec_diff(const timespec *a, const timespec *b, timespec *out);

// Splits a nanosecond count; negative counts give a negative tv_sec with a
// non-negative tv_nsec (-1 ns is {-1, 999999999}). Inline: every sample's
// timestamp passes here.
inline timespec ns_to_timespec(int64_t ns)
{
    int64_t sec = ns / kNsPerSec;
    int64_t rem = ns % kNsPerSec;
    if (rem < 0) {
        sec -= 1;
        rem += kNsPerSec;
    }
    timespec t{};
    t.tv_sec = sec;
    t.tv_nsec = rem;
    return t;
}

// Nanoseconds of t; -EOVERFLOW beyond what 64 bits of nanoseconds hold (about 292 years).
inline int timespec_to_ns(const timespec *t, int64_t *ns)
{
    if (!ns || !timespec_is_normalised(t))
        return -EINVAL;
    // For negative seconds, borrow one second first so that the most negative
    // count (whose seconds alone overflow) still converts.
    int64_t sec = t->tv_sec;
    int64_t nsec = t->tv_nsec;
    if (sec < 0) {
        sec += 1;
        nsec -= kNsPerSec;
    }
    int64_t v;
    if (__builtin_mul_overflow(sec, kNsPerSec, &v) || __builtin_add_overflow(v, nsec, &v))
        return -EOVERFLOW;
    *ns = v;
    return 0;
}

// Whether t lies within range_us microseconds of now, either side, bounds
// included, to the nanosecond: a sample exactly range_us old counts as
// within, one a nanosecond older does not. When age_us is
// given it receives |now - t| in whole microseconds (saturated). False for a
// null or non-normalised argument, with age_us untouched.
bool age_within(const timespec *now, const timespec *t, uint64_t range_us, uint64_t *age_us);

// *elapsed = monotonic now - since (negative when since lies ahead).
int elapsed_since(const timespec *since, timespec *elapsed);

// Whole microseconds of a non-negative duration (or of a monotonic time).
inline int duration_in_us(const timespec *duration, uint64_t *us)
{
    if (!us || !timespec_is_normalised(duration))
        return -EINVAL;
    if (duration->tv_sec < 0)
        return -ERANGE;
    uint64_t v;
    if (__builtin_mul_overflow(uint64_t(duration->tv_sec), uint64_t(kUsPerSec), &v) ||
        __builtin_add_overflow(v, uint64_t(duration->tv_nsec) / 1000, &v))
        return -EOVERFLOW;
    *us = v;
    return 0;
}
