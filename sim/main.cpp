// SPDX-License-Identifier: Apache-2.0
// orlune-sim: the virtual vehicle as a process. Serves the scenario's IIO
// devices, prints the environment a sensor host needs, and runs until
// SIGINT or SIGTERM.
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "platform/sched_config.h"
#include "sim/battery.h"
#include "sim/gps_daemon.h"
#include "sim/iiod_server.h"
#include "sim/kernel_bridge.h"
#include "sim/replay.h"
#include "sim/thermal.h"
#include "sim/scenario.h"
#include "sim/sysfs_bridge.h"
#include "sim/truth_recorder.h"
#include "sim/ultrasound.h"
#include "sim/vision.h"

namespace {

void usage(FILE *out)
{
    std::fputs("usage: orlune-sim [--scenario FILE] [--port N] [--address A] [--battery-dir DIR] [--truth FILE]\n"
               "                  [--sysfs ROOT | --kernel NODE] [--print-xml]\n"
               "                  [--realtime PRIO [--cpus LIST]]\n"
               "       orlune-sim --replay CAPTURE [--fast] [--seek S] [--loop] [--capture-clock] [--port N] [--address A]\n"
               "                  [--battery-dir DIR] [--sysfs ROOT | --kernel NODE]\n"
               "  --scenario FILE  libconfig scenario (default: the built-in one, see examples/scenarios)\n"
               "  --port N         TCP port of the iiod service (default 0: an ephemeral port)\n"
               "  --address A      IPv4 address to listen on (default 127.0.0.1)\n"
               "  --battery-dir DIR  the smart battery's attribute directory (default:\n"
               "                   <ORLUNE_ROOT or a new temporary directory>/sys/class/power_supply/smartbattery)\n"
               "  --truth FILE     write the vehicle's truth to FILE as CSV, 100 rows a second\n"
               "                   (docs/recording.md)\n"
               "  --sysfs ROOT     also present the IIO devices as a kernel does: a sysfs tree under\n"
               "                   ROOT/sys/bus/iio/devices and a file per device as ROOT/dev/iio:deviceN,\n"
               "                   answered as a kernel's where FUSE mounts are allowed, for libiio's\n"
               "                   local backend (ROOT is / in scripts/board.sh's namespace)\n"
               "  --kernel NODE    also feed the IIO devices of the orlune_vehicle kernel module through its\n"
               "                   node (usually /dev/orlune-vehicle): a host reads them with libiio's local\n"
               "                   backend from the kernel's own sysfs tree and /dev/iio:deviceN\n"
               "  --print-xml      print the context description and exit\n"
               "  --realtime PRIO  run every thread of the simulator at SCHED_FIFO priority PRIO (1-99), above\n"
               "                   the flight loop's, and lock its memory: the simulated sensors keep their\n"
               "                   clock on a busy machine as hardware does (needs CAP_SYS_NICE; without\n"
               "                   it the simulator says so and runs at its ordinary priority)\n"
               "  --cpus LIST      with --realtime, keep the simulator's threads on these CPUs (0,2-3)\n"
               "  --replay CAPTURE serve a capture (orlune-capture) instead of the scenario's models:\n"
               "                   IIO devices, battery files, GPS daemon, ultrasound service and\n"
               "                   telemetry sections as recorded (docs/replay.md)\n"
               "  --fast           replay as fast as the plug-in reads, not at the original pace\n"
               "  --seek S         start the replay S seconds into the capture\n"
               "  --loop           start over at the end, the timestamps going on\n"
               "  --capture-clock  this machine's monotonic clock is the capture's (scripts/replay.sh's\n"
               "                   time namespace): each scan is served at its own timestamp\n"
               "prints IIOD_REMOTE=, SMARTBATTERY_DIR= and SIM_EPOCH= (monotonic seconds of scenario time 0),\n"
               "and SYSFS_ROOT= or KERNEL_NODE= for the board's transport\n",
               out);
}

// Blocks the stop signals before any thread starts, so that sigwait gets
// them. A shell starts background jobs with SIGINT ignored, and an ignored
// signal never becomes pending: restore the default first.
sigset_t block_stop_signals()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return stop_signals;
}

