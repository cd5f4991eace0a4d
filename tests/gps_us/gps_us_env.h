// SPDX-License-Identifier: Apache-2.0
// A private root, telemetry directory and socket prefix for one test.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "platform/msg_socket.h"
#include "platform/shm_telemetry.h"
#include "support/test_env.h"

class gps_us_env : public ::testing::Test {
protected:
    gps_us_env()
    {
        setenv(kTlmDirEnv, root_.at("/tlm").c_str(), 1);
        setenv(kSocketPrefixEnv, ("t" + std::to_string(getpid()) + "-").c_str(), 1);
    }
    ~gps_us_env() override
    {
        unsetenv(kTlmDirEnv);
        unsetenv(kSocketPrefixEnv);
    }

    // Calls step until it returns true; false after the deadline.
    template <typename Step>
    static bool eventually(Step step, std::chrono::milliseconds deadline = std::chrono::milliseconds(3000))
    {
        auto end = std::chrono::steady_clock::now() + deadline;
        while (!step()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    test_root root_;
    log_capture cap_;
};
