// SPDX-License-Identifier: Apache-2.0
// orlune-sim: the virtual vehicle as a process. Serves the scenario's IIO
// devices, prints the environment a sensor host needs, and runs until
// SIGINT or SIGTERM.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/battery.h"
#include "sim/gps_daemon.h"
#include "sim/iiod_server.h"
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
               "                  [--sysfs ROOT] [--print-xml]\n"
               "  --scenario FILE  libconfig scenario (default: the built-in one, see examples/scenarios)\n"
               "  --port N         TCP port of the iiod service (default 0: an ephemeral port)\n"
               "  --address A      IPv4 address to listen on (default 127.0.0.1)\n"
               "  --battery-dir DIR  the smart battery's attribute directory (default:\n"
               "                   <ORLUNE_ROOT or a new temporary directory>/sys/class/power_supply/smartbattery)\n"
               "  --truth FILE     write the vehicle's truth to FILE as CSV, 100 rows a second\n"
               "                   (docs/recording.md)\n"
               "  --sysfs ROOT     also present the IIO devices as a kernel does: a sysfs tree under\n"
               "                   ROOT/sys/bus/iio/devices and a FIFO per device as ROOT/dev/iio:deviceN,\n"
               "                   for libiio's local backend (ROOT is / in scripts/board.sh's namespace)\n"
               "  --print-xml      print the context description and exit\n"
               "prints IIOD_REMOTE=, SMARTBATTERY_DIR= and SIM_EPOCH= (monotonic seconds of scenario time 0)\n",
               out);
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
    std::string sysfs_root;
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
            sysfs_root = argv[++i];
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

    // Block the stop signals before any thread starts, then wait for them.
    // A shell starts background jobs with SIGINT ignored, and an ignored
    // signal never becomes pending: restore the default first.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

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
    // The board's view of the devices exists before anyone learns of it.
    std::unique_ptr<sim::sysfs_bridge> sysfs;
    if (!sysfs_root.empty() && !(sysfs = sim::sysfs_bridge::start(server->uri(), sysfs_root, &error))) {
        std::fprintf(stderr, "orlune-sim: %s\n", error.c_str());
        return 1;
    }
    // The pack's files exist before anyone learns where they are.
    if (battery_dir.empty()) {
        const char *root = std::getenv("ORLUNE_ROOT");
        std::string base = root && *root ? root : "";
        if (base.empty()) {
            char tmpl[] = "/tmp/orlune-sim-XXXXXX";
            if (!mkdtemp(tmpl)) {
                std::fprintf(stderr, "orlune-sim: cannot create a battery directory: %s\n", strerror(errno));
                return 1;
            }
            base = tmpl;
        }
        battery_dir = base + "/sys/class/power_supply/smartbattery";
    }
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
    if (sysfs)
        std::printf("SYSFS_ROOT=%s\n", sysfs_root.c_str());
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
    if (sysfs)
        sysfs->stop();
    truth.reset();
    ultrasound.reset();
    gps.reset();
    battery.reset();
    server->stop();
    std::fprintf(stderr, "orlune-sim: stopped by %s\n", strsignal(sig));
    return 0;
}
