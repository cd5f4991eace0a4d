// SPDX-License-Identifier: Apache-2.0
// The controller's status and error rules, row by row.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "motors/bldc_rules.h"
#include "support/test_env.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr uint32_t N = BLDC_PENDING_NONE, START = BLDC_PENDING_START, STOP = BLDC_PENDING_STOP;

struct status_row {
    const char *what;
    bldc_status_in in;
    bldc_status_out want;
};

// Kept brake/ramp values 7 and 9 are impossible states that show whether a
// field was written or carried over.
const status_row kStatusRows[] = {
    // start requested
    {"start, status 1", {START, 1, 0, false, 7, 9}, {START, 0, 0, 2, 1, 1, false}},
    {"start, status 2 ramps", {START, 2, 0, false, 7, 9}, {START, 0, 3, 2, 1, 2, false}},
    {"start, status 3 done", {START, 3, 0, false, 7, 9}, {N, 0, 1, 1, 1, 2, false}},
    {"start, status 4 done", {START, 4, 0, false, 7, 9}, {N, 0, 1, 1, 1, 2, false}},
    {"start, status 0", {START, 0, 0, false, 7, 9}, {START, 0, 2, 2, 1, 3, false}},
    {"start, status 5", {START, 5, 0, false, 7, 9}, {START, 0, 2, 2, 1, 2, false}},
    {"start, status 6", {START, 6, 5, false, 7, 9}, {START, 0, 2, 2, 2, 2, false}},
    {"start, status 9", {START, 9, 0, false, 7, 9}, {START, 0, 2, 2, 1, 2, false}},
    {"start, faulty at status 3", {START, 3, 0, true, 7, 9}, {START, 0, 2, 1, 2, 2, false}},
    {"start, status byte only", {START, 0x103, 0, false, 7, 9}, {N, 0, 1, 1, 1, 2, false}},
    // stop requested
    {"stop, status 1 done", {STOP, 1, 0, false, 7, 9}, {N, 1, 0, 2, 1, 1, true}},
    {"stop, status 6 detail 5 done", {STOP, 6, 5, false, 7, 9}, {N, 1, 0, 2, 2, 2, true}},
    {"stop, detail byte only", {STOP, 6, 0x205, false, 7, 9}, {N, 1, 0, 2, 2, 2, true}},
    {"stop, status 6 detail 4 braking", {STOP, 6, 4, false, 7, 9}, {STOP, 3, 0, 2, 2, 3, false}},
    {"stop, status 3 braking", {STOP, 3, 0, false, 7, 9}, {STOP, 3, 0, 1, 1, 3, false}},
    {"stop, status 4 braking", {STOP, 4, 0, false, 7, 9}, {STOP, 3, 0, 1, 1, 3, false}},
    {"stop, status 5 braking", {STOP, 5, 0, false, 7, 9}, {STOP, 3, 0, 2, 1, 3, false}},
    {"stop, status 0 refused", {STOP, 0, 0, false, 7, 9}, {N, 2, 0, 2, 1, 3, true}},
    {"stop, status 2 refused", {STOP, 2, 0, false, 7, 9}, {N, 2, 0, 2, 1, 2, true}},
    {"stop, status 7 refused", {STOP, 7, 0, false, 7, 9}, {N, 2, 0, 2, 1, 2, true}},
    {"stop, faulty at status 1", {STOP, 1, 0, true, 7, 9}, {N, 1, 0, 2, 2, 1, true}},
    // nothing pending: brake and ramp carried over, the rest recomputed
    {"none, status 1", {N, 1, 0, false, 1, 0}, {N, 1, 0, 2, 1, 1, false}},
    {"none, status 0", {N, 0, 0, false, 2, 1}, {N, 2, 1, 2, 1, 3, false}},
    {"none, kept brake 3", {N, 4, 0, false, 3, 1}, {N, 3, 1, 1, 1, 3, false}},
    {"none, status 6", {N, 6, 4, false, 1, 1}, {N, 1, 1, 2, 2, 2, false}},
    {"none, faulty at status 4", {N, 4, 0, true, 0, 1}, {N, 0, 1, 1, 2, 2, false}},
};

TEST(BldcRules, StatusStepTable)
{
    for (const status_row &r : kStatusRows) {
        SCOPED_TRACE(r.what);
        const bldc_status_out got = bldc_status_step(r.in);
        EXPECT_EQ(got.pending, r.want.pending);
        EXPECT_EQ(got.brake_state, r.want.brake_state);
        EXPECT_EQ(got.ramp_state, r.want.ramp_state);
        EXPECT_EQ(got.spinning, r.want.spinning);
        EXPECT_EQ(got.nominal, r.want.nominal);
        EXPECT_EQ(got.idle, r.want.idle);
        EXPECT_EQ(got.refresh_info, r.want.refresh_info);
    }
}

// Every message of the tag "bldc" as "priority text".
std::vector<std::string> messages(log_capture &cap)
{
    std::vector<std::string> out;
    for (const log_record &r : cap.take())
        if (r.tag == "bldc")
            out.push_back(std::to_string(r.priority) + " " + r.text);
    return out;
}

TEST(BldcRules, ErrorEventsRiseOnceClearAndReturn)
{
    log_capture cap;
    uint32_t last[4] = {};
    auto step = [&](uint32_t m2) {
        const uint32_t error[4] = {0, 0, m2, 0};
        return bldc_error_step(error, last, "esc");
    };
    EXPECT_TRUE(step(2));
    EXPECT_TRUE(step(2)); // repeated: quiet
    EXPECT_TRUE(step(5)); // higher: a new event
    EXPECT_TRUE(step(2)); // lower: quiet, the higher one stays recorded
    EXPECT_EQ(last[2], 5u);
    EXPECT_FALSE(step(0));
    EXPECT_FALSE(step(0)); // cleared only once
    EXPECT_TRUE(step(2));  // after a 0 the same code is news again
    EXPECT_THAT(messages(cap), ElementsAre("5 EVT:ESC;error_m2='stall';can_clear='yes';device='esc'",
                                           "5 EVT:ESC;error_m2='power';can_clear='yes';device='esc'",
                                           "6 esc: motor(2) error cleared",
                                           "5 EVT:ESC;error_m2='stall';can_clear='yes';device='esc'"));

    // Every motor's error, in motor order, with its code's name.
    const uint32_t error[4] = {10, 11, 20, 13};
    uint32_t fresh[4] = {};
    EXPECT_TRUE(bldc_error_step(error, fresh, "esc"));
    EXPECT_THAT(messages(cap), ElementsAre("5 EVT:ESC;error_m0='lipo';can_clear='no';device='esc'",
                                           "5 EVT:ESC;error_m1='mosfet';can_clear='no';device='esc'",
                                           "5 EVT:ESC;error_m2='unknown';can_clear='yes';device='esc'",
                                           "5 EVT:ESC;error_m3='assert';can_clear='yes';device='esc'"));
    const uint32_t none[4] = {};
    uint32_t quiet[4] = {};
    EXPECT_FALSE(bldc_error_step(none, quiet, "esc"));
    EXPECT_THAT(messages(cap), IsEmpty());
}

} // namespace
