// SPDX-License-Identifier: Apache-2.0
// One test's private root, whose telemetry directory and socket prefix the
// modules and the services use, and its captured log.
#pragma once

#include <gtest/gtest.h>

#include "platform/msg_socket.h"
#include "platform/shm_telemetry.h"
#include "platform/telemetry_test_util.h"

class gps_us_env : public ::testing::Test {
protected:
    // One cycle of a module's read: the bits it set.
    template <typename Ctx>
    static uint32_t read_bits(int (*read)(Ctx *, uint32_t *), Ctx *ctx)
    {
        uint32_t mask = 0;
        EXPECT_EQ(read(ctx, &mask), 0);
        return mask;
    }

    test_root root_;
    log_capture cap_;
};
