// SPDX-License-Identifier: Apache-2.0
#include "platform/sched_config.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "platform/failpoint.h"
#include "support/test_env.h"

namespace {

TEST(SchedConfig, TableLinesParseOrAreRefused)
{
    struct row {
        const char *line;
        int result;
    };
    const row rows[] = {
        {"imu fifo 60 1 irq/*-orlune-imu", 0},
        {"barometer other 0 - self", 0},
        {"  spi\trr\t10\t0,2-3\tspi0  # the bus thread", 0},
        {"# comment only", 1},
        {"   ", 1},
        {"imu fifo 0 - self", -EINVAL},     // real-time needs a priority
        {"imu other 5 - self", -EINVAL},    // and time-sharing must not have one
        {"imu fifo 100 - self", -EINVAL},
        {"imu deadline 1 - self", -EINVAL},
        {"imu fifo 60 3-1 self", -EINVAL},
        {"imu fifo 60 x self", -EINVAL},
        {"imu fifo 60 -", -EINVAL},
        {"imu fifo 60 - self extra", -EINVAL},
    };
    for (const row &r : rows) {
        sched_entry e{};
        EXPECT_EQ(sched_config_parse_line(r.line, &e), r.result) << r.line;
    }
    sched_entry e{};
    ASSERT_EQ(sched_config_parse_line("spi rr 10 0,2-3 spi0", &e), 0);
    EXPECT_STREQ(e.name, "spi");
    EXPECT_EQ(e.policy, SCHED_RR);
    EXPECT_EQ(e.priority, 10);
    EXPECT_TRUE(e.set_cpus);
    EXPECT_EQ(CPU_COUNT(&e.cpus), 3);
    EXPECT_TRUE(CPU_ISSET(2, &e.cpus));
    EXPECT_FALSE(CPU_ISSET(1, &e.cpus));
    EXPECT_STREQ(e.threads, "spi0");
}

TEST(SchedConfig, LoadReportsTheFirstBadLine)
{
    test_root root;
    std::string good = root.path() + "/good.sched";
    write_file(good, "# name policy priority cpus threads\nimu other 0 - self\nbarometer batch 0 - self\n");
    sched_config *config = sched_config_load(good.c_str());
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(sched_config_count(config), 2u);
    sched_config_destroy(config);

    std::string bad = root.path() + "/bad.sched";
    write_file(bad, "imu other 0 - self\nimu fifo 0 - self\n");
    log_capture cap;
    EXPECT_EQ(sched_config_load(bad.c_str()), nullptr);
    EXPECT_EQ(sched_config_load((root.path() + "/missing").c_str()), nullptr);
    EXPECT_EQ(cap.texts("sched_config"),
              (std::vector<std::string>{bad + ":2: invalid scheduling configuration line",
                                        "can't open scheduling configuration '" + root.path() +
                                            "/missing': No such file or directory"}));
}

TEST(SchedConfig, ApplyTunesTheNamedThreads)
{
    sched_config *config = sched_config_new();
    ASSERT_NE(config, nullptr);
    for (const char *line :
         {"calling batch 0 0 self", "worker idle 0 - orlune-w*", "nobody other 0 - no-such-thread-*"}) {
        sched_entry e{};
        ASSERT_EQ(sched_config_parse_line(line, &e), 0) << line;
        ASSERT_EQ(sched_config_add(config, e), 0);
    }

    std::atomic<bool> stop{false};
    std::atomic<int> policy{-1};
    std::thread worker([&] {
        pthread_setname_np(pthread_self(), "orlune-worker");
        while (!stop)
            std::this_thread::yield();
        policy = sched_getscheduler(0);
    });
    // The name is set from inside the thread: wait until it shows.
    char name[32] = {};
    for (int i = 0; i < 1000 && strcmp(name, "orlune-worker") != 0; i++) {
        pthread_getname_np(worker.native_handle(), name, sizeof name);
        std::this_thread::yield();
    }

    std::thread caller([&] {
        EXPECT_EQ(sched_config_apply(config, "calling"), 0);
        EXPECT_EQ(sched_getscheduler(0), SCHED_BATCH);
        cpu_set_t set;
        ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
        EXPECT_EQ(CPU_COUNT(&set), 1);
        EXPECT_TRUE(CPU_ISSET(0, &set));
    });
    caller.join();
    EXPECT_EQ(sched_config_apply(config, "worker"), 0);
    stop = true;
    worker.join();
    EXPECT_EQ(policy, SCHED_IDLE);

    EXPECT_EQ(sched_config_apply(config, "nobody"), -ESRCH);
    EXPECT_EQ(sched_config_apply(config, "unlisted"), -ENOENT);
    EXPECT_EQ(sched_config_apply(nullptr, "imu"), 0);
    EXPECT_EQ(sched_config_apply(config, nullptr), -EINVAL);

    ASSERT_EQ(failpoint_arm("sched_config_apply", -EPERM, 1), 0);
    EXPECT_EQ(sched_config_apply(config, "calling"), -EPERM);
    EXPECT_EQ(sched_config_apply(nullptr, "calling"), 0);
    sched_config_destroy(config);
    sched_config_destroy(nullptr);
}

TEST(SchedConfig, DefaultTableComesFromTheEnvironmentOrTheFixedFile)
{
    test_root root;
    unsetenv(kSchedConfigEnv);
    sched_config *config = reinterpret_cast<sched_config *>(1);
    EXPECT_EQ(sched_config_open_default(&config), 0);
    EXPECT_EQ(config, nullptr); // no file: every name accepted

    root.write(kSchedConfigFile, "imu other 0 - self\n");
    ASSERT_EQ(sched_config_open_default(&config), 0);
    EXPECT_EQ(sched_config_count(config), 1u);
    sched_config_destroy(config);

    std::string env_file = root.path() + "/host.sched";
    write_file(env_file, "a other 0 - self\nb other 0 - self\n");
    setenv(kSchedConfigEnv, env_file.c_str(), 1);
    ASSERT_EQ(sched_config_open_default(&config), 0);
    EXPECT_EQ(sched_config_count(config), 2u);
    sched_config_destroy(config);

    log_capture cap;
    write_file(env_file, "a fifo 0 - self\n");
    EXPECT_EQ(sched_config_open_default(&config), -EINVAL);
    EXPECT_EQ(config, nullptr);
    unsetenv(kSchedConfigEnv);
}

} // namespace
