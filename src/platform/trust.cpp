// SPDX-License-Identifier: Apache-2.0
#include "platform/trust.h"

#include <fcntl.h>
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

// Calls take(id) for each decimal id listed by property, at most max of them;
// the others are logged and left out.
template <typename Take>
void parse_ids(const char *property, const char *kind, size_t max, Take take)
{
    char value[PROPERTY_VALUE_MAX];
    property_get(property, value, "");
    size_t listed = 0;
    char *state = nullptr;
    for (char *item = strtok_r(value, ", \t", &state); item; item = strtok_r(nullptr, ", \t", &state)) {
        char *end = nullptr;
        errno = 0;
        unsigned long id = strtoul(item, &end, 10);
        if (*item < '0' || *item > '9' || *end || errno || id >= uid_t(-1)) {
            log_msg(kTag, LOG_ERR, "%s: \"%s\" is not a %s id: ignored", property, item, kind);
            continue;
        }
        if (listed == max) {
            log_msg(kTag, LOG_ERR, "%s: more than %zu %ss: %s and those after it ignored", property, max, kind,
                    item);
            break;
        }
        listed++;
        take(id);
    }
}

} // namespace

void trust_policy_load(trust_policy *out)
{
    if (!out)
        return;
    out->count = 0;
    out->gid_count = 0;
    add(out, 0);
    add(out, geteuid());
    parse_ids(kTrustedUidsProperty, "user", kTrustMaxUids, [out](unsigned long uid) { add(out, uid_t(uid)); });
    parse_ids(kTrustedGidsProperty, "group", kTrustMaxGids,
              [out](unsigned long gid) { out->gids[out->gid_count++] = gid_t(gid); });
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
    bool group_trusted = false;
    for (uint32_t i = 0; i < policy->gid_count && i < kTrustMaxGids; i++)
        group_trusted = group_trusted || policy->gids[i] == st.st_gid;
    bool shared = (st.st_mode & S_IWOTH) || ((st.st_mode & S_IWGRP) && !group_trusted);
    if (directory && shared && !(st.st_mode & S_ISVTX)) {
        snprintf(reason, size, "%s is writable by others and not sticky (mode %04o)", what, mode);
        return -EPERM;
    }
    if (!directory && (st.st_mode & (S_IWGRP | S_IWOTH))) {
        snprintf(reason, size, "%s is writable by others (mode %04o)", what, mode);
        return -EPERM;
    }
    return 0;
}

int trust_open_dir(const trust_policy *policy, const char *path, bool create, char *reason, size_t size)
{
    if (!policy || !path || !*path || !reason || size == 0)
        return -EINVAL;
    reason[0] = '\0';
    int fd = open(path[0] == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    // The directory reached so far, named by the path up to it.
    char what[512];
    auto check = [&](int dir_fd, const char *end) {
        int n = end == path ? snprintf(what, sizeof what, "directory %s", path[0] == '/' ? "/" : ".")
                            : snprintf(what, sizeof what, "directory %.*s", int(end - path), path);
        if (n < 0 || size_t(n) >= sizeof what)
            return -ENAMETOOLONG;
        return trust_check_fd(policy, dir_fd, true, what, reason, size);
    };
    int r = check(fd, path);
    for (const char *p = path; r == 0;) {
        while (*p == '/')
            p++;
        size_t n = strcspn(p, "/");
        if (n == 0)
            break;
        char name[256];
        if (n >= sizeof name) {
            r = -ENAMETOOLONG;
            break;
        }
        memcpy(name, p, n);
        name[n] = '\0';
        p += n;
        bool last = p[strspn(p, "/")] == '\0';
        int next = openat(fd, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0 && errno == ENOENT && last && create) {
            if (mkdirat(fd, name, 0755) < 0 && errno != EEXIST) {
                r = -errno;
                break;
            }
            next = openat(fd, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }
        if (next < 0) {
            r = -errno;
            struct stat st;
            if ((r == -ENOTDIR || r == -ELOOP) && fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISLNK(st.st_mode)) {
                snprintf(reason, size, "directory component %.*s is a symbolic link", int(p - path), path);
                r = -EPERM;
            }
            break;
        }
        close(fd);
        fd = next;
        r = check(fd, p);
    }
    if (r < 0) {
        close(fd);
        return r;
    }
    return fd;
}

trust_report trust_refusal_seen(trust_refusals *refusals, const char *reason)
{
    if (!refusals || !reason || refusals->reported >= kTrustRefusalReports ||
        strncmp(refusals->last, reason, sizeof refusals->last) == 0)
        return trust_report::quiet;
    snprintf(refusals->last, sizeof refusals->last, "%s", reason);
    return ++refusals->reported == kTrustRefusalReports ? trust_report::last : trust_report::log;
}

bool trust_refusals_clear(trust_refusals *refusals)
{
    if (!refusals)
        return false;
    bool reported = refusals->reported > 0;
    refusals->reported = 0;
    refusals->last[0] = '\0';
    return reported;
}
