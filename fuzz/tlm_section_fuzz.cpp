// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary section files to a consumer (a struct and an array
// registration) and to the inspection view the inspector tool uses.
#include <sensors/sensor_tlm.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/log.h"
#include "platform/shm_telemetry.h"
#include "private_dir.h"

namespace {

struct wanted {
    float value;
    uint32_t count;
    double height[2];
};

const tlm_field_desc kFields[] = {
    {offsetof(wanted, value), "value", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(wanted, count), "count", TLM_TYPE_UINT32, 0, 4, 1, {}},
    {offsetof(wanted, height), "est.height", TLM_TYPE_DOUBLE, 0, 8, 2, {}},
};
const tlm_struct_desc kDesc{0, 3, kFields};

// The section file in a private directory for the run, removed at exit.
const std::string &section_file()
{
    static const std::string file = [] {
        const std::string &dir = fuzz_private_dir("tlm-fuzz");
        setenv(kTlmDirEnv, dir.c_str(), 1);
        log_set_levels("none");
        return dir + "/fuzz" + kTlmFileSuffix;
    }();
    return file;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_write_file(section_file(), std::string_view(reinterpret_cast<const char *>(data), size));

    wanted w{};
    timespec ts{};
    shm_consumer *c = consumer_create();
    consumer_register_struct(c, &w, "fuzz", &kDesc);
    consumer_complete(c);
    consumer_get_sample_at(c, nullptr, 0, &ts);
    consumer_destroy(c);

    float values[4];
    timespec times[4];
    const tlm_array_entry entry{values, "fuzz.value", TLM_TYPE_FLOAT, 0, 4, 1, 4, times};
    uint32_t before = 0;
    uint32_t after = 0;
    c = consumer_create();
    consumer_register_array(c, &entry, 1);
    consumer_complete(c);
    consumer_get_samples(c, nullptr, 0, 3, 0, &before, &after);
    consumer_destroy(c);

    tlm_section_view view;
    if (tlm_view_open("fuzz", &view) == 0) {
        tlm_field_info info;
        for (uint32_t i = 0; i < view.field_count; i++)
            tlm_view_field(&view, i, &info);
        static uint8_t sample[kTlmMaxSampleSize];
        uint64_t written = tlm_view_written(&view);
        for (uint64_t n = written > 3 ? written - 3 : 0; n < written; n++)
            tlm_view_read(&view, n, sample, sizeof sample, &ts);
        tlm_view_close(&view);
    }
    return 0;
}
