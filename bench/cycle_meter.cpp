// SPDX-License-Identifier: Apache-2.0
// cycle_meter: runs the plug-in the way a sensor host does, against a running
// virtual vehicle (IIOD_REMOTE and the relocation variables come from the
// environment), and prints what one acquisition cycle costs, as "key value"
// lines for scripts/bench-report.sh.
//
//   cycle_meter cycles N [WARMUP] [--modules]   N cycles, IMU wait timed apart
//   cycle_meter first-sample                    probe, start, read until IMU data
//
// A measured cycle is two calls that callgrind can collect apart
// (--toggle-collect=orlune_meter_imu_wait or orlune_meter_own_step): the IMU
// wait (libiio's refill: blocked until the batch is complete, then receiving
// it), and everything else that the host's read and telemetry write do.
//
// The meter exports its own definitions of iio_buffer_refill and of the
// module reads and telemetry pushes that the frame calls (and of
// iio_context_set_timeout); the plug-in reaches them through the dynamic
// linker like any exported call, and each passes on to the real one. They
// attribute allocations to libiio's refills and to each module, and with
// --modules they also time each module and its libiio calls. Callgrind runs
// go without --modules: under valgrind a clock read is a system call.
#include <dlfcn.h>
#include <iio.h>
#include <sensors/baro_magneto.h>
#include <sensors/battery.h>
#include <sensors/gps_us.h>
#include <sensors/imu.h>
#include <sensors/motors.h>
#include <sensors/sensors.h>
#include <sensors/tlm_sensors.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "driver/driver_ctx.h"
#include "support/alloc_counter.h"

