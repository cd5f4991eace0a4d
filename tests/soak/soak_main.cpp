// SPDX-License-Identifier: Apache-2.0
// The soak: the virtual vehicle with every sensor under orlune-host for a
// bounded time while a fault schedule repeats, then a judgement of what the
// host recorded and logged and of its descriptors and memory.
//
// With --print-scenario SECONDS it prints the scenario and motor script of
// such a run and exits. Environment: ORLUNE_SOAK_SECONDS (default 60), ORLUNE_SOAK_SKIP (fault
// names separated by commas, left out of the schedule), ORLUNE_SOAK_OUT (a
// directory that receives the run's files: scenario, logs, recording,
// resource samples), ORLUNE_SOAK_STRICT=1 (samples lost while the host
// waited for a CPU, and the IMU age, fail the run instead of warning),
// ORLUNE_SOAK_SCHED (the scheduling table: examples/config/sched.conf by
// default, "none" for none, else a file). Exit status 0 when every check passes, 1 otherwise,
// 2 when the run could not be made.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iomanip>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

#include "process.h"
#include "soak_checks.h"
#include "support/test_env.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

// The CPU of the vehicle's flight loop and simulator in the scheduling table.
constexpr int kVehicleCpu = 1;

double monotonic_s()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

std::vector<soak::fault_type> skipped(std::string *error)
{
    std::vector<soak::fault_type> out;
    const char *env = std::getenv("ORLUNE_SOAK_SKIP");
    std::istringstream in(env ? env : "");
    for (std::string name; std::getline(in, name, ',');) {
        soak::fault_type t;
        if (name.empty())
            continue;
        if (!soak::fault_type_from_name(name, &t)) {
            *error = "ORLUNE_SOAK_SKIP: unknown fault '" + name + "'";
            return {};
        }
        out.push_back(t);
    }
    return out;
}

