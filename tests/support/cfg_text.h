// SPDX-License-Identifier: Apache-2.0
// Sensor configuration files written by the tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

// A configuration file as ordered sections of ordered "key = value" lines.
// A dotted key ("temperature.offset") is written inside a nested group.
class cfg_text {
public:
    using entries = std::vector<std::pair<std::string, std::string>>;

    // Every section present, every sensor enabled, all keys valid.
    static cfg_text complete();
    // Every required section present and disabled.
    static cfg_text all_disabled();

    cfg_text &section(const std::string &name, entries keys);
    cfg_text &set(const std::string &section, const std::string &key, const std::string &value);
    cfg_text &erase(const std::string &section, const std::string &key);
    cfg_text &drop(const std::string &section);
    // Raw text appended after the sections (lists such as tofs).
    cfg_text &raw(const std::string &text);

    std::string str() const;

private:
    std::vector<std::pair<std::string, entries>> sections_;
    std::string raw_;
};
