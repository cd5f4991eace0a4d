// SPDX-License-Identifier: Apache-2.0
#include "soak_checks.h"

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

namespace soak {
namespace {

std::vector<std::string> split(const std::string &line, char sep)
{
    std::vector<std::string> out;
    std::string field;
    std::istringstream in(line);
    while (std::getline(in, field, sep))
        out.push_back(field);
    if (!line.empty() && line.back() == sep)
        out.emplace_back();
    return out;
}

bool to_double(const std::string &text, double *out)
{
    char *end = nullptr;
    *out = std::strtod(text.c_str(), &end);
    return !text.empty() && end && *end == '\0';
}

std::string fmt(const char *format, double v)
{
    char text[64];
    std::snprintf(text, sizeof text, format, v);
    return text;
}

// Monotonic bounds of the window in which a fault is allowed to act,
// recovery included.
struct span {
    double from;
    double to;
};
span acting(const judged_run &run, const fault_window &w, double margin)
{
    return {run.epoch_s + w.start_s - margin, run.epoch_s + w.end_s + traits(w.type).recover_s + margin};
}

// The longest stall of the vehicle's CPU that overlaps (from, to), 0 when
// none does.
double longest_stall_across(const judged_run &run, double from, double to)
{
    double longest = 0;
    for (const stall &st : *run.stalls)
        if (st.from < to && st.to > from)
            longest = std::max(longest, st.to - st.from);
    return longest;
}

bool inside_any(const judged_run &run, double from, double to, bool imu_only, double margin)
{
    for (const fault_window &w : run.plan.windows) {
        if (imu_only && !traits(w.type).imu_gap_allowed)
            continue;
        const span s = acting(run, w, margin);
        if (from >= s.from && to <= s.to)
            return true;
    }
    return false;
}

const char *bit_name(uint32_t bit)
{
    static const std::map<uint32_t, const char *> kNames{
        {0x1, "imu"},   {0x2, "baro"}, {0x4, "magneto"},         {0x8, "motors"},        {0x10, "us"},
        {0x20, "gps"},  {0x40, "battery"}, {0x400, "vision_position"}, {0x800, "optical_flow"},
        {0x1000, "fcam_gimbal"}};
    auto it = kNames.find(bit);
    return it == kNames.end() ? "?" : it->second;
}

} // namespace

int parse_recording(const std::string &csv, recording *out, std::string *error)
{
    std::istringstream in(csv);
    std::string line;
    if (!std::getline(in, line)) {
        *error = "the recording is empty";
        return -1;
    }
    const std::vector<std::string> header = split(line, ',');
    const char *wanted[] = {"t", "updated", "imu_n", "imu_t0", "imu_t1"};
    size_t column[5];
    for (size_t i = 0; i < 5; i++) {
        auto it = std::find(header.begin(), header.end(), wanted[i]);
        if (it == header.end()) {
            *error = std::string("the recording has no column '") + wanted[i] + "'";
            return -1;
        }
        column[i] = size_t(it - header.begin());
    }
    out->rows.clear();
    for (size_t number = 2; std::getline(in, line); number++) {
        if (line.empty())
            continue;
        const std::vector<std::string> f = split(line, ',');
        recording::row r{};
        double n = 0;
        bool ok = f.size() == header.size() && to_double(f[column[0]], &r.t) && to_double(f[column[2]], &n);
        if (ok) {
            char *end = nullptr;
            r.updated = uint32_t(std::strtoul(f[column[1]].c_str(), &end, 16));
            ok = f[column[1]].rfind("0x", 0) == 0 && end && *end == '\0';
            r.imu_n = int(n);
        }
        if (ok && r.imu_n > 0)
            ok = to_double(f[column[3]], &r.imu_t0) && to_double(f[column[4]], &r.imu_t1);
        if (!ok) {
            *error = "line " + std::to_string(number) + " of the recording does not parse: " + line;
            return -1;
        }
        out->rows.push_back(r);
    }
    return 0;
}

std::vector<log_line> parse_log(const std::string &text)
{
    std::vector<log_line> out;
    std::istringstream in(text);
    std::string line;
    double last = 0.0;
    while (std::getline(in, line)) {
        if (line.empty())
            continue;
        log_line l{false, last, line};
        const size_t close = line.find("] ");
        if (line[0] == '[' && close != std::string::npos) {
            char *end = nullptr;
            const std::string stamp = line.substr(1, close - 1);
            l.t = std::strtod(stamp.c_str(), &end);
            if (end && *end == '\0' && !stamp.empty()) {
                l.has_time = true;
                last = l.t;
                l.text = line.substr(close + 2);
            }
        }
        out.push_back(std::move(l));
    }
    return out;
}

bool sample_process(pid_t pid, double now_s, resource_sample *out)
{
    const std::string base = "/proc/" + std::to_string(pid);
    DIR *dir = opendir((base + "/fd").c_str());
    if (!dir)
        return false;
    int fds = 0;
    while (const dirent *e = readdir(dir))
        if (e->d_name[0] != '.')
            fds++;
    closedir(dir);
    std::ifstream status(base + "/status");
    std::string line;
    long rss = -1;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            rss = std::strtol(line.c_str() + 6, nullptr, 10);
    if (rss < 0)
        return false;
    *out = {now_s, fds, rss, {}};
    sample_run_waits(pid, out);
    return true;
}

void sample_run_waits(pid_t pid, resource_sample *out)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR *dir = opendir(tasks.c_str());
    if (!dir)
        return;
    while (const dirent *e = readdir(dir)) {
        if (e->d_name[0] == '.')
            continue;
        // Time on the CPU, time waiting on a run queue (ns), time slices.
        std::ifstream sched(tasks + "/" + e->d_name + "/schedstat");
        unsigned long long on_cpu = 0, waiting = 0;
        if (sched >> on_cpu >> waiting)
            out->run_wait_s[std::atoi(e->d_name)] = double(waiting) / 1e9;
    }
    closedir(dir);
}

