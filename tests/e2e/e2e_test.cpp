// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle, the sensor host and the plug-in as separate processes,
// as a user runs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sensors/data.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>

#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "support/transport.h"
#include "flight.h"

using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace {

// The default flight hovers level and still for its first five seconds: the
// gyro reads zero and the accelerometer the reaction to gravity, up the
// vehicle's z axis pointing down. Tolerances cover the simulated noise
// (2 counts, about 0.002 rad/s and 0.01 m/s^2 a sample, averaged over 500
// samples) and the calibration round trip; the example calibration's biases
// (up to 0.005 rad/s and 0.06 m/s^2) are well outside them.
constexpr double kGravity = 9.80665;
constexpr double kGyroTolerance = 0.001;  // rad/s, mean over the samples read
constexpr double kAccelTolerance = 0.01; // m/s^2, mean over the samples read

class EndToEnd : public flight {
protected:
    std::unique_ptr<process> host(const std::string &config, const std::vector<std::string> &options)
    {
        env_["LIBVIGIL_CFG_PATH"] = config;
        return flight::host(options);
    }
};

TEST_F(EndToEnd, ImuSectionReceivesEachBatchWithTheTruth)
{
    // The example field and factory calibration: the simulated sensors drift
    // as the files say, and the plug-in must take the drift out again.
    for (const char *dir : {"data", "factory"})
        std::filesystem::copy(example("calibration/") + dir, root_.path() + "/" + dir,
                              std::filesystem::copy_options::recursive);
    start_sim();
    auto h = host(example("config/minimal.cfg"), {"--duration", "3"});

    tlm_section_view view{};
    wait_for("sensors_imu", 150, &view, *h);
    uint64_t last = tlm_view_written(&view) - 1;
    timespec previous{};
    double gyro[3] = {}, accel[3] = {};
    const double n = 101 * 5;
    for (uint64_t i = last - 100; i <= last; i++) {
        sensors_imu_data s{};
        timespec stamp{};
        ASSERT_EQ(tlm_view_read(&view, i, &s, sizeof s, &stamp), 0) << i;
        ASSERT_EQ(s.nb_samples, 5);
        EXPECT_EQ(timespec_compare(&stamp, &s.timestamps[4]), 0);
        if (i > last - 100) {
            // One sample per batch: 5 scans at 1000 Hz apart. On the genuine
            // kernel under emulation the host can fall behind: a full kernel
            // buffer then refuses whole scans, which leave whole periods out.
            int64_t dt_us = (stamp.tv_sec - previous.tv_sec) * 1000000 + (stamp.tv_nsec - previous.tv_nsec) / 1000;
            const int64_t expected = kernel_transport() ? std::max<int64_t>(5, (dt_us + 500) / 1000) * 1000 : 5000;
            EXPECT_NEAR(dt_us, expected, 500) << "sample " << i;
        }
        previous = stamp;
        for (int k = 0; k < 5; k++)
            for (int a = 0; a < 3; a++) {
                gyro[a] += s.gyro[k][a] / n;
                accel[a] += s.accel[k][a] / n;
            }
    }
    tlm_view_close(&view);
    EXPECT_NEAR(gyro[0], 0, kGyroTolerance);
    EXPECT_NEAR(gyro[1], 0, kGyroTolerance);
    EXPECT_NEAR(gyro[2], 0, kGyroTolerance);
    EXPECT_NEAR(accel[0], 0, kAccelTolerance);
    EXPECT_NEAR(accel[1], 0, kAccelTolerance);
    EXPECT_NEAR(accel[2], -kGravity, kAccelTolerance);

    ASSERT_EQ(h->wait(10s), 0) << h->err();
    std::string summary = h->out();
    EXPECT_THAT(summary, HasSubstr("failed reads     0"));
    // Every sample lost is one that a full kernel buffer dropped or refused
    // because the host fell behind, or that the simulator's feeder fell
    // behind for, and the simulator counted (the kernel may refuse more after
    // the host's last read). This machine's hypervisor holds a CPU for 15 to
    // 45 ms now and then, longer than the IMU's 25 ms buffer: over the
    // network, a plug-in that keeps up loses samples only then, and at most a
    // hundredth of them.
    std::smatch lost;
    ASSERT_TRUE(std::regex_search(summary, lost, std::regex("imu samples +([0-9]+) .*lost ([0-9]+) \\(judged by the timestamps\\)")))
        << summary;
    sim_->signal(SIGTERM);
    ASSERT_EQ(sim_->wait(10s), 0);
    const std::string sim_log = sim_->err();
    // On the kernel the simulator's own server has one reader, the feeder:
    // the scans it dropped for it are the feeder's missing ones, counted once.
    const std::vector<const char *> causes =
        kernel_transport() ? std::vector<const char *>{"refused by a full kernel buffer", "missing before the kernel"}
                           : std::vector<const char *>{"dropped by a full kernel buffer"};
    uint64_t counted = 0;
    for (const char *what : causes) {
        std::smatch m;
        if (std::regex_search(sim_log, m, std::regex(std::string("orlune-imu: ([0-9]+) scans ") + what)))
            counted += std::stoull(m[1]);
    }
    EXPECT_LE(std::stoull(lost[2]), counted) << summary << sim_log;
    if (!kernel_transport()) {
        EXPECT_LE(std::stoull(lost[2]) * 100, std::stoull(lost[1])) << summary << sim_log;
    }
}

TEST_F(EndToEnd, RefillErrorsAndAStalledTriggerAreSurvived)
{
    start_sim(R"(simulator = {
  name = "e2e-faults";
  devices = (
    { kind = "imu"; name = "orlune-imu"; trigger = "orlune-imu-trig";
      sampling-frequency = 1000; rate-divider = 5; noise = 2.0; }
  );
  phases = ( { name = "hover"; duration = 30.0; } );
  faults = (
    { at = 0.5; kind = "refill-error"; device = "orlune-imu"; errno = 5; count = 2; },
    { at = 1.0; kind = "stall"; device = "orlune-imu"; duration = 4.0; }
  );
};
)");
    auto h = host(example("config/minimal.cfg"), {"--duration", "7"});
    ASSERT_EQ(h->wait(20s), 0) << h->err();
    std::string log = host_log();
    EXPECT_THAT(log, HasSubstr("E sensors_orlune: imu wait failed: Input/output error"));
    EXPECT_THAT(log, HasSubstr("E sensors_orlune: imu wait failed: Connection timed out"));
    // Acquisition resumed after the stall: the last second still ran at full rate.
    std::string summary = h->out();
    std::smatch m;
    ASSERT_TRUE(std::regex_search(summary, m, std::regex("imu batches +([0-9]+)"))) << summary;
    EXPECT_GT(std::stoi(m[1]), 200 * 2) << summary;
    EXPECT_TRUE(std::regex_search(summary, std::regex("failed reads +[1-9]"))) << summary;
}

