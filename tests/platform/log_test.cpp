// SPDX-License-Identifier: Apache-2.0
#include "platform/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <regex>
#include <string>
#include <tuple>

#include "support/test_env.h"

namespace {

constexpr log_tag kImu{"imu"};
constexpr log_tag kBaro{"baro"};

class LogTest : public ::testing::Test {
protected:
    void TearDown() override { log_set_levels("info"); }

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

// A flood of one line (a vision outage logs two lines a cycle) reaches syslog
// as the line and a count, once a second at most; the other outputs keep
// every line.
TEST_F(LogTest, SyslogCollapsesIdenticalConsecutiveLines)
{
    const std::string out = stderr_of([] {
        openlog("t", LOG_PERROR, LOG_USER); // glibc copies every syslog record to stderr
        ASSERT_EQ(log_set_output("syslog"), 0);
        for (int i = 0; i < 3; i++)
            log_str(kImu, LOG_ERR, "no sample\n");
        log_str(kImu, LOG_ERR, "other");
        log_str(kBaro, LOG_ERR, "other");
        log_str(kBaro, LOG_ERR, "other");
        usleep(1050000);
        log_str(kBaro, LOG_ERR, "other"); // a second since the count began
        log_str(kBaro, LOG_ERR, "other");
        EXPECT_EQ(log_set_output("stderr"), 0); // reports what is pending
        EXPECT_EQ(log_set_output("file"), -EINVAL);
        closelog();
    });
    EXPECT_EQ(out, "t: imu: no sample\n"
                   "t: imu: last message repeated 2 times\n"
                   "t: imu: other\n"
                   "t: baro: other\n"
                   "t: baro: last message repeated 2 times\n"
                   "t: baro: last message repeated 1 times\n");
}

} // namespace
