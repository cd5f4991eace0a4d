// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as a scenario file of the virtual vehicle: the device,
// phase and fault lists, then the battery, GPS, ultrasound and vision groups
// read from the same text, as orlune-sim reads them at start-up. Whatever
// parses must also validate or be refused with a message.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "private_dir.h"
#include "sim/battery.h"
#include "sim/gps_daemon.h"
#include "sim/scenario.h"
#include "sim/ultrasound.h"
#include "sim/vision.h"

namespace {

std::string g_path;

} // namespace

// libconfig 1.5 loses the buffer of a string token when a syntax error
// follows it; only its scanner's token buffers are ignored (see config_fuzz.cpp).
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:strbuf_append\nleak:libconfig_yylex\n";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_path = fuzz_private_dir("scenario-fuzz") + "/scenario.cfg";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string error;

    sim::scenario scn;
    if (sim::scenario_parse(text.c_str(), &scn, &error) == 0) {
        std::string why;
        if (sim::scenario_validate(scn, &why) != 0 && why.empty())
            abort(); // a refusal always says why
    } else if (error.empty()) {
        abort();
    }

    sim::battery_settings battery;
    error.clear();
    if (sim::battery_settings_parse(text.c_str(), &battery, &error) != 0 && error.empty())
        abort();
    sim::vision_settings vision;
    error.clear();
    if (sim::vision_settings_parse(text.c_str(), &vision, &error) != 0 && error.empty())
        abort();

    // The GPS and ultrasound groups are read from the file itself.
    FILE *f = fopen(g_path.c_str(), "wb");
    if (!f)
        abort();
    if (size && fwrite(data, 1, size, f) != size)
        abort();
    fclose(f);
    sim::gps_settings gps;
    error.clear();
    if (sim::gps_settings_load(g_path, &gps, &error) != 0 && error.empty())
        abort();
    sim::ultrasound_settings ultrasound;
    error.clear();
    if (sim::ultrasound_settings_load(g_path, &ultrasound, &error) != 0 && error.empty())
        abort();
    return 0;
}
