// SPDX-License-Identifier: Apache-2.0
// Who may feed the flight loop. Data that reaches the sensor data record
// from another process (telemetry sections, the GPS daemon's and the
// ultrasound service's sockets) is taken only from a trusted user: root, the
// reading process's own effective user, and the users listed by the system
// property ro.orlune.trusted_uids (decimal user ids separated by commas or
// blanks, for a producer that runs as a user of its own).
//
// Files and directories are judged through a descriptor the caller already
// holds, so that what was checked is what is then read.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

inline constexpr const char *kTrustedUidsProperty = "ro.orlune.trusted_uids";
inline constexpr size_t kTrustMaxUids = 8; // listed by the property, beyond root and the process's own
inline constexpr size_t kTrustReasonMax = 160;

struct trust_policy {
    uint32_t count;
    uid_t uids[2 + kTrustMaxUids];
};

// The policy as the properties give it now. Entries that are not user ids,
// or beyond kTrustMaxUids, are logged and left out.
void trust_policy_load(trust_policy *out);
bool trust_allows(const trust_policy *policy, uid_t uid);

// Checks the file (directory false) or directory open on fd, named what in
// the reason. A file must be owned by a trusted user and not writable by its
// group or others; a directory must be owned by a trusted user and not
// writable by its group or others unless it is sticky. 0; -EPERM with the
// reason in reason ("<what> is owned by uid 1001, not a trusted user");
// -errno when fd cannot be examined.
int trust_check_fd(const trust_policy *policy, int fd, bool directory, const char *what, char *reason,
                   size_t size);
