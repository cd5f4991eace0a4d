// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as calibration files. The input is cut at each line "%%\n"
// into up to six files, in this order: field IMU bias, factory IMU bias, field
// IMU ortho, factory IMU ortho, barometer, magnetometer; a missing part is a
// missing file. Each set is created from them, applied to readings at
// temperatures inside and outside the characterised range, and destroyed.
#include <sensors/calib.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/log.h"
#include "platform/paths.h"
#include "private_dir.h"

namespace {

constexpr const char *kFiles[] = {
    "/data/flight_imu_thermal_bias",  "/factory/flight_imu_thermal_bias", "/data/flight_imu_thermal_ortho",
    "/factory/flight_imu_thermal_ortho", "/factory/flight_baro_thermal_bias", "/factory/flight_magneto_thermal_bias",
};
constexpr std::string_view kSeparator = "%%\n";
constexpr float kTemperatures[] = {-40.0f, 0.0f, 293.15f, 303.15f, 318.4f, 333.15f, 400.0f};

std::string g_root;
// The file's path under the private root, and what it holds now (absent
// when not present): a file is rewritten only when its content changes.
struct file_state {
    std::string path;
    bool present = false;
    std::string content;
};
file_state g_files[std::size(kFiles)];

void write_or_remove(file_state &file, const std::string_view *content)
{
    if (!content) {
        if (file.present)
            unlink(file.path.c_str());
        file.present = false;
        return;
    }
    if (file.present && file.content == *content)
        return;
    fuzz_write_file(file.path, *content);
    file.present = true;
    file.content = *content;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // A private root, whatever ORLUNE_ROOT the caller set: the files written
    // here must not land in the corpus directory.
    g_root = fuzz_private_dir("calib-fuzz");
    setenv(kRootEnv, g_root.c_str(), 1);
    std::filesystem::create_directories(g_root + "/data");
    std::filesystem::create_directories(g_root + "/factory");
    for (size_t i = 0; i < std::size(kFiles); i++) {
        char path[4096];
        if (platform_path(kFiles[i], path, sizeof path) != 0)
            abort();
        g_files[i].path = path;
    }
    // Messages are formatted (their arguments are fuzzed too) but kept out of the output.
    log_capture_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    std::string_view parts[6];
    size_t n = 0;
    while (n < 6) {
        size_t cut = input.find(kSeparator);
        parts[n++] = input.substr(0, cut);
        if (cut == std::string_view::npos)
            break;
        input.remove_prefix(cut + kSeparator.size());
    }
    for (size_t i = 0; i < 6; i++)
        write_or_remove(g_files[i], i < n ? &parts[i] : nullptr);

    if (imu_calib *imu = imu_calib_new()) {
        for (float t : kTemperatures) {
            sensors_imu_data d;
            memset(&d, 0, sizeof d);
            d.nb_samples = SENSORS_IMU_MAX_SAMPLES;
            for (int i = 0; i < SENSORS_IMU_MAX_SAMPLES; i++) {
                d.temperature[i] = t + static_cast<float>(i);
                for (int k = 0; k < 3; k++) {
                    d.gyro[i][k] = 0.1f * static_cast<float>(k + 1);
                    d.accel[i][k] = -9.81f + static_cast<float>(k);
                }
            }
            if (imu_calib_apply(imu, &d) != 0)
                abort();
        }
        imu_calib_destroy(imu);
    }
    if (baro_calib *baro = baro_calib_new()) {
        for (float t : kTemperatures) {
            sensors_baro_data b{};
            b.pressure = 101325.0f;
            b.temperature = t;
            if (baro_calib_apply(baro, &b) != 0)
                abort();
        }
        baro_calib_destroy(baro);
    }
    if (magneto_calib *magneto = magneto_calib_new()) {
        for (float t : kTemperatures) {
            float field[3] = {21.5f, -3.2f, 42.7f};
            if (magneto_calib_apply(magneto, field, t) != 0)
                abort();
        }
        magneto_calib_destroy(magneto);
    }
    log_capture_take();
    return 0;
}
