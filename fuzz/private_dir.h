// SPDX-License-Identifier: Apache-2.0
// A private directory for one fuzzing process, removed when it exits: what a
// target writes (files to parse, a relocated root, telemetry sections) never
// lands in the corpus directory or beside another run. It lives on a tmpfs
// (/dev/shm) when there is one: a file rewritten there on every execution
// costs no disk write-back, which on a disk file system is most of the time
// of an execution.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

// The directory, made at the first call as <tmp>/orlune-<name>-XXXXXX.
inline const std::string &fuzz_private_dir(const char *name)
{
    static std::string dir;
    if (dir.empty()) {
        std::error_code ec;
        std::filesystem::path base = "/dev/shm";
        if (access(base.c_str(), W_OK) != 0)
            base = std::filesystem::temp_directory_path(ec);
        std::string tmpl = (base / (std::string("orlune-") + name + "-XXXXXX")).string();
        if (!mkdtemp(tmpl.data()))
            abort();
        dir = tmpl;
        atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        });
    }
    return dir;
}

// Replaces the content of the file at path (created 0644 when missing).
inline void fuzz_write_file(const std::string &path, std::string_view content)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        abort();
    for (size_t done = 0; done < content.size();) {
        const ssize_t n = write(fd, content.data() + done, content.size() - done);
        if (n <= 0)
            abort();
        done += size_t(n);
    }
    close(fd);
}