double longest_wait(const resource_sample &before, const resource_sample &after)
{
    double longest = 0;
    for (const auto &[tid, waited] : after.run_wait_s) {
        auto was = before.run_wait_s.find(tid);
        longest = std::max(longest, waited - (was == before.run_wait_s.end() ? 0.0 : was->second));
    }
    return longest;
}

check check_recording_clock(const judged_run &run)
{
    std::vector<double> lag;
    for (const recording::row &r : run.record.rows)
        if (r.imu_n > 0)
            lag.push_back(r.t - r.imu_t1);
    if (lag.empty())
        return {"recording clock", false, "no IMU batch recorded"};
    std::nth_element(lag.begin(), lag.begin() + long(lag.size() / 2), lag.end());
    const double median = lag[lag.size() / 2];
    return {"recording clock", median >= 0 && median <= 1.0,
            std::to_string(run.record.rows.size()) + " rows; a row follows its last IMU sample by " +
                fmt("%.4f s", median) + " (median)"};
}

std::vector<check> check_imu_continuity(const judged_run &run, bool strict)
{
    std::vector<const recording::row *> batches;
    std::vector<double> periods;
    for (const recording::row &r : run.record.rows)
        if (r.imu_n > 0) {
            batches.push_back(&r);
            if (r.imu_n > 1)
                periods.push_back((r.imu_t1 - r.imu_t0) / (r.imu_n - 1));
        }
    if (batches.size() < 2 || periods.empty())
        return {{"imu continuity", false, "fewer than two IMU batches recorded"}};
    std::nth_element(periods.begin(), periods.begin() + long(periods.size() / 2), periods.end());
    const double period = periods[periods.size() / 2];
    // The longest run-queue wait of one thread between the last sample
    // before from and the first after to.
    auto run_wait = [&](double from, double to) {
        const resource_sample *before = nullptr, *after = nullptr;
        for (const resource_sample &s : run.resources) {
            if (s.t <= from)
                before = &s;
            if (s.t >= to && !after)
                after = &s;
        }
        return before && after ? longest_wait(*before, *after) : 0.0;
    };
    long samples = 0, lost_inside = 0, lost_outside = 0, lost_starved = 0, repeated = 0;
    int gaps_inside = 0, gaps_outside = 0, gaps_starved = 0, gaps_held = 0;
    long lost_held = 0;
    std::string outside, starved;
    for (size_t i = 0; i < batches.size(); i++) {
        samples += batches[i]->imu_n;
        if (i == 0)
            continue;
        const double from = batches[i - 1]->imu_t1, to = batches[i]->imu_t0;
        const double dt = to - from;
        if (dt < 0.5 * period) {
            // The same sample twice, or time going backwards.
            repeated++;
            if (repeated <= 3)
                outside += fmt(" repeat at %.3f s;", to - run.epoch_s);
            continue;
        }
        if (dt <= 1.5 * period)
            continue;
        const long lost = std::lround(dt / period) - 1;
        if (inside_any(run, from, to, true, kGapMarginS)) {
            gaps_inside++;
            lost_inside += lost;
            continue;
        }
        if (run.stalls && longest_stall_across(run, from, batches[i]->t) >= double(lost) * period) {
            gaps_held++;
            lost_held += lost;
            continue;
        }
        const double waited = run_wait(from, batches[i]->t);
        if (waited >= double(lost) * period) {
            gaps_starved++;
            lost_starved += lost;
            if (gaps_starved <= 5)
                starved += " " + std::to_string(lost) + " lost after " + fmt("%.3f s", from - run.epoch_s) +
                           fmt(" (%.0f ms waiting for a CPU);", waited * 1e3);
            continue;
        }
        gaps_outside++;
        lost_outside += lost;
        if (gaps_outside <= 5)
            outside += " " + std::to_string(lost) + " lost after " + fmt("%.3f s", from - run.epoch_s) +
                       fmt(" (%.0f ms waiting for a CPU);", waited * 1e3);
    }
    std::ostringstream d;
    d << batches.size() << " batches, " << samples << " samples, period " << fmt("%.6f s", period) << "; "
      << gaps_inside << " gaps (" << lost_inside << " samples) inside fault windows, " << gaps_outside << " gaps ("
      << lost_outside << " samples) outside, " << repeated << " repeated";
    if (!outside.empty())
        d << ":" << outside;
    std::ostringstream h;
    h << gaps_starved << " gaps (" << lost_starved << " samples) outside fault windows while the vehicle waited for a CPU"
      << starved;
    if (run.stalls) {
        const double longest = longest_stall_across(run, -INFINITY, INFINITY);
        h << "; " << gaps_held << " gaps (" << lost_held << " samples) while the machine held the vehicle's CPU ("
          << run.stalls->size() << fmt(" stalls over %.0f ms", kStallS * 1e3)
          << (run.stalls->empty() ? std::string() : fmt(", longest %.1f ms", longest * 1e3)) << ")";
    }
    check scheduling{"vehicle kept on the CPU", gaps_starved == 0, h.str()};
    scheduling.advisory = !strict;

    // The age at read return of the batches read outside the fault windows,
    // after the first second (the batches queued while the plug-in started).
    // The scans a short batch leaves in the kernel buffer make every later
    // batch that much older, until a stall or a restart of the plug-in
    // empties the buffer: a short batch's window lasts until then.
    std::vector<span> aged;
    for (size_t i = 0; i < run.plan.windows.size(); i++) {
        const fault_window &w = run.plan.windows[i];
        if (!traits(w.type).imu_gap_allowed)
            continue;
        span s = acting(run, w, kGapMarginS);
        if (w.type == fault_type::imu_short_batch) {
            s.to = run.epoch_s + run.plan.duration_s;
            for (size_t j = i + 1; j < run.plan.windows.size(); j++) {
                const fault_window &next = run.plan.windows[j];
                if (next.type == fault_type::imu_stall || next.type == fault_type::server_restart) {
                    s.to = acting(run, next, kGapMarginS).to;
                    break;
                }
            }
        }
        aged.push_back(s);
    }
    // A batch read across a stall of the vehicle's CPU is as old as the
    // stall made it, whatever the priorities: left out, and counted.
    std::vector<double> ages;
    size_t held = 0;
    for (const recording::row *b : batches) {
        if (b->t < batches.front()->t + 1.0 ||
            std::any_of(aged.begin(), aged.end(), [&](const span &s) { return b->t >= s.from && b->imu_t1 <= s.to; }))
            continue;
        if (run.stalls && longest_stall_across(run, b->imu_t1, b->t) > 0)
            held++;
        else
            ages.push_back(b->t - b->imu_t1);
    }
    std::sort(ages.begin(), ages.end());
    const double median = ages.empty() ? 0 : ages[ages.size() / 2];
    const double p99 = ages.empty() ? 0 : ages[std::min(ages.size() - 1, ages.size() * 99 / 100)];
    check age{"imu age", !ages.empty() && median <= kAgeMedianS && p99 <= kAgeP99S,
              fmt("%.3f ms median, ", median * 1e3) + fmt("%.3f ms p99, ", p99 * 1e3) +
                  fmt("%.3f ms max over ", ages.empty() ? 0 : ages.back() * 1e3) + std::to_string(ages.size()) +
                  fmt(" batches (at most %.1f ms and ", kAgeMedianS * 1e3) + fmt("%.1f ms)", kAgeP99S * 1e3) +
                  (run.stalls ? "; " + std::to_string(held) + " read across a stall of the vehicle's CPU left out"
                              : std::string())};
    age.advisory = !strict;
    return {{"imu continuity", gaps_outside == 0 && repeated == 0, d.str()}, scheduling, age};
}

