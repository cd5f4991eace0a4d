// SPDX-License-Identifier: Apache-2.0
// Another user of the vehicle: a child process that drops to a user id
// nobody uses before it runs its body. Acting as another user needs root (as
// CI runs); elsewhere the cases that need it are skipped with the reason.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "platform/telemetry_test_util.h"

inline uid_t unused_uid(uid_t from = 47000)
{
    for (uid_t uid = from; uid < 60000; uid++)
        if (!getpwuid(uid) && !getgrgid(gid_t(uid)))
            return uid;
    return uid_t(-1);
}

#define SKIP_UNLESS_ROOT()                                                                                        \
    do {                                                                                                          \
        if (geteuid() != 0)                                                                                       \
            GTEST_SKIP() << "acting as another user needs root (CI runs as root)";                                \
    } while (0)

// A child process that runs body as user uid (an unused one by default),
// with group as its only supplementary group when one is given (exit status
// 90 when it cannot take them).
inline std::unique_ptr<child_process> intruder(const std::function<int(const child_process::link &)> &body,
                                               uid_t uid = unused_uid(), gid_t group = gid_t(-1))
{
    return std::make_unique<child_process>([body, uid, group](const child_process::link &link) {
        int groups = group == gid_t(-1) ? setgroups(0, nullptr) : setgroups(1, &group);
        if (groups != 0 || setgid(gid_t(uid)) != 0 || setuid(uid) != 0 || geteuid() != uid)
            return 90;
        return body(link);
    });
}
