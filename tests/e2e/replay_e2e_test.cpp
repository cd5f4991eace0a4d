// SPDX-License-Identifier: Apache-2.0
// A flight captured beside the host and replayed through the plug-in: as
// fast as it reads (twice) and at the original pace. The fast replays agree
// with each other on every column that follows the recorded timestamps, and
// every replayed IMU batch is the live flight's, bit for bit.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "capture/capture_file.h"
#include "flight.h"

using namespace std::chrono_literals;

namespace {

bool starts_with_any(const std::string &name, std::initializer_list<const char *> prefixes)
{
    for (const char *p : prefixes)
        if (name.rfind(p, 0) == 0)
            return true;
    return false;
}

// The scans of the IMU ("orlune-imu") that a capture counted as lost: its
// reader fell behind.
uint64_t imu_drops(const std::string &path)
{
    capture::reader r;
    EXPECT_EQ(r.open_file(path), 0) << r.message();
    capture::record rec;
    std::string imu;
    uint64_t drops = 0;
    while (r.next(&rec) > 0) {
        std::cmatch m;
        const char *xml = reinterpret_cast<const char *>(rec.payload);
        if (rec.kind == capture::record_kind::context &&
            std::regex_search(xml, xml + rec.size, m, std::regex("<device id=\"([^\"]+)\" name=\"orlune-imu\"")))
            imu = m[1];
        if (uint64_t lost; capture::parse_drop(rec, &lost) && r.streams()[rec.stream].name == imu)
            drops += lost;
    }
    return drops;
}

class ReplayEndToEnd : public flight {
protected:
    void SetUp() override
    {
        env_["LIBVIGIL_CFG_PATH"] = example("config/orlune_sim.cfg");
        for (const char *dir : {"data", "factory"})
            std::filesystem::copy(example("calibration/") + dir, path(dir), std::filesystem::copy_options::recursive);
    }

    std::unique_ptr<process> run(const std::vector<std::string> &argv, const std::string &name,
                                 const std::map<std::string, std::string> &env)
    {
        return std::make_unique<process>(argv, env, path(name + ".out"), path(name + ".err"));
    }

