// SPDX-License-Identifier: Apache-2.0
// The iiod server's request parser on arbitrary bytes: every line, split as
// the server splits its input, must parse into a well-formed command whose
// parts lie inside the line, and every mask must parse or be refused.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "sim/iiod_command.h"

namespace {

bool inside(std::string_view part, std::string_view line)
{
    return part.empty() || (part.data() >= line.data() && part.data() + part.size() <= line.data() + line.size());
}

void check(std::string_view line)
{
    const sim::iiod_command cmd = sim::parse_iiod_command(line);
    for (std::string_view part : {cmd.device, cmd.channel, cmd.attr, cmd.trigger, cmd.mask})
        if (!inside(part, line))
            std::abort();
    if (cmd.op == sim::iiod_op::open) {
        uint64_t mask = 0;
        for (size_t channels : {1u, 8u, 32u, 33u, 64u, 70u})
            if (sim::parse_iiod_mask(cmd.mask, channels, &mask) == 0 && channels < 64 && (mask >> channels))
                std::abort(); // a bit beyond the device's channels
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    while (!input.empty()) {
        const size_t nl = input.find('\n');
        std::string_view line = input.substr(0, nl);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        check(line);
        if (nl == std::string_view::npos)
            break;
        input.remove_prefix(nl + 1);
    }
    return 0;
}