check check_scheduling(bool asked, const std::string &host_out, const std::string &sim_err, bool strict)
{
    std::smatch host, sim;
    const bool host_said = std::regex_search(host_out, host, std::regex("\nscheduling +([^\n]*)"));
    const bool sim_said =
        std::regex_search(sim_err, sim, std::regex("orlune-sim: (every thread at [^\n]*|running without[^\n]*)"));
    check c{"scheduling", true,
            "host: " + (host_said ? host[1].str() : std::string("(no summary)")) +
                "; simulator: " + (sim_said ? sim[1].str() : std::string("ordinary priority"))};
    if (asked) {
        c.pass = host_said && host[1].str().rfind("fifo ", 0) == 0 && sim_said &&
                 sim[1].str().rfind("every thread at fifo ", 0) == 0;
        c.advisory = !strict;
    } else {
        c.detail += " (no scheduling table: ORLUNE_SOAK_SCHED=none)";
    }
    return c;
}

std::vector<check> check_recovery(const judged_run &run)
{
    struct tally {
        int windows = 0;
        int failed = 0;
        double worst = 0;
        std::string failures;
    };
    std::map<fault_type, tally> by_type;
    // Both the log and the recording are in time order: each search looks
    // only from its start to its bound.
    auto first_line = [&](const std::regex &re, double from, double until) {
        auto l = std::lower_bound(run.log.begin(), run.log.end(), from,
                                  [](const log_line &line, double t) { return line.t < t; });
        for (; l != run.log.end() && l->t <= until; ++l)
            if (l->has_time && std::regex_search(l->text, re))
                return l->t;
        return -1.0;
    };
    auto first_row = [&](uint32_t bit, double from, double until) {
        auto r = std::upper_bound(run.record.rows.begin(), run.record.rows.end(), from,
                                  [](double t, const recording::row &row) { return t < row.t; });
        for (; r != run.record.rows.end() && r->t <= until; ++r)
            if (r->updated & bit)
                return r->t;
        return -1.0;
    };
    for (const fault_window &w : run.plan.windows) {
        const fault_traits &tr = traits(w.type);
        tally &t = by_type[w.type];
        t.windows++;
        const double start = run.epoch_s + w.start_s;
        const double end = run.epoch_s + w.end_s;
        std::string missing;
        double worst = 0;
        auto judge = [&](const std::string &what, double from, double seen) {
            if (seen < 0)
                missing += " no " + what;
            else
                worst = std::max(worst, seen - from);
        };
        for (uint32_t bit = 1; bit; bit <<= 1)
            if (tr.bits & bit)
                judge(bit_name(bit), end, first_row(bit, end, end + tr.recover_s));
        if (tr.after_start)
            judge(std::string("\"") + tr.after_start + "\"", start,
                  first_line(std::regex(tr.after_start), start, start + tr.recover_s));
        if (tr.after_end)
            judge(std::string("\"") + tr.after_end + "\"", end,
                  first_line(std::regex(tr.after_end), end, end + tr.recover_s));
        t.worst = std::max(t.worst, worst);
        if (!missing.empty()) {
            t.failed++;
            if (t.failed <= 3)
                t.failures += fmt(" at %.1f s:", w.start_s) + missing + ";";
        }
    }
    std::vector<check> out;
    for (const auto &[type, t] : by_type) {
        std::ostringstream d;
        d << t.windows - t.failed << "/" << t.windows << " recovered within " << fmt("%.1f s", traits(type).recover_s)
          << ", slowest " << fmt("%.2f s", t.worst) << t.failures;
        out.push_back({std::string("recovery ") + traits(type).name, t.failed == 0, d.str()});
    }
    return out;
}