// A server that goes away takes the plug-in's IIO context with it for good;
// the host shuts the plug-in down, probes it again until the server is back,
// and acquires again.
TEST_F(EndToEnd, TheHostStartsThePlugInAgainAfterTheServerRestarts)
{
    start_sim(R"(simulator = {
  name = "e2e-restart";
  devices = (
    { kind = "imu"; name = "orlune-imu"; trigger = "orlune-imu-trig";
      sampling-frequency = 1000; rate-divider = 5; noise = 2.0; }
  );
  phases = ( { name = "hover"; duration = 30.0; } );
  faults = ( { at = 1.0; kind = "disconnect"; duration = 1.5; } );
};
)");
    auto h = host(example("config/minimal.cfg"), {"--duration", "6", "--record", root_.path() + "/rec.csv"});
    ASSERT_EQ(h->wait(20s), 0) << h->err();
    const std::string summary = h->out();
    EXPECT_THAT(summary, HasSubstr("plug-in restarts 1 (the IIO server's connection was lost)"));
    const std::string log = host_log();
    EXPECT_THAT(log, HasSubstr("orlune-host: the IIO server's connection is lost (Broken pipe): restarting the plug-in"));
    EXPECT_THAT(log, HasSubstr("orlune-host: the plug-in acquires again"));
    std::smatch m;
    ASSERT_TRUE(std::regex_search(log, m, std::regex("acquisition started[\\s\\S]*acquisition stopped[\\s\\S]*acquisition started")))
        << log;

    // After the restart the IMU runs at its full rate to the end: the last
    // two seconds of the recording hold a batch every 5 ms.
    const std::string rec = read_file(root_.path() + "/rec.csv");
    std::vector<double> t;
    for (size_t pos = rec.find('\n') + 1; pos < rec.size(); pos = rec.find('\n', pos) + 1)
        t.push_back(std::stod(rec.substr(pos, rec.find(',', pos) - pos)));
    ASSERT_GT(t.size(), 400u);
    const auto last_two = std::count_if(t.begin(), t.end(), [&](double x) { return x > t.back() - 2.0; });
    EXPECT_NEAR(double(last_two), 400.0, 20.0);
}

