// SPDX-License-Identifier: Apache-2.0
// A child process of an end-to-end test: started with extra environment,
// its output kept in files, stopped by signal or awaited with a deadline;
// and the host's recordings, read by their column names.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <sstream>
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

// A CSV file read by its header names.
struct csv {
    std::vector<std::string> names;
    std::vector<std::vector<std::string>> rows;

    explicit csv(const std::string &text)
    {
        std::istringstream in(text);
        std::string line;
        for (bool first = true; std::getline(in, line); first = false) {
            std::vector<std::string> fields;
            std::istringstream l(line);
            for (std::string f; std::getline(l, f, ',');)
                fields.push_back(f);
            if (!line.empty() && line.back() == ',')
                fields.emplace_back();
            (first ? names : rows.emplace_back()) = fields;
        }
    }
    size_t col(const std::string &name) const
    {
        for (size_t i = 0; i < names.size(); i++)
            if (names[i] == name)
                return i;
        ADD_FAILURE() << "no column " << name;
        return 0;
    }
    double num(size_t row, const std::string &name) const { return std::stod(rows[row].at(col(name))); }
    const std::string &text(size_t row, const std::string &name) const { return rows[row].at(col(name)); }
};
