// SPDX-License-Identifier: Apache-2.0
// Configuration files written by the tests, and a fixture that loads them
// through the exported constructor with the log captured.
#pragma once

#include <gtest/gtest.h>
#include <sensors/config.h>
#include <stdlib.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <string>
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
    void SetUp() override
    {
        ASSERT_EQ(log_set_levels("info,sensors_config=debug"), 0);
        clear_environment();
    }
    void TearDown() override { clear_environment(); }

    // Writes text as the override file and loads it with the given mask.
    config_ptr load(const std::string &text, uint32_t mask = SENSORS_KIND_ALL)
    {
        write_file(override_path(), text);
        setenv("LIBVIGIL_CFG_PATH", override_path().c_str(), 1);
        return load_selected(mask);
    }
    config_ptr load(const cfg_text &text, uint32_t mask = SENSORS_KIND_ALL) { return load(text.str(), mask); }
    // Loads whatever the selection rules find, with the given mask.
    config_ptr load_selected(uint32_t mask = SENSORS_KIND_ALL)
    {
        const sensors_probe_header header{mask, mask};
        return config_ptr(sensors_config_new(&header));
    }

    // Messages of the configuration reader since the last call.
    std::vector<log_record> messages()
    {
        std::vector<log_record> all = cap_.take();
        std::erase_if(all, [](const log_record &r) { return r.tag != "sensors_config"; });
        return all;
    }
    std::vector<std::string> texts()
    {
        std::vector<std::string> out;
        for (const log_record &r : messages())
            out.push_back(r.text);
        return out;
    }
    // True when some captured message has exactly this priority and text.
    static bool has(const std::vector<log_record> &records, int priority, const std::string &text)
    {
        return std::any_of(records.begin(), records.end(),
                           [&](const log_record &r) { return r.priority == priority && r.text == text; });
    }

    std::string override_path() const { return root_.at("/work/override.cfg"); }

    test_root root_;
    log_capture cap_;

private:
    static void clear_environment()
    {
        unsetenv("LIBVIGIL_CFG_PATH");
        unsetenv("SENSORS_IMU_NO_ROTATION");
    }
};

// The "enabled sensors:" line of the sections (not the rangefinder's).
inline std::string enabled_line(const std::vector<std::string> &texts)
{
    for (const std::string &t : texts)
        if (t.rfind("enabled sensors:", 0) == 0 && t.rfind("enabled sensors: tof ", 0) != 0)
            return t;
    return "(no enabled sensors line)";
}

// Strings of a record, a null one as "(null)", to compare several at once.
inline std::vector<std::string> texts_of(std::initializer_list<const char *> values)
{
    std::vector<std::string> out;
    for (const char *v : values)
        out.push_back(v ? v : "(null)");
    return out;
}

// A parameterised test's name from free text: anything but letters and digits becomes '_'.
inline std::string case_name(const std::string &text)
{
    std::string name = text.empty() ? "empty" : text;
    for (char &ch : name)
        if (!isalnum(static_cast<unsigned char>(ch)))
            ch = '_';
    return name;
}
