// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as the sensor configuration file, through the exported
// constructor and destructor. The file lives in a private temporary directory
// named by LIBVIGIL_CFG_PATH; the process root is relocated there too, so the
// fallback file and the properties are looked up inside it.
#include <sensors/config.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/log.h"
#include "private_dir.h"

namespace {

std::string prepare()
{
    const std::string &dir = fuzz_private_dir("config-fuzz");
    setenv("ORLUNE_ROOT", dir.c_str(), 1);
    setenv("LIBVIGIL_CFG_PATH", (dir + "/sensors.cfg").c_str(), 1);
    log_set_levels("none");
    return dir + "/sensors.cfg";
}

} // namespace

// libconfig 1.5 loses the buffer of a string token when a syntax error
// follows it (config_init, config_read_string, config_destroy alone leak 64
// bytes on 'a = { b"= 1;\n c = "h"; };', and the 1-byte empty string its
// scanner makes on 'a = { b"" = 1; };'). Only those token buffers are
// ignored: the tree's own nodes, which we must release, are allocated by the
// parser, not by the scanner.
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:strbuf_append\nleak:libconfig_yylex\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = prepare();
    fuzz_write_file(path, std::string_view(reinterpret_cast<const char *>(data), size));

    // Every kind accepted on odd inputs, none on even ones: both filter paths run.
    const uint32_t mask = size % 2 ? SENSORS_KIND_ALL : 0;
    const sensors_probe_header header{mask, mask};
    sensors_config *config = sensors_config_new(&header);
    if (config) {
        // Touch the borrowed strings so that a dangling one is caught here.
        volatile size_t sum = 0;
        for (const char *s : {config->baro.device, config->imu.device, config->imu.tlm_section,
                              config->imu_vcam.tlm_section, config->magneto.device, config->tof.type})
            for (const char *p = s; p && *p; p++)
                sum = sum + size_t(*p);
        for (int64_t i = 0; i < config->imu.thread_cfg_count; i++)
            sum = sum + size_t(config->imu.thread_cfg[i][0]);
    }
    sensors_config_destroy(config);
    return 0;
}
