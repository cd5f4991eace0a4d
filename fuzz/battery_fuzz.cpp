// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as the smart battery's attribute files. The input is cut at
// each line "%%\n" into the contents of "name", "present", "voltage_now",
// "current_now", "rsoc", "soh", "cycle_count", "temperature",
// "avg_time_to_empty", "full_charge_cap", "remaining_cap", "alerts",
// "authenticated", "usb_peer", "cell_voltage" and "anomaly", in that order; a
// missing part leaves a valid value. A module is created on them and read
// once, and a long-lived module (whose latches and last values carry over
// from input to input) makes one full read of them.
#include <sensors/battery.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/log.h"
#include "platform/paths.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "private_dir.h"

namespace {

constexpr const char *kDir = "/sys/class/power_supply/smartbattery";
constexpr std::string_view kSeparator = "%%\n";
struct attribute {
    const char *name;
    const char *valid;
};
constexpr attribute kFiles[] = {
    {"name", "smartbattery\n"}, {"present", "1\n"}, {"voltage_now", "8100\n"}, {"current_now", "-1500\n"},
    {"rsoc", "90\n"}, {"soh", "97\n"}, {"cycle_count", "12\n"}, {"temperature", "2981\n"},
    {"avg_time_to_empty", "45\n"}, {"full_charge_cap", "2700\n"}, {"remaining_cap", "2430\n"},
    {"alerts", "0 0\n"}, {"authenticated", "1\n"}, {"usb_peer", "0 0 0\n"}, {"cell_voltage", "2 3900 3895\n"},
    {"anomaly", "0\n"},
};
// A full read at most every 10 us for the long-lived module.
constexpr int kFastFrequency = 100000;
constexpr uint64_t kFastPeriodUs = 1000000 / kFastFrequency;

std::string g_root;
std::string g_dir;
// What each file of kFiles holds now: a file is rewritten only when its
// content changes.
std::string g_content[std::size(kFiles)];
sensors_battery_data g_record;
battery_ctx *g_long_lived;

void write(const char *name, std::string_view content)
{
    fuzz_write_file(g_dir + "/" + name, content);
}

void set(size_t n, std::string_view content)
{
    if (g_content[n] == content)
        return;
    write(kFiles[n].name, content);
    g_content[n] = content;
}

// Until the long-lived module's period has passed since its last full read
// (a few microseconds at most: the execution takes most of them): its next
// read is full too.
void wait_for_period()
{
    uint64_t last_us = 0;
    duration_in_us(&g_record.timestamp, &last_us);
    for (;;) {
        timespec now;
        uint64_t now_us = 0;
        monotonic_now(&now);
        duration_in_us(&now, &now_us);
        if (now_us - last_us >= kFastPeriodUs)
            return;
    }
}

void cleanup()
{
    battery_destroy(g_long_lived);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_root = fuzz_private_dir("battery-fuzz");
    setenv(kRootEnv, g_root.c_str(), 1);
    setenv(kTlmDirEnv, (g_root + "/tlm").c_str(), 1);
    g_dir = g_root + kDir;
    std::filesystem::create_directories(g_dir);
    for (const char *extra : {"manufacturer_name", "model_name"})
        write(extra, "x\n");
    for (size_t n = 0; n < std::size(kFiles); n++) {
        write(kFiles[n].name, kFiles[n].valid);
        g_content[n] = kFiles[n].valid;
    }
    atexit(cleanup);
    // Messages are formatted (their arguments are fuzzed too) but kept out of the output.
    log_capture_start();
    static const sensors_battery_config fast{1, 0, kDir, kFastFrequency, 0};
    g_long_lived = battery_new(&fast, &g_record);
    if (!g_long_lived)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    size_t n = 0;
    for (; n < std::size(kFiles); n++) {
        size_t cut = input.find(kSeparator);
        set(n, input.substr(0, cut));
        if (cut == std::string_view::npos) {
            n++;
            break;
        }
        input.remove_prefix(cut + kSeparator.size());
    }
    for (; n < std::size(kFiles); n++)
        set(n, kFiles[n].valid);

    sensors_battery_data record{};
    static const sensors_battery_config slow{1, 0, kDir, 1, 0};
    if (battery_ctx *battery = battery_new(&slow, &record)) {
        uint32_t mask = 0;
        int r = battery_read(battery, &mask);
        if (r != 0 && r != -ENODEV)
            abort();
        battery_destroy(battery);
    }
    // The long-lived module keeps "present" open from the start: it reads
    // the current content of the same file.
    wait_for_period();
    uint32_t mask = 0;
    int r = battery_read(g_long_lived, &mask);
    if (r != 0 && r != -ENODEV)
        abort();
    battery_tlm_push(g_long_lived);
    log_capture_take();
    return 0;
}
