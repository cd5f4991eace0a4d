// SPDX-License-Identifier: Apache-2.0
#include "platform/properties.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/limits.h>

#include "platform/paths.h"

namespace {

int copy_value(char *value, const char *src, size_t len)
{
    if (len > PROPERTY_VALUE_MAX - 1)
        len = PROPERTY_VALUE_MAX - 1;
    memcpy(value, src, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

FILE *open_properties()
{
    const char *path = secure_getenv(kPropertiesEnv);
    char relocated[PATH_MAX];
    if (!path || !*path) {
        if (platform_path(kPropertiesFile, relocated, sizeof relocated) != 0)
            return nullptr;
        path = relocated;
    }
    return fopen(path, "re");
}

} // namespace

int property_get(const char *key, char *value, const char *default_value)
{
    if (!value)
        return 0;
    const char *fallback = default_value ? default_value : "";
    if (!key || !*key)
        return copy_value(value, fallback, strlen(fallback));

    FILE *file = open_properties();
    if (!file)
        return copy_value(value, fallback, strlen(fallback));

    size_t key_len = strlen(key);
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    bool found = false;
    int len = 0;
    while ((n = getline(&line, &cap, file)) >= 0) {
        size_t end = size_t(n);
        while (end > 0 && (line[end - 1] == '\n' || line[end - 1] == '\r'))
            end--;
        size_t i = 0;
        while (i < end && is_blank(line[i]))
            i++;
        if (i == end || line[i] == '#')
            continue;
        char *eq = static_cast<char *>(memchr(line + i, '=', end - i));
        if (!eq)
            continue;
        size_t k_end = size_t(eq - line);
        while (k_end > i && is_blank(line[k_end - 1]))
            k_end--;
        if (k_end - i != key_len || memcmp(line + i, key, key_len) != 0)
            continue;
        // A NUL byte ends the value as the caller's C string would: the
        // length returned must be the string's.
        size_t v = size_t(eq - line) + 1;
        len = copy_value(value, line + v, strnlen(line + v, end - v));
        found = true;
    }
    free(line);
    fclose(file);
    if (!found)
        return copy_value(value, fallback, strlen(fallback));
    return len;
}
