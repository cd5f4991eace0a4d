// SPDX-License-Identifier: Apache-2.0
// A virtual vehicle served in-process and a configuration file of the test's
// own, for tests that drive the plug-in through its driver table.
#pragma once

#include <gtest/gtest.h>
#include <sensors/sensors.h>

#include <memory>
#include <string>

#include "sim/iiod_server.h"
#include "support/cfg_text.h"
#include "support/test_env.h"


class FrameTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the simulated IIO server (scenario s) and points libiio at it.
    void start_server(const sim::scenario &s = sim::default_scenario());
    // Writes the configuration the plug-in will load.
    void configure(const cfg_text &text);
    // The IMU section of the default scenario's device, at 1000 Hz in batches of div.
    static cfg_text::entries imu_section(int div = 5);

    int probe(uint32_t mask = SENSORS_KIND_ALL);
    // Messages of the frame's tag since the last call.
    std::vector<std::string> frame_messages();

    test_root root_;
    log_capture cap_;
    std::unique_ptr<sim::iiod_server> server_;
    sensors_data data_{};
    sensors_orlune_ctx *ctx_ = nullptr;
    const sensors_driver_table &drv_ = sensors_driver;
};
