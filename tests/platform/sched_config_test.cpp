// SPDX-License-Identifier: Apache-2.0
#include "platform/sched_config.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/failpoint.h"
#include "platform/intruder.h"
#include "platform/trust.h"
#include "support/test_env.h"

namespace {

// A thread of this process that names itself and spins until destroyed;
// made once its name shows.
class named_thread {
public:
    explicit named_thread(const char *name)
        : thread_([this, name] {
              pthread_setname_np(pthread_self(), name);
              tid_ = pid_t(syscall(SYS_gettid));
              while (!stop_)
                  std::this_thread::yield();
          })
    {
        while (tid_ == 0)
            std::this_thread::yield();
    }
    ~named_thread()
    {
        stop_ = true;
        thread_.join();
    }
    pid_t tid() const { return tid_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<pid_t> tid_{0};
    std::thread thread_;
};

// "policy/cpus" of a thread; kTuned is what the "worker" entries below make.
std::string sched_of(pid_t tid)
{
    cpu_set_t set;
    if (sched_getaffinity(tid, sizeof set, &set) != 0)
        return "gone";
    std::string cpus;
    for (int c = 0; c < CPU_SETSIZE; c++)
        if (CPU_ISSET(c, &set))
            cpus += (cpus.empty() ? "" : ",") + std::to_string(c);
    return std::to_string(sched_getscheduler(tid)) + "/" + cpus;
}
const std::string kTuned = std::to_string(SCHED_IDLE) + "/0";

sched_config *table(std::initializer_list<const char *> lines)
{
    sched_config *config = sched_config_new();
    for (const char *line : lines) {
        sched_entry e{};
        EXPECT_EQ(sched_config_parse_line(line, &e), 0) << line;
        EXPECT_EQ(sched_config_add(config, e), 0) << line;
    }
    return config;
}

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
    sched_config *config = table(
        {"calling batch 0 0 self", "worker idle 0 0 orlune-w*", "nobody other 0 - no-such-thread-*"});
    ASSERT_NE(config, nullptr);

    std::thread caller([&] {
        EXPECT_EQ(sched_config_apply(config, "calling"), 0);
        EXPECT_EQ(sched_of(0), std::to_string(SCHED_BATCH) + "/0");
    });
    caller.join();

    // Threads of the matched name keep starting and ending beside the stable
    // one: one that ends between the scan and the change is gone, not an error.
    named_thread worker("orlune-worker");
    std::atomic<bool> stop{false};
    std::atomic<int> batches{0};
    std::vector<std::thread> churners;
    for (int i = 0; i < 2; i++)
        churners.emplace_back([&stop, &batches] {
            while (!stop) {
                std::thread batch[6];
                for (std::thread &t : batch)
                    t = std::thread([] { pthread_setname_np(pthread_self(), "orlune-wshort"); });
                for (std::thread &t : batch)
                    t.join();
                batches++;
            }
        });
    while (batches < 2)
        std::this_thread::yield();
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(sched_config_apply(config, "worker"), 0) << "apply " << i;
    stop = true;
    for (std::thread &t : churners)
        t.join();
    EXPECT_EQ(sched_of(worker.tid()), kTuned);

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

TEST(SchedConfig, GlobsLeaveOtherUsersThreadsAlone)
{
    SKIP_UNLESS_ROOT();
    test_root root;
    root.properties("");
    // Thread names are global: these carry the test's pid.
    const std::string prefix = "sc" + std::to_string(getpid());
    const std::string own_name = prefix + "-host", other_name = prefix + "-other";
    sched_config *config = table({("worker idle 0 0 " + prefix + "-*").c_str(),
                                  ("strangers idle 0 0 " + prefix + "-o*").c_str()});
    ASSERT_NE(config, nullptr);
    named_thread own(own_name.c_str());

    // Processes of another user whose threads are named like the glob. Each
    // makes itself not dumpable, so that its /proc/<pid> shows as root's.
    std::vector<std::unique_ptr<child_process>> strangers;
    std::vector<pid_t> tids;
    auto start = [&](int threads, auto make) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        strangers.push_back(make([report, threads, &other_name](const child_process::link &link) {
            prctl(PR_SET_DUMPABLE, 0);
            prctl(PR_SET_NAME, other_name.c_str());
            for (int i = 1; i < threads; i++)
                std::thread(pause).detach(); // named as the thread that made it
            pid_t pid = getpid();
            (void)!write(report[1], &pid, sizeof pid);
            link.wait();
            return 0;
        }));
        close(report[1]);
        pid_t pid = 0;
        ASSERT_EQ(read(report[0], &pid, sizeof pid), ssize_t(sizeof pid)) << "the other user's process failed";
        close(report[0]);
        for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
            tids.push_back(pid_t(std::stoi(task.path().filename().string())));
    };
    auto as = [](uid_t real, uid_t effective) {
        return [real, effective](const std::function<int(const child_process::link &)> &body) {
            return std::make_unique<child_process>([=](const child_process::link &link) {
                return setresuid(real, effective, 0) == 0 ? body(link) : 90;
            });
        };
    };
    uid_t other = unused_uid();
    ASSERT_NO_FATAL_FAILURE(start(2, [](const auto &body) { return intruder(body); }));
    ASSERT_NO_FATAL_FAILURE(start(1, as(other, 0))); // a set-user-id root program the other user runs
    ASSERT_NO_FATAL_FAILURE(start(1, as(0, other))); // root acting as the other user
    ASSERT_EQ(tids.size(), 4u);
    std::vector<std::string> before, refusals;
    for (pid_t tid : tids) {
        before.push_back(sched_of(tid));
        refusals.push_back("worker: thread " + std::to_string(tid) + " (" + other_name + ") runs as uid " +
                           std::to_string(other) + ", not a trusted user: left alone");
    }
    ASSERT_NE(before[0], kTuned);

    log_capture cap;
    EXPECT_EQ(sched_config_apply(config, "worker"), 0);
    EXPECT_EQ(sched_of(own.tid()), kTuned);
    for (size_t i = 0; i < tids.size(); i++)
        EXPECT_EQ(sched_of(tids[i]), before[i]) << "thread " << tids[i];
    std::vector<std::string> logged = cap.texts("sched_config");
    ASSERT_EQ(logged.size(), 4u); // three named, the rest counted
    for (size_t i = 0; i < 3; i++)
        EXPECT_NE(std::find(refusals.begin(), refusals.end(), logged[i]), refusals.end()) << logged[i];
    EXPECT_EQ(logged[3], "worker: and 1 more thread of untrusted users: left alone");
    // Only the other user's threads match: none that may be tuned did.
    EXPECT_EQ(sched_config_apply(config, "strangers"), -ESRCH);

    // Listed as trusted, the same user's threads are tuned from the next apply on.
    root.properties(std::string(kTrustedUidsProperty) + "=" + std::to_string(other) + "\n");
    cap.take();
    EXPECT_EQ(sched_config_apply(config, "strangers"), 0);
    for (pid_t tid : tids)
        EXPECT_EQ(sched_of(tid), kTuned) << "thread " << tid;
    EXPECT_EQ(cap.texts("sched_config"), std::vector<std::string>{});
    sched_config_destroy(config);
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