// Watches the vehicle's CPU from a thread pinned there at fifo `priority`,
// from its making to its end: every wake-up later than soak::kStallS is a
// stall. watching() is false, with why(), when the thread could not be
// pinned or given the priority.
class stall_watch {
public:
    stall_watch(int cpu, int priority)
    {
        std::promise<int> started;
        std::future<int> result = started.get_future();
        thread_ = std::thread([this, cpu, priority, &started] {
            cpu_set_t set;
            CPU_ZERO(&set);
            CPU_SET(cpu, &set);
            sched_param param{};
            param.sched_priority = priority;
            int r = pthread_setaffinity_np(pthread_self(), sizeof set, &set);
            if (r == 0)
                r = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
            started.set_value(r);
            if (r == 0)
                watch();
        });
        if (const int r = result.get(); r != 0) {
            why_ = "the watch of CPU " + std::to_string(cpu) + " could not run there at fifo " +
                   std::to_string(priority) + ": " + std::strerror(r);
            thread_.join();
        }
    }
    ~stall_watch()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    bool watching() const { return why_.empty(); }
    const std::string &why() const { return why_; }
    std::vector<soak::stall> stalls() const
    {
        std::lock_guard<std::mutex> hold(lock_);
        return stalls_;
    }

private:
    // A wake-up every millisecond, on an absolute clock.
    void watch()
    {
        timespec next;
        clock_gettime(CLOCK_MONOTONIC, &next);
        while (!stop_.load(std::memory_order_relaxed)) {
            next.tv_nsec += 1000000;
            if (next.tv_nsec >= 1000000000) {
                next.tv_nsec -= 1000000000;
                next.tv_sec++;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
            const double due = double(next.tv_sec) + double(next.tv_nsec) / 1e9, now = monotonic_s();
            if (now - due > soak::kStallS) {
                std::lock_guard<std::mutex> hold(lock_);
                stalls_.push_back({due, now});
                clock_gettime(CLOCK_MONOTONIC, &next);
            }
        }
    }

    std::atomic<bool> stop_{false};
    mutable std::mutex lock_;
    std::vector<soak::stall> stalls_;
    std::string why_;
    std::thread thread_;
};

void copy_out(const test_root &root, const char *dir)
{
    std::error_code ec;
    fs::create_directories(dir, ec);
    for (const char *f : {"scenario.cfg", "host.log", "record.csv", "host.out", "host.err", "sim.out", "sim.err",
                          "resources.csv", "stalls.csv"})
        fs::copy_file(root.path() + "/" + f, fs::path(dir) / f, fs::copy_options::overwrite_existing, ec);
}

int run(double seconds)
{
    std::string error;
    const std::vector<soak::fault_type> skip = skipped(&error);
    if (!error.empty()) {
        std::fprintf(stderr, "soak: %s\n", error.c_str());
        return 2;
    }
    const soak::schedule plan = soak::make_schedule(seconds, skip);
    const char *strict_env = std::getenv("ORLUNE_SOAK_STRICT");
    const bool strict = strict_env && std::strcmp(strict_env, "1") == 0;

    // The vehicle's private root, as the demo makes it: the configuration
    // found by its hardware name, the example calibration, the properties.
    test_root root;
    const std::string examples = std::string(ORLUNE_SOURCE_DIR) + "/examples";
    root.write("/etc/sensors/orlune_sim.cfg", read_file(examples + "/config/orlune_sim.cfg"));
    for (const char *dir : {"data", "factory"})
        fs::copy(examples + "/calibration/" + dir, root.path() + "/" + dir, fs::copy_options::recursive);
    root.properties("ro.hardware=orlune_sim\nro.revision=1\n");
    const std::string scenario = root.path() + "/scenario.cfg";
    write_file(scenario, soak::scenario_text(plan));
    // The vehicle's scheduling table where a board keeps it, and the
    // simulator above the flight loop on its CPU, as the demo flies.
    const char *sched_env = std::getenv("ORLUNE_SOAK_SCHED");
    const std::string table = !sched_env || !*sched_env ? examples + "/config/sched.conf" : sched_env;
    const bool realtime = table != "none";
    std::vector<std::string> sim_argv = {ORLUNE_SIM_BIN, "--scenario", scenario};
    if (realtime) {
        root.write("/etc/orlune/sched.conf", read_file(table));
        sim_argv.insert(sim_argv.end(), {"--realtime", "70", "--cpus", std::to_string(kVehicleCpu)});
    }
    for (const char *name : {"LIBVIGIL_CFG_PATH", "IIOD_REMOTE", "SENSORS_LOG_LEVEL", "ORLUNE_SCHED_CONFIG"})
        unsetenv(name);

    process sim(sim_argv, {}, root.path() + "/sim.out", root.path() + "/sim.err");
    const pid_t sim_pid = sim.pid();
    if (!sim.wait_for_output("SIM_EPOCH=", 10s) || !sim.wait_for_output("IIOD_REMOTE=", 1s)) {
        std::fprintf(stderr, "soak: orlune-sim did not print IIOD_REMOTE= and SIM_EPOCH=:\n%s%s\n", sim.out().c_str(),
                     sim.err().c_str());
        return 2;
    }
    std::smatch uri, epoch;
    const std::string sim_out = sim.out();
    std::regex_search(sim_out, uri, std::regex("IIOD_REMOTE=(\\S+)"));
    std::regex_search(sim_out, epoch, std::regex("SIM_EPOCH=([0-9.]+)"));
    const double epoch_s = std::stod(epoch[1]);

    // The host's motor script counts from its own start, which follows the
    // simulator's by the time it took to get here (and a few milliseconds of
    // probing): the flight's steps have seconds of slack around the error.
    const double offset_s = monotonic_s() - epoch_s;
    std::vector<std::string> argv = {ORLUNE_HOST_BIN, "--plugin",  ORLUNE_PLUGIN,  "--view",
                                     "none",          "--log",     root.path() + "/host.log",
                                     "--record",      root.path() + "/record.csv", "--duration",
                                     std::to_string(seconds - offset_s)};
    const std::string motors = soak::motor_script(plan, offset_s);
    if (!motors.empty())
        argv.insert(argv.end(), {"--motors", motors});
    std::fprintf(stderr, "soak: %.0f s, %d cycle(s), %zu faults; files in %s\n", seconds, plan.cycles,
                 plan.windows.size(), root.path().c_str());
    // Above the vehicle on its CPU: whatever holds the watch there holds the
    // whole CPU.
    std::unique_ptr<stall_watch> watch;
    if (realtime) {
        watch = std::make_unique<stall_watch>(kVehicleCpu, 90);
        if (!watch->watching())
            std::fprintf(stderr, "soak: the vehicle's CPU is not watched for stalls: %s\n", watch->why().c_str());
    }
    const double host_started = monotonic_s();
    process host(argv, {{"IIOD_REMOTE", uri[1]}}, root.path() + "/host.out", root.path() + "/host.err");

    // Once a second: the host's descriptors and resident memory, and how long
    // the threads of both processes waited for a CPU.
    std::vector<soak::resource_sample> resources;
    double load_sum = 0;
    int load_samples = 0;
    const pid_t pid = host.pid();
    double next = monotonic_s(), next_note = next + 60;
    while (host.running() && monotonic_s() < host_started + seconds + 60) {
        soak::resource_sample s;
        if (pid > 0 && soak::sample_process(pid, monotonic_s(), &s)) {
            soak::sample_run_waits(sim_pid, &s);
            resources.push_back(std::move(s));
            double load = 0;
            if (std::ifstream("/proc/loadavg") >> load) {
                load_sum += load;
                load_samples++;
            }
            const soak::resource_sample &last = resources.back();
            if (last.t >= next_note) {
                std::fprintf(stderr, "soak: %.0f s, %d fds, VmRSS %ld KiB\n", last.t - epoch_s, last.fds,
                             last.rss_kib);
                next_note += 60;
            }
        }
        next += 1.0;
        while (host.running() && monotonic_s() < next)
            std::this_thread::sleep_for(20ms);
    }
    const int host_status = host.wait(30s);
    const double host_ran = monotonic_s() - host_started;
    const bool watched = watch && watch->watching();
    const std::vector<soak::stall> stalls = watched ? watch->stalls() : std::vector<soak::stall>();
    watch.reset();
    sim.signal(SIGTERM);
    const int sim_status = sim.wait(10s);
    {
        // Milliseconds: the stalls and waits that cost samples last tens of them.
        std::ofstream f(root.path() + "/resources.csv");
        f << std::fixed << std::setprecision(4) << "t,fds,rss_kib,longest_run_wait_s\n";
        for (size_t i = 0; i < resources.size(); i++) {
            const soak::resource_sample &s = resources[i];
            f << s.t - epoch_s << "," << s.fds << "," << s.rss_kib << ","
              << (i ? soak::longest_wait(resources[i - 1], s) : 0.0) << "\n";
        }
        std::ofstream held(root.path() + "/stalls.csv");
        held << std::fixed << std::setprecision(4) << "from,to\n";
        for (const soak::stall &st : stalls)
            held << st.from - epoch_s << "," << st.to - epoch_s << "\n";
    }

    std::vector<soak::check> checks;
    checks.push_back({"host exit", host_status == 0,
                      "status " + std::to_string(host_status) + " after " + std::to_string(int(host_ran)) + " s" +
                          (host_status > 128 ? " (signal " + std::to_string(host_status - 128) + ")" : "") +
                          (host_status == -1 ? " (still running at the deadline: killed)" : "")});
    checks.push_back({"simulator stop", sim_status == 0, "status " + std::to_string(sim_status)});
    checks.push_back(soak::check_scheduling(realtime, host.out(), sim.err(), strict));
    soak::recording record;
    if (soak::parse_recording(read_file(root.path() + "/record.csv"), &record, &error) != 0) {
        checks.push_back({"recording", false, error});
    } else {
        const std::vector<soak::log_line> log = soak::parse_log(read_file(root.path() + "/host.log"));
        const soak::judged_run judged{plan, epoch_s, record, log, resources, watched ? &stalls : nullptr};
        checks.push_back(soak::check_recording_clock(judged));
        for (soak::check &c : soak::check_imu_continuity(judged, strict))
            checks.push_back(std::move(c));
        for (auto *part : {&soak::check_recovery, &soak::check_messages, &soak::check_resources})
            for (soak::check &c : part(judged))
                checks.push_back(std::move(c));
#ifdef ORLUNE_SOAK_SANITIZED
        // AddressSanitizer keeps freed memory in quarantine, so the resident
        // size grows with every allocation whether or not anything leaks;
        // LeakSanitizer judges leaks at the host's exit instead ("host exit").
        for (soak::check &c : checks)
            if (c.name == "memory") {
                c.advisory = true;
                c.detail += " (a warning only: the sanitizer's quarantine holds freed memory)";
            }
#endif
    }

    int failed = 0, warned = 0;
    std::printf("== soak: %.0f s, %d fault cycle(s) of %.0f s, %zu faults ==\n", seconds, plan.cycles, plan.cycle_s,
                plan.windows.size());
    std::printf("machine: load average %.1f over the run (mean of the 1-minute figure), %ld CPUs\n",
                load_samples ? load_sum / load_samples : 0.0, sysconf(_SC_NPROCESSORS_ONLN));
    for (const soak::check &c : checks) {
        std::printf("%s  %-38s %s\n", c.pass ? "PASS" : c.advisory ? "WARN" : "FAIL", c.name.c_str(),
                    c.detail.c_str());
        if (!c.pass)
            (c.advisory ? warned : failed)++;
    }
    if (failed)
        std::printf("soak: FAIL, %d of %zu checks failed, %d warnings\n", failed, checks.size(), warned);
    else
        std::printf("soak: PASS, %zu checks, %d warnings\n", checks.size(), warned);
    if (const char *out = std::getenv("ORLUNE_SOAK_OUT"); out && *out) {
        copy_out(root, out);
        std::printf("soak: files in %s\n", out);
    }
    return failed ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--print-scenario") == 0) {
        // The scenario and motor script of a run of that many seconds.
        const soak::schedule plan = soak::make_schedule(std::strtod(argv[2], nullptr));
        std::printf("# orlune-host --motors %s\n%s", soak::motor_script(plan, 0.0).c_str(),
                    soak::scenario_text(plan).c_str());
        return 0;
    }
    if (argc != 1) {
        std::fprintf(stderr, "usage: soak_runner [--print-scenario SECONDS]\n");
        return 2;
    }
    const char *env = std::getenv("ORLUNE_SOAK_SECONDS");
    char *end = nullptr;
    const double seconds = env && *env ? std::strtod(env, &end) : 60.0;
    if ((env && *env && *end) || !(seconds > 0)) {
        std::fprintf(stderr, "soak: ORLUNE_SOAK_SECONDS must be a positive number of seconds\n");
        return 2;
    }
    try {
        return run(seconds);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "soak: %s\n", e.what());
        return 2;
    }
}
