// SPDX-License-Identifier: Apache-2.0
#include "sim/truth_recorder.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <numbers>
#include <thread>

#include "sim/battery.h"
#include "sim/vehicle.h"

namespace sim {

namespace {

constexpr const char kHeader[] = "t,scenario_t,phase,rate_x,rate_y,rate_z,accel_x,accel_y,accel_z,altitude,heading,"
                                 "pressure,battery_voltage,battery_charge";

// Rows reach the disk at least this often, so that the file can be
// followed while the simulator runs.
constexpr uint64_t kFlushEveryRows = 100;

// Heading in (-pi, pi], as a compass-like reading wraps it; the vehicle's
// yaw accumulates turn after turn.
double wrap_angle(double a)
{
    a = std::remainder(a, 2.0 * std::numbers::pi);
    return a <= -std::numbers::pi ? a + 2.0 * std::numbers::pi : a;
}

} // namespace

struct truth_recorder::impl {
    scenario scn;
    vehicle model;
    int64_t epoch_ns;
    int64_t period_ns;
    const battery_sim *battery;
    FILE *out = nullptr;
    std::atomic<uint64_t> rows{0};
    std::mutex lock;
    std::condition_variable wake;
    bool stopping = false;
    std::thread thread;

    impl(const scenario &s, int64_t epoch, int64_t period, const battery_sim *b)
        : scn(s), model(s), epoch_ns(epoch), period_ns(period), battery(b)
    {
    }

    void write_row(int64_t k)
    {
        const int64_t at_ns = epoch_ns + k * period_ns;
        const double t_s = double(k * period_ns) / 1e9;
        const truth tr = model.at(t_s);
        fprintf(out, "%lld.%06lld,%.3f,%s,%.6f,%.6f,%.6f,%.6f,%.6f,%.6f,%.4f,%.5f,%.2f,",
                static_cast<long long>(at_ns / 1000000000), static_cast<long long>(at_ns % 1000000000 / 1000), t_s,
                phase_at(scn, t_s), tr.rates[0], tr.rates[1], tr.rates[2], tr.specific_force[0],
                tr.specific_force[1], tr.specific_force[2], tr.altitude_m - scn.ground_altitude_m,
                wrap_angle(tr.attitude[2]), tr.pressure_pa);
        if (battery)
            fprintf(out, "%.3f,%.2f\n", battery->voltage_v(), battery->charge_pct());
        else
            fputs(",\n", out);
        if (++rows % kFlushEveryRows == 0)
            fflush(out);
    }

    // Every grid instant from the first one at or after the start is
    // written, late ones included: the truth is a function of scenario time,
    // so a late wake-up costs no accuracy.
    void run()
    {
        using clock = std::chrono::steady_clock; // CLOCK_MONOTONIC
        const int64_t start_ns = clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
        int64_t k = start_ns > epoch_ns ? (start_ns - epoch_ns + period_ns - 1) / period_ns : 0;
        std::unique_lock<std::mutex> guard(lock);
        for (;;) {
            const clock::time_point due{std::chrono::nanoseconds(epoch_ns + k * period_ns)};
            if (wake.wait_until(guard, due, [&] { return stopping; }))
                break;
            const int64_t now_ns = clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
            while (epoch_ns + k * period_ns <= now_ns)
                write_row(k++);
        }
    }
};

truth_recorder::truth_recorder(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

std::unique_ptr<truth_recorder> truth_recorder::start(const scenario &s, int64_t epoch_ns, const battery_sim *battery,
                                                      const std::string &path, std::string *error, double rate_hz)
{
    if (!(rate_hz > 0.0 && rate_hz <= 10000.0)) {
        *error = "truth rate out of range (0, 10000] Hz";
        return nullptr;
    }
    auto p = std::make_unique<impl>(s, epoch_ns, std::llround(1e9 / rate_hz), battery);
    p->out = fopen(path.c_str(), "w");
    if (!p->out) {
        *error = "cannot create the truth file '" + path + "': " + strerror(errno);
        return nullptr;
    }
    fprintf(p->out, "%s\n", kHeader);
    fflush(p->out);
    impl *raw = p.get();
    p->thread = std::thread([raw] { raw->run(); });
    return std::unique_ptr<truth_recorder>(new truth_recorder(std::move(p)));
}

truth_recorder::~truth_recorder()
{
    {
        std::lock_guard<std::mutex> guard(impl_->lock);
        impl_->stopping = true;
    }
    impl_->wake.notify_all();
    impl_->thread.join();
    fclose(impl_->out);
}

uint64_t truth_recorder::rows() const
{
    return impl_->rows;
}

const char *truth_recorder::header()
{
    return kHeader;
}

const char *truth_recorder::phase_at(const scenario &s, double t_s)
{
    double start = 0.0;
    for (const scenario_phase &p : s.phases) {
        if (t_s >= start && t_s < start + p.duration_s)
            return p.name.c_str();
        start += p.duration_s;
    }
    return "end";
}

} // namespace sim
