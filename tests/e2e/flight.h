// SPDX-License-Identifier: Apache-2.0
// What an end-to-end flight sets up: a private root (whose environment the
// processes inherit: ORLUNE_ROOT, the telemetry directory, the socket
// prefix), the simulator and the host as processes, and a sensors
// configuration made from the minimal example.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/shm_telemetry.h"
#include "process.h"
#include "support/test_env.h"

// The barometer's and the magnetometer's sections of the vehicle's
// configuration, for configure(). The simulated magnetometer runs at 100 Hz
// until the plug-in asks for 50.
inline const char *const kBarometerSection = R"(barometer = {
  enabled = true;
  device = "orlune-lps22hb";
  trigger = "orlune-baro-trig";
  sampling-frequency = 75;
};)";
inline const char *const kMagnetometerSection = R"(magnetometer = {
  enabled = true;
  device = "orlune-magneto";
  trigger = "orlune-magneto-trig";
  sampling-frequency = 50;
  use-temperature = true;
  rotation-matrix = ( [-1.0, 0.0, 0.0], [0.0, 1.0, 0.0], [0.0, 0.0, -1.0] );
};)";

class flight : public ::testing::Test {
protected:
    static std::string example(const std::string &name) { return std::string(ORLUNE_SOURCE_DIR) + "/examples/" + name; }
    std::string path(const std::string &name) const { return root_.path() + "/" + name; }

    // Starts orlune-sim with options, on the scenario text when there is one.
    void start_sim(const std::string &scenario_text = "", const std::vector<std::string> &options = {})
    {
        std::vector<std::string> argv = {ORLUNE_SIM_BIN};
        if (!scenario_text.empty()) {
            write_file(path("scenario.cfg"), scenario_text);
            argv.insert(argv.end(), {"--scenario", path("scenario.cfg")});
        }
        argv.insert(argv.end(), options.begin(), options.end());
        std::string error;
        sim_ = ::start_sim(argv, root_.path(), &env_, &error);
        ASSERT_TRUE(sim_) << error;
    }

    // The minimal example configuration with each of the named sections,
    // disabled there, replaced by its text, as the configuration in use.
    void configure(const std::vector<std::pair<std::string, std::string>> &sections)
    {
        std::string config = read_file(example("config/minimal.cfg"));
        for (const auto &[name, text] : sections)
            config = std::regex_replace(config, std::regex(name + " = \\{ enabled = false; \\};"), text);
        write_file(path("sensors.cfg"), config);
        env_["LIBVIGIL_CFG_PATH"] = path("sensors.cfg");
    }

    // orlune-host with the plug-in, no view and its log in host.log.
    std::unique_ptr<process> host(const std::vector<std::string> &options)
    {
        std::vector<std::string> argv = {ORLUNE_HOST_BIN, "--plugin", ORLUNE_PLUGIN, "--view", "none", "--log",
                                         path("host.log")};
        argv.insert(argv.end(), options.begin(), options.end());
        return run(argv, "host");
    }
    std::string host_log() const { return read_file(path("host.log")); }

    // Opens section once it holds at least count samples of the host's.
    void wait_for(const char *section, uint64_t count, tlm_section_view *view, process &host)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (tlm_view_open(section, view) != 0 || tlm_view_written(view) < count) {
            tlm_view_close(view);
            ASSERT_LT(std::chrono::steady_clock::now(), end)
                << "no " << section << " telemetry; host said:\n"
                << host.err() << host_log();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    // Any process, its output in <name>.out and <name>.err.
    std::unique_ptr<process> run(const std::vector<std::string> &argv, const std::string &name)
    {
        return std::make_unique<process>(argv, env_, path(name + ".out"), path(name + ".err"));
    }

    test_root root_;
    std::map<std::string, std::string> env_{{"SENSORS_LOG_LEVEL", "info"}};
    std::unique_ptr<process> sim_;
};
