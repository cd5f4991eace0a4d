// SPDX-License-Identifier: Apache-2.0
#include "sim/battery.h"

#include "sim/config_file.h"

#include <fcntl.h>
#include <libconfig.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

namespace sim {
namespace {

constexpr std::array<const char *, 8> kEventKinds{"remove", "insert", "fault", "temperature-alert",
                                                 "anomaly", "usb", "cells", "garbage"};

// Every file the driver exposes, in the order they are first written
// ("present" last, so that a reader never sees a pack without attributes).
constexpr std::array<const char *, 18> kFiles{
    "name", "manufacturer_name", "model_name", "voltage_now", "current_now", "rsoc",
    "soh", "cycle_count", "temperature", "avg_time_to_empty", "full_charge_cap", "remaining_cap",
    "alerts", "authenticated", "usb_peer", "cell_voltage", "anomaly", "present",
};

// Open-circuit voltage of one lithium-polymer cell, linear in the state of
// charge between empty and full, volts.
constexpr double kCellEmptyV = 3.3;
constexpr double kCellFullV = 4.2;
constexpr double kAsPerMah = 3.6;
// The driver reports no estimate below this current: the pack is idle.
constexpr double kIdleCurrentA = 0.05;
constexpr int kTimeToEmptyIdle = 65535; // minutes, what the gauge says when idle

int fail(std::string *error, const std::string &what)
{
    if (error)
        *error = what;
    return -EINVAL;
}

std::string hex(unsigned value)
{
    char text[16];
    snprintf(text, sizeof text, "0x%x", value);
    return text;
}

bool known_file(const std::string &name)
{
    return std::find_if(kFiles.begin(), kFiles.end(), [&](const char *f) { return name == f; }) != kFiles.end();
}

class settings_reader {
public:
    explicit settings_reader(std::string *error) : error_(error) {}

    int fail_at(const config_setting_t *s, const std::string &what)
    {
        std::string text = "battery: " + what;
        if (s && config_setting_source_line(s))
            text += " (line " + std::to_string(config_setting_source_line(s)) + ")";
        return fail(error_, text);
    }

    int number(const config_setting_t *g, const char *key, double *out)
    {
        const config_setting_t *s = config_setting_get_member(g, key);
        if (!s)
            return 0;
        if (!config_number(s, out))
            return fail_at(s, std::string("'") + key + "' must be a number");
        return 0;
    }

    int integer(const config_setting_t *g, const char *key, int *out)
    {
        const config_setting_t *s = config_setting_get_member(g, key);
        if (!s)
            return 0;
        if (config_setting_type(s) != CONFIG_TYPE_INT)
            return fail_at(s, std::string("'") + key + "' must be an integer");
        *out = config_setting_get_int(s);
        return 0;
    }

    int text(const config_setting_t *g, const char *key, std::string *out)
    {
        const config_setting_t *s = config_setting_get_member(g, key);
        if (!s)
            return 0;
        if (config_setting_type(s) != CONFIG_TYPE_STRING)
            return fail_at(s, std::string("'") + key + "' must be a string");
        *out = config_setting_get_string(s);
        return 0;
    }

    int flag(const config_setting_t *g, const char *key, bool *out)
    {
        const config_setting_t *s = config_setting_get_member(g, key);
        if (!s)
            return 0;
        if (config_setting_type(s) != CONFIG_TYPE_BOOL)
            return fail_at(s, std::string("'") + key + "' must be true or false");
        *out = config_setting_get_bool(s);
        return 0;
    }

