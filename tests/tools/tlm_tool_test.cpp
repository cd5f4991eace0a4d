// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/shm_telemetry.h"
#include "platform/telemetry_test_util.h"
#include "platform/time_helpers.h"
#include "tool_test_util.h"

namespace {

const std::string kTool = ORLUNE_TLM_TOOL " ";

struct sample_record {
    float rate[3];
    int32_t status;
    char label[8];
    double height;
};

const tlm_field_desc kFields[] = {
    {offsetof(sample_record, rate), "rate", TLM_TYPE_FLOAT, 0, 4, 3, {}},
    {offsetof(sample_record, status), "status", TLM_TYPE_INT32, 0, 4, 1, {}},
    {offsetof(sample_record, label), "label", TLM_TYPE_CHAR, 0, 1, 8, {}},
    {offsetof(sample_record, height), "height", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
};
const tlm_struct_desc kDesc{0, 4, kFields};

class published {
public:
    explicit published(const char *section)
    {
        p_ = producer_create(section, 50, 10000);
        EXPECT_EQ(producer_register_struct(p_, &rec_, "est", &kDesc), 0);
        EXPECT_EQ(producer_complete(p_), 0);
    }
    ~published() { producer_destroy(p_); }
    void put(int i)
    {
        rec_.rate[0] = float(i);
        rec_.rate[1] = 0.5f;
        rec_.rate[2] = -2.0f;
        rec_.status = i * 10;
        snprintf(rec_.label, sizeof rec_.label, "s%d", i % 1000);
        rec_.height = 1.25;
        timespec now{};
        monotonic_now(&now);
        producer_put_sample(p_, &now);
    }

private:
    sample_record rec_{};
    shm_producer *p_;
};

TEST(TlmTool, ShowPrintsTheLatestSampleFieldByField)
{
    tlm_root root;
    published pub("vcam_test");
    run_result empty = run(kTool + "show vcam_test");
    EXPECT_EQ(empty.status, 0);
    EXPECT_NE(empty.output.find("no sample written yet"), std::string::npos) << empty.output;

    pub.put(1);
    pub.put(2);
    run_result r = run(kTool + "show vcam_test");
    ASSERT_EQ(r.status, 0) << r.output;
    const std::vector<std::string> out = lines(r.output);
    ASSERT_EQ(out.size(), 6u) << r.output;
    EXPECT_EQ(out[0], "section vcam_test: 4 fields, 32-byte samples, ring of 50, period 10000 us, producer pid " +
                          std::to_string(getpid()));
    EXPECT_EQ(out[1].rfind("sample 1 at ", 0), 0u) << out[1];
    EXPECT_EQ(std::vector(out.begin() + 2, out.end()),
              (std::vector<std::string>{"  est.rate = [2, 0.5, -2]", "  est.status = 20", "  est.label = \"s2\"",
                                        "  est.height = 1.25"}));
}

TEST(TlmTool, ListShowsEverySectionWithItsFigures)
{
    tlm_root root;
    published a("alpha");
    published b("beta");
    for (int i = 0; i < 5; i++)
        a.put(i);
    write_file(root.file("broken"), "not a section");
    published c("gamma"); // a file that anyone could have rewritten is refused, with the reason
    ASSERT_EQ(chmod(root.file("gamma").c_str(), 0666), 0);
    run_result r = run(kTool + "list");
    ASSERT_EQ(r.status, 0) << r.output;
    const std::vector<std::string> out = lines(r.output);
    ASSERT_EQ(out.size(), 5u) << r.output;
    EXPECT_EQ(out[0].rfind("SECTION", 0), 0u);
    std::istringstream alpha(out[1]);
    std::string name, size, period, written, rate, age;
    alpha >> name >> size >> period >> written >> rate >> age;
    EXPECT_EQ(name + " " + size + " " + period + " " + written, "alpha 32 10000 5") << out[1];
    EXPECT_NE(rate, "-");
    EXPECT_EQ(age.back(), 's');
    EXPECT_EQ(out[2].rfind("beta", 0), 0u);
    EXPECT_NE(out[2].find(" 0 "), std::string::npos) << out[2];
    EXPECT_EQ(out[3], "broken                           invalid section file (Bad message)");
    const std::string refusal = "refused: " + root.file("gamma") + " is writable by others (mode 0666)";
    EXPECT_EQ(out[4], "gamma                            " + refusal);
    r = run(kTool + "show gamma");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.output, "orlune-tlm: section \"gamma\" " + refusal + "\n");
}

TEST(TlmTool, FollowWritesALinePerNewSampleAsCsv)
{
    tlm_root root;
    published pub("follow_me");
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 1; !done; i++) {
            pub.put(i);
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    run_result r = run(kTool + "follow follow_me --csv --count 3");
    done = true;
    writer.join();
    ASSERT_EQ(r.status, 0) << r.output;
    const std::vector<std::string> out = lines(r.output);
    ASSERT_EQ(out.size(), 4u) << r.output;
    EXPECT_EQ(out[0], "time,est.rate[0],est.rate[1],est.rate[2],est.status,est.label,est.height");
    int first = -1;
    for (int k = 1; k <= 3; k++) {
        const std::vector<std::string> cells = split(out[size_t(k)]);
        ASSERT_EQ(cells.size(), 7u) << out[size_t(k)];
        int i = std::stoi(cells[1]);
        if (first < 0)
            first = i;
        EXPECT_EQ(i, first + k - 1); // consecutive samples, none skipped
        EXPECT_EQ(cells[4], std::to_string(i * 10));
        EXPECT_EQ(cells[5], "\"s" + std::to_string(i) + "\"");
    }
}

TEST(TlmTool, FollowGoesOnWithARestartedProducer)
{
    tlm_root root;
    std::atomic<bool> restart{false};
    std::atomic<bool> done{false};
    std::thread writer([&] {
        auto pub = std::make_unique<published>("restart_me");
        for (int i = 1; !done; i++) {
            if (restart.exchange(false)) {
                pub.reset();
                pub = std::make_unique<published>("restart_me");
                i = 1000;
            }
            pub->put(i);
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    std::string cmd = std::string(ORLUNE_TLM_TOOL) + " follow restart_me --count 30 2>&1";
    FILE *f = popen(cmd.c_str(), "r");
    ASSERT_NE(f, nullptr);
    std::vector<std::string> lines;
    char buf[1024];
    while (fgets(buf, sizeof buf, f)) {
        lines.emplace_back(buf);
        if (lines.size() == 1)
            restart = true; // the first sample is out: restart the producer
    }
    int status = pclose(f);
    done = true;
    writer.join();
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ASSERT_EQ(lines.size(), 31u); // 30 samples and the note
    const size_t note = size_t(std::find(lines.begin(), lines.end(), "orlune-tlm: section \"restart_me\" restarted\n") -
                               lines.begin());
    // After the note, the new producer's samples from its first one.
    ASSERT_LT(note + 1, lines.size());
    EXPECT_NE(lines[note + 1].find(" est.status=10000 "), std::string::npos) << lines[note + 1];
}

TEST(TlmTool, ASectionThatDoesNotExistIsSaidSo)
{
    tlm_root root;
    for (const char *cmd : {"show", "follow"}) {
        run_result r = run(kTool + cmd + " nosuch");
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.output, "orlune-tlm: no section \"nosuch\" in " + root.dir() + "\n");
    }
    EXPECT_EQ(run(kTool + "bogus").status, 2);
}

} // namespace
