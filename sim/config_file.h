// SPDX-License-Identifier: Apache-2.0
// Reading the scenario file: the scenario itself and each simulated
// service's group in it go through one loader, so that every reader reports
// an unreadable file or a syntax error the same way.
#pragma once

#include <libconfig.h>

#include <functional>
#include <string>

namespace sim {

using config_parser = std::function<int(config_t *, std::string *)>;

// Parses the libconfig file at path and hands the tree to parse. An
// unreadable file gives -errno and "<path>: <reason>"; a syntax error -EINVAL
// and "<path>:<line>: <parser's text>".
int config_load_file(const char *path, const config_parser &parse, std::string *error);
// The same for text; a syntax error gives "<parser's text> (line <line>)".
int config_load_text(const char *text, const config_parser &parse, std::string *error);

// A number setting, written as an integer or a float, into *out; false (and
// *out untouched) for any other type. Each reader words its own complaint.
bool config_number(const config_setting_t *s, double *out);

} // namespace sim
