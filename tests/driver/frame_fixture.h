// SPDX-License-Identifier: Apache-2.0
// A virtual vehicle served in-process and a configuration file of the test's
// own, for tests that drive the plug-in through its driver table.
#pragma once

#include <gtest/gtest.h>
#include <sensors/sensors.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "sim/iiod_server.h"
#include "support/cfg_text.h"
#include "support/test_env.h"

class FrameTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("ORLUNE_TLM_DIR", (root_.path() + "/tlm").c_str(), 1);
        log_set_levels("info");
    }
    void TearDown() override
    {
        if (ctx_) {
            drv_.stop(ctx_);
            drv_.shutdown(ctx_);
        }
        server_.reset();
        unsetenv("IIOD_REMOTE");
        unsetenv("LIBVIGIL_CFG_PATH");
    }

    // Starts the simulated IIO server (scenario s) and points libiio at it.
    void start_server(const sim::scenario &s = sim::default_scenario())
    {
        std::string error;
        server_ = sim::iiod_server::start(s, sim::server_options{}, &error);
        ASSERT_TRUE(server_) << error;
        setenv("IIOD_REMOTE", server_->uri().c_str(), 1);
    }
    // Writes the configuration the plug-in will load.
    void configure(const cfg_text &text)
    {
        std::string path = root_.path() + "/sensors.cfg";
        write_file(path, text.str());
        setenv("LIBVIGIL_CFG_PATH", path.c_str(), 1);
    }
    // The IMU section of the default scenario's device, at 1000 Hz in batches of div.
    static cfg_text::entries imu_section(int div = 5)
    {
        return {{"enabled", "true"},
                {"device", "\"orlune-imu\""},
                {"trigger", "\"orlune-imu-trig\""},
                {"sampling-frequency", "1000"},
                {"sampling-rate-div", std::to_string(div)},
                {"temperature.sensitivity", "326.8"},
                {"temperature.offset", "25.0"},
                {"accelero_scale", "0.0047884"},
                {"gyro_scale", "0.0010653"}};
    }

    int probe(uint32_t mask = SENSORS_KIND_ALL)
    {
        sensors_probe_header header{mask, mask};
        return drv_.probe(nullptr, &ctx_, nullptr, &header, &data_);
    }
    // Messages of the frame's tag since the last call.
    std::vector<std::string> frame_messages() { return cap_.texts("sensors_orlune"); }

    test_root root_;
    log_capture cap_;
    std::unique_ptr<sim::iiod_server> server_;
    sensors_data data_{};
    sensors_orlune_ctx *ctx_ = nullptr;
    const sensors_driver_table &drv_ = sensors_driver;
};