    int event(const config_setting_t *g, battery_event *e)
    {
        std::string kind;
        int rc = text(g, "kind", &kind);
        if (rc)
            return rc;
        auto it = std::find_if(kEventKinds.begin(), kEventKinds.end(), [&](const char *k) { return kind == k; });
        if (it == kEventKinds.end())
            return fail_at(g, "unknown event kind '" + kind + "'");
        e->kind = battery_event_kind(it - kEventKinds.begin());
        if (!config_setting_get_member(g, "at"))
            return fail_at(g, "event without 'at'");
        if ((rc = number(g, "at", &e->at_s)) || (rc = integer(g, "code", &e->code)) ||
            (rc = integer(g, "connected", &e->connected)) || (rc = integer(g, "data-role", &e->data_role)) ||
            (rc = integer(g, "power-role", &e->power_role)) || (rc = text(g, "attribute", &e->attribute)) ||
            (rc = text(g, "text", &e->text)) || (rc = number(g, "duration", &e->duration_s)))
            return rc;
        if (e->at_s < 0 || e->duration_s < 0)
            return fail_at(g, "'at' and 'duration' must not be negative");
        if (e->kind == battery_event_kind::garbage && (!known_file(e->attribute) || e->attribute == "name"))
            return fail_at(g, "garbage needs the 'attribute' of a value file, not '" + e->attribute + "'");
        if (e->kind == battery_event_kind::cells && (e->code < 1 || e->code > 16))
            return fail_at(g, "cells: 'code' is the cell count, 1 to 16");
        return 0;
    }

    int all(const config_setting_t *g, battery_settings *s)
    {
        int rc;
        if ((rc = number(g, "capacity", &s->capacity_mah)) || (rc = number(g, "charge", &s->charge_pct)) ||
            (rc = integer(g, "cells", &s->cells)) ||
            (rc = number(g, "internal-resistance", &s->internal_resistance_ohm)) ||
            (rc = number(g, "ambient-temperature", &s->ambient_k)) || (rc = number(g, "heating", &s->heating_k_per_a2)) ||
            (rc = number(g, "thermal-time-constant", &s->thermal_time_constant_s)) ||
            (rc = integer(g, "soh", &s->soh_pct)) || (rc = integer(g, "cycle-count", &s->cycle_count)) ||
            (rc = flag(g, "authenticated", &s->authenticated)) || (rc = number(g, "rate", &s->rate_hz)) ||
            (rc = number(g, "hover-current", &s->hover_current_a)) ||
            (rc = number(g, "climb-current", &s->climb_current_a)) ||
            (rc = number(g, "turn-current", &s->turn_current_a)))
            return rc;
        if (!(s->capacity_mah > 0 && s->capacity_mah < 65536) || !(s->charge_pct >= 0 && s->charge_pct <= 100))
            return fail_at(g, "capacity must be 1..65535 mAh and charge 0..100 %");
        if (s->cells < 1 || s->cells > 16)
            return fail_at(g, "cells must be 1..16");
        if (!(s->rate_hz > 0 && s->rate_hz <= 1000) || !(s->thermal_time_constant_s > 0))
            return fail_at(g, "rate must be in (0, 1000] Hz and thermal-time-constant positive");
        const config_setting_t *list = config_setting_get_member(g, "events");
        if (!list)
            return 0;
        if (!config_setting_is_list(list))
            return fail_at(list, "'events' must be a list of groups");
        s->events.clear();
        for (int i = 0; i < config_setting_length(list); i++) {
            const config_setting_t *e = config_setting_get_elem(list, unsigned(i));
            if (!config_setting_is_group(e))
                return fail_at(e, "'events' must hold groups");
            battery_event event;
            if ((rc = this->event(e, &event)))
                return rc;
            s->events.push_back(event);
        }
        std::stable_sort(s->events.begin(), s->events.end(),
                         [](const battery_event &a, const battery_event &b) { return a.at_s < b.at_s; });
        return 0;
    }

private:
    std::string *error_;
};

int settings_from(config_t *cfg, battery_settings *out, std::string *error)
{
    battery_settings s;
    const config_setting_t *group = config_lookup(cfg, "simulator.battery");
    if (group) {
        if (!config_setting_is_group(group))
            return fail(error, "simulator.battery must be a group");
        int rc = settings_reader(error).all(group, &s);
        if (rc)
            return rc;
    }
    *out = std::move(s);
    return 0;
}

} // namespace

int battery_settings_from(config_t *cfg, battery_settings *out, std::string *error)
{
    return settings_from(cfg, out, error);
}

int battery_settings_parse(const char *scenario_text, battery_settings *out, std::string *error)
{
    return config_load_text(
        scenario_text, [out](config_t *cfg, std::string *e) { return settings_from(cfg, out, e); }, error);
}

int battery_settings_load(const char *scenario_path, battery_settings *out, std::string *error)
{
    return config_load_file(
        scenario_path, [out](config_t *cfg, std::string *e) { return settings_from(cfg, out, e); }, error);
}

battery_load phase_load(const std::vector<scenario_phase> &phases, const battery_settings &settings)
{
    return [phases, hover = settings.hover_current_a, climb = settings.climb_current_a,
            turn = settings.turn_current_a](double t) {
        for (const scenario_phase &p : phases) {
            if (t < p.duration_s)
                return hover + climb * std::fabs(p.climb_rate) +
                       turn * (std::fabs(p.roll_rate) + std::fabs(p.pitch_rate) + std::fabs(p.yaw_rate));
            t -= p.duration_s;
        }
        return hover;
    };
}

// The pack's truth and the files that show it. The thread owns everything
// but the load (guarded) and the two values read back (atomics).
struct battery_sim::state {
    battery_settings settings;
    std::string directory;
    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;
    battery_load load;
    std::thread thread;