namespace {

int64_t now_ns(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

double ms(int64_t ns)
{
    return double(ns) / 1e6;
}

// What the frame calls during the cycle, one row of the per-module figures.
enum slot : size_t {
    kImuRead,
    kBaro,
    kMagneto,
    kGps,
    kUltrasound,
    kCarpet,
    kVisionPosition,
    kOpticalFlow,
    kGimbal,
    kMotors,
    kBattery,
    kTlmPush,
    kSlotCount
};
constexpr std::array<const char *, kSlotCount> kSlotNames{
    "imu_read",         "barometer_read",        "magneto_read",         "gps_read",
    "us_read",          "carpet_detection_read", "vision_position_read", "vision_optical_flow_read",
    "fcam_gimbal_read", "bldc_cypress_read",     "battery_read",         "tlm_pushes"};

struct slot_stats {
    long calls = 0;
    int64_t wall_ns = 0;
    long allocs = 0;        // outside libiio's refills
    long refill_allocs = 0; // inside them
    int64_t refill_wall_ns = 0;
    int64_t timeout_wall_ns = 0; // setting the IIO context's timeout
};

// The state of a measured run; null outside the measured cycles.
struct meter {
    alloc_count allocs; // resumed only during the measured calls
    bool timing = false;
    bool in_wait = false;
    long wait_refills = 0;
    long wait_refill_allocs = 0;
    long refill_allocs = 0; // during the rest of the cycle
    int64_t refill_wall_ns = 0;
    int64_t timeout_wall_ns = 0;
    std::array<slot_stats, kSlotCount> slots{};
};
meter *g_meter = nullptr;

// The real function behind one of the meter's definitions.
template <typename Fn>
Fn real(const char *name)
{
    static_assert(sizeof(Fn) == sizeof(void *));
    void *p = dlsym(RTLD_NEXT, name);
    if (!p) {
        fprintf(stderr, "cycle_meter: %s not found\n", name);
        exit(1);
    }
    Fn fn;
    memcpy(&fn, &p, sizeof fn);
    return fn;
}

// Calls the real module function on behalf of slot s.
template <typename... Args>
int metered(slot s, int (*fn)(Args...), Args... args)
{
    meter *m = g_meter;
    if (!m)
        return fn(args...);
    const long a0 = m->allocs.value(), r0 = m->refill_allocs;
    const int64_t rw0 = m->refill_wall_ns, tw0 = m->timeout_wall_ns;
    const int64_t t0 = m->timing ? now_ns(CLOCK_MONOTONIC) : 0;
    const int r = fn(args...);
    slot_stats &st = m->slots[s];
    if (m->timing)
        st.wall_ns += now_ns(CLOCK_MONOTONIC) - t0;
    st.calls++;
    st.refill_allocs += m->refill_allocs - r0;
    st.allocs += m->allocs.value() - a0 - (m->refill_allocs - r0);
    st.refill_wall_ns += m->refill_wall_ns - rw0;
    st.timeout_wall_ns += m->timeout_wall_ns - tw0;
    return r;
}

using refill_fn = ssize_t (*)(iio_buffer *);
refill_fn g_refill;
decltype(&iio_context_set_timeout) g_set_timeout;
decltype(&imu_read) g_imu_read;
decltype(&barometer_read) g_barometer_read;
decltype(&magneto_read) g_magneto_read;
decltype(&gps_read) g_gps_read;
decltype(&us_read) g_us_read;
decltype(&carpet_detection_read) g_carpet_read;
decltype(&vision_position_read) g_vision_position_read;
decltype(&vision_optical_flow_read) g_optical_flow_read;
decltype(&fcam_gimbal_read) g_gimbal_read;
decltype(&bldc_cypress_read) g_bldc_read;
decltype(&battery_read) g_battery_read;
decltype(&imu_tlm_push) g_imu_push;
decltype(&barometer_tlm_push) g_barometer_push;
decltype(&magneto_tlm_push) g_magneto_push;
decltype(&us_tlm_push) g_us_push;
decltype(&gps_tlm_push) g_gps_push;
decltype(&bldc_cypress_tlm_push_motors) g_motors_push;
decltype(&battery_tlm_push) g_battery_push;

void resolve_real_functions()
{
    g_refill = real<refill_fn>("iio_buffer_refill");
    g_set_timeout = real<decltype(g_set_timeout)>("iio_context_set_timeout");
    g_imu_read = real<decltype(g_imu_read)>("imu_read");
    g_barometer_read = real<decltype(g_barometer_read)>("barometer_read");
    g_magneto_read = real<decltype(g_magneto_read)>("magneto_read");
    g_gps_read = real<decltype(g_gps_read)>("gps_read");
    g_us_read = real<decltype(g_us_read)>("us_read");
    g_carpet_read = real<decltype(g_carpet_read)>("carpet_detection_read");
    g_vision_position_read = real<decltype(g_vision_position_read)>("vision_position_read");
    g_optical_flow_read = real<decltype(g_optical_flow_read)>("vision_optical_flow_read");
    g_gimbal_read = real<decltype(g_gimbal_read)>("fcam_gimbal_read");
    g_bldc_read = real<decltype(g_bldc_read)>("bldc_cypress_read");
    g_battery_read = real<decltype(g_battery_read)>("battery_read");
    g_imu_push = real<decltype(g_imu_push)>("imu_tlm_push");
    g_barometer_push = real<decltype(g_barometer_push)>("barometer_tlm_push");
    g_magneto_push = real<decltype(g_magneto_push)>("magneto_tlm_push");
    g_us_push = real<decltype(g_us_push)>("us_tlm_push");
    g_gps_push = real<decltype(g_gps_push)>("gps_tlm_push");
    g_motors_push = real<decltype(g_motors_push)>("bldc_cypress_tlm_push_motors");
    g_battery_push = real<decltype(g_battery_push)>("battery_tlm_push");
}

} // namespace

extern "C" ssize_t iio_buffer_refill(iio_buffer *buffer)
{
    meter *m = g_meter;
    if (!m)
        return g_refill(buffer);
    const long a0 = m->allocs.value();
    const int64_t t0 = m->in_wait || !m->timing ? 0 : now_ns(CLOCK_MONOTONIC);
    const ssize_t r = g_refill(buffer);
    if (m->in_wait) {
        m->wait_refills++;
        m->wait_refill_allocs += m->allocs.value() - a0;
    } else {
        m->refill_allocs += m->allocs.value() - a0;
        if (m->timing)
            m->refill_wall_ns += now_ns(CLOCK_MONOTONIC) - t0;
    }
    return r;
}

// Over the network backend, a timeout change is a request to the server.
extern "C" int iio_context_set_timeout(iio_context *ctx, unsigned int timeout_ms)
{
    meter *m = g_meter;
    if (!m || !m->timing)
        return g_set_timeout(ctx, timeout_ms);
    const int64_t t0 = now_ns(CLOCK_MONOTONIC);
    const int r = g_set_timeout(ctx, timeout_ms);
    m->timeout_wall_ns += now_ns(CLOCK_MONOTONIC) - t0;
    return r;
}

extern "C" {
int imu_read(imu_ctx *imu, uint32_t *updated)
{
    return metered(kImuRead, g_imu_read, imu, updated);
}
int barometer_read(barometer_ctx *baro, uint32_t *updated)
{
    return metered(kBaro, g_barometer_read, baro, updated);
}
int magneto_read(magneto_ctx *magneto, uint32_t *updated, float temperature)
{
    return metered(kMagneto, g_magneto_read, magneto, updated, temperature);
}
int gps_read(gps_ctx *gps, uint32_t *updated)
{
    return metered(kGps, g_gps_read, gps, updated);
}
int us_read(us_ctx *us, uint32_t *updated)
{
    return metered(kUltrasound, g_us_read, us, updated);
}
int carpet_detection_read(carpet_detection_ctx *cd, uint32_t *updated)
{
    return metered(kCarpet, g_carpet_read, cd, updated);
}
int vision_position_read(vision_position_ctx *vp, uint32_t *updated)
{
    return metered(kVisionPosition, g_vision_position_read, vp, updated);
}
int vision_optical_flow_read(vision_optical_flow_ctx *vcam, uint32_t *updated)
{
    return metered(kOpticalFlow, g_optical_flow_read, vcam, updated);
}
int fcam_gimbal_read(fcam_gimbal_ctx *gimbal, uint32_t *updated)
{
    return metered(kGimbal, g_gimbal_read, gimbal, updated);
}
int bldc_cypress_read(bldc_cypress_ctx *bldc, uint32_t *updated, const timespec *imu_time)
{
    return metered(kMotors, g_bldc_read, bldc, updated, imu_time);
}
int battery_read(battery_ctx *battery, uint32_t *updated)
{
    return metered(kBattery, g_battery_read, battery, updated);
}
int imu_tlm_push(imu_ctx *imu)
{
    return metered(kTlmPush, g_imu_push, imu);
}
int barometer_tlm_push(barometer_ctx *baro)
{
    return metered(kTlmPush, g_barometer_push, baro);
}
int magneto_tlm_push(magneto_ctx *magneto)
{
    return metered(kTlmPush, g_magneto_push, magneto);
}
int us_tlm_push(us_ctx *us)
{
    return metered(kTlmPush, g_us_push, us);
}
int gps_tlm_push(gps_ctx *gps)
{
    return metered(kTlmPush, g_gps_push, gps);
}
int bldc_cypress_tlm_push_motors(bldc_cypress_ctx *bldc)
{
    return metered(kTlmPush, g_motors_push, bldc);
}
int battery_tlm_push(battery_ctx *battery)
{
    return metered(kTlmPush, g_battery_push, battery);
}
} // extern "C"

// Kept out of line and unmangled so that callgrind can collect each alone.
extern "C" __attribute__((noinline)) int orlune_meter_imu_wait(sensors_orlune_ctx *ctx)
{
    return imu_wait(ctx->imu);
}

// What read and tlm_write do once the batch is in: the IMU conversion, then
// the frame's own steps with the IMU out of the way (read then leaves the IMU
// sub-record alone), then the telemetry of everything updated.
extern "C" __attribute__((noinline)) int orlune_meter_own_step(sensors_data *record, sensors_orlune_ctx *ctx)
{
    uint32_t imu_mask = 0;
    int r = imu_read(ctx->imu, &imu_mask);
    if (r < 0)
        return r;
    ctx->config->imu.enabled = 0;
    r = sensors_driver.read(record, ctx);
    ctx->config->imu.enabled = 1;
    record->updated_sensors |= imu_mask;
    sensors_driver.tlm_write(ctx);
    return r;
}

namespace {

// Probes with every kind accepted, as the host does by default.
sensors_orlune_ctx *probe(sensors_data *record)
{
    sensors_probe_header header{SENSORS_KIND_ALL, SENSORS_KIND_ALL};
    sensors_orlune_ctx *ctx = nullptr;
    int r = sensors_driver.probe(nullptr, &ctx, nullptr, &header, record);
    if (r < 0) {
        fprintf(stderr, "cycle_meter: probe failed: %s\n", strerror(-r));
        return nullptr;
    }
    return ctx;
}

void close_plugin(sensors_orlune_ctx *ctx)
{
    sensors_driver.stop(ctx);
    sensors_driver.shutdown(ctx);
}

// Nearest-rank percentile of sorted values.
int64_t percentile(const std::vector<int64_t> &sorted, double p)
{
    if (sorted.empty())
        return 0;
    size_t rank = size_t(p * double(sorted.size() - 1) + 0.5);
    return sorted[std::min(rank, sorted.size() - 1)];
}

int run_cycles(long cycles, long warmup, bool modules)
{
    static sensors_data record{};
    sensors_orlune_ctx *ctx = probe(&record);
    if (!ctx)
        return 1;
    if (!ctx->config->imu.enabled || !ctx->imu) {
        fprintf(stderr, "cycle_meter: the configuration has no IMU\n");
        close_plugin(ctx);
        return 1;
    }
    int r = sensors_driver.start(ctx);
    if (r < 0) {
        fprintf(stderr, "cycle_meter: start failed: %s\n", strerror(-r));
        close_plugin(ctx);
        return 1;
    }
    // Warm-up: connections of the polled services and libiio's lazy set-up
    // happen on the first cycles, as in any host.
    for (long i = 0; i < warmup; i++)
        if (sensors_driver.read(&record, ctx) == 0)
            sensors_driver.tlm_write(ctx);

    std::vector<int64_t> own_wall;
    own_wall.reserve(size_t(cycles));
    int64_t wait_wall = 0, wait_cpu = 0, own_cpu = 0;
    long failures = 0, imu_batches = 0, own_allocs = 0;
    // Updates per updated_sensors bit, to show what the cycles carried.
    long updates[32] = {};

    static meter m;
    m.allocs.pause();
    m.timing = modules;
    g_meter = &m;
    for (long i = 0; i < cycles; i++) {
        m.in_wait = true;
        m.allocs.resume();
        const int64_t w0 = now_ns(CLOCK_MONOTONIC), c0 = now_ns(CLOCK_THREAD_CPUTIME_ID);
        const int wr = orlune_meter_imu_wait(ctx);
        const int64_t w1 = now_ns(CLOCK_MONOTONIC), c1 = now_ns(CLOCK_THREAD_CPUTIME_ID);
        m.in_wait = false;
        const long a1 = m.allocs.value();
        const int rr = wr < 0 ? wr : orlune_meter_own_step(&record, ctx);
        const int64_t w2 = now_ns(CLOCK_MONOTONIC), c2 = now_ns(CLOCK_THREAD_CPUTIME_ID);
        own_allocs += m.allocs.value() - a1;
        m.allocs.pause();
        if (wr < 0 || rr < 0)
            failures++;
        if (wr < 0)
            continue;
        wait_wall += w1 - w0;
        wait_cpu += c1 - c0;
        own_wall.push_back(w2 - w1);
        own_cpu += c2 - c1;
        imu_batches += record.imu.nb_samples > 0;
        for (int bit = 0; bit < 32; bit++)
            updates[bit] += (record.updated_sensors >> bit) & 1u;
    }
    g_meter = nullptr;
    close_plugin(ctx);

    const long measured = long(own_wall.size());
    if (measured == 0) {
        fprintf(stderr, "cycle_meter: every IMU wait failed\n");
        return 1;
    }
    // A plug-in linked to bind its calls directly would bypass the meter's
    // definitions, and every attribution above would read zero.
    if (m.wait_refills == 0 || m.slots[kTlmPush].calls == 0) {
        fprintf(stderr, "cycle_meter: the plug-in's calls do not reach the meter\n");
        return 1;
    }
    int64_t own_total = 0;
    for (int64_t v : own_wall)
        own_total += v;
    std::sort(own_wall.begin(), own_wall.end());
    const double n = double(measured);
    printf("cycles %ld\n", measured);
    printf("failed_cycles %ld\n", failures);
    printf("imu_batches %ld\n", imu_batches);
    printf("own_wall_us_mean %.3f\n", double(own_total) / n / 1e3);
    printf("own_wall_us_median %.3f\n", double(percentile(own_wall, 0.5)) / 1e3);
    printf("own_wall_us_p99 %.3f\n", double(percentile(own_wall, 0.99)) / 1e3);
    printf("own_cpu_us_mean %.3f\n", double(own_cpu) / n / 1e3);
    printf("wait_wall_us_mean %.3f\n", double(wait_wall) / n / 1e3);
    printf("wait_cpu_us_mean %.3f\n", double(wait_cpu) / n / 1e3);
    // Allocations: the plug-in's own are those of the rest of the cycle
    // outside libiio's refills.
    const long plugin_allocs = own_allocs - m.refill_allocs;
    printf("own_allocs %ld\n", plugin_allocs);
    printf("poll_refill_allocs %ld\n", m.refill_allocs);
    printf("wait_refill_allocs %ld\n", m.wait_refill_allocs);
    printf("own_allocs_per_cycle %.4f\n", double(plugin_allocs) / n);
    printf("poll_refill_allocs_per_cycle %.4f\n", double(m.refill_allocs) / n);
    printf("wait_refill_allocs_per_cycle %.4f\n", double(m.wait_refill_allocs) / n);
    printf("alloc_counting %d\n", alloc_counting_available() ? 1 : 0);
    // slot NAME calls wall_us_per_cycle refill_wall_us_per_cycle allocs refill_allocs
    //      timeout_wall_us_per_cycle
    for (size_t s = 0; s < kSlotCount; s++) {
        const slot_stats &st = m.slots[s];
        printf("slot %s %ld %.3f %.3f %ld %ld %.3f\n", kSlotNames[s], st.calls, double(st.wall_ns) / n / 1e3,
               double(st.refill_wall_ns) / n / 1e3, st.allocs, st.refill_allocs, double(st.timeout_wall_ns) / n / 1e3);
    }
    static constexpr struct {
        uint32_t bit;
        const char *name;
    } kUpdated[] = {{SENSORS_UPDATED_IMU, "imu"},
                    {SENSORS_UPDATED_BARO, "baro"},
                    {SENSORS_UPDATED_MAGNETO, "magneto"},
                    {SENSORS_UPDATED_MOTORS, "motors"},
                    {SENSORS_UPDATED_US, "ultrasound"},
                    {SENSORS_UPDATED_GPS, "gps"},
                    {SENSORS_UPDATED_BATTERY, "battery"},
                    {SENSORS_UPDATED_VISION_POSITION, "vision_position"},
                    {SENSORS_UPDATED_OPTICAL_FLOW, "optical_flow"},
                    {SENSORS_UPDATED_FCAM_GIMBAL, "fcam_gimbal"}};
    for (const auto &u : kUpdated)
        printf("updates_%s %ld\n", u.name, updates[__builtin_ctz(u.bit)]);
    return 0;
}

int run_first_sample()
{
    static sensors_data record{};
    const int64_t t0 = now_ns(CLOCK_MONOTONIC);
    sensors_orlune_ctx *ctx = probe(&record);
    if (!ctx)
        return 1;
    const int64_t t1 = now_ns(CLOCK_MONOTONIC);
    int r = sensors_driver.start(ctx);
    const int64_t t2 = now_ns(CLOCK_MONOTONIC);
    if (r < 0) {
        fprintf(stderr, "cycle_meter: start failed: %s\n", strerror(-r));
        close_plugin(ctx);
        return 1;
    }
    // Reads until one returns IMU data; a stalled device gives up after 10 s.
    long reads = 0;
    int64_t t3 = 0;
    while (now_ns(CLOCK_MONOTONIC) - t0 < 10'000'000'000) {
        reads++;
        r = sensors_driver.read(&record, ctx);
        if (r == 0 && (record.updated_sensors & SENSORS_UPDATED_IMU) && record.imu.nb_samples > 0) {
            t3 = now_ns(CLOCK_MONOTONIC);
            break;
        }
    }
    close_plugin(ctx);
    if (!t3) {
        fprintf(stderr, "cycle_meter: no IMU data within 10 s\n");
        return 1;
    }
    printf("probe_ms %.3f\n", ms(t1 - t0));
    printf("start_ms %.3f\n", ms(t2 - t1));
    printf("first_read_ms %.3f\n", ms(t3 - t2));
    printf("first_sample_ms %.3f\n", ms(t3 - t0));
    printf("reads %ld\n", reads);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    resolve_real_functions();
    if (argc >= 3 && strcmp(argv[1], "cycles") == 0) {
        const long cycles = strtol(argv[2], nullptr, 10);
        long warmup = 50;
        bool modules = false;
        for (int i = 3; i < argc; i++) {
            if (strcmp(argv[i], "--modules") == 0)
                modules = true;
            else
                warmup = strtol(argv[i], nullptr, 10);
        }
        if (cycles > 0 && warmup >= 0)
            return run_cycles(cycles, warmup, modules);
    } else if (argc == 2 && strcmp(argv[1], "first-sample") == 0) {
        return run_first_sample();
    }
    fprintf(stderr, "usage: cycle_meter cycles N [WARMUP] [--modules]\n       cycle_meter first-sample\n");
    return 2;
}
