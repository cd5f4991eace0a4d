// SPDX-License-Identifier: Apache-2.0
#include "test_env.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/paths.h"
#include "platform/properties.h"

namespace fs = std::filesystem;

test_root::test_root()
{
    std::string tmpl = (fs::temp_directory_path() / "orlune-test-XXXXXX").string();
    if (!mkdtemp(tmpl.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    setenv(kRootEnv, path_.c_str(), 1);
    unsetenv(kPropertiesEnv);
    // The other global names of a run: telemetry sections and abstract
    // sockets, private to this test too (processes it starts inherit them).
    setenv("ORLUNE_TLM_DIR", (path_ + "/tlm").c_str(), 1);
    setenv("ORLUNE_SOCKET_PREFIX", (fs::path(path_).filename().string() + "-").c_str(), 1);
}

test_root::~test_root()
{
    unsetenv(kRootEnv);
    unsetenv("ORLUNE_TLM_DIR");
    unsetenv("ORLUNE_SOCKET_PREFIX");
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string test_root::at(const std::string &fixed) const
{
    return path_ + fixed;
}

void test_root::write(const std::string &fixed, const std::string &content) const
{
    write_file(at(fixed), content);
}

void test_root::properties(const std::string &content) const
{
    write(kPropertiesFile, content);
}

std::vector<std::string> log_capture::texts(const char *tag)
{
    std::vector<std::string> out;
    for (const log_record &r : take())
        if (r.tag == tag)
            out.push_back(r.text);
    return out;
}

void write_file(const std::string &path, const std::string &content)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
    if (!f)
        throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}
