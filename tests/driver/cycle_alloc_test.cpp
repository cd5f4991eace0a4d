// SPDX-License-Identifier: Apache-2.0
// The acquisition cycle allocates nothing of its own. The only allocation of
// a cycle over the network is libiio's, inside the IMU refill, so the IMU
// wait runs uncounted and everything else is counted.
#include <gtest/gtest.h>
#include <sensors/imu.h>

#include "driver/driver_ctx.h"
#include "frame_fixture.h"
#include "support/alloc_counter.h"

namespace {

TEST_F(FrameTest, AThousandCyclesAllocateNothing)
{
    if (!alloc_counting_available())
        GTEST_SKIP() << "the sanitizer owns the allocator";
    start_server();
    configure(cfg_text::all_disabled().section("imu", imu_section()));
    ASSERT_EQ(probe(), 0);
    ASSERT_EQ(drv_.start(ctx_), 0);
    ASSERT_EQ(drv_.read(&data_, ctx_), 0); // first cycle: lazy set-up inside libiio is not ours
    ASSERT_EQ(drv_.tlm_write(ctx_), 0);

    alloc_count counted;
    for (int cycle = 0; cycle < 1000; cycle++) {
        counted.pause();
        ASSERT_EQ(imu_wait(ctx_->imu), 0);
        counted.resume();
        uint32_t mask = 0;
        ASSERT_EQ(imu_read(ctx_->imu, &mask), 0);
        ASSERT_EQ(drv_.tlm_write(ctx_), 0);
    }
    EXPECT_EQ(counted.value(), 0);

    // The frame's own steps of read, with the IMU out of the way.
    ctx_->config->imu.enabled = 0;
    alloc_count frame;
    for (int cycle = 0; cycle < 1000; cycle++)
        ASSERT_EQ(drv_.read(&data_, ctx_), 0);
    EXPECT_EQ(frame.value(), 0);
    ctx_->config->imu.enabled = 1;
}

} // namespace
