// SPDX-License-Identifier: Apache-2.0
#include "platform/log.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <regex>
#include <string>
#include <thread>
#include <tuple>

#include "support/test_env.h"

namespace {

constexpr log_tag kImu{"imu"};
constexpr log_tag kBaro{"baro"};
constexpr log_tag kBldc{"bldc"};

// What the system logger receives: the priority field (user facility) and the
// "tag: text" after the header.
using datagram = std::pair<int, std::string>;
constexpr int kErr = LOG_USER | LOG_ERR;
constexpr int kWarning = LOG_USER | LOG_WARNING;
constexpr int kNotice = LOG_USER | LOG_NOTICE;
constexpr int kInfo = LOG_USER | LOG_INFO;

class LogTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        log_set_levels("info");
        log_set_output("stderr");
    }

    // What body writes to stderr.
    static std::string stderr_of(const std::function<void()> &body)
    {
        int pipefd[2];
        if (pipe(pipefd) != 0)
            return "(no pipe)";
        const int saved = dup(STDERR_FILENO);
        dup2(pipefd[1], STDERR_FILENO);
        body();
        dup2(saved, STDERR_FILENO);
        close(saved);
        close(pipefd[1]);
        char buf[1024] = {};
        const ssize_t n = read(pipefd[0], buf, sizeof buf - 1);
        close(pipefd[0]);
        return n > 0 ? std::string(buf, size_t(n)) : std::string();
    }

    // Runs body on another thread. A log call that blocks fails the run
    // instead of hanging it (the blocked call holds the log's lock, so no
    // later test could run either).
    static void returns_in_time(const std::function<void()> &body)
    {
        std::packaged_task<void()> task(body);
        std::future<void> done = task.get_future();
        std::thread thread(std::move(task));
        if (done.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            fprintf(stderr, "a log call has not returned after 10 s\n");
            std::abort();
        }
        thread.join();
    }

    // A system logger's socket at path that nobody reads until drain.
    static int bind_logger(const std::string &path)
    {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (fd < 0 || path.size() >= sizeof addr.sun_path)
            return -1;
        memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        if (bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    // Every datagram waiting at the logger, its header checked.
    static std::vector<datagram> drain(int logger)
    {
        static const std::regex header(R"(<(\d+)>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3]\d )"
                                       R"([0-2]\d:[0-5]\d:[0-6]\d ([^ \[]+)\[(\d+)\]: )");
        std::vector<datagram> out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(logger, buf, sizeof buf, MSG_DONTWAIT)) >= 0) {
            const std::string raw(buf, size_t(n));
            std::smatch m;
            if (!std::regex_search(raw, m, header, std::regex_constants::match_continuous) ||
                m[3] != program_invocation_short_name || m[4] != std::to_string(getpid())) {
                ADD_FAILURE() << "not a system log datagram: " << raw;
                out.emplace_back(-1, raw);
                continue;
            }
            out.emplace_back(std::stoi(m[1]), m.suffix().str());
        }
        return out;
    }

    // Logs "probe N" every 20 ms until the logger takes one; returns what it
    // took and N.
    static std::pair<std::vector<datagram>, int> probe_until_taken(int logger)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (int probe = 1; std::chrono::steady_clock::now() < deadline; probe++) {
            returns_in_time([probe] { log_msg(kImu, LOG_ERR, "probe %d", probe); });
            std::vector<datagram> got = drain(logger);
            if (!got.empty())
                return {got, probe};
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ADD_FAILURE() << "the logger took no line in 10 s";
        return {};
    }
};

TEST_F(LogTest, PerTagLevelsDecideWhatIsFormattedAndEmitted)
{
    ASSERT_EQ(log_set_levels("warning,imu=debug"), 0);
    log_capture cap;
    const uint64_t formatted = log_formatted_count();
    for (int i = 0; i < 100; i++)
        log_msg(kBaro, LOG_INFO, "Pressure\t%+f", 0.1 * i);
    log_str(kBaro, LOG_NOTICE, "preformatted, below the level");
    EXPECT_EQ(log_formatted_count(), formatted) << "a message below the level is never formatted";
    EXPECT_TRUE(cap.take().empty());

    log_msg(kBaro, LOG_ERR, "kept %d", 2);
    log_msg(kImu, LOG_DEBUG, "Accel\t%+f", 1.5);
    log_str(kBaro, LOG_WARNING, "[3] 100% done %s %d");
    EXPECT_EQ(log_formatted_count(), formatted + 2);
    std::vector<std::tuple<std::string, int, std::string>> records;
    for (const log_record &r : cap.take())
        records.emplace_back(r.tag, r.priority, r.text);
    EXPECT_EQ(records, (decltype(records){{"baro", LOG_ERR, "kept 2"},
                                          {"imu", LOG_DEBUG, "Accel\t+1.500000"},
                                          {"baro", LOG_WARNING, "[3] 100% done %s %d"}})); // verbatim
}