    // Replays the capture under a host until the capture has no more scans;
    // the host's recording.
    csv replay(const std::string &capture, const std::vector<std::string> &options, const std::string &name)
    {
        std::filesystem::create_directory(root_.path() + "/" + name);
        std::vector<std::string> argv = {ORLUNE_SIM_BIN, "--replay", capture};
        argv.insert(argv.end(), options.begin(), options.end());
        std::string error;
        std::map<std::string, std::string> env = env_;
        auto sim = ::start_sim(argv, root_.path() + "/" + name, &env, &error);
        EXPECT_TRUE(sim) << error;
        if (!sim)
            return csv("");
        const std::string file = root_.path() + "/" + name + ".csv";
        auto host = run({ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--record", file}, name, env);
        EXPECT_TRUE(sim->wait_for_output("# replay over", 60s)) << name << ": " << sim->err();
        host->signal(SIGINT);
        EXPECT_EQ(host->wait(15s), 0) << name << ": " << host->err();
        sim->signal(SIGTERM);
        EXPECT_EQ(sim->wait(10s), 0) << name << ": " << sim->err();
        return csv(read_file(file));
    }

};

TEST_F(ReplayEndToEnd, ReplaysMatchEachOtherAndTheLiveFlight)
{
    // The live flight, with a capture from its second second to its sixth.
    const std::string capture = root_.path() + "/flight.cap";
    {
        std::string error;
        std::map<std::string, std::string> env = env_;
        std::filesystem::create_directory(root_.path() + "/live");
        auto sim = ::start_sim({ORLUNE_SIM_BIN}, root_.path() + "/live", &env, &error);
        ASSERT_TRUE(sim) << error;
        auto host = run({ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--duration", "7", "--record",
                         root_.path() + "/live.csv"},
                        "live", env);
        std::this_thread::sleep_for(1500ms);
        auto cap = run({ORLUNE_CAPTURE_BIN, "--quiet", "--duration", "4", "-o", capture}, "capture", env);
        ASSERT_EQ(cap->wait(20s), 0) << cap->err();
        ASSERT_EQ(host->wait(20s), 0) << host->err();
        sim->signal(SIGTERM);
        ASSERT_EQ(sim->wait(10s), 0) << sim->err();
    }
    const csv live(read_file(root_.path() + "/live.csv"));
    const csv fast1 = replay(capture, {"--fast"}, "fast1");
    const csv fast2 = replay(capture, {"--fast"}, "fast2");
    const csv paced = replay(capture, {}, "paced");
    ASSERT_GT(fast1.rows.size(), 700u) << "about 200 reads a second for 4 s";
    ASSERT_EQ(fast1.rows.size(), fast2.rows.size());
    ASSERT_EQ(fast1.names, live.names);

    // As fast as the host reads, the replay waits for it: whatever the
    // machine's load, every column is the same but those that follow the
    // host's own clock (the socket clients' connections, the battery's rate).
    const std::vector<std::string> &names = fast1.names;
    for (size_t r = 0; r < fast1.rows.size(); r++)
        for (size_t c = 1; c < names.size(); c++) {
            const std::string &n = names[c];
            if (!starts_with_any(n, {"gps_", "us_", "bat_", "updated"})) {
                ASSERT_EQ(fast1.rows[r][c], fast2.rows[r][c]) << n << " in row " << r << " of two fast replays";
            }
        }

    // Each IMU batch of a replay, at either pace, is the live one, bit for
    // bit. (At the original pace a host that falls behind loses batches, as
    // in flight: the rows are matched by the batch's first timestamp.) The
    // live host may have lost a batch that the capture kept: then its
    // recording has a gap there.
    const size_t t0 = live.col("imu_t0");
    std::map<double, const std::vector<std::string> *> live_batches; // by first timestamp
    for (const auto &row : live.rows)
        live_batches[std::stod(row[t0])] = &row;
    const auto lost_live = [&](double t) {
        const auto next = live_batches.upper_bound(t);
        return next != live_batches.begin() && next != live_batches.end() &&
               next->first - std::prev(next)->first > 0.0075;
    };
    // A host that lost part of a batch (the server keeps a lagging reader's
    // newest scans) takes its batches five scans at a time from a shifted
    // start after that: from then on it has none to match. That befalls the
    // live host and, at the original pace, the replay's host alike.
    const auto shifted_from = [](const std::vector<double> &starts) {
        for (size_t i = 1; i < starts.size(); i++) {
            const double periods = (starts[i] - starts[i - 1]) / 0.005;
            if (std::fabs(periods - std::round(periods)) > 0.1)
                return starts[i - 1];
        }
        return std::numeric_limits<double>::infinity();
    };
    const auto starts_of = [&](const csv &rec) {
        std::vector<double> starts;
        for (const auto &row : rec.rows)
            starts.push_back(std::stod(row[t0]));
        return starts;
    };
    const double live_shifted_from = shifted_from(starts_of(live));
    for (const auto &[replayed, name] : {std::pair{&fast1, "fast"}, std::pair{&paced, "paced"}}) {
        const double replay_shifted_from = shifted_from(starts_of(*replayed));
        size_t matched = 0;
        for (const auto &row : replayed->rows) {
            const double start = std::stod(row[t0]);
            if (start > replay_shifted_from)
                break;
            auto it = live_batches.find(start);
            if (it == live_batches.end() && (lost_live(start) || start > live_shifted_from))
                continue;
            matched++;
            ASSERT_NE(it, live_batches.end())
                << "a batch of the " << name << " replay the live flight never had: " << row[t0];
            for (size_t c = 1; c < names.size(); c++)
                if (starts_with_any(names[c], {"imu_", "gyro_", "accel_"})) {
                    ASSERT_EQ(row[c], (*it->second)[c]) << names[c] << " of the " << name << " replay's batch at " << row[t0];
                }
        }
        EXPECT_GT(matched, 0u) << "no batch of the " << name << " replay met its live one";
    }
    EXPECT_GT(paced.rows.size(), fast1.rows.size() * 9 / 10) << "the original pace delivers the flight";

    // A fast replay waits for its host, which loses no scan: the only gaps
    // in its timestamps are the capture's own, where the capture's reader
    // fell behind (and counted the scans it lost).
    const size_t t1 = live.col("imu_t1"), count = live.col("imu_n");
    std::vector<std::pair<double, double>> capture_gaps; // from the scan before to the scan after
    uint64_t missing = 0;
    for (size_t r = 0; r < fast1.rows.size(); r++) {
        const auto &row = fast1.rows[r];
        const double first = std::stod(row[t0]), last = std::stod(row[t1]);
        const long inside = std::lround((last - first) / 0.001) - (std::stol(row[count]) - 1);
        if (inside > 0)
            capture_gaps.emplace_back(first, last);
        const long before = r ? std::lround((first - std::stod(fast1.rows[r - 1][t1])) / 0.001) - 1 : 0;
        if (before > 0)
            capture_gaps.emplace_back(std::stod(fast1.rows[r - 1][t1]), first);
        missing += static_cast<uint64_t>(std::max(inside, 0L) + std::max(before, 0L));
    }
    EXPECT_LE(missing, imu_drops(capture)) << "IMU scans the capture kept and the fast replay lost";

    // A loop from the second second goes on past the end: its timestamps
    // keep rising without a gap, and a batch of the second pass that starts
    // on a first pass's scan is that batch, one pass later.
    std::filesystem::create_directory(root_.path() + "/loop");
    std::string error;
    std::map<std::string, std::string> env = env_;
    auto sim = ::start_sim({ORLUNE_SIM_BIN, "--replay", capture, "--fast", "--loop", "--seek", "1"},
                           root_.path() + "/loop", &env, &error);
    ASSERT_TRUE(sim) << error;
    const std::string loop_file = root_.path() + "/loop.csv";
    const size_t cycles = fast1.rows.size() * 3 / 2;
    auto host = run({ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--cycles",
                     std::to_string(cycles), "--record", loop_file},
                    "loop", env);
    ASSERT_EQ(host->wait(60s), 0) << host->err();
    std::smatch m;
    const std::string out = sim->out();
    ASSERT_TRUE(std::regex_search(out, m, std::regex("REPLAY_START=([0-9.]+)\nREPLAY_END=([0-9.]+)"))) << out;
    const double pass_end = std::stod(m[2]), pass = pass_end - std::stod(m[1]);
    const csv looped(read_file(loop_file));
    ASSERT_EQ(looped.rows.size(), cycles);
    std::map<long long, const std::vector<std::string> *> first_pass;
    for (size_t r = 0; r < looped.rows.size(); r++) {
        const double t = std::stod(looped.rows[r][t0]);
        if (r > 0) {
            const double step = t - std::stod(looped.rows[r - 1][t0]);
            // A step of more than a batch crosses a gap of the capture's
            // (in the first pass's time).
            const auto in_capture = [&](double at) { return at >= pass_end ? at - pass : at; };
            const double from = in_capture(std::stod(looped.rows[r - 1][t0])), to = in_capture(t);
            const bool capture_gap = std::any_of(capture_gaps.begin(), capture_gaps.end(),
                                                 [&](const auto &g) { return g.first < to && g.second > from; });
            ASSERT_TRUE(step > 0 && (step < 0.0055 || capture_gap))
                << "row " << r << ": the batch came " << step << " s later";
        }
        first_pass[std::llround(t * 1e4)] = &looped.rows[r];
        auto it = first_pass.find(std::llround((t - pass) * 1e4));
        for (size_t c = 1; it != first_pass.end() && c < names.size(); c++)
            if (starts_with_any(names[c], {"gyro_", "accel_", "imu_temp"})) {
                ASSERT_EQ(looped.rows[r][c], (*it->second)[c]) << names[c] << " in row " << r;
            }
    }
    EXPECT_GT(std::stod(looped.rows.back()[t0]), std::stod(looped.rows.front()[t0]) + pass) << "past the end";
    sim->signal(SIGTERM);
    EXPECT_EQ(sim->wait(10s), 0) << sim->err();
}

TEST_F(ReplayEndToEnd, ADamagedCaptureIsRefusedWithItsReason)
{
    // Cut off after its header, times that go back, scans that do not fit.
    write_file(root_.path() + "/cut.cap", std::string("ORLCAPT\n\x01\0\0\0\x0c\0\0\0source=ip:x\n", 28));
    {
        capture::writer w;
        capture::header h;
        h.fields = {{"source", "ip:x"}};
        uint16_t stream;
        ASSERT_EQ(w.open(root_.path() + "/back.cap", h), 0);
        ASSERT_EQ(w.add_stream(capture::stream_kind::socket, "gps", 2000, &stream), 0);
        ASSERT_EQ(w.write(capture::record_kind::message, stream, 1000, "\0\0\0\0", 4), 0);
        ASSERT_EQ(w.close(3000), 0);
    }
    {
        // Scans laid out in fewer bytes than the device's description gives.
        const std::string xml = "<?xml version=\"1.0\"?><context name=\"x\"><device id=\"iio:device0\" name=\"imu\">"
                                "<channel id=\"accel_x\" type=\"input\"><scan-element index=\"0\" format=\"le:s16/16&gt;&gt;0\"/>"
                                "</channel><channel id=\"timestamp\" type=\"input\"><scan-element index=\"1\" "
                                "format=\"le:s64/64&gt;&gt;0\"/></channel></device></context>";
        capture::writer w;
        capture::header h;
        h.fields = {{"source", "ip:x"}};
        uint16_t stream;
        ASSERT_EQ(w.open(root_.path() + "/short.cap", h), 0);
        ASSERT_EQ(w.write(capture::record_kind::context, 0, 1000, xml.data(), xml.size()), 0);
        ASSERT_EQ(w.add_stream(capture::stream_kind::iio_device, "iio:device0", 1000, &stream), 0);
        const uint8_t layout[12] = {3, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0, 0};
        ASSERT_EQ(w.write(capture::record_kind::layout, stream, 1000, layout, sizeof layout), 0);
        ASSERT_EQ(w.write(capture::record_kind::scans, stream, 1000, "01234567", 8), 0);
        ASSERT_EQ(w.close(3000), 0);
    }
    const std::pair<const char *, const char *> cases[] = {
        {"cut.cap", "cut.cap: truncated: no end record at byte 28"},
        {"back.cap", "back.cap: damaged capture: the record at byte 52 goes back in time"},
        {"short.cap", "iio:device0: recorded scans of 8 bytes where its description gives 16"},
    };
    for (const auto &[file, says] : cases) {
        auto sim = run({ORLUNE_SIM_BIN, "--replay", root_.path() + "/" + file}, file, env_);
        EXPECT_EQ(sim->wait(10s), 2) << file;
        EXPECT_NE(sim->err().find(says), std::string::npos) << sim->err();
    }
}

} // namespace
