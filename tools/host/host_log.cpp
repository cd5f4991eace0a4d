// SPDX-License-Identifier: Apache-2.0
#include "host_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>

namespace {
constexpr size_t kKeptLines = 200;
}

host_log::host_log(bool echo, const std::string &file) : echo_(echo)
{
    if (!file.empty()) {
        file_ = fopen(file.c_str(), "we");
        if (!file_)
            fprintf(stderr, "orlune-host: cannot write the log to '%s': %s\n", file.c_str(), strerror(errno));
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        fprintf(stderr, "orlune-host: cannot capture the log: %s\n", strerror(errno));
        return;
    }
    fflush(stderr);
    saved_stderr_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    read_fd_ = fds[0];
    thread_ = std::thread([this] { reader(); });
}

host_log::~host_log()
{
    stop();
    if (file_)
        fclose(file_);
}

void host_log::stop()
{
    if (stopped_)
        return;
    stopped_ = true;
    if (saved_stderr_ >= 0) {
        fflush(stderr);
        dup2(saved_stderr_, STDERR_FILENO); // closes the pipe's last write end
    }
    // The reader still echoes what was left in the pipe through the saved
    // descriptor: close it only once the reader is done.
    if (thread_.joinable())
        thread_.join();
    if (saved_stderr_ >= 0) {
        close(saved_stderr_);
        saved_stderr_ = -1;
    }
    if (read_fd_ >= 0)
        close(read_fd_);
    read_fd_ = -1;
}

void host_log::reader()
{
    std::string pending;
    char buf[4096];
    for (;;) {
        ssize_t n = read(read_fd_, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        pending.append(buf, size_t(n));
        size_t pos;
        while ((pos = pending.find('\n')) != std::string::npos) {
            account(pending.substr(0, pos));
            pending.erase(0, pos + 1);
        }
    }
    if (!pending.empty())
        account(pending);
}

void host_log::account(const std::string &line)
{
    // "[   12.345678] E imu: text"
    std::lock_guard<std::mutex> guard(lock_);
    size_t close = line.find("] ");
    if (close != std::string::npos && close + 3 < line.size()) {
        char priority = line[close + 2];
        size_t colon = line.find(": ", close + 4);
        if (colon != std::string::npos) {
            std::string tag = line.substr(close + 4, colon - close - 4);
            if (priority == 'C' || priority == 'E')
                errors_[tag]++;
            if (line.compare(colon + 2, 4, "EVT:") == 0) {
                events_++;
                const size_t kind = colon + 6;
                event_kinds_[line.substr(kind, line.find(';', kind) - kind)]++;
            }
        }
    }
    lines_.push_back(line);
    if (lines_.size() > kKeptLines)
        lines_.pop_front();
    if (file_) {
        fprintf(file_, "%s\n", line.c_str());
        fflush(file_);
    }
    if (echo_ && saved_stderr_ >= 0) {
        std::string out = line + "\n";
        ssize_t ignored = write(saved_stderr_, out.data(), out.size());
        (void)ignored;
    }
}

std::vector<std::string> host_log::last_lines(size_t n)
{
    std::lock_guard<std::mutex> guard(lock_);
    size_t first = lines_.size() > n ? lines_.size() - n : 0;
    return {lines_.begin() + long(first), lines_.end()};
}

std::map<std::string, unsigned> host_log::errors_per_tag()
{
    std::lock_guard<std::mutex> guard(lock_);
    return errors_;
}

unsigned host_log::events()
{
    std::lock_guard<std::mutex> guard(lock_);
    return events_;
}

std::map<std::string, unsigned> host_log::events_per_kind()
{
    std::lock_guard<std::mutex> guard(lock_);
    return event_kinds_;
}

void host_log::print(const char *fmt, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (n < 0)
        return;
    int fd = saved_stderr_ >= 0 ? saved_stderr_ : STDERR_FILENO;
    ssize_t ignored = write(fd, text, std::min(size_t(n), sizeof text - 1));
    (void)ignored;
}
