// SPDX-License-Identifier: Apache-2.0
// Helpers of the telemetry tests: a private section directory, a forked
// producer process driven through pipes, and waiting with a deadline.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "platform/shm_telemetry.h"
#include "support/test_env.h"

// A test root and the telemetry directory that test_root points ORLUNE_TLM_DIR at.
class tlm_root : public test_root {
public:
    std::string dir() const { return at("/tlm"); }
    std::string file(const std::string &section) const { return dir() + "/" + section + kTlmFileSuffix; }
};

// A child process running body(link); the parent and the child exchange
// one-byte steps through two pipes.
class child_process {
public:
    struct link {
        int to_parent;
        int from_parent;
        void signal(char c = '.') const { (void)!write(to_parent, &c, 1); }
        char wait() const
        {
            char c = 0;
            return read(from_parent, &c, 1) == 1 ? c : 0;
        }
    };

    explicit child_process(const std::function<int(const link &)> &body)
    {
        int up[2];
        int down[2];
        if (pipe(up) < 0 || pipe(down) < 0)
            throw std::runtime_error("pipe");
        pid_ = fork();
        if (pid_ < 0)
            throw std::runtime_error("fork");
        if (pid_ == 0) {
            close(up[0]);
            close(down[1]);
            int code = body(link{up[1], down[0]});
            _exit(code);
        }
        close(up[1]);
        close(down[0]);
        from_child_ = up[0];
        to_child_ = down[1];
    }
    ~child_process()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(from_child_);
        close(to_child_);
    }
    // Waits for the child's next step; false when the child ended instead.
    bool wait_step()
    {
        char c;
        return read(from_child_, &c, 1) == 1;
    }
    void step(char c = '.') { (void)!write(to_child_, &c, 1); }
    pid_t pid() const { return pid_; }
    // Exit status of the child (waits for it).
    int join()
    {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int from_child_ = -1;
    int to_child_ = -1;
};

// Polls cond until it holds or the deadline passes.
inline bool eventually(const std::function<bool()> &cond, std::chrono::milliseconds deadline = std::chrono::seconds(5))
{
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return cond();
}
