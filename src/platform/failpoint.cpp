// SPDX-License-Identifier: Apache-2.0
#include "platform/failpoint.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#if ORLUNE_FAILPOINTS

namespace {

constexpr size_t kMaxPoints = 16;
constexpr size_t kNameMax = 48;

struct point {
    char name[kNameMax];
    int err;
    int remaining; // < 0: unlimited
    int fired;
    bool armed;
};

struct registry {
    std::mutex lock;
    std::atomic<int> armed{0};
    point points[kMaxPoints] = {};
};

point *find(registry &r, const char *name)
{
    for (point &p : r.points)
        if (p.name[0] && strcmp(p.name, name) == 0)
            return &p;
    return nullptr;
}

int arm_locked(registry &r, const char *name, int err, int count)
{
    if (!name || !*name || strlen(name) >= kNameMax || err >= 0 || count == 0)
        return -EINVAL;
    point *p = find(r, name);
    if (!p) {
        for (point &candidate : r.points)
            if (!candidate.name[0]) {
                p = &candidate;
                break;
            }
        if (!p)
            return -ENOSPC;
        strcpy(p->name, name);
    }
    if (!p->armed)
        r.armed.fetch_add(1);
    p->err = err;
    p->remaining = count;
    p->fired = 0;
    p->armed = true;
    return 0;
}

void arm_from_env(registry &r, const char *spec)
{
    char item[128];
    while (*spec) {
        size_t len = strcspn(spec, ",");
        if (len > 0 && len < sizeof item) {
            memcpy(item, spec, len);
            item[len] = '\0';
            char *eq = strchr(item, '=');
            int count = -1;
            int err = 0;
            if (eq) {
                *eq = '\0';
                char *colon = strchr(eq + 1, ':');
                if (colon)
                    count = atoi(colon + 1);
                err = atoi(eq + 1);
            }
            if (arm_locked(r, item, err, count) != 0)
                fprintf(stderr, "fail points: ignoring '%.*s' in %s\n", static_cast<int>(len), spec, kFailpointsEnv);
        }
        spec += len;
        if (*spec == ',')
            spec++;
    }
}

// Static storage rather than the heap: the plug-in can be unloaded.
registry &reg()
{
    static registry r;
    static const bool armed_from_env = [] {
        if (const char *spec = secure_getenv(kFailpointsEnv))
            arm_from_env(r, spec);
        return true;
    }();
    (void)armed_from_env;
    return r;
}

void disarm_locked(registry &r, point &p)
{
    if (p.armed)
        r.armed.fetch_sub(1);
    p.armed = false;
}

} // namespace

int failpoint_check(const char *name)
{
    registry &r = reg();
    if (r.armed.load(std::memory_order_relaxed) == 0 || !name)
        return 0;
    std::lock_guard<std::mutex> lock(r.lock);
    point *p = find(r, name);
    if (!p || !p->armed)
        return 0;
    p->fired++;
    int err = p->err;
    if (p->remaining > 0 && --p->remaining == 0)
        disarm_locked(r, *p);
    return err;
}

int failpoint_arm(const char *name, int err, int count)
{
    registry &r = reg();
    std::lock_guard<std::mutex> lock(r.lock);
    return arm_locked(r, name, err, count);
}

void failpoint_disarm(const char *name)
{
    registry &r = reg();
    std::lock_guard<std::mutex> lock(r.lock);
    if (point *p = name ? find(r, name) : nullptr)
        disarm_locked(r, *p);
}

void failpoint_disarm_all()
{
    registry &r = reg();
    std::lock_guard<std::mutex> lock(r.lock);
    for (point &p : r.points)
        disarm_locked(r, p);
}

int failpoint_fired(const char *name)
{
    registry &r = reg();
    std::lock_guard<std::mutex> lock(r.lock);
    point *p = name ? find(r, name) : nullptr;
    return p ? p->fired : 0;
}

#else // a build without fail points

int failpoint_arm(const char *, int, int)
{
    return -ENOSYS;
}

void failpoint_disarm(const char *) {}

void failpoint_disarm_all() {}

int failpoint_fired(const char *)
{
    return 0;
}

#endif
