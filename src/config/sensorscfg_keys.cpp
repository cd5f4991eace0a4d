// SPDX-License-Identifier: Apache-2.0
// Typed key look-ups shared by every section reader.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "config/sensorscfg.h"

bool sensorscfg_key(char *out, const char *section, const char *key)
{
    int n = snprintf(out, kConfigKeyMax, "%s.%s", section, key);
    return n >= 0 && size_t(n) < kConfigKeyMax;
}

int sensorscfg_error(const char *key)
{
    log_msg(kConfigTag, LOG_ERR, "'%s' not found or incorrect type", key);
    return -EINVAL;
}

bool sensorscfg_lookup(const key_scope &scope, const char *key, cfg_type type, void *dst,
                       char (&full_key)[kConfigKeyMax])
{
    if (!sensorscfg_key(full_key, scope.name, key))
        return false;
    const config_setting_t *element = scope.element;
    // Default options: no automatic conversion, so an integer where a float
    // is asked (1 for 1.0) is a type mismatch, as wanted.
    switch (type) {
    case cfg_type::boolean:
    case cfg_type::integer: {
        int value = 0;
        bool found;
        if (type == cfg_type::boolean)
            found = element ? config_setting_lookup_bool(element, key, &value)
                            : config_lookup_bool(scope.tree, full_key, &value);
        else
            found = element ? config_setting_lookup_int(element, key, &value)
                            : config_lookup_int(scope.tree, full_key, &value);
        if (found)
            memcpy(dst, &value, sizeof value);
        return found;
    }
    case cfg_type::real32:
    case cfg_type::real64: {
        double value = 0;
        bool found = element ? config_setting_lookup_float(element, key, &value)
                             : config_lookup_float(scope.tree, full_key, &value);
        if (!found)
            return false;
        if (type == cfg_type::real32) {
            float narrow = static_cast<float>(value);
            memcpy(dst, &narrow, sizeof narrow);
        } else {
            memcpy(dst, &value, sizeof value);
        }
        return true;
    }
    case cfg_type::string: {
        const char *value = nullptr;
        bool found = element ? config_setting_lookup_string(element, key, &value)
                             : config_lookup_string(scope.tree, full_key, &value);
        if (found)
            memcpy(dst, &value, sizeof value);
        return found;
    }
    }
    return false;
}

int sensorscfg_read_keys(const key_scope &scope, void *sub_record, const key_rule *rules, size_t count)
{
    auto *base = static_cast<unsigned char *>(sub_record);
    for (size_t i = 0; i < count; i++) {
        const key_rule &rule = rules[i];
        char full_key[kConfigKeyMax];
        if (sensorscfg_lookup(scope, rule.key, rule.type, base + rule.offset, full_key))
            continue;
        if (rule.required)
            return sensorscfg_error(full_key);
        if (rule.type == cfg_type::integer)
            memcpy(base + rule.offset, &rule.fallback, sizeof rule.fallback);
    }
    return 0;
}
