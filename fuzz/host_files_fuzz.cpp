// SPDX-License-Identifier: Apache-2.0
// The host's own small files on arbitrary bytes: the input is the properties
// file (whose values pick the sensor configuration) and, cut at the first
// line "%%\n", the scheduling table. Every property the plug-in asks for is
// read back and checked against its buffer; the table is loaded and parsed
// line by line, but never applied: applying would change the scheduling of
// this process's threads.
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/log.h"
#include "platform/properties.h"
#include "platform/sched_config.h"
#include "private_dir.h"

namespace {

constexpr std::string_view kSeparator = "%%\n";
constexpr const char *kKeys[] = {"ro.hardware", "ro.revision", "ro.boot.sensors", "", "=", "#", "ro.hardware "};

std::string g_dir;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_dir = fuzz_private_dir("host-files-fuzz");
    setenv(kPropertiesEnv, (g_dir + "/system.prop").c_str(), 1);
    log_capture_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t cut = input.find(kSeparator);
    const std::string_view props = input.substr(0, cut);
    const std::string_view table = cut == std::string_view::npos ? std::string_view() : input.substr(cut + 3);

    fuzz_write_file(g_dir + "/system.prop", props);
    for (const char *key : kKeys) {
        char value[PROPERTY_VALUE_MAX];
        memset(value, 0x5a, sizeof value);
        const int len = property_get(key, value, "fallback");
        if (len < 0 || size_t(len) >= PROPERTY_VALUE_MAX || strlen(value) != size_t(len))
            abort();
    }

    const std::string table_path = g_dir + "/sched.conf";
    fuzz_write_file(table_path, table);
    if (sched_config *config = sched_config_load(table_path.c_str())) {
        if (sched_config_count(config) > table.size())
            abort();
        sched_config_destroy(config);
    }
    // Line by line, as a caller building its table in memory does.
    std::string line;
    for (size_t pos = 0; pos <= table.size();) {
        size_t nl = table.find('\n', pos);
        line.assign(table.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos));
        sched_entry entry;
        const int r = sched_config_parse_line(line.c_str(), &entry);
        if (r != 0 && r != 1 && r != -EINVAL)
            abort();
        if (r == 0 && (strnlen(entry.name, sizeof entry.name) == sizeof entry.name ||
                       strnlen(entry.threads, sizeof entry.threads) == sizeof entry.threads))
            abort();
        if (nl == std::string_view::npos)
            break;
        pos = nl + 1;
    }
    log_capture_take();
    return 0;
}