// The board's transport: where a host reads the devices through libiio's
// local backend, beside the server.
struct board_view {
    std::string sysfs_root;  // --sysfs: the stand-in's tree under this root
    std::string kernel_node; // --kernel: the kernel driver's node
    std::unique_ptr<sim::sysfs_bridge> sysfs;
    std::unique_ptr<sim::kernel_bridge> kernel;

    // Before anyone learns of the devices.
    bool start(const sim::iiod_server &server)
    {
        std::string error;
        if ((!sysfs_root.empty() && !(sysfs = sim::sysfs_bridge::start(server.uri(), sysfs_root, &error))) ||
            (!kernel_node.empty() && !(kernel = sim::kernel_bridge::start(server.uri(), kernel_node, &error)))) {
            std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
            return false;
        }
        return true;
    }
    void print() const
    {
        if (sysfs)
            std::printf("SYSFS_ROOT=%s\n", sysfs_root.c_str());
        if (kernel)
            std::printf("KERNEL_NODE=%s\n", kernel_node.c_str());
    }
    void stop()
    {
        if (sysfs)
            sysfs->stop();
        if (kernel)
            kernel->stop();
    }
};

// Where the pack's files go, unless given: under ORLUNE_ROOT, else in a new
// temporary directory. They exist before anyone learns where they are.
bool make_battery_dir(std::string *dir)
{
    if (!dir->empty())
        return true;
    const char *root = std::getenv("ORLUNE_ROOT");
    std::string base = root && *root ? root : "";
    if (base.empty()) {
        char tmpl[] = "/tmp/orlune-sim-XXXXXX";
        if (!mkdtemp(tmpl)) {
            std::fprintf(stderr, "orlune-sim: cannot create a battery directory: %s\n", strerror(errno));
            return false;
        }
        base = tmpl;
    }
    *dir = base + "/sys/class/power_supply/smartbattery";
    return true;
}

int replay_main(const std::string &path, bool fast, bool capture_clock, bool loop, double seek_s,
                const sim::server_options &options, std::string battery_dir, board_view &board)
{
    std::string error;
    auto capture = sim::replay_capture::load(path, &error);
    if (!capture) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 2;
    }
    const int64_t start = capture->first_ns() + static_cast<int64_t>(seek_s * 1e9);
    if (start > capture->last_ns()) {
        std::fprintf(stderr, "orlune-sim: the capture lasts %.3f s: cannot seek to %.3f s\n",
                     static_cast<double>(capture->last_ns() - capture->first_ns()) / 1e9, seek_s);
        return 2;
    }
    sim::replay_clock clock(start);
    // A loop's pass lasts at most from the start to the capture's last
    // record, which comes after every scan it holds; it ends one period
    // after the IMU's last scan.
    int64_t loop_ns = loop ? std::max<int64_t>(capture->last_ns() - start, 1) : 0;
    std::vector<sim::replay_device> devices;
    if (sim::replay_devices(*capture, clock, start, &loop_ns, &devices, &error) != 0) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 2;
    }
    sigset_t stop_signals = block_stop_signals();
    // Capture time T comes at monotonic T + offset: now, with a second's
    // lead for the host to start, or at once on the capture's own clock.
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t offset =
        capture_clock ? 0 : static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec + 1000000000 - start;
    auto server = sim::iiod_server::start_replay(std::move(devices), capture->context_xml(), clock,
                                                fast ? sim::replay_pace::fast : sim::replay_pace::original, offset,
                                                options, &error);
    if (!server) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    if (!board.start(*server) || !make_battery_dir(&battery_dir))
        return 1;
    auto services = sim::replay_services::start(*capture, clock, battery_dir, loop_ns, &error);
    if (!services) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    std::printf("IIOD_REMOTE=%s\n", server->uri().c_str());
    board.print();
    std::printf("SMARTBATTERY_DIR=%s\n", battery_dir.c_str());
    const int64_t end = loop ? start + loop_ns : capture->last_ns();
    std::printf("REPLAY_START=%lld.%09lld\nREPLAY_END=%lld.%09lld\n", static_cast<long long>(start / 1000000000),
                static_cast<long long>(start % 1000000000), static_cast<long long>(end / 1000000000),
                static_cast<long long>(end % 1000000000));
    std::printf("# replay of '%s' (%s), %.3f s from %.3f s, %s%s\n", path.c_str(),
                std::string(capture->head().get("source")).c_str(),
                static_cast<double>(capture->last_ns() - start) / 1e9, seek_s,
                fast ? "as fast as the plug-in reads" : "at the original pace", loop ? ", looping" : "");
    std::fflush(stdout);

    // The end of the capture is announced once; the replay goes on serving
    // (a blocking device then times out, as a stalled one does).
    int sig = 0;
    bool announced = false;
    for (;;) {
        const timespec tick{0, 100000000};
        sig = sigtimedwait(&stop_signals, nullptr, &tick);
        if (sig > 0)
            break;
        if (!announced && server->replay_over()) {
            std::printf("# replay over: the capture has no more scans\n");
            std::fflush(stdout);
            announced = true;
        }
    }
    clock.stop();
    services.reset();
    board.stop();
    server->stop();
    std::fprintf(stderr, "orlune-sim: stopped by %s\n", strsignal(sig));
    return 0;
}

