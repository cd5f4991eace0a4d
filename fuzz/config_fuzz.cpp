// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as the sensor configuration file, through the exported
// constructor and destructor. The file lives in a private temporary directory
// named by LIBVIGIL_CFG_PATH; the process root is relocated there too, so the
// fallback file and the properties are looked up inside it.
#include <sensors/config.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/log.h"

namespace {

char g_dir[] = "/tmp/config_fuzz-XXXXXX";
char g_file[sizeof g_dir + 16];

void cleanup()
{
    unlink(g_file);
    rmdir(g_dir);
}

std::string prepare()
{
    char *dir = mkdtemp(g_dir);
    if (!dir)
        abort();
    snprintf(g_file, sizeof g_file, "%s/sensors.cfg", dir);
    atexit(cleanup);
    setenv("ORLUNE_ROOT", dir, 1);
    setenv("LIBVIGIL_CFG_PATH", g_file, 1);
    log_set_levels("none");
    return g_file;
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
    FILE *file = fopen(path.c_str(), "wb");
    if (!file)
        abort();
    if (size && fwrite(data, 1, size, file) != size)
        abort();
    fclose(file);

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