TEST_F(LogTest, LevelSpecificationsAcceptNamesAndDigitsAndMalformedOnesChangeNothing)
{
    struct row {
        const char *spec;
        int baro_level;
        int imu_level;
        int result = 0;
    };
    const row rows[] = {
        {"debug", LOG_DEBUG, LOG_DEBUG},   {"err,imu=7", LOG_ERR, LOG_DEBUG},   {"3", LOG_ERR, LOG_ERR},
        {"verbose", LOG_ERR, LOG_ERR, -EINVAL},       {"imu=", LOG_ERR, LOG_ERR, -EINVAL},
        {"=debug", LOG_ERR, LOG_ERR, -EINVAL},        {"imu=loud,info", LOG_ERR, LOG_ERR, -EINVAL},
        {"8", LOG_ERR, LOG_ERR, -EINVAL},
        {"notice,,imu=crit", LOG_NOTICE, LOG_CRIT}, {"off,imu=info", 0, LOG_INFO},
        {"imu=warn", kLogDefaultLevel, LOG_WARNING},
    };
    for (const row &r : rows) {
        ASSERT_EQ(log_set_levels(r.spec), r.result) << r.spec;
        for (int p = LOG_CRIT; p <= LOG_DEBUG; p++) {
            EXPECT_EQ(log_admits(kBaro, p), p <= r.baro_level) << r.spec << " baro " << p;
            EXPECT_EQ(log_admits(kImu, p), p <= r.imu_level) << r.spec << " imu " << p;
        }
    }
    EXPECT_EQ(log_set_levels(nullptr), -EINVAL);
}

TEST_F(LogTest, FailedCallHelperCarriesThePositiveErrnoAndItsText)
{
    log_capture cap;
    log_call_failed(kImu, LOG_ERR, "imu_new", 42, "sensor_tlm_init", -ENOMEM);
    log_call_failed(kImu, LOG_ERR, "check_defects", 7, "elapsed_since", EINVAL);
    auto records = cap.take();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].priority, LOG_ERR);
    EXPECT_EQ(records[0].text, "imu_new:42: sensor_tlm_init err=12(Cannot allocate memory)");
    EXPECT_EQ(records[1].text, "check_defects:7: elapsed_since err=22(Invalid argument)");
}

TEST_F(LogTest, OverlongMessagesAreCutNotOverflowed)
{
    log_capture cap;
    std::string big(5000, 'x');
    log_msg(kImu, LOG_ERR, "%s", big.c_str());
    auto texts = cap.texts("imu");
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0], std::string(1023, 'x'));
}

TEST_F(LogTest, StderrLinesCarryTimePriorityAndTag)
{
    const std::string out = stderr_of([] {
        log_msg(kBaro, LOG_WARNING, "pressure %.1f", 101325.0);
        log_str(kImu, LOG_CRIT, "gone\n"); // one newline ends the line, whatever the text ends with
    });
    std::regex expected(R"(\[ *\d+\.\d{6}\] W baro: pressure 101325\.0\n\[ *\d+\.\d{6}\] C imu: gone\n)");
    EXPECT_TRUE(std::regex_match(out, expected)) << out;
}