TEST_F(EndToEnd, ProbeFailuresAreExplained)
{
    start_sim();
    auto h = host(root_.path() + "/missing.cfg", {"--duration", "1"});
    EXPECT_EQ(h->wait(10s), 1);
    EXPECT_THAT(host_log(), HasSubstr("E sensors_orlune: can't get sensors configuration"));
    // The plug-in's own reason reaches the terminal too, before the host's
    // explanation, even though the host stops capturing its stderr at once.
    std::string err = h->err();
    EXPECT_THAT(err, HasSubstr("E sensors_orlune: can't get sensors configuration"));
    EXPECT_LT(err.find("can't get sensors configuration"), err.find("failed: Invalid argument")) << err;

    std::string config = read_file(example("config/minimal.cfg"));
    config = std::regex_replace(config, std::regex("\"orlune-imu\""), "\"missing-imu\"");
    write_file(root_.path() + "/wrong-device.cfg", config);
    h = host(root_.path() + "/wrong-device.cfg", {"--duration", "1"});
    EXPECT_EQ(h->wait(10s), 1);
    EXPECT_THAT(host_log(), HasSubstr("E sensors_orlune: can't init imu"));
    err = h->err();
    EXPECT_THAT(err, HasSubstr("E sensors_orlune: can't init imu"));
    EXPECT_LT(err.find("can't init imu"), err.find("probe of 'sensors_orlune' failed: Input/output error")) << err;

    h = host(example("config/minimal.cfg"), {"--plugin", root_.path() + "/nothing.so"});
    EXPECT_EQ(h->wait(10s), 2);
    EXPECT_THAT(h->err(), HasSubstr("cannot load the plug-in"));
}

} // namespace

namespace {

// Whether this process may give a thread a real-time policy: tried on a
// thread of its own, which then ends. Empty when it may, else the reason.
std::string realtime_refused()
{
    std::string refused;
    std::thread([&] {
        sched_param param{};
        param.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_FIFO, &param) != 0)
            refused = strerror(errno);
    }).join();
    return refused;
}

// Policy and priority of each thread of pid, from its task stat.
std::vector<std::pair<int, int>> thread_policies(pid_t pid)
{
    std::vector<std::pair<int, int>> out;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        const std::string stat = read_file(task.path().string() + "/stat");
        std::istringstream fields(stat.substr(stat.rfind(')') + 2));
        std::vector<std::string> f;
        for (std::string field; fields >> field;)
            f.push_back(field);
        // Fields 40 (rt_priority) and 41 (policy), counted from the state (3).
        if (f.size() > 38)
            out.emplace_back(std::stoi(f[38]), std::stoi(f[37]));
    }
    return out;
}

} // namespace

