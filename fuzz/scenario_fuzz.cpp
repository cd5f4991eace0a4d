// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as a scenario file of the virtual vehicle, parsed once as
// orlune-sim parses it, then read by every reader of it: the device, phase and
// fault lists, and the battery, vision, GPS and ultrasound groups. Whatever a
// reader takes must also validate or be refused with a message; a text that
// does not parse is refused with one too.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/battery.h"
#include "sim/config_file.h"
#include "sim/gps_daemon.h"
#include "sim/scenario.h"
#include "sim/ultrasound.h"
#include "sim/vision.h"

namespace {

// A reader's refusal always says why.
void check(int rc, const std::string &error)
{
    if (rc != 0 && error.empty())
        abort();
}

int read_all(config_t *cfg)
{
    std::string error;
    sim::scenario scn;
    const int rc = sim::scenario_from_config(cfg, &scn, &error);
    check(rc, error);
    if (rc == 0) {
        std::string why;
        check(sim::scenario_validate(scn, &why) == 0 ? 0 : -1, why);
    }
    sim::battery_settings battery;
    error.clear();
    check(sim::battery_settings_from(cfg, &battery, &error), error);
    sim::vision_settings vision;
    error.clear();
    check(sim::vision_settings_from(cfg, &vision, &error), error);
    sim::gps_settings gps;
    error.clear();
    check(sim::gps_settings_from(cfg, &gps, &error), error);
    sim::ultrasound_settings ultrasound;
    error.clear();
    check(sim::ultrasound_settings_from(cfg, &ultrasound, &error), error);
    return 0;
}

} // namespace

// libconfig 1.5 loses the buffer of a string token when a syntax error
// follows it; only its scanner's token buffers are ignored (see config_fuzz.cpp).
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:strbuf_append\nleak:libconfig_yylex\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string error;
    if (sim::config_load_text(text.c_str(), [](config_t *cfg, std::string *) { return read_all(cfg); }, &error) != 0 &&
        error.empty())
        abort();
    return 0;
}
