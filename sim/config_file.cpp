// SPDX-License-Identifier: Apache-2.0
#include "sim/config_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace sim {

namespace {

int set_error(std::string *error, const std::string &what)
{
    if (error)
        *error = what;
    return -EINVAL;
}

} // namespace

int config_load_file(const char *path, const config_parser &parse, std::string *error)
{
    if (!path || access(path, R_OK) != 0) {
        int err = path && errno ? errno : ENOENT;
        if (error)
            *error = std::string(path ? path : "(null)") + ": " + std::strerror(err);
        return -err;
    }
    config_t cfg;
    config_init(&cfg);
    int rc;
    if (!config_read_file(&cfg, path)) {
        const char *why = config_error_text(&cfg); // null for an unreadable file
        rc = set_error(error, std::string(path) + ":" + std::to_string(config_error_line(&cfg)) + ": " +
                                  (why ? why : "cannot be read"));
    } else {
        rc = parse(&cfg, error);
    }
    config_destroy(&cfg);
    return rc;
}

int config_load_text(const char *text, const config_parser &parse, std::string *error)
{
    config_t cfg;
    config_init(&cfg);
    int rc;
    if (!text || !config_read_string(&cfg, text)) {
        const char *why = text ? config_error_text(&cfg) : "no text";
        rc = set_error(error, std::string(why ? why : "syntax error") + " (line " +
                                  std::to_string(config_error_line(&cfg)) + ")");
    } else {
        rc = parse(&cfg, error);
    }
    config_destroy(&cfg);
    return rc;
}

bool config_number(const config_setting_t *s, double *out)
{
    switch (config_setting_type(s)) {
    case CONFIG_TYPE_INT:
    case CONFIG_TYPE_INT64:
        *out = double(config_setting_get_int64(s));
        return true;
    case CONFIG_TYPE_FLOAT:
        *out = config_setting_get_float(s);
        return true;
    default:
        return false;
    }
}

} // namespace sim