    // Truth.
    double charge_mah = 0;
    double temperature_k = 0;
    double current_a = 0;
    bool present = true;
    int cells = 2;
    int fault = 0;
    int temperature_alert = 0;
    int anomaly = 0;
    int usb[3] = {0, 0, 0};
    size_t next_event = 0;
    struct override_text {
        std::string text;
        double until_s;
    };
    std::map<std::string, override_text> garbage;
    std::map<std::string, std::string> written;
    std::atomic<double> charge_pct{0};
    std::atomic<double> voltage_v{0};

    // Rewrites a file in place, keeping its inode, so that a reader holding
    // it open sees the new text: new bytes first, then the length. A reader
    // in between sees the new line followed by a stale tail after its
    // newline, which no parser of these files reads.
    int put(const char *name, std::string text)
    {
        auto g = garbage.find(name);
        if (g != garbage.end())
            text = g->second.text;
        std::string &last = written[name];
        if (last == text && !last.empty())
            return 0;
        std::string path = directory + "/" + name;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0)
            return -errno;
        ssize_t n = pwrite(fd, text.data(), text.size(), 0);
        int err = n == ssize_t(text.size()) ? 0 : (n < 0 ? errno : EIO);
        if (!err && ftruncate(fd, off_t(text.size())) != 0)
            err = errno;
        close(fd);
        if (err)
            return -err;
        last = text;
        return 0;
    }

    void apply(const battery_event &e, double t)
    {
        switch (e.kind) {
        case battery_event_kind::remove: present = false; break;
        case battery_event_kind::insert: present = true; break;
        case battery_event_kind::fault: fault = e.code; break;
        case battery_event_kind::temperature_alert: temperature_alert = e.code; break;
        case battery_event_kind::anomaly: anomaly = e.code; break;
        case battery_event_kind::usb:
            usb[0] = e.connected;
            usb[1] = e.data_role;
            usb[2] = e.power_role;
            break;
        case battery_event_kind::cells: cells = e.code; break;
        case battery_event_kind::garbage: garbage[e.attribute] = {e.text, t + e.duration_s}; break;
        }
    }

    void advance(double t, double dt)
    {
        while (next_event < settings.events.size() && settings.events[next_event].at_s <= t)
            apply(settings.events[next_event++], t);
        std::erase_if(garbage, [&](const auto &g) { return g.second.until_s <= t; });
        if (!present) {
            current_a = 0;
            return;
        }
        {
            std::lock_guard lock(mutex);
            current_a = load ? std::max(0.0, load(t)) : 0.0;
        }
        charge_mah = std::max(0.0, charge_mah - current_a * dt / kAsPerMah);
        double rise = settings.heating_k_per_a2 * current_a * current_a;
        temperature_k += (settings.ambient_k + rise - temperature_k) * std::min(1.0, dt / settings.thermal_time_constant_s);
    }

