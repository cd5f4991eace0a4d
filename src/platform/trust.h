// SPDX-License-Identifier: Apache-2.0
// Who may feed the flight loop. Data that reaches the sensor data record
// from another process (telemetry sections, the GPS daemon's and the
// ultrasound service's sockets) is taken only from a trusted user: root, the
// reading process's own effective user, and the users listed by the system
// property ro.orlune.trusted_uids (decimal user ids separated by commas or
// blanks, for a producer that runs as a user of its own). A directory may be
// writable by its group when the group is listed by ro.orlune.trusted_gids:
// the members of such a group are trusted producers.
//
// Files and directories are judged through a descriptor the caller already
// holds, so that what was checked is what is then read.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr const char *kTrustedUidsProperty = "ro.orlune.trusted_uids";
inline constexpr const char *kTrustedGidsProperty = "ro.orlune.trusted_gids";
inline constexpr size_t kTrustMaxUids = 8; // listed by the property, beyond root and the process's own
inline constexpr size_t kTrustMaxGids = 8;
inline constexpr size_t kTrustReasonMax = 160;

struct trust_policy {
    uint32_t count;
    uid_t uids[2 + kTrustMaxUids];
    uint32_t gid_count;
    gid_t gids[kTrustMaxGids];
};

// The policy as the properties give it now. Entries that are not ids, or
// beyond kTrustMaxUids (kTrustMaxGids), are logged and left out.
void trust_policy_load(trust_policy *out);
bool trust_allows(const trust_policy *policy, uid_t uid);

// Checks the file (directory false) or directory open on fd, named what in
// the reason. A file must be owned by a trusted user and not writable by its
// group or others; a directory must be owned by a trusted user and not
// writable by others unless it is sticky, nor by its group unless it is
// sticky or its group is trusted. 0; -EPERM with the reason in reason
// ("<what> is owned by uid 1001, not a trusted user"); -errno when fd cannot
// be examined.
int trust_check_fd(const trust_policy *policy, int fd, bool directory, const char *what, char *reason,
                   size_t size);

// Opens the directory path one component at a time, never following a
// symbolic link, and checks every directory on the way ("/" and the
// components after it, or "." and those after it for a relative path) as
// trust_check_fd does: nobody but a trusted user can have made or replaced
// any of them. With create, a missing last component is made (mode 0755),
// not its parents. An O_PATH descriptor of the directory; -EPERM with the
// reason ("directory component /dev/shm/x is a symbolic link", "directory
// /dev/shm/x is owned by uid 1001, not a trusted user"); -errno.
int trust_open_dir(const trust_policy *policy, const char *path, bool create, char *reason, size_t size);

// What the refusals of one source (a section, a service name) have logged:
// each refusal is reported when its reason differs from the last one
// reported, and at most kTrustRefusalReports times until the source is
// trusted again, whatever the reasons, so that an attacker who alternates
// reasons cannot flood the log.
inline constexpr uint32_t kTrustRefusalReports = 3;
struct trust_refusals {
    char last[kTrustReasonMax];
    uint32_t reported;
};
enum class trust_report {
    quiet, // not to be logged
    log,   // to be logged
    last,  // to be logged, and the bound is now reached: say so
};
trust_report trust_refusal_seen(trust_refusals *refusals, const char *reason);
// The source is trusted again; true when refusals had been reported.
bool trust_refusals_clear(trust_refusals *refusals);
