// SPDX-License-Identifier: Apache-2.0
// The host shows the plug-in's log inside its own view: the process's stderr
// is redirected into a pipe that a reader thread drains line by line.
#pragma once

#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class host_log {
public:
    // echo: copy every line to the original stderr as it arrives.
    // file: also append every line to this file (may be empty).
    host_log(bool echo, const std::string &file);
    ~host_log();
    host_log(const host_log &) = delete;
    host_log &operator=(const host_log &) = delete;

    // Stops capturing: restores stderr and waits for the last lines.
    void stop();

    std::vector<std::string> last_lines(size_t n);
    // Messages of error priority or worse (C, E), per tag.
    std::map<std::string, unsigned> errors_per_tag();
    // Flight-log events ("EVT:" messages) seen so far, and per kind (the
    // word after "EVT:", such as "ESC" or "SMARTBATTERY").
    unsigned events();
    std::map<std::string, unsigned> events_per_kind();
    // Adds a line of the host's own to the log (view, file, echo).
    void note(const std::string &line) { account(line); }
    // Writes to the terminal even while stderr is captured.
    void print(const char *fmt, ...) __attribute__((format(printf, 2, 3)));

private:
    void reader();
    void account(const std::string &line);

    int saved_stderr_ = -1;
    int read_fd_ = -1;
    bool echo_;
    FILE *file_ = nullptr;
    std::thread thread_;
    std::mutex lock_;
    std::deque<std::string> lines_;
    std::map<std::string, unsigned> errors_;
    std::map<std::string, unsigned> event_kinds_;
    unsigned events_ = 0;
    bool stopped_ = false;
};
