// SPDX-License-Identifier: Apache-2.0
// Helpers of the tools' tests: running a command line, and cutting its
// output into lines and comma-separated fields.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

struct run_result {
    int status; // the exit status, -1 when the command did not exit
    std::string output;
};

// Runs a command line through the shell, stdout and stderr together.
inline run_result run(const std::string &command)
{
    run_result r{-1, {}};
    FILE *p = popen((command + " 2>&1").c_str(), "r");
    if (!p)
        return r;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
        r.output.append(buf, n);
    const int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

inline std::vector<std::string> lines(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        out.push_back(l);
    return out;
}

// The fields of a line between commas, empty ones included.
inline std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (size_t comma; (comma = line.find(',', start)) != std::string::npos; start = comma + 1)
        fields.push_back(line.substr(start, comma - start));
    fields.push_back(line.substr(start));
    return fields;
}
