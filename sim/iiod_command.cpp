// SPDX-License-Identifier: Apache-2.0
#include "sim/iiod_command.h"

#include <array>
#include <cerrno>

namespace sim {
namespace {

constexpr size_t kMaxWords = 8;

struct keyword {
    std::string_view text;
    iiod_op op;
};

constexpr std::array<keyword, 16> kKeywords{{
    {"EXIT", iiod_op::exit},
    {"QUIT", iiod_op::exit},
    {"PRINT", iiod_op::print},
    {"ZPRINT", iiod_op::zprint},
    {"VERSION", iiod_op::version},
    {"HELP", iiod_op::help},
    {"TIMEOUT", iiod_op::timeout},
    {"READ", iiod_op::read},
    {"WRITE", iiod_op::write},
    {"GETTRIG", iiod_op::gettrig},
    {"SETTRIG", iiod_op::settrig},
    {"SET", iiod_op::set_buffers_count},
    {"OPEN", iiod_op::open},
    {"CLOSE", iiod_op::close},
    {"READBUF", iiod_op::readbuf},
    {"WRITEBUF", iiod_op::writebuf},
}};

bool same_word(std::string_view a, std::string_view upper)
{
    if (a.size() != upper.size())
        return false;
    for (size_t i = 0; i < a.size(); i++) {
        char c = a[i];
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
        if (c != upper[i])
            return false;
    }
    return true;
}

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

// Splits on runs of blanks; false when the line has more than kMaxWords words.
bool split(std::string_view line, std::array<std::string_view, kMaxWords> *words, size_t *count)
{
    *count = 0;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && is_space(line[i]))
            i++;
        if (i == line.size())
            break;
        size_t start = i;
        while (i < line.size() && !is_space(line[i]))
            i++;
        if (*count == kMaxWords)
            return false;
        (*words)[(*count)++] = line.substr(start, i - start);
    }
    return true;
}

// Plain decimal, as the client prints it; no sign, no overflow.
bool decimal(std::string_view s, uint64_t *out)
{
    if (s.empty() || s.size() > 19)
        return false;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    *out = v;
    return true;
}

bool scope_word(std::string_view w, attr_scope *scope)
{
    if (same_word(w, "DEBUG"))
        *scope = attr_scope::debug;
    else if (same_word(w, "BUFFER"))
        *scope = attr_scope::buffer;
    else if (same_word(w, "INPUT"))
        *scope = attr_scope::input;
    else if (same_word(w, "OUTPUT"))
        *scope = attr_scope::output;
    else
        return false;
    return true;
}

// READ/WRITE operands after the device: [scope [channel]] attr, with a
// trailing length for WRITE.
bool attribute_operands(const std::string_view *w, size_t n, bool has_length, iiod_command *cmd)
{
    if (has_length) {
        if (n == 0 || !decimal(w[n - 1], &cmd->number))
            return false;
        n--;
    }
    if (n == 0)
        return true; // read-all / write-all
    if (n == 1) {
        cmd->attr = w[0];
        return true;
    }
    if (!scope_word(w[0], &cmd->scope))
        return false;
    if (cmd->scope == attr_scope::debug || cmd->scope == attr_scope::buffer) {
        if (n != 2)
            return false;
        cmd->attr = w[1];
        return true;
    }
    if (n != 3)
        return false;
    cmd->channel = w[1];
    cmd->attr = w[2];
    return true;
}

} // namespace

iiod_command parse_iiod_command(std::string_view line)
{
    iiod_command cmd;
    std::array<std::string_view, kMaxWords> w;
    size_t n = 0;
    if (!split(line, &w, &n))
        return cmd;
    if (n == 0) {
        cmd.op = iiod_op::empty;
        return cmd;
    }
    iiod_op op = iiod_op::invalid;
    for (const keyword &k : kKeywords)
        if (same_word(w[0], k.text))
            op = k.op;
    bool ok = false;
    switch (op) {
    case iiod_op::exit:
    case iiod_op::print:
    case iiod_op::zprint:
    case iiod_op::version:
    case iiod_op::help:
        ok = n == 1;
        break;
    case iiod_op::timeout:
        ok = n == 2 && decimal(w[1], &cmd.number);
        break;
    case iiod_op::read:
    case iiod_op::write:
        if (n >= 2) {
            cmd.device = w[1];
            ok = attribute_operands(&w[2], n - 2, op == iiod_op::write, &cmd);
        }
        break;
    case iiod_op::gettrig:
    case iiod_op::close:
        ok = n == 2;
        cmd.device = w[1];
        break;
    case iiod_op::settrig:
        ok = n == 2 || n == 3;
        cmd.device = w[1];
        if (n == 3)
            cmd.trigger = w[2];
        break;
    case iiod_op::set_buffers_count:
        ok = n == 4 && same_word(w[2], "BUFFERS_COUNT") && decimal(w[3], &cmd.number);
        cmd.device = w[1];
        break;
    case iiod_op::open:
        ok = (n == 4 || (n == 5 && same_word(w[4], "CYCLIC"))) && decimal(w[2], &cmd.number);
        cmd.device = w[1];
        cmd.mask = w[3];
        cmd.cyclic = n == 5;
        break;
    case iiod_op::readbuf:
    case iiod_op::writebuf:
        ok = n == 3 && decimal(w[2], &cmd.number);
        cmd.device = w[1];
        break;
    default:
        break;
    }
    if (!ok)
        return iiod_command{};
    cmd.op = op;
    return cmd;
}

int parse_iiod_mask(std::string_view text, size_t channel_count, uint64_t *mask)
{
    const size_t words = (channel_count + 31) / 32;
    if (words == 0 || text.size() != words * 8)
        return -EINVAL;
    uint64_t value = 0;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return -EINVAL;
        const size_t bit = (text.size() - 1 - i) * 4; // of the nibble's lowest bit
        for (unsigned b = 0; b < 4; b++) {
            if (!(digit & (1u << b)))
                continue;
            if (bit + b >= channel_count || bit + b >= 64)
                return -EINVAL;
            value |= uint64_t{1} << (bit + b);
        }
    }
    *mask = value;
    return 0;
}

} // namespace sim