std::vector<check> check_messages(const judged_run &run)
{
    const std::vector<expected_message> expected = expected_messages(run.plan);
    std::vector<std::regex> patterns;
    for (const expected_message &e : expected)
        patterns.emplace_back(e.pattern);
    std::vector<int> seen(expected.size(), 0);
    int unexpected_events = 0, unexpected_errors = 0, excused_errors = 0;
    std::string unexpected;
    for (const log_line &l : run.log) {
        if (!l.has_time)
            continue;
        bool known = false;
        for (size_t i = 0; i < expected.size(); i++)
            if (std::regex_search(l.text, patterns[i])) {
                seen[i]++;
                known = true;
            }
        if (known)
            continue;
        const bool event = l.text.find("EVT:") != std::string::npos;
        const bool error = l.text.rfind("E ", 0) == 0;
        if (!event && !error)
            continue;
        // What a lost IIO server makes every module say depends on which
        // call meets the closed socket first: not counted, only confined to
        // the restart's window.
        bool excused = false;
        if (error)
            for (const fault_window &w : run.plan.windows)
                if (w.type == fault_type::server_restart) {
                    const span s = acting(run, w, 0.0);
                    excused = excused || (l.t >= s.from && l.t <= s.to);
                }
        if (excused) {
            excused_errors++;
            continue;
        }
        (event ? unexpected_events : unexpected_errors)++;
        if (unexpected_events + unexpected_errors <= 5)
            unexpected += fmt(" [%.3f s] ", l.t - run.epoch_s) + l.text + ";";
    }
    std::vector<check> out;
    for (size_t i = 0; i < expected.size(); i++) {
        const expected_message &e = expected[i];
        std::ostringstream d;
        d << "seen " << seen[i] << ", expected "
          << (e.low == e.high ? std::to_string(e.low) : std::to_string(e.low) + ".." + std::to_string(e.high)) << " ("
          << e.why << ")";
        out.push_back({"log " + e.label, seen[i] >= e.low && seen[i] <= e.high, d.str()});
    }
    std::ostringstream d;
    d << unexpected_events << " unexpected events, " << unexpected_errors << " unexpected errors, " << excused_errors
      << " errors during server restarts" << unexpected;
    out.push_back({"log nothing unexpected", unexpected_events == 0 && unexpected_errors == 0, d.str()});
    return out;
}

