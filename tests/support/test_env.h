// SPDX-License-Identifier: Apache-2.0
// A private root for one test: a fresh temporary directory that ORLUNE_ROOT
// points at, so the fixed paths (/etc/sensors, /data, /factory, the
// properties file) of the code under test land inside it; the telemetry
// sections (ORLUNE_TLM_DIR) and abstract sockets (ORLUNE_SOCKET_PREFIX) are
// made private to it as well.
#pragma once

#include <string>

#include "platform/log.h"

class test_root {
public:
    test_root();
    ~test_root();
    test_root(const test_root &) = delete;
    test_root &operator=(const test_root &) = delete;

    const std::string &path() const { return path_; }
    // Absolute path of a fixed path under this root ("/data/x" -> "<root>/data/x").
    std::string at(const std::string &fixed) const;
    // Writes a file at a fixed path under this root, creating its directories.
    void write(const std::string &fixed, const std::string &content) const;
    // Writes the properties file.
    void properties(const std::string &content) const;

private:
    std::string path_;
};

// Captures the platform log for the life of the object.
class log_capture {
public:
    log_capture() { log_capture_start(); }
    ~log_capture() { log_capture_stop(); }
    std::vector<log_record> take() { return log_capture_take(); }
    // Text of every captured message of tag, in order, and clears the capture.
    std::vector<std::string> texts(const char *tag);
};

// Writes content to an absolute path, creating its directories.
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
