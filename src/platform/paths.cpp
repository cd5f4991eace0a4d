// SPDX-License-Identifier: Apache-2.0
#include "platform/paths.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int platform_path(const char *fixed, char *out, size_t size)
{
    if (!fixed || fixed[0] != '/' || !out || size == 0)
        return -EINVAL;
    const char *root = secure_getenv(kRootEnv);
    if (!root)
        root = "";
    size_t root_len = strlen(root);
    while (root_len > 0 && root[root_len - 1] == '/')
        root_len--;
    int n = snprintf(out, size, "%.*s%s", static_cast<int>(root_len), root, fixed);
    if (n < 0 || size_t(n) >= size) {
        out[0] = '\0';
        return -ENAMETOOLONG;
    }
    return 0;
}
