// SPDX-License-Identifier: Apache-2.0
// orlune-sim: the virtual vehicle as a process. Serves the scenario's IIO
// devices, prints the environment a sensor host needs, and runs until
// SIGINT or SIGTERM.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/iiod_server.h"
#include "sim/thermal.h"
#include "sim/scenario.h"

namespace {

void usage(FILE *out)
{
    std::fputs("usage: orlune-sim [--scenario FILE] [--port N] [--address A] [--print-xml]\n"
               "  --scenario FILE  libconfig scenario (default: the built-in one, see examples/scenarios)\n"
               "  --port N         TCP port of the iiod service (default 0: an ephemeral port)\n"
               "  --address A      IPv4 address to listen on (default 127.0.0.1)\n"
               "  --print-xml      print the context description and exit\n",
               out);
}

} // namespace

int main(int argc, char **argv)
{
    sim::server_options options;
    sim::scenario scn = sim::default_scenario();
    bool print_xml = false;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--scenario" && has_value) {
            std::string error;
            if (sim::scenario_load(argv[++i], &scn, &error) != 0) {
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
    std::printf("IIOD_REMOTE=%s\n", server->uri().c_str());
    std::printf("# scenario '%s': %zu devices", scn.name.c_str(), scn.devices.size());
    for (const sim::scenario_device &d : scn.devices)
        std::printf(" %s(%s)", d.name.c_str(), d.trigger.c_str());
    std::printf("\n");
    std::fflush(stdout);

    int sig = 0;
    sigwait(&stop_signals, &sig);
    server->stop();
    std::fprintf(stderr, "orlune-sim: stopped by %s\n", strsignal(sig));
    return 0;
}
