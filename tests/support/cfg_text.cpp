// SPDX-License-Identifier: Apache-2.0
#include "support/cfg_text.h"

#include <algorithm>

namespace {

void write_entries(std::string &out, const cfg_text::entries &keys, const std::string &indent)
{
    std::vector<std::string> groups_done;
    for (const auto &[key, value] : keys) {
        size_t dot = key.find('.');
        if (dot == std::string::npos) {
            out += indent + key + " = " + value + ";\n";
            continue;
        }
        std::string group = key.substr(0, dot);
        if (std::find(groups_done.begin(), groups_done.end(), group) != groups_done.end())
            continue;
        groups_done.push_back(group);
        cfg_text::entries inner;
        for (const auto &[k, v] : keys)
            if (k.compare(0, dot + 1, group + ".") == 0)
                inner.emplace_back(k.substr(dot + 1), v);
        out += indent + group + " = {\n";
        write_entries(out, inner, indent + "  ");
        out += indent + "};\n";
    }
}

} // namespace

cfg_text cfg_text::complete()
{
    cfg_text t;
    t.section("barometer", {{"enabled", "true"},
                            {"device", "\"lps22hb\""},
                            {"trigger", "\"baro-trig\""},
                            {"sampling-frequency", "75"}});
    t.section("bldc", {{"enabled", "true"},
                       {"device", "\"esc\""},
                       {"trigger", "\"esc-trig\""},
                       {"tlm_frequency", "400"}});
    t.section("gps", {{"enabled", "true"}});
    t.section("imu", {{"enabled", "true"},
                      {"device", "\"imu-dev\""},
                      {"trigger", "\"imu-trig\""},
                      {"sampling-frequency", "1000"},
                      {"sampling-rate-div", "4"},
                      {"temperature.sensitivity", "326.8"},
                      {"temperature.offset", "25.0"},
                      {"accelero_scale", "0.5"},
                      {"gyro_scale", "0.25"},
                      {"rotation-matrix", "([1.0, 0.0, 0.0], [0.0, -1.0, 0.0], [0.0, 0.0, -1.0])"},
                      {"rotation-after-calib", "true"},
                      {"thread_cfg", "[\"imu\", \"imu_spi\", \"imu_spi_ksoftirq\"]"},
                      {"tlm_section", "\"flight_imu\""}});
    t.section("imu_vcam", {{"enabled", "true"},
                           {"device", "\"vcam-imu\""},
                           {"trigger", "\"vcam-imu-trig\""},
                           {"sampling-frequency", "800"},
                           {"temperature.sensitivity", "132.48"},
                           {"temperature.offset", "23.0"},
                           {"accelero_scale", "0.125"},
                           {"gyro_scale", "0.0625"}});
    t.section("magnetometer", {{"enabled", "true"},
                               {"device", "\"mag\""},
                               {"trigger", "\"mag-trig\""},
                               {"rotation-matrix", "([0.0, -1.0, 0.0], [-1.0, 0.0, 0.0], [0.0, 0.0, -1.0])"},
                               {"sampling-frequency", "50"},
                               {"use-temperature", "true"}});
    t.section("battery", {{"enabled", "true"}, {"device", "\"/sys/class/power_supply/pack\""}, {"frequency", "2"}});
    for (const char *s : {"ultrasound", "carpet_detection", "vcam_position", "fstcam_position", "vcam_optical_flow",
                          "fcam_gimbal"})
        t.section(s, {{"enabled", "true"}});
    return t;
}

cfg_text cfg_text::all_disabled()
{
    cfg_text t;
    for (const char *s : {"barometer", "bldc", "gps", "imu", "magnetometer", "battery", "ultrasound",
                          "carpet_detection", "vcam_position", "fstcam_position", "vcam_optical_flow"})
        t.section(s, {{"enabled", "false"}});
    return t;
}

cfg_text &cfg_text::section(const std::string &name, entries keys)
{
    drop(name);
    sections_.emplace_back(name, std::move(keys));
    return *this;
}

cfg_text &cfg_text::set(const std::string &section, const std::string &key, const std::string &value)
{
    for (auto &[name, keys] : sections_) {
        if (name != section)
            continue;
        for (auto &[k, v] : keys)
            if (k == key) {
                v = value;
                return *this;
            }
        keys.emplace_back(key, value);
        return *this;
    }
    sections_.emplace_back(section, entries{{key, value}});
    return *this;
}

cfg_text &cfg_text::erase(const std::string &section, const std::string &key)
{
    for (auto &[name, keys] : sections_)
        if (name == section)
            std::erase_if(keys, [&](const auto &kv) { return kv.first == key; });
    return *this;
}

cfg_text &cfg_text::drop(const std::string &section)
{
    std::erase_if(sections_, [&](const auto &s) { return s.first == section; });
    return *this;
}

cfg_text &cfg_text::raw(const std::string &text)
{
    raw_ += text;
    return *this;
}

std::string cfg_text::str() const
{
    std::string out;
    for (const auto &[name, keys] : sections_) {
        out += name + " = {\n";
        write_entries(out, keys, "  ");
        out += "};\n";
    }
    return out + raw_;
}
