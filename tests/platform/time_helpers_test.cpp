// SPDX-License-Identifier: Apache-2.0
#include "platform/time_helpers.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

namespace {

timespec ts(int64_t sec, long nsec)
{
    timespec t{};
    t.tv_sec = sec;
    t.tv_nsec = nsec;
    return t;
}

constexpr int64_t kMaxSec = std::numeric_limits<int64_t>::max();
constexpr int64_t kMinSec = std::numeric_limits<int64_t>::min();

TEST(TimeHelpers, DifferenceIsNormalised)
{
    struct row {
        timespec a, b, want;
    };
    const row rows[] = {
        {ts(5, 100), ts(3, 200), ts(1, 999999900)},
        {ts(3, 200), ts(5, 100), ts(-2, 100)},
        {ts(1, 0), ts(1, 0), ts(0, 0)},
        {ts(0, 0), ts(0, 1), ts(-1, 999999999)},
        {ts(kMaxSec, 999999999), ts(kMaxSec, 0), ts(0, 999999999)},
    };
    for (const row &r : rows) {
        timespec out;
        ASSERT_EQ(timespec_diff(&r.a, &r.b, &out), 0);
        EXPECT_EQ(out.tv_sec, r.want.tv_sec);
        EXPECT_EQ(out.tv_nsec, r.want.tv_nsec);
    }
}

TEST(TimeHelpers, BadArgumentsAreRefusedWithClearResults)
{
    timespec out = ts(7, 7);
    timespec ok = ts(1, 0);
    timespec bad = ts(1, 1000000000);
    timespec negative_ns = ts(1, -1);
    EXPECT_EQ(timespec_diff(&bad, &ok, &out), -EINVAL);
    EXPECT_EQ(timespec_diff(&ok, &negative_ns, &out), -EINVAL);
    EXPECT_EQ(timespec_diff(nullptr, &ok, &out), -EINVAL);
    EXPECT_EQ(timespec_diff(&ok, &ok, nullptr), -EINVAL);
    timespec max = ts(kMaxSec, 0), min = ts(kMinSec, 0);
    EXPECT_EQ(timespec_diff(&max, &min, &out), -EOVERFLOW);
    EXPECT_EQ(out.tv_sec, 7);

    EXPECT_EQ(monotonic_now(nullptr), -EINVAL);
    EXPECT_EQ(elapsed_since(nullptr, &out), -EINVAL);
    EXPECT_EQ(elapsed_since(&bad, &out), -EINVAL);
    uint64_t us = 5;
    EXPECT_EQ(duration_in_us(&bad, &us), -EINVAL);
    EXPECT_EQ(duration_in_us(&ok, nullptr), -EINVAL);
    timespec neg = ts(-1, 500);
    EXPECT_EQ(duration_in_us(&neg, &us), -ERANGE);
    timespec huge = ts(kMaxSec, 0);
    EXPECT_EQ(duration_in_us(&huge, &us), -EOVERFLOW);
    EXPECT_EQ(us, 5u);
}

TEST(TimeHelpers, CompareOrdersBySecondsThenNanoseconds)
{
    timespec a = ts(1, 5), b = ts(1, 6), c = ts(2, 0), d = ts(-1, 999999999);
    EXPECT_LT(timespec_compare(&a, &b), 0);
    EXPECT_GT(timespec_compare(&c, &b), 0);
    EXPECT_EQ(timespec_compare(&a, &a), 0);
    EXPECT_LT(timespec_compare(&d, &a), 0);
    EXPECT_LT(timespec_compare(nullptr, &a), 0);
    EXPECT_GT(timespec_compare(&a, nullptr), 0);
    EXPECT_EQ(timespec_compare(nullptr, nullptr), 0);
}

TEST(TimeHelpers, NanosecondConversionsRoundTrip)
{
    for (int64_t ns : {int64_t(0), int64_t(1), int64_t(-1), int64_t(999999999), int64_t(1000000000),
                       int64_t(-1000000000), int64_t(123456789012345678), std::numeric_limits<int64_t>::max(),
                       std::numeric_limits<int64_t>::min()}) {
        timespec t = ns_to_timespec(ns);
        EXPECT_TRUE(timespec_is_normalised(&t)) << ns;
        int64_t back = 0;
        ASSERT_EQ(timespec_to_ns(&t, &back), 0) << ns;
        EXPECT_EQ(back, ns);
    }
    timespec minus_one = ns_to_timespec(-1);
    EXPECT_EQ(minus_one.tv_sec, -1);
    EXPECT_EQ(minus_one.tv_nsec, 999999999);
    timespec far = ts(10000000000, 0); // about 317 years
    int64_t ns;
    EXPECT_EQ(timespec_to_ns(&far, &ns), -EOVERFLOW);
}

TEST(TimeHelpers, AgeWithinCountsTheBoundAsFreshAndReportsTheAge)
{
    timespec now = ts(100, 500000000);
    struct row {
        timespec t;
        bool within;
        uint64_t age;
    };
    const row rows[] = {
        {ts(100, 436000000), true, 64000},  // exactly the range: fresh
        {ts(100, 435999999), false, 64000}, // 64000.001 us: whole microseconds, but past the range
        {ts(100, 435000000), false, 65000},
        {ts(100, 500000000), true, 0},
        {ts(100, 550000000), true, 50000}, // ahead of now: the distance counts
        {ts(0, 0), false, 100500000},
    };
    for (const row &r : rows) {
        uint64_t age = 12345;
        EXPECT_EQ(age_within(&now, &r.t, 64000, &age), r.within) << r.t.tv_sec << "." << r.t.tv_nsec;
        EXPECT_EQ(age, r.age);
    }
    uint64_t age = 12345;
    timespec bad = ts(1, -5);
    EXPECT_FALSE(age_within(&now, &bad, 64000, &age));
    EXPECT_FALSE(age_within(nullptr, &now, 64000, &age));
    EXPECT_EQ(age, 12345u);
    EXPECT_TRUE(age_within(&now, &now, 0, nullptr));
}

TEST(TimeHelpers, ElapsedSinceAndDurationFollowTheClock)
{
    timespec start;
    ASSERT_EQ(monotonic_now(&start), 0);
    timespec elapsed;
    ASSERT_EQ(elapsed_since(&start, &elapsed), 0);
    EXPECT_GE(elapsed.tv_sec, 0);
    timespec ahead = ts(start.tv_sec + 10, start.tv_nsec);
    ASSERT_EQ(elapsed_since(&ahead, &elapsed), 0);
    EXPECT_LT(elapsed.tv_sec, 0);
    uint64_t us;
    EXPECT_EQ(duration_in_us(&elapsed, &us), -ERANGE);

    timespec d = ts(12, 345678999);
    ASSERT_EQ(duration_in_us(&d, &us), 0);
    EXPECT_EQ(us, 12345678u);
}

} // namespace
