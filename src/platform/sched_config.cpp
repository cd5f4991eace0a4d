// SPDX-License-Identifier: Apache-2.0
#include "platform/sched_config.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <linux/limits.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/failpoint.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/trust.h"

namespace {

constexpr log_tag kTag{"sched_config"};
constexpr size_t kMaxEntries = 64;
// Threads of untrusted users named in full per apply; the rest are counted.
constexpr int kMaxUntrustedReports = 3;

struct policy_name {
    const char *name;
    int policy;
};
constexpr policy_name kPolicies[] = {
    {"other", SCHED_OTHER}, {"batch", SCHED_BATCH}, {"idle", SCHED_IDLE}, {"fifo", SCHED_FIFO}, {"rr", SCHED_RR},
};

bool parse_policy(const char *text, int *policy)
{
    for (const policy_name &p : kPolicies)
        if (strcmp(p.name, text) == 0) {
            *policy = p.policy;
            return true;
        }
    return false;
}

bool parse_int(const char *text, long lo, long hi, long *out)
{
    char *end;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno || end == text || *end || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

bool parse_cpus(char *text, cpu_set_t *set)
{
    CPU_ZERO(set);
    char *save = nullptr;
    for (char *item = strtok_r(text, ",", &save); item; item = strtok_r(nullptr, ",", &save)) {
        char *dash = strchr(item, '-');
        long lo, hi;
        if (dash) {
            *dash = '\0';
            if (!parse_int(item, 0, CPU_SETSIZE - 1, &lo) || !parse_int(dash + 1, 0, CPU_SETSIZE - 1, &hi) || hi < lo)
                return false;
        } else if (!parse_int(item, 0, CPU_SETSIZE - 1, &lo)) {
            return false;
        } else {
            hi = lo;
        }
        for (long c = lo; c <= hi; c++)
            CPU_SET(c, set);
    }
    return CPU_COUNT(set) > 0;
}

int apply_to(pid_t tid, const sched_entry &e)
{
    sched_param param{};
    param.sched_priority = e.priority;
    if (sched_setscheduler(tid, e.policy, &param) != 0)
        return -errno;
    if (e.set_cpus && sched_setaffinity(tid, sizeof e.cpus, &e.cpus) != 0)
        return -errno;
    return 0;
}

bool read_comm(const char *path, char *out, size_t size)
{
    FILE *f = fopen(path, "re");
    if (!f)
        return false;
    bool ok = fgets(out, int(size), f) != nullptr;
    fclose(f);
    if (ok)
        out[strcspn(out, "\n")] = '\0';
    return ok;
}

enum class thread_owner { gone, trusted, untrusted };

// Judges a thread by its credentials as its task status gives them: both its
// real and its effective user must be trusted (kernel threads run as root).
// Not by the owner of /proc/<pid>, which shows as root for any process that
// made itself not dumpable. *uid is the untrusted one of the two.
thread_owner judge_thread(const trust_policy &policy, const char *status_path, uid_t *uid)
{
    int fd = open(status_path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return thread_owner::gone;
    // "Uid:" comes a few short lines after "Name:", well within the first read.
    char status[1024];
    ssize_t n = read(fd, status, sizeof status - 1);
    close(fd);
    if (n <= 0)
        return thread_owner::gone;
    status[n] = '\0';
    const char *line = strstr(status, "\nUid:");
    unsigned real, effective;
    if (!line || sscanf(line, "\nUid: %u %u", &real, &effective) != 2)
        return thread_owner::gone; // no credentials to judge it by
    bool real_trusted = trust_allows(&policy, uid_t(real));
    *uid = uid_t(real_trusted ? effective : real);
    return real_trusted && trust_allows(&policy, uid_t(effective)) ? thread_owner::trusted : thread_owner::untrusted;
}

// Applies e to the threads whose name matches its glob and that the host may
// tune: kernel threads, the host's own, and those of trusted users. A thread
// that ends meanwhile is gone, not an error, and does not count as matched.
int apply_to_matching(const sched_entry &e)
{
    trust_policy policy;
    trust_policy_load(&policy);
    char self[16];
    snprintf(self, sizeof self, "%d", int(getpid()));
    DIR *proc = opendir("/proc");
    if (!proc)
        return -errno;
    int matched = 0;
    int untrusted = 0;
    int result = 0;
    while (dirent *p = readdir(proc)) {
        if (p->d_name[0] < '0' || p->d_name[0] > '9')
            continue;
        bool own = strcmp(p->d_name, self) == 0;
        char task_dir[300];
        snprintf(task_dir, sizeof task_dir, "/proc/%s/task", p->d_name);
        DIR *tasks = opendir(task_dir);
        if (!tasks)
            continue; // the process ended meanwhile
        while (dirent *t = readdir(tasks)) {
            if (t->d_name[0] < '0' || t->d_name[0] > '9')
                continue;
            char path[600];
            char comm[64];
            snprintf(path, sizeof path, "%s/%s/comm", task_dir, t->d_name);
            if (!read_comm(path, comm, sizeof comm) || fnmatch(e.threads, comm, 0) != 0)
                continue;
            if (!own) {
                snprintf(path, sizeof path, "%s/%s/status", task_dir, t->d_name);
                uid_t uid = 0;
                thread_owner owner = judge_thread(policy, path, &uid);
                if (owner == thread_owner::gone)
                    continue;
                if (owner == thread_owner::untrusted) {
                    if (untrusted++ < kMaxUntrustedReports)
                        log_msg(kTag, LOG_WARNING, "%s: thread %s (%s) runs as uid %u, not a trusted user: left alone",
                                e.name, t->d_name, comm, unsigned(uid));
                    continue;
                }
            }
            int r = apply_to(pid_t(atoi(t->d_name)), e);
            if (r == -ESRCH)
                continue; // the thread ended meanwhile
            matched++;
            if (r < 0 && result == 0)
                result = r;
        }
        closedir(tasks);
    }
    closedir(proc);
    if (untrusted > kMaxUntrustedReports)
        log_msg(kTag, LOG_WARNING, "%s: and %d more %s of untrusted users: left alone", e.name,
                untrusted - kMaxUntrustedReports, untrusted - kMaxUntrustedReports == 1 ? "thread" : "threads");
    if (matched == 0)
        return -ESRCH;
    return result;
}

} // namespace

struct sched_config {
    size_t count;
    sched_entry entries[kMaxEntries];
};

sched_config *sched_config_new()
{
    return new (std::nothrow) sched_config{};
}

void sched_config_destroy(sched_config *config)
{
    delete config;
}

size_t sched_config_count(const sched_config *config)
{
    return config ? config->count : 0;
}

int sched_config_add(sched_config *config, const sched_entry &entry)
{
    if (!config || !entry.name[0])
        return -EINVAL;
    for (size_t i = 0; i < config->count; i++)
        if (strcmp(config->entries[i].name, entry.name) == 0) {
            config->entries[i] = entry;
            return 0;
        }
    if (config->count == kMaxEntries)
        return -ENOSPC;
    config->entries[config->count++] = entry;
    return 0;
}

int sched_config_parse_line(const char *line, sched_entry *entry)
{
    if (!line || !entry)
        return -EINVAL;
    char buf[256];
    size_t len = strcspn(line, "#\r\n");
    if (len >= sizeof buf)
        return -EINVAL;
    memcpy(buf, line, len);
    buf[len] = '\0';
    char *fields[6];
    int n = 0;
    char *save = nullptr;
    for (char *f = strtok_r(buf, " \t", &save); f; f = strtok_r(nullptr, " \t", &save)) {
        if (n == 6)
            return -EINVAL;
        fields[n++] = f;
    }
    if (n == 0)
        return 1;
    if (n != 5)
        return -EINVAL;
    sched_entry e{};
    long priority;
    if (strlen(fields[0]) >= sizeof e.name || strlen(fields[4]) >= sizeof e.threads ||
        !parse_policy(fields[1], &e.policy) || !parse_int(fields[2], 0, 99, &priority))
        return -EINVAL;
    bool realtime = e.policy == SCHED_FIFO || e.policy == SCHED_RR;
    if (realtime != (priority > 0))
        return -EINVAL;
    e.priority = int(priority);
    if (strcmp(fields[3], "-") != 0) {
        if (!parse_cpus(fields[3], &e.cpus))
            return -EINVAL;
        e.set_cpus = true;
    }
    strcpy(e.name, fields[0]);
    strcpy(e.threads, fields[4]);
    *entry = e;
    return 0;
}

sched_config *sched_config_load(const char *path)
{
    FILE *f = path ? fopen(path, "re") : nullptr;
    if (!f) {
        log_msg(kTag, LOG_ERR, "can't open scheduling configuration '%s': %s", path ? path : "(null)",
                strerror(path ? errno : EINVAL));
        return nullptr;
    }
    sched_config *config = sched_config_new();
    char *line = nullptr;
    size_t cap = 0;
    int lineno = 0;
    while (config && getline(&line, &cap, f) >= 0) {
        lineno++;
        sched_entry e;
        int r = sched_config_parse_line(line, &e);
        if (r == 1)
            continue;
        if (r == 0)
            r = sched_config_add(config, e);
        if (r < 0) {
            log_msg(kTag, LOG_ERR, "%s:%d: invalid scheduling configuration line", path, lineno);
            sched_config_destroy(config);
            config = nullptr;
        }
    }
    free(line);
    fclose(f);
    return config;
}

int sched_config_apply(sched_config *config, const char *name)
{
    if (!name)
        return -EINVAL;
    if (int err = failpoint_check("sched_config_apply"))
        return err;
    if (!config)
        return 0;
    for (size_t i = 0; i < config->count; i++) {
        const sched_entry &e = config->entries[i];
        if (strcmp(e.name, name) != 0)
            continue;
        if (strcmp(e.threads, "self") == 0)
            return apply_to(pid_t(syscall(SYS_gettid)), e);
        return apply_to_matching(e);
    }
    return -ENOENT;
}

void sched_describe_self(char *out, size_t size)
{
    if (!out || size == 0)
        return;
    const int policy = sched_getscheduler(0);
    const char *name = "unknown";
    for (const policy_name &p : kPolicies)
        if (p.policy == policy)
            name = p.name;
    sched_param param{};
    sched_getparam(0, &param);
    int n = policy == SCHED_FIFO || policy == SCHED_RR ? snprintf(out, size, "%s %d", name, param.sched_priority)
                                                        : snprintf(out, size, "%s", name);
    cpu_set_t set;
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    if (n < 0 || size_t(n) >= size || sched_getaffinity(0, sizeof set, &set) != 0 || CPU_COUNT(&set) >= online)
        return;
    const char *sep = " on CPUs ";
    for (int c = 0; c < CPU_SETSIZE && size_t(n) < size; c++) {
        if (!CPU_ISSET(c, &set))
            continue;
        int last = c;
        while (last + 1 < CPU_SETSIZE && CPU_ISSET(last + 1, &set))
            last++;
        n += last > c ? snprintf(out + n, size - size_t(n), "%s%d-%d", sep, c, last)
                      : snprintf(out + n, size - size_t(n), "%s%d", sep, c);
        sep = ",";
        c = last;
    }
}

namespace {

// CAP_IPC_LOCK in the effective set, as the task status shows it.
bool may_lock_without_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_MEMLOCK, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY)
        return true;
    FILE *f = fopen("/proc/self/status", "re");
    if (!f)
        return false;
    char line[256];
    unsigned long long effective = 0;
    while (fgets(line, sizeof line, f))
        if (sscanf(line, "CapEff: %llx", &effective) == 1)
            break;
    fclose(f);
    constexpr int kCapIpcLock = 14;
    return effective & (1ull << kCapIpcLock);
}

} // namespace

int sched_lock_memory()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers reserve terabytes of shadow memory that locking would
    // have to fault in.
    return -EOPNOTSUPP;
#endif
    if (!may_lock_without_limit())
        return -EPERM;
    return mlockall(MCL_CURRENT | MCL_FUTURE) == 0 ? 0 : -errno;
}

void sched_lock_memory_and_describe(char *out, size_t size)
{
    if (!out || size == 0)
        return;
    const int locked = sched_lock_memory();
    sched_describe_self(out, size);
    const size_t n = strlen(out);
    if (locked == 0)
        snprintf(out + n, size - n, ", memory locked");
    else
        snprintf(out + n, size - n, ", memory not locked (%s)", strerror(-locked));
}

int sched_config_open_default(sched_config **config)
{
    if (!config)
        return -EINVAL;
    *config = nullptr;
    const char *path = secure_getenv(kSchedConfigEnv);
    char relocated[PATH_MAX];
    if (!path || !*path) {
        if (platform_path(kSchedConfigFile, relocated, sizeof relocated) != 0)
            return -EINVAL;
        if (access(relocated, F_OK) != 0)
            return 0;
        path = relocated;
    }
    *config = sched_config_load(path);
    return *config ? 0 : -EINVAL;
}
