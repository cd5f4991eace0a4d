// SPDX-License-Identifier: Apache-2.0
// The soak's judgement of IMU continuity on made-up runs: a gap outside the
// fault windows is the plug-in's unless the machine held the vehicle's CPU
// across it (a stall of the watched CPU at least as long as the samples
// lost) or one of the vehicle's threads waited on the run queue as long.
// The soak in the test suite runs without the watch: only here are those
// rules flown.
#include <gtest/gtest.h>

#include <cmath>

#include "soak_checks.h"

namespace {

constexpr double kPeriod = 0.001; // 1 kHz, batches of five
constexpr double kAge = 0.0003;   // each read returns 0.3 ms after its batch's last sample

// Two seconds of batches from t = 10 s, with `lost` samples missing after
// the batch that ends at gap_at (none when lost is 0). The batch after the
// gap is read `late` after its last sample.
soak::recording batches(double gap_at, int lost, double late)
{
    soak::recording rec;
    double t0 = 10.0;
    bool after_gap = false;
    while (t0 < 12.0) {
        const double t1 = t0 + 4 * kPeriod;
        rec.rows.push_back({t1 + (after_gap ? late : kAge), 1, 5, t0, t1});
        t0 = t1 + kPeriod;
        after_gap = lost && std::abs(t1 - gap_at) < kPeriod / 2;
        if (after_gap)
            t0 += lost * kPeriod;
    }
    return rec;
}

// A host thread that had waited `waited` seconds on the run queue by the
// sample after t, none by the one before.
std::vector<soak::resource_sample> run_waits(double t, double waited)
{
    return {{t - 0.5, 10, 1000, {{100, 0.0}}}, {t + 0.5, 10, 1000, {{100, waited}}}};
}

TEST(SoakImuContinuity, AGapIsTheMachinesOnlyWhenItHeldTheVehicleLongEnough)
{
    const double gap = 10.999; // the last sample before the gap
    const struct row {
        const char *what;
        int lost;
        double late;                        // the read after the gap, after its batch's last sample
        std::vector<soak::stall> stalls;
        bool watched;                       // the vehicle's CPU was watched
        double waited;                      // a thread's run-queue wait across the gap
        bool continuity, kept_on_cpu;
        const char *detail;                 // in the "vehicle kept on the CPU" check
        const char *age_detail;             // in the "imu age" check (null: not checked)
    } rows[] = {
        {"no gap", 0, kAge, {}, true, 0, true, true,
         "0 gaps (0 samples) outside fault windows while the vehicle waited for a CPU; 0 gaps (0 samples) while "
         "the machine held the vehicle's CPU (0 stalls over 2 ms)",
         "; 0 read across a stall of the vehicle's CPU left out"},
        // The batch after the gap, sampled until 11.014 s, is read 12 ms
        // later, when the stall ends; the two after it were sampled in the
        // stall too.
        {"a stall across the gap, as long as the samples lost", 10, 0.012, {{gap + 0.001, gap + 0.027}}, true, 0,
         true, true,
         "0 gaps (0 samples) outside fault windows while the vehicle waited for a CPU; 1 gaps (10 samples) while "
         "the machine held the vehicle's CPU (1 stalls over 2 ms, longest 26.0 ms)",
         "; 3 read across a stall of the vehicle's CPU left out"},
        // Shorter than the samples lost: the plug-in lost the rest.
        {"a stall across the gap, shorter than the samples lost", 10, 0.012, {{gap + 0.001, gap + 0.006}}, true, 0,
         false, true, "1 stalls over 2 ms, longest 5.0 ms", "; 0 read across a stall"},
        {"a stall before the gap", 10, 0.012, {{gap - 0.05, gap - 0.03}}, true, 0, false, true,
         "0 gaps (0 samples) while the machine held", "; 0 read across a stall"},
        {"a stall across the gap, the CPU not watched", 10, 0.012, {{gap + 0.001, gap + 0.027}}, false, 0, false,
         true, "0 gaps (0 samples) outside fault windows while the vehicle waited for a CPU", nullptr},
        {"a thread kept waiting on the run queue", 10, 0.012, {}, true, 0.015, true, false,
         "1 gaps (10 samples) outside fault windows while the vehicle waited for a CPU 10 lost after 10.999 s (15 "
         "ms waiting for a CPU);",
         nullptr},
        {"a thread kept waiting, but not as long as the samples lost", 10, 0.012, {}, true, 0.004, false, true,
         "0 gaps (0 samples) outside fault windows while the vehicle waited", nullptr},
    };
    const soak::schedule plan{};
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        const soak::recording rec = batches(gap, r.lost, r.late);
        const std::vector<soak::log_line> log;
        const std::vector<soak::resource_sample> resources = run_waits(gap, r.waited);
        const soak::judged_run run{plan, 0.0, rec, log, resources, r.watched ? &r.stalls : nullptr};
        const std::vector<soak::check> checks = soak::check_imu_continuity(run, true);
        ASSERT_EQ(checks.size(), 3u);
        EXPECT_EQ(checks[0].name, "imu continuity");
        EXPECT_EQ(checks[0].pass, r.continuity) << checks[0].detail;
        EXPECT_EQ(checks[1].name, "vehicle kept on the CPU");
        EXPECT_EQ(checks[1].pass, r.kept_on_cpu) << checks[1].detail;
        EXPECT_NE(checks[1].detail.find(r.detail), std::string::npos) << checks[1].detail;
        EXPECT_FALSE(checks[1].advisory);
        EXPECT_EQ(checks[2].name, "imu age");
        EXPECT_TRUE(checks[2].pass) << checks[2].detail;
        if (r.age_detail) {
            EXPECT_NE(checks[2].detail.find(r.age_detail), std::string::npos) << checks[2].detail;
        }
    }
}

} // namespace
