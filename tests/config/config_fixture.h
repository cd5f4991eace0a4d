// SPDX-License-Identifier: Apache-2.0
// Configuration files written by the tests, and a fixture that loads them
// through the exported constructor with the log captured.
#pragma once

#include <gtest/gtest.h>
#include <sensors/config.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "support/cfg_text.h"
#include "support/test_env.h"

struct config_deleter {
    void operator()(sensors_config *c) const { sensors_config_destroy(c); }
};
using config_ptr = std::unique_ptr<sensors_config, config_deleter>;

class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes text as the override file and loads it with the given mask.
    config_ptr load(const std::string &text, uint32_t mask = SENSORS_KIND_ALL);
    config_ptr load(const cfg_text &text, uint32_t mask = SENSORS_KIND_ALL) { return load(text.str(), mask); }
    // Loads whatever the selection rules find, with the given mask.
    config_ptr load_selected(uint32_t mask = SENSORS_KIND_ALL);

    // Messages of the configuration reader since the last call.
    std::vector<log_record> messages() { return filter(cap_.take()); }
    std::vector<std::string> texts();
    // True when some captured message has exactly this priority and text.
    static bool has(const std::vector<log_record> &records, int priority, const std::string &text);

    std::string override_path() const { return root_.at("/work/override.cfg"); }

    test_root root_;
    log_capture cap_;

private:
    static std::vector<log_record> filter(std::vector<log_record> all);
};

std::string enabled_line(const std::vector<std::string> &texts);

// A parameterised test's name from free text: anything but letters and digits becomes '_'.
std::string case_name(const std::string &text);
