// SPDX-License-Identifier: Apache-2.0
#include "platform/failpoint.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <climits>
#include <string>

#include "platform/paths.h"
#include "support/test_env.h"

namespace {

TEST(Failpoints, InertUntilArmedThenFireAsOftenAsAsked)
{
    EXPECT_EQ(failpoint_check("producer_create"), 0);
    ASSERT_EQ(failpoint_arm("producer_create", -ENOMEM, 2), 0);
    EXPECT_EQ(failpoint_check("sched_config_apply"), 0);
    EXPECT_EQ(failpoint_check("producer_create"), -ENOMEM);
    EXPECT_EQ(failpoint_check("producer_create"), -ENOMEM);
    EXPECT_EQ(failpoint_check("producer_create"), 0);
    EXPECT_EQ(failpoint_fired("producer_create"), 2);

    ASSERT_EQ(failpoint_arm("sched_config_apply", -EPERM), 0);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(failpoint_check("sched_config_apply"), -EPERM);
    failpoint_disarm("sched_config_apply");
    EXPECT_EQ(failpoint_check("sched_config_apply"), 0);

    ASSERT_EQ(failpoint_arm("a", -EIO), 0);
    ASSERT_EQ(failpoint_arm("b", -EIO), 0);
    failpoint_disarm_all();
    EXPECT_EQ(failpoint_check("a"), 0);
    EXPECT_EQ(failpoint_check("b"), 0);
}

TEST(Failpoints, RefusesNonsense)
{
    EXPECT_EQ(failpoint_arm(nullptr, -EIO), -EINVAL);
    EXPECT_EQ(failpoint_arm("", -EIO), -EINVAL);
    EXPECT_EQ(failpoint_arm("x", 5), -EINVAL);
    EXPECT_EQ(failpoint_arm("x", 0), -EINVAL); // a failure carries an errno
    EXPECT_EQ(failpoint_arm("x", -EIO, 0), -EINVAL);
    EXPECT_EQ(failpoint_arm(std::string(100, 'n').c_str(), -EIO), -EINVAL);
    EXPECT_EQ(failpoint_check(nullptr), 0);
}

TEST(Paths, RootPrefixesFixedPaths)
{
    char out[64];
    unsetenv(kRootEnv);
    ASSERT_EQ(platform_path("/data/flight_imu_thermal_bias", out, sizeof out), 0);
    EXPECT_STREQ(out, "/data/flight_imu_thermal_bias");
    setenv(kRootEnv, "/tmp/r1//", 1);
    ASSERT_EQ(platform_path("/etc/sensors", out, sizeof out), 0);
    EXPECT_STREQ(out, "/tmp/r1/etc/sensors");
    EXPECT_EQ(platform_path("etc/sensors", out, sizeof out), -EINVAL);
    EXPECT_EQ(platform_path(nullptr, out, sizeof out), -EINVAL);
    char tiny[8];
    EXPECT_EQ(platform_path("/factory", tiny, sizeof tiny), -ENAMETOOLONG);
    EXPECT_STREQ(tiny, "");
    unsetenv(kRootEnv);
}

} // namespace
