// SPDX-License-Identifier: Apache-2.0
// Named thread scheduling configurations.
//
// The sensor host loads a table of named configurations and hands it to the
// plug-in as its scheduling handle; modules apply names at creation ("imu",
// "imu_spi", "barometer", a trigger's name, ...). Each entry gives a policy,
// a priority, an optional CPU set, and the threads it tunes: "self" for the
// calling thread, or a glob matched against the names (comm) of threads, such
// as "irq/*-orlune-imu". A glob reaches kernel threads, the host's own
// threads and those of trusted users (platform/trust.h), judged by the real
// and effective user of each thread's credentials; a matching thread of
// anyone else is left alone and reported as a warning.
//
// Table file, one entry a line, '#' starts a comment:
//   # name       policy  priority  cpus  threads
//   imu          fifo    60        1     irq/*-orlune-imu
//   barometer    other   0         -     self
// policy: other, batch, idle, fifo, rr; cpus: "-" (unchanged) or a list such as 0,2-3.
#pragma once

#include <sched.h>

#include <cstddef>

struct sched_config;

struct sched_entry {
    char name[48];
    int policy;   // SCHED_OTHER, SCHED_FIFO, ...
    int priority; // 1..99 for fifo and rr, 0 otherwise
    bool set_cpus;
    cpu_set_t cpus;
    char threads[64]; // "self" or a glob over thread names
};

sched_config *sched_config_new();
// Loads a table file. Returns null with a message (tag "sched_config") naming
// the file and line of the first error.
sched_config *sched_config_load(const char *path);
// Parses one table line into entry; 0 for an entry, 1 for a blank or comment
// line, -EINVAL for a malformed one.
int sched_config_parse_line(const char *line, sched_entry *entry);
int sched_config_add(sched_config *config, const sched_entry &entry);
size_t sched_config_count(const sched_config *config);
void sched_config_destroy(sched_config *config);

// Applies the named configuration. A null handle (a host without scheduling
// configuration) accepts every name and changes nothing. Otherwise 0, or a
// negative errno: -ENOENT for a name the table lacks, -ESRCH when no thread
// the glob may reach matches it, the errno of a refused sched_setscheduler or
// sched_setaffinity (-EPERM without the privilege). A thread that ends while
// the glob is applied is gone, not an error, and does not count as matched.
// The trust policy is read again at every apply of a glob.
int sched_config_apply(sched_config *config, const char *name);

inline constexpr const char *kSchedConfigEnv = "ORLUNE_SCHED_CONFIG";
inline constexpr const char *kSchedConfigFile = "/etc/orlune/sched.conf";

// What the calling thread runs with, for a person: "fifo 60", "other" (with
// " on CPUs 0,2-3" when its affinity leaves out a CPU of the machine).
void sched_describe_self(char *out, size_t size);

// Locks the process's memory, present and future, so that the flight loop
// never waits for a page: 0, or a negative errno. Only a process that may
// lock without bound (CAP_IPC_LOCK, or no RLIMIT_MEMLOCK) locks: under a
// finite limit every later allocation past it would fail, so it answers
// -EPERM and locks nothing. A sanitizer's build answers -EOPNOTSUPP.
int sched_lock_memory();

// Locks the memory, then says what the calling thread runs with and whether
// the memory is locked: "fifo 50 on CPUs 1, memory locked", or "..., memory
// not locked (Operation not permitted)".
void sched_lock_memory_and_describe(char *out, size_t size);

// The host's table: the file ORLUNE_SCHED_CONFIG names, else
// /etc/orlune/sched.conf (under ORLUNE_ROOT) when it exists. *config is null
// when there is no file (every name accepted). Returns 0, or -EINVAL when a
// file exists but cannot be read or parsed (its message is logged).
int sched_config_open_default(sched_config **config);
