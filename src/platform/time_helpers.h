// SPDX-License-Identifier: Apache-2.0
// Monotonic clock and timespec arithmetic.
//
// Every timespec handed back is normalised: 0 <= tv_nsec < 1 000 000 000,
// the sign carried by tv_sec. Functions that can fail return 0 or a negative
// errno: -EINVAL for a null pointer or a timespec that is not normalised,
// -ERANGE for a negative duration where a duration is expected, -EOVERFLOW
// when the result does not fit.
#pragma once

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
int timespec_compare(const timespec *a, const timespec *b);

bool timespec_is_normalised(const timespec *t);

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
int timespec_to_ns(const timespec *t, int64_t *ns);

// Whether t lies within range_us microseconds of now, either side, bounds
// included, to the nanosecond: a sample exactly range_us old counts as
// within, one a nanosecond older does not. When age_us is
// given it receives |now - t| in whole microseconds (saturated). False for a
// null or non-normalised argument, with age_us untouched.
bool age_within(const timespec *now, const timespec *t, uint64_t range_us, uint64_t *age_us);

// *elapsed = monotonic now - since (negative when since lies ahead).
int elapsed_since(const timespec *since, timespec *elapsed);

// Whole microseconds of a non-negative duration (or of a monotonic time).
int duration_in_us(const timespec *duration, uint64_t *us);
