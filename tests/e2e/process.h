// SPDX-License-Identifier: Apache-2.0
// A child process of an end-to-end test: started with extra environment,
// its output kept in files, stopped by signal or awaited with a deadline.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

class process {
public:
    // Starts argv[0] with the test's environment plus env; stdout and stderr
    // go to out_file and err_file.
    process(const std::vector<std::string> &argv, const std::map<std::string, std::string> &env,
            const std::string &out_file, const std::string &err_file);
    ~process();
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    // Exit status, or -1 when still running at the deadline (it is then killed).
    int wait(std::chrono::milliseconds deadline);
    void signal(int sig);
    bool running();
    pid_t pid() const { return pid_; }

    std::string out() const;
    std::string err() const;
    // Waits until the stdout file holds text matching needle; false at the deadline.
    bool wait_for_output(const std::string &needle, std::chrono::milliseconds deadline) const;

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string out_file_;
    std::string err_file_;
};

// Starts the simulator (argv: its binary and options) with its output in
// dir/sim.out and dir/sim.err and waits until it serves; the IIOD_REMOTE it
// printed is added to *env for the processes that follow. Null, with *error
// saying why, when it does not come up within five seconds.
std::unique_ptr<process> start_sim(const std::vector<std::string> &argv, const std::string &dir,
                                   std::map<std::string, std::string> *env, std::string *error);