// A stalled system logger (its socket bound, never read) must not hold up the
// acquisition cycle: the lines its queue does not take are dropped, and their
// count arrives ahead of the first line it takes afterwards. Identical lines
// are flight events and each one arrives.
TEST_F(LogTest, SyslogNeverWaitsForTheLoggerAndReportsWhatItDropped)
{
    test_root root;
    const int logger = bind_logger(root.at("/dev/log"));
    ASSERT_GE(logger, 0);
    ASSERT_EQ(log_set_output("syslog"), 0);
    constexpr int kFill = 1000; // far beyond the queue of a local datagram socket
    std::vector<datagram> sent{{kNotice, "bldc: EVT:ESC;flight_time=12;device='esc0'"},
                               {kNotice, "bldc: EVT:ESC;flight_time=12;device='esc0'"},
                               {kErr, "imu: accel read failed"},
                               {kErr, "imu: accel read failed"},
                               {kWarning, "baro: " + std::string(1023, 'p')}};
    for (int i = 0; i < kFill; i++)
        sent.push_back({kInfo, "imu: line " + std::to_string(i)});
    returns_in_time([] {
        for (int i = 0; i < 2; i++)
            log_msg(kBldc, LOG_NOTICE, "EVT:ESC;flight_time=%d;device='%s'", 12, "esc0");
        for (int i = 0; i < 2; i++)
            log_str(kImu, LOG_ERR, "accel read failed\n"); // one newline-free datagram each
        log_str(kBaro, LOG_WARNING, std::string(3000, 'p').c_str());
        for (int i = 0; i < kFill; i++)
            log_msg(kImu, LOG_INFO, "line %d", i);
    });
    const std::vector<datagram> got = drain(logger);
    ASSERT_GE(got.size(), 5u) << "the logger's queue took no more than " << got.size() << " lines";
    ASSERT_LT(got.size(), sent.size()) << "the logger's queue never filled";
    EXPECT_EQ(got, std::vector<datagram>(sent.begin(), sent.begin() + long(got.size())));

    const size_t dropped = sent.size() - got.size();
    returns_in_time([] { log_str(kImu, LOG_ERR, "after the stall"); });
    EXPECT_EQ(drain(logger),
              (std::vector<datagram>{
                  {kWarning, "log: " + std::to_string(dropped) + " lines dropped: the system logger did not take them"},
                  {kErr, "imu: after the stall"}}));
    returns_in_time([] { log_str(kImu, LOG_ERR, "once reported"); });
    EXPECT_EQ(drain(logger), (std::vector<datagram>{{kErr, "imu: once reported"}}));

    // Choosing the output again connects afresh at the next line, without
    // the second's wait a lost logger costs.
    close(logger);
    unlink(root.at("/dev/log").c_str());
    const int restarted = bind_logger(root.at("/dev/log"));
    ASSERT_GE(restarted, 0);
    ASSERT_EQ(log_set_output("syslog"), 0);
    EXPECT_EQ(log_set_output("file"), -EINVAL);
    returns_in_time([] { log_str(kImu, LOG_ERR, "after the switch"); });
    EXPECT_EQ(drain(restarted), (std::vector<datagram>{{kErr, "imu: after the switch"}}));
    close(restarted);
}

// An absent logger costs the caller nothing; once its socket appears (and a
// second has passed since the last attempt) lines arrive again, the count of
// those lost first. A logger that restarts is found again the same way.
TEST_F(LogTest, SyslogFindsTheLoggerWhenItAppearsOrRestarts)
{
    test_root root;
    const std::string path = root.at("/dev/log");
    const auto expect_found = [&path](int lost_before) {
        const int logger = bind_logger(path);
        ASSERT_GE(logger, 0);
        const auto [got, probes] = probe_until_taken(logger);
        if (probes == 0) { // the logger took nothing: already reported
            close(logger);
            return;
        }
        const int dropped = lost_before + probes - 1;
        EXPECT_EQ(got, (std::vector<datagram>{
                           {kWarning, "log: " + std::to_string(dropped) + " line" + (dropped == 1 ? "" : "s") +
                                          " dropped: the system logger did not take them"},
                           {kErr, "imu: probe " + std::to_string(probes)}}));
        close(logger); // the logger stops; the next one binds a new socket at the path
        unlink(path.c_str());
    };
    ASSERT_EQ(log_set_output("syslog"), 0);
    const auto first_attempt = std::chrono::steady_clock::now();
    returns_in_time([] {
        for (int i = 0; i < 3; i++)
            log_str(kImu, LOG_ERR, "no logger yet");
    });
    expect_found(3);
    EXPECT_GE(std::chrono::steady_clock::now() - first_attempt, std::chrono::seconds(1))
        << "the logger was looked for again within a second of the failed attempt";
    returns_in_time([] { log_str(kImu, LOG_ERR, "while it restarts"); });
    expect_found(1);
}

} // namespace