    int write_all()
    {
        const double soc = charge_mah / settings.capacity_mah;
        const double cell_v =
            kCellEmptyV + (kCellFullV - kCellEmptyV) * soc - current_a * settings.internal_resistance_ohm;
        const int cell_mv = int(std::lround(cell_v * 1000));
        const int pack_mv = cell_mv * cells;
        charge_pct = soc * 100;
        voltage_v = pack_mv / 1000.0;
        std::string cell_text = std::to_string(cells);
        for (int i = 0; i < cells; i++)
            cell_text += " " + std::to_string(cell_mv - 5 * i); // cells drift apart a little
        int time_to_empty = current_a > kIdleCurrentA
                                ? int(std::min<double>(kTimeToEmptyIdle, charge_mah / (current_a * 1000) * 60))
                                : kTimeToEmptyIdle;
        const std::pair<const char *, std::string> files[] = {
            {"name", "smartbattery"},
            {"manufacturer_name", "Orlune"},
            {"model_name", "ORL-" + std::to_string(cells) + "S-" + std::to_string(int(settings.capacity_mah))},
            {"voltage_now", std::to_string(pack_mv)},
            {"current_now", std::to_string(-int(std::lround(current_a * 1000)))}, // discharge is negative
            {"rsoc", std::to_string(int(std::lround(soc * 100)))},
            {"soh", std::to_string(settings.soh_pct)},
            {"cycle_count", std::to_string(settings.cycle_count)},
            {"temperature", std::to_string(int(std::lround(temperature_k * 10)))},
            {"avg_time_to_empty", std::to_string(time_to_empty)},
            {"full_charge_cap", std::to_string(int(settings.capacity_mah))},
            {"remaining_cap", std::to_string(int(std::lround(charge_mah)))},
            {"alerts", std::to_string(fault) + " " + std::to_string(temperature_alert)},
            {"authenticated", settings.authenticated ? "1" : "0"},
            {"usb_peer", std::to_string(usb[0]) + " " + std::to_string(usb[1]) + " " + std::to_string(usb[2])},
            {"cell_voltage", cell_text},
            {"anomaly", hex(unsigned(anomaly))},
            {"present", present ? "1" : "0"},
        };
        for (const auto &[name, text] : files) {
            int rc = put(name, text + "\n");
            if (rc)
                return rc;
        }
        return 0;
    }

    void run()
    {
        using clock = std::chrono::steady_clock;
        const auto start = clock::now();
        const auto period = std::chrono::duration<double>(1.0 / settings.rate_hz);
        double t_prev = 0;
        std::unique_lock lock(mutex);
        while (!wake.wait_for(lock, period, [&] { return stopping; })) {
            lock.unlock();
            double t = std::chrono::duration<double>(clock::now() - start).count();
            advance(t, t - t_prev);
            t_prev = t;
            write_all(); // a failed write is retried at the next step
            lock.lock();
        }
    }
};

std::unique_ptr<battery_sim> battery_sim::start(const battery_settings &settings, battery_load load,
                                                const std::string &directory, std::string *error)
{
    std::error_code ec;
    std::filesystem::create_directories(directory, ec);
    if (ec) {
        if (error)
            *error = directory + ": " + ec.message();
        return nullptr;
    }
    std::unique_ptr<battery_sim> sim(new battery_sim);
    sim->directory_ = directory;
    sim->state_ = std::make_unique<state>();
    state &s = *sim->state_;
    s.settings = settings;
    s.directory = directory;
    s.load = std::move(load);
    s.cells = settings.cells;
    s.charge_mah = settings.capacity_mah * settings.charge_pct / 100;
    s.temperature_k = settings.ambient_k;
    s.advance(0, 0);
    int rc = s.write_all();
    if (rc) {
        if (error)
            *error = directory + ": " + std::strerror(-rc);
        return nullptr;
    }
    s.thread = std::thread([&s] { s.run(); });
    return sim;
}

battery_sim::~battery_sim()
{
    if (!state_)
        return;
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_all();
    if (state_->thread.joinable())
        state_->thread.join();
}

void battery_sim::set_load(battery_load load)
{
    std::lock_guard lock(state_->mutex);
    state_->load = std::move(load);
}

double battery_sim::charge_pct() const
{
    return state_->charge_pct;
}

double battery_sim::voltage_v() const
{
    return state_->voltage_v;
}

std::unique_ptr<battery_sim> start_battery_sim(const std::string &scenario_path, const std::string &directory,
                                               std::string *error)
{
    scenario scn = default_scenario();
    battery_settings settings;
    if (!scenario_path.empty()) {
        if (scenario_load(scenario_path.c_str(), &scn, error) != 0 ||
            battery_settings_load(scenario_path.c_str(), &settings, error) != 0)
            return nullptr;
    }
    return battery_sim::start(settings, phase_load(scn.phases, settings), directory, error);
}

} // namespace sim
