// SPDX-License-Identifier: Apache-2.0
// A private directory for one fuzzing process, removed when it exits: what a
// target writes (files to parse, a relocated root, telemetry sections) never
// lands in the corpus directory or beside another run.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

// The directory, made at the first call as <tmp>/orlune-<name>-XXXXXX.
inline const std::string &fuzz_private_dir(const char *name)
{
    static std::string dir;
    if (dir.empty()) {
        std::string tmpl =
            (std::filesystem::temp_directory_path() / (std::string("orlune-") + name + "-XXXXXX")).string();
        if (!mkdtemp(tmpl.data()))
            abort();
        dir = tmpl;
        atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        });
    }
    return dir;
}
