// SPDX-License-Identifier: Apache-2.0
// A module test against the virtual vehicle's IIO devices: a private root,
// the platform log captured, and a libiio context connected to a simulated
// server that runs scenario() (the default scenario unless a test says
// otherwise).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "platform/failpoint.h"
#include "platform/log.h"
#include "sim/iiod_server.h"
#include "support/sim_iio.h"
#include "support/test_env.h"

class device_test : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(connect_sim(scenario(), &server_, &iio_), ""); }
    // The context and the server go with the members, after the modules
    // that a derived fixture holds.
    void TearDown() override
    {
        failpoint_disarm_all();
        log_set_levels("info");
        unsetenv("IIOD_REMOTE");
    }
    virtual sim::scenario scenario() const { return sim::default_scenario(); }

    // The messages of tag as "<priority> <text>", and clears the capture. A
    // leading "<function>:<line>:" reads "<function>:L:", so that expected
    // texts do not follow the source.
    std::vector<std::string> messages(const char *tag)
    {
        static const std::regex source_line("^(\\w+):[0-9]+:");
        std::vector<std::string> out;
        for (const log_record &r : cap_.take())
            if (r.tag == tag)
                out.push_back(std::to_string(r.priority) + " " + std::regex_replace(r.text, source_line, "$1:L:"));
        return out;
    }

    test_root root_;
    log_capture cap_;
    std::unique_ptr<sim::iiod_server> server_;
    iio_ptr iio_;
};