// Every thread of the simulator inherits the main thread's policy and
// affinity, so they are set before the first one starts. False for a
// priority or CPU list that does not parse.
bool enter_realtime(const std::string &priority, const std::string &cpus)
{
    const std::string line = "orlune-sim fifo " + priority + " " + (cpus.empty() ? "-" : cpus) + " self";
    sched_entry entry;
    sched_config *config = sched_config_new();
    if (!config || sched_config_parse_line(line.c_str(), &entry) != 0 || sched_config_add(config, entry) != 0) {
        std::fprintf(stderr, "orlune-sim: bad real-time priority '%s' (1 to 99) or CPU list '%s'\n", priority.c_str(),
                     cpus.c_str());
        sched_config_destroy(config);
        return false;
    }
    const int r = sched_config_apply(config, "orlune-sim");
    sched_config_destroy(config);
    if (r < 0) {
        std::fprintf(stderr, "orlune-sim: running without real-time priorities: %s\n", std::strerror(-r));
        return true;
    }
    char in_force[128];
    sched_lock_memory_and_describe(in_force, sizeof in_force);
    std::fprintf(stderr, "orlune-sim: every thread at %s\n", in_force);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    sim::server_options options;
    sim::scenario scn = sim::default_scenario();
    bool print_xml = false;
    std::string scenario_path;
    std::string battery_dir;
    std::string truth_path;
    board_view board;
    std::string replay_path;
    bool fast = false, capture_clock = false, loop = false;
    double seek_s = 0;
    std::string realtime, cpus;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--scenario" && has_value) {
            std::string error;
            scenario_path = argv[++i];
            if (sim::scenario_load(scenario_path.c_str(), &scn, &error) != 0) {
                std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
                return 2;
            }
        } else if (arg == "--port" && has_value) {
            char *end;
            unsigned long port = std::strtoul(argv[++i], &end, 10);
            if (*end || port > 65535) {
                std::fprintf(stderr, "orlune-sim: bad port '%s'\n", argv[i]);
                return 2;
            }
            options.port = static_cast<uint16_t>(port);
        } else if (arg == "--address" && has_value) {
            options.address = argv[++i];
        } else if (arg == "--battery-dir" && has_value) {
            battery_dir = argv[++i];
        } else if (arg == "--truth" && has_value) {
            truth_path = argv[++i];
        } else if (arg == "--sysfs" && has_value) {
            board.sysfs_root = argv[++i];
        } else if (arg == "--kernel" && has_value) {
            board.kernel_node = argv[++i];
        } else if (arg == "--replay" && has_value) {
            replay_path = argv[++i];
        } else if (arg == "--fast") {
            fast = true;
        } else if (arg == "--loop") {
            loop = true;
        } else if (arg == "--capture-clock") {
            capture_clock = true;
        } else if (arg == "--seek" && has_value) {
            char *end;
            seek_s = std::strtod(argv[++i], &end);
            if (*end || !(seek_s >= 0) || seek_s > 1e7) {
                std::fprintf(stderr, "orlune-sim: bad seek '%s'\n", argv[i]);
                return 2;
            }
        } else if (arg == "--realtime" && has_value) {
            realtime = argv[++i];
        } else if (arg == "--cpus" && has_value) {
            cpus = argv[++i];
        } else if (arg == "--print-xml") {
            print_xml = true;
        } else if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 2;
        }
    }

    if (!board.sysfs_root.empty() && !board.kernel_node.empty()) {
        std::fprintf(stderr, "orlune-sim: --sysfs and --kernel are two forms of the board's transport: choose one\n");
        return 2;
    }
    if (fast && (!board.sysfs_root.empty() || !board.kernel_node.empty())) {
        // A kernel buffer (and its stand-in) takes every scan as soon as it
        // is due: it cannot wait for a reader.
        std::fprintf(stderr, "orlune-sim: --fast needs the network transport: the board's transport (--sysfs, "
                             "--kernel) streams at the original pace only\n");
        return 2;
    }
    if (realtime.empty() && !cpus.empty()) {
        std::fprintf(stderr, "orlune-sim: --cpus keeps the real-time threads on CPUs: it needs --realtime\n");
        return 2;
    }
    if (!realtime.empty() && !enter_realtime(realtime, cpus))
        return 2;
    if (!replay_path.empty())
        return replay_main(replay_path, fast, capture_clock, loop, seek_s, options, battery_dir, board);

    // The simulated services' settings: their groups in the scenario file.
    sim::gps_settings gps_settings;
    sim::ultrasound_settings ultrasound_settings;
    sim::vision_settings vision;
    {
        std::string error;
        if (sim::gps_settings_load(scenario_path, &gps_settings, &error) != 0 ||
            sim::ultrasound_settings_load(scenario_path, &ultrasound_settings, &error) != 0 ||
            (!scenario_path.empty() && sim::vision_settings_load(scenario_path.c_str(), &vision, &error) != 0)) {
            std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
            return 2;
        }
    }

    sigset_t stop_signals = block_stop_signals();

    std::string error;
    auto server = sim::iiod_server::start(scn, options, &error);
    if (!server) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    if (print_xml) {
        std::printf("%s\n", server->context_xml().c_str());
        return 0;
    }
    // Before anyone learns the port: the sensors drift as the calibration
    // files under ORLUNE_ROOT say.
    if (sim::install_thermal_inverses(*server, scn, &error) != 0) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    if (!board.start(*server) || !make_battery_dir(&battery_dir))
        return 1;
    auto battery = sim::start_battery_sim(scenario_path, battery_dir, &error);
    if (!battery) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    // The GPS daemon and the ultrasound service keep the scenario's clock.
    std::unique_ptr<sim::gps_daemon> gps;
    if (gps_settings.enabled && !(gps = sim::gps_daemon::start(gps_settings, scn, server->epoch_ns(), &error))) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    std::unique_ptr<sim::ultrasound_service> ultrasound;
    if (ultrasound_settings.enabled &&
        !(ultrasound = sim::ultrasound_service::start(ultrasound_settings, scn, server->epoch_ns(), &error))) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    auto producers = sim::vision_producers::start(scn, vision, server->epoch_ns(), &error);
    if (!producers) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    std::unique_ptr<sim::truth_recorder> truth;
    if (!truth_path.empty() &&
        !(truth = sim::truth_recorder::start(scn, server->epoch_ns(), battery.get(), truth_path, &error))) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 2;
    }
    std::printf("IIOD_REMOTE=%s\n", server->uri().c_str());
    board.print();
    // Scenario time 0 on the monotonic clock of every sensor timestamp.
    const int64_t epoch = server->epoch_ns();
    std::printf("SIM_EPOCH=%lld.%06lld\n", static_cast<long long>(epoch / 1000000000),
                static_cast<long long>(epoch % 1000000000 / 1000));
    std::printf("SMARTBATTERY_DIR=%s\n", battery->directory().c_str());
    std::printf("# scenario '%s': %zu devices", scn.name.c_str(), scn.devices.size());
    for (const sim::scenario_device &d : scn.devices)
        std::printf(" %s(%s)", d.name.c_str(), d.trigger.c_str());
    std::printf("\n");
    std::fflush(stdout);

    int sig = 0;
    sigwait(&stop_signals, &sig);
    producers->stop();
    board.stop();
    truth.reset();
    ultrasound.reset();
    gps.reset();
    battery.reset();
    server->stop();
    std::fprintf(stderr, "orlune-sim: stopped by %s\n", strsignal(sig));
    return 0;
}
