// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <stdexcept>
#include <thread>

#include "support/test_env.h"
#include "support/transport.h"

extern char **environ;

process::process(const std::vector<std::string> &argv, const std::map<std::string, std::string> &env,
                 const std::string &out_file, const std::string &err_file)
    : out_file_(out_file), err_file_(err_file)
{
    std::map<std::string, std::string> merged;
    for (char **e = environ; *e; e++) {
        std::string kv = *e;
        size_t eq = kv.find('=');
        if (eq != std::string::npos)
            merged[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    for (const auto &[k, v] : env)
        merged[k] = v;
    std::vector<std::string> env_strings;
    for (const auto &[k, v] : merged)
        env_strings.push_back(k + "=" + v);
    std::vector<char *> envp;
    for (std::string &s : env_strings)
        envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char *> argp;
    for (std::string &s : args)
        argp.push_back(s.data());
    argp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int r = posix_spawn(&pid_, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (r != 0)
        throw std::runtime_error("cannot start " + argv[0] + ": " + strerror(r));
}

process::~process()
{
    if (running()) {
        ::kill(pid_, SIGKILL);
        wait(std::chrono::milliseconds(2000));
    }
}

bool process::running()
{
    if (pid_ < 0)
        return false;
    int status;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        pid_ = -1;
        return false;
    }
    return r == 0;
}

int process::wait(std::chrono::milliseconds deadline)
{
    auto end = std::chrono::steady_clock::now() + deadline;
    while (running()) {
        if (std::chrono::steady_clock::now() >= end) {
            ::kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status_;
}

void process::signal(int sig)
{
    if (pid_ > 0)
        ::kill(pid_, sig);
}

std::string process::out() const
{
    return read_file(out_file_);
}

std::string process::err() const
{
    return read_file(err_file_);
}

bool process::wait_for_output(const std::string &needle, std::chrono::milliseconds deadline) const
{
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        if (out().find(needle) != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::unique_ptr<process> start_sim(const std::vector<std::string> &argv, const std::string &dir,
                                   std::map<std::string, std::string> *env, std::string *error)
{
    // On the board's transport the simulator also presents its devices as a
    // kernel does (under scripts/board.sh), or feeds the kernel's own (in a
    // guest with the orlune_vehicle module), and the host reads them there.
    const bool kernel = kernel_transport();
    const bool board = board_transport();
    std::vector<std::string> args = argv;
    if (board) {
        args.push_back(kernel ? "--kernel" : "--sysfs");
        args.push_back(kernel ? "/dev/orlune-vehicle" : "/");
    }
    auto sim = std::make_unique<process>(args, *env, dir + "/sim.out", dir + "/sim.err");
    std::smatch m;
    const bool printed = sim->wait_for_output("\n", std::chrono::seconds(5));
    const std::string out = sim->out();
    if (!printed || !std::regex_search(out, m, std::regex("IIOD_REMOTE=(ip:[0-9.]+:[0-9]+)"))) {
        *error = "orlune-sim did not print IIOD_REMOTE=ip:ADDRESS:PORT:\n" + out + sim->err();
        return nullptr;
    }
    // The kernel's devices may also be read through a board's iiod
    // (ORLUNE_TEST_IIOD: its URI), as a workstation reads a board's.
    const char *board_iiod = getenv("ORLUNE_TEST_IIOD");
    if (kernel && board_iiod && *board_iiod)
        (*env)["IIOD_REMOTE"] = board_iiod;
    else if (board)
        env->erase("IIOD_REMOTE");
    else
        (*env)["IIOD_REMOTE"] = m[1];
    return sim;
}
