// SPDX-License-Identifier: Apache-2.0
#include "platform/trust.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/properties.h"

namespace {

constexpr log_tag kTag{"trust"};

void add(trust_policy *p, uid_t uid)
{
    if (!trust_allows(p, uid))
        p->uids[p->count++] = uid;
}

} // namespace

void trust_policy_load(trust_policy *out)
{
    if (!out)
        return;
    out->count = 0;
    add(out, 0);
    add(out, geteuid());
    char value[PROPERTY_VALUE_MAX];
    property_get(kTrustedUidsProperty, value, "");
    size_t listed = 0;
    char *state = nullptr;
    for (char *item = strtok_r(value, ", \t", &state); item; item = strtok_r(nullptr, ", \t", &state)) {
        char *end = nullptr;
        errno = 0;
        unsigned long uid = strtoul(item, &end, 10);
        if (*item < '0' || *item > '9' || *end || errno || uid >= uid_t(-1)) {
            log_msg(kTag, LOG_ERR, "%s: \"%s\" is not a user id: ignored", kTrustedUidsProperty, item);
            continue;
        }
        if (listed == kTrustMaxUids) {
            log_msg(kTag, LOG_ERR, "%s: more than %zu users: %s and those after it ignored", kTrustedUidsProperty,
                    kTrustMaxUids, item);
            break;
        }
        listed++;
        add(out, uid_t(uid));
    }
}

bool trust_allows(const trust_policy *policy, uid_t uid)
{
    if (!policy)
        return false;
    for (uint32_t i = 0; i < policy->count; i++)
        if (policy->uids[i] == uid)
            return true;
    return false;
}

int trust_check_fd(const trust_policy *policy, int fd, bool directory, const char *what, char *reason,
                   size_t size)
{
    if (!policy || !what || !reason || size == 0)
        return -EINVAL;
    reason[0] = '\0';
    struct stat st;
    if (fstat(fd, &st) < 0)
        return -errno;
    unsigned mode = unsigned(st.st_mode & 07777);
    if (!trust_allows(policy, st.st_uid)) {
        snprintf(reason, size, "%s is owned by uid %u, not a trusted user", what, unsigned(st.st_uid));
        return -EPERM;
    }
    bool shared = (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (directory && shared && !(st.st_mode & S_ISVTX)) {
        snprintf(reason, size, "%s is writable by others and not sticky (mode %04o)", what, mode);
        return -EPERM;
    }
    if (!directory && shared) {
        snprintf(reason, size, "%s is writable by others (mode %04o)", what, mode);
        return -EPERM;
    }
    return 0;
}
