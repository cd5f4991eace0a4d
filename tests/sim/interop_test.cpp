// SPDX-License-Identifier: Apache-2.0
// orlune-sim as a process, read by Debian's own libiio tools.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_env.h"

extern char **environ;

namespace {

// A child process with its stdout on a pipe.
class child {
public:
    explicit child(const std::vector<std::string> &argv)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        std::vector<char *> args;
        for (const std::string &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        out_ = fds[0];
    }
    ~child()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0)
            close(out_);
    }
    bool started() const { return pid_ > 0; }

    // Everything up to end of file, or what came before the deadline.
    std::string read_all(std::chrono::milliseconds limit, size_t stop_after_newlines = 0)
    {
        std::string text;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        size_t lines = 0;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{out_, POLLIN, 0};
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1)
                return text;
            char buf[4096];
            const ssize_t n = read(out_, buf, sizeof buf);
            if (n <= 0)
                return text;
            text.append(buf, static_cast<size_t>(n));
            lines += static_cast<size_t>(std::count(buf, buf + n, '\n'));
            if (stop_after_newlines && lines >= stop_after_newlines)
                return text;
        }
    }

    // Exit status after sig (0 to just wait), or -1 when it does not end in time.
    int finish(int sig, std::chrono::milliseconds limit)
    {
        if (sig)
            kill(pid_, sig);
        const auto deadline = std::chrono::steady_clock::now() + limit;
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline)
                return -1;
            usleep(5000);
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

class Interop : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim_.started());
        const std::string first = sim_.read_all(std::chrono::seconds(5), 2);
        const std::string prefix = "IIOD_REMOTE=";
        ASSERT_EQ(first.rfind(prefix, 0), 0u) << first;
        uri_ = first.substr(prefix.size(), first.find('\n') - prefix.size());
        ASSERT_EQ(uri_.rfind("ip:127.0.0.1:", 0), 0u) << uri_;
        setenv("IIOD_REMOTE", uri_.c_str(), 1);
    }

    // First: the simulator inherits the test's private root and socket
    // names, so that its GPS and ultrasound sockets meet no other test's.
    test_root root_;
    child sim_{{ORLUNE_SIM_BIN}};
    std::string uri_;
};

TEST_F(Interop, IioInfoListsTheDevicesWithTheirAttributes)
{
    child info({"/usr/bin/iio_info"});
    const std::string out = info.read_all(std::chrono::seconds(10));
    EXPECT_EQ(info.finish(0, std::chrono::seconds(5)), 0) << out;
    for (const char *expected : {"IIO context created with network backend.",
                                 "IIO context has 8 devices:",
                                 "iio:device0: orlune-imu (buffer capable)",
                                 "accel_x:  (input, index: 0, format: le:S16/16>>0)",
                                 "timestamp:  (input, index: 7, format: le:S64/64>>0)",
                                 "attr  1: scale value: 0.002394202",
                                 "attr  2: mount_matrix value: 0, 1, 0; 1, 0, 0; 0, 0, -1",
                                 "attr  0: sampling_frequency value: 1000",
                                 "trigger0: orlune-imu-trig",
                                 "attr  0: rate_divider value: 5",
                                 "iio:device1: orlune-lps22hb (buffer capable)",
                                 "pressure0:  (input, index: 0, format: le:u24/32>>0)",
                                 "attr  1: scale value: 0.0000244140625",
                                 "iio:device2: orlune-magneto (buffer capable)",
                                 "attr  2: mount_matrix value: -1, 0, 0; 0, 1, 0; 0, 0, -1",
                                 "trigger2: orlune-magneto-trig"})
        EXPECT_NE(out.find(expected), std::string::npos) << expected;
    // A board's libiio takes a channel's id from its sysfs file names, up to
    // the first '_' after "in_" unless a modifier follows: an id of another
    // shape cannot be served by a kernel driver.
    const std::regex channel_line(R"(^\s+(\S+):\s+\((input|output)[,)])");
    const std::regex kernel_id("[a-z]+[0-9]*(_(x|y|z))?");
    size_t channels = 0;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (!std::regex_search(line, m, channel_line))
            continue;
        channels++;
        EXPECT_TRUE(std::regex_match(m[1].str(), kernel_id)) << line;
    }
    EXPECT_GT(channels, 30u);
    EXPECT_EQ(sim_.finish(SIGTERM, std::chrono::seconds(5)), 0) << "orlune-sim stops cleanly";
}

TEST_F(Interop, IioReaddevStreamsImuScansThatFollowTheScenario)
{
    constexpr size_t kScans = 200;
    child readdev({"/usr/bin/iio_readdev", "-u", uri_, "-t", "orlune-imu-trig", "-b", "5", "-s",
                   std::to_string(kScans), "orlune-imu"});
    const std::string data = readdev.read_all(std::chrono::seconds(10));
    EXPECT_EQ(readdev.finish(0, std::chrono::seconds(5)), 0);
    ASSERT_EQ(data.size(), kScans * 24);
    // Hovering level, IMU mounted z down: the sensor's z axis reads +1 g,
    // 9.80665 / 0.002394202 = 4096 counts; the gyro reads nothing.
    double z = 0;
    int64_t previous = 0;
    for (size_t i = 0; i < kScans; i++) {
        int16_t v[7];
        int64_t stamp;
        std::memcpy(v, data.data() + i * 24, sizeof v);
        std::memcpy(&stamp, data.data() + i * 24 + 16, sizeof stamp);
        EXPECT_LT(std::abs(v[0]), 12);
        EXPECT_LT(std::abs(v[3]), 12);
        z += v[2];
        // One scan a millisecond; a reader that fell behind a full kernel
        // buffer would see a gap of whole periods.
        if (i) {
            EXPECT_GT(stamp, previous) << "scan " << i;
            EXPECT_EQ((stamp - previous) % 1000000, 0) << "scan " << i;
        }
        previous = stamp;
    }
    EXPECT_NEAR(z / kScans, 4096.0, 1.0);
    EXPECT_EQ(sim_.finish(SIGINT, std::chrono::seconds(5)), 0);
}

} // namespace
