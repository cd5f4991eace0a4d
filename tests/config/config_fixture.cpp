// SPDX-License-Identifier: Apache-2.0
#include "config_fixture.h"

#include <algorithm>

namespace {

constexpr const char *kTag = "sensors_config";

} // namespace

void ConfigTest::SetUp()
{
    ASSERT_EQ(log_set_levels("info,sensors_config=debug"), 0);
    unsetenv("LIBVIGIL_CFG_PATH");
    unsetenv("SENSORS_IMU_NO_ROTATION");
}

void ConfigTest::TearDown()
{
    unsetenv("LIBVIGIL_CFG_PATH");
    unsetenv("SENSORS_IMU_NO_ROTATION");
}

config_ptr ConfigTest::load(const std::string &text, uint32_t mask)
{
    write_file(override_path(), text);
    setenv("LIBVIGIL_CFG_PATH", override_path().c_str(), 1);
    return load_selected(mask);
}

config_ptr ConfigTest::load_selected(uint32_t mask)
{
    const sensors_probe_header header{mask, mask};
    return config_ptr(sensors_config_new(&header));
}

std::vector<std::string> ConfigTest::texts()
{
    std::vector<std::string> out;
    for (const log_record &r : messages())
        out.push_back(r.text);
    return out;
}

bool ConfigTest::has(const std::vector<log_record> &records, int priority, const std::string &text)
{
    return std::any_of(records.begin(), records.end(),
                       [&](const log_record &r) { return r.priority == priority && r.text == text; });
}

std::vector<log_record> ConfigTest::filter(std::vector<log_record> all)
{
    std::erase_if(all, [](const log_record &r) { return r.tag != kTag; });
    return all;
}

std::string enabled_line(const std::vector<std::string> &texts)
{
    for (const std::string &t : texts)
        if (t.rfind("enabled sensors:", 0) == 0 && t.rfind("enabled sensors: tof ", 0) != 0)
            return t;
    return "(no enabled sensors line)";
}

std::string case_name(const std::string &text)
{
    std::string name = text.empty() ? "empty" : text;
    for (char &ch : name)
        if (!isalnum(static_cast<unsigned char>(ch)))
            ch = '_';
    return name;
}