// A sanitizer's build does not lock its memory: its shadow memory would have
// to be faulted in whole.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr const char *kMemory = "memory not locked (Operation not supported)";
#else
constexpr const char *kMemory = "memory locked";
#endif

// The vehicle's scheduling table makes the acquisition loop a real-time
// thread above everything ordinary and the simulator's threads above it;
// without the privilege the host says so once and flies at ordinary
// priority, the table withheld from the plug-in whose modules would refuse it.
TEST_F(EndToEnd, TheSchedulingTableMakesTheLoopRealTimeOrTheHostSaysWhyNot)
{
    if (kernel_transport())
        GTEST_SKIP() << "the guest's scheduling is not the vehicle's";
    env_["ORLUNE_SCHED_CONFIG"] = example("config/sched.conf");
    const bool two_cpus = sysconf(_SC_NPROCESSORS_ONLN) >= 2;
    start_sim("", {"--realtime", "70", "--cpus", two_cpus ? "1" : "0"});

    // Without the privilege: setpriv takes CAP_SYS_NICE from the host (a
    // process that is not root has none to take).
    env_["LIBVIGIL_CFG_PATH"] = example("config/minimal.cfg");
    std::vector<std::string> argv = {ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--log",
                                     path("host.log"), "--duration", "1.5"};
    if (geteuid() == 0)
        argv.insert(argv.begin(), {"/usr/bin/setpriv", "--bounding-set=-sys_nice", "--inh-caps=-sys_nice"});
    auto h = run(argv, "host");
    ASSERT_EQ(h->wait(20s), 0) << h->err();
    const std::string said = "orlune-host: running without real-time priorities: the scheduling table's \"host\" "
                             "entry was refused (Operation not permitted), so the table is not applied";
    const std::string log = host_log();
    EXPECT_THAT(log, HasSubstr(said));
    EXPECT_EQ(log.find(said), log.rfind(said)) << log;
    EXPECT_THAT(h->out(), HasSubstr("scheduling       other (without real-time priorities: Operation not permitted)"));
    EXPECT_THAT(h->out(), HasSubstr("failed reads     0"));
    EXPECT_THAT(h->out(), ::testing::Not(HasSubstr("imu batches      0 ")));

    const std::string refused = realtime_refused();
    if (!refused.empty())
        GTEST_SKIP() << "real-time priorities refused here (" << refused << "): only the unprivileged flight ran";
    if (!two_cpus)
        GTEST_SKIP() << "one CPU: the vehicle's table keeps the loop on CPU 1";
    EXPECT_THAT(sim_->err(), HasSubstr(std::string("orlune-sim: every thread at fifo 70 on CPUs 1, ") + kMemory));
    for (const auto &[policy, priority] : thread_policies(sim_->pid()))
        EXPECT_EQ(std::make_pair(policy, priority), std::make_pair(int(SCHED_FIFO), 70));
    h = EndToEnd::host(example("config/minimal.cfg"), {"--duration", "2"});
    std::this_thread::sleep_for(1s);
    const auto host_threads = thread_policies(h->pid());
    ASSERT_EQ(h->wait(20s), 0) << h->err();
    // The loop and the reader of the plug-in's log.
    ASSERT_GE(host_threads.size(), 2u);
    for (const auto &[policy, priority] : host_threads)
        EXPECT_EQ(std::make_pair(policy, priority), std::make_pair(int(SCHED_FIFO), 50));
    const std::string in_force = std::string("fifo 50 on CPUs 1, ") + kMemory;
    EXPECT_THAT(host_log(), HasSubstr("orlune-host: acquisition loop at " + in_force));
    EXPECT_THAT(h->out(), HasSubstr("scheduling       " + in_force));
    EXPECT_THAT(h->out(), HasSubstr("failed reads     0"));
}
