// SPDX-License-Identifier: Apache-2.0
#include "platform/time_helpers.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

namespace {

constexpr int64_t kMaxSec = std::numeric_limits<int64_t>::max();
constexpr int64_t kMinSec = std::numeric_limits<int64_t>::min();

TEST(TimeHelpers, DifferenceIsNormalised)
{
    struct row {
        timespec a, b, want;
    };
    const row rows[] = {
        {{5, 100}, {3, 200}, {1, 999999900}},
        {{3, 200}, {5, 100}, {-2, 100}},
        {{1, 0}, {1, 0}, {0, 0}},
        {{0, 0}, {0, 1}, {-1, 999999999}},
        {{kMaxSec, 999999999}, {kMaxSec, 0}, {0, 999999999}},
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
    timespec out{7, 7};
    timespec ok{1, 0};
    timespec bad{1, 1000000000};
    timespec negative_ns{1, -1};
    EXPECT_EQ(timespec_diff(&bad, &ok, &out), -EINVAL);
    EXPECT_EQ(timespec_diff(&ok, &negative_ns, &out), -EINVAL);
    EXPECT_EQ(timespec_diff(nullptr, &ok, &out), -EINVAL);
    EXPECT_EQ(timespec_diff(&ok, &ok, nullptr), -EINVAL);
    timespec max{kMaxSec, 0}, min{kMinSec, 0};
    EXPECT_EQ(timespec_diff(&max, &min, &out), -EOVERFLOW);
    EXPECT_EQ(out.tv_sec, 7);

    EXPECT_EQ(monotonic_now(nullptr), -EINVAL);
    EXPECT_EQ(elapsed_since(nullptr, &out), -EINVAL);
    EXPECT_EQ(elapsed_since(&bad, &out), -EINVAL);
    uint64_t us = 5;
    EXPECT_EQ(duration_in_us(&bad, &us), -EINVAL);
    EXPECT_EQ(duration_in_us(&ok, nullptr), -EINVAL);
    timespec neg{-1, 500};
    EXPECT_EQ(duration_in_us(&neg, &us), -ERANGE);
    timespec huge{kMaxSec, 0};
    EXPECT_EQ(duration_in_us(&huge, &us), -EOVERFLOW);
    EXPECT_EQ(us, 5u);
}

TEST(TimeHelpers, CompareOrdersBySecondsThenNanoseconds)
{
    timespec a{1, 5}, b{1, 6}, c{2, 0}, d{-1, 999999999};
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
    timespec far{10000000000, 0}; // about 317 years
    int64_t ns;
    EXPECT_EQ(timespec_to_ns(&far, &ns), -EOVERFLOW);
}

TEST(TimeHelpers, AgeWithinCountsTheBoundAsFreshAndReportsTheAge)
{
    timespec now{100, 500000000};
    struct row {
        timespec t;
        bool within;
        uint64_t age;
    };
    const row rows[] = {
        {{100, 436000000}, true, 64000},  // exactly the range: fresh
        {{100, 435999999}, false, 64000}, // 64000.001 us: whole microseconds, but past the range
        {{100, 435000000}, false, 65000},
        {{100, 500000000}, true, 0},
        {{100, 550000000}, true, 50000}, // ahead of now: the distance counts
        {{0, 0}, false, 100500000},
    };
    for (const row &r : rows) {
        uint64_t age = 12345;
        EXPECT_EQ(age_within(&now, &r.t, 64000, &age), r.within) << r.t.tv_sec << "." << r.t.tv_nsec;
        EXPECT_EQ(age, r.age);
    }
    uint64_t age = 12345;
    timespec bad{1, -5};
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
    timespec ahead{start.tv_sec + 10, start.tv_nsec};
    ASSERT_EQ(elapsed_since(&ahead, &elapsed), 0);
    EXPECT_LT(elapsed.tv_sec, 0);
    uint64_t us;

    timespec d{12, 345678999};
    ASSERT_EQ(duration_in_us(&d, &us), 0);
    EXPECT_EQ(us, 12345678u);
}

} // namespace
