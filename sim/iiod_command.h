// SPDX-License-Identifier: Apache-2.0
// One request line of the iiod network protocol, split into its parts. Pure
// parsing: no state, no I/O, so it can be fuzzed on its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sim {

enum class iiod_op {
    empty,   // a blank line: no reply
    invalid, // syntax error or unknown command: one -EINVAL reply
    exit,    // EXIT or QUIT: no reply, the connection ends
    print,
    zprint,
    version,
    help,
    timeout,
    read,
    write,
    gettrig,
    settrig,
    set_buffers_count,
    open,
    close,
    readbuf,
    writebuf,
};

enum class attr_scope { device, debug, buffer, input, output };

struct iiod_command {
    iiod_op op = iiod_op::invalid;
    std::string_view device;
    std::string_view channel; // INPUT/OUTPUT attributes
    std::string_view attr;    // empty for the read-all / write-all forms
    std::string_view trigger; // SETTRIG; empty detaches
    std::string_view mask;    // OPEN
    attr_scope scope = attr_scope::device;
    // TIMEOUT ms, WRITE length, OPEN samples, READBUF/WRITEBUF bytes, BUFFERS_COUNT.
    uint64_t number = 0;
    bool cyclic = false;
};

// The line without its end of line ("\r\n" or "\n").
iiod_command parse_iiod_command(std::string_view line);

// Parses an OPEN/READBUF channel mask: `words` groups of 8 hex digits, most
// significant word first. Returns 0 with the low 64 bits in *mask, or -EINVAL
// for a wrong length, a non-hex digit or a bit at or beyond channel_count.
int parse_iiod_mask(std::string_view text, size_t channel_count, uint64_t *mask);

} // namespace sim