std::vector<check> check_resources(const judged_run &run)
{
    // Quiet samples: outside every fault's window and recovery, by half a
    // second (one sampling period) on each side.
    const double settled = run.epoch_s + run.plan.first_cycle_s + run.plan.cycle_s;
    std::vector<resource_sample> quiet;
    int max_fds = 0;
    for (const resource_sample &s : run.resources) {
        max_fds = std::max(max_fds, s.fds);
        if (s.t >= settled && !inside_any(run, s.t, s.t, false, 0.5))
            quiet.push_back(s);
    }
    if (quiet.size() < 2)
        return {{"resources", false,
                 "fewer than two quiet samples after the first cycle (" + std::to_string(run.resources.size()) +
                     " samples): run at least " + fmt("%.0f s", run.plan.first_cycle_s + run.plan.cycle_s + 20)}};
    const resource_sample &first = quiet.front();
    const resource_sample &last = quiet.back();
    int above = 0, quiet_max = 0;
    for (const resource_sample &s : quiet) {
        quiet_max = std::max(quiet_max, s.fds);
        if (s.fds > first.fds)
            above++;
    }
    std::ostringstream fds;
    fds << "after the first cycle " << first.fds << " at " << fmt("%.0f s", first.t - run.epoch_s)
        << ", highest when quiet " << quiet_max << " (" << above << " of " << quiet.size()
        << " quiet samples above), highest during faults " << max_fds << ", at the end " << last.fds;
    std::ostringstream rss;
    rss << "VmRSS " << first.rss_kib << " KiB at " << fmt("%.0f s", first.t - run.epoch_s) << ", " << last.rss_kib
        << " KiB at " << fmt("%.0f s", last.t - run.epoch_s) << ": growth " << last.rss_kib - first.rss_kib
        << " KiB (bound " << kRssGrowthKib << " KiB)";
    return {{"file descriptors", above == 0, fds.str()},
            {"memory", last.rss_kib - first.rss_kib <= kRssGrowthKib, rss.str()}};
}

} // namespace soak
