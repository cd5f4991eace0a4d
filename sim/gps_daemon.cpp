// SPDX-License-Identifier: Apache-2.0
#include "sim/gps_daemon.h"

#include "sim/config_file.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>

#include "platform/msg_socket.h"
#include "platform/time_helpers.h"
#include "sim/vehicle.h"

namespace sim {

namespace {

constexpr const char *kGpsSocketName = "gps";
// Granularity of the daemon's clock: messages leave within this of their time.
constexpr int kTickMs = 5;

std::string where(const config_setting_t *s)
{
    int line = s ? config_setting_source_line(s) : 0;
    return line ? " (line " + std::to_string(line) + ")" : "";
}

int fail(const config_setting_t *s, const std::string &what, std::string *error)
{
    if (error)
        *error = what + where(s);
    return -EINVAL;
}

int setting_text(const config_setting_t *g, const char *key, std::string *out, std::string *error)
{
    const config_setting_t *s = config_setting_get_member(g, key);
    if (!s)
        return 0;
    if (config_setting_type(s) != CONFIG_TYPE_STRING)
        return fail(s, std::string("gps: ") + key + " must be a string", error);
    *out = config_setting_get_string(s);
    return 0;
}

int setting_bool(const config_setting_t *g, const char *key, bool *out, std::string *error)
{
    const config_setting_t *s = config_setting_get_member(g, key);
    if (!s)
        return 0;
    if (config_setting_type(s) != CONFIG_TYPE_BOOL)
        return fail(s, std::string(config_setting_name(g)) + ": " + key + " must be true or false", error);
    *out = config_setting_get_bool(s) != 0;
    return 0;
}

int parse_gps(const config_setting_t *g, gps_settings *out, std::string *error)
{
    if (!g)
        return 0;
    double satellites = out->satellites;
    const struct {
        const char *key;
        double *value;
        double min;
    } numbers[] = {
        {"latitude", &out->latitude_deg, -90.0},       {"longitude", &out->longitude_deg, -180.0},
        {"loc-rate", &out->loc_rate_hz, 0.01},         {"ex-com-rate", &out->ex_com_rate_hz, 0.01},
        {"ex-er-rate", &out->ex_er_rate_hz, 0.01},     {"fw-period", &out->fw_period_s, 0.01},
        {"altitude-noise", &out->altitude_noise_m, 0}, {"satellites", &satellites, 0},
    };
    for (const auto &n : numbers) {
        if (setting_number(g, n.key, n.value, error) != 0)
            return -EINVAL;
        if (*n.value < n.min)
            return fail(config_setting_get_member(g, n.key), std::string("gps: ") + n.key + " is out of range",
                        error);
    }
    out->satellites = int(satellites);
    if (setting_bool(g, "enabled", &out->enabled, error) != 0 ||
        setting_text(g, "constellation", &out->constellation, error) != 0 ||
        setting_text(g, "firmware", &out->firmware, error) != 0 ||
        setting_text(g, "receiver", &out->receiver, error) != 0)
        return -EINVAL;

    return service_outages_parse(g, &out->outages, error);
}

} // namespace

int setting_number(const config_setting_t *group, const char *key, double *out, std::string *error)
{
    const config_setting_t *s = config_setting_get_member(group, key);
    if (!s)
        return 0;
    if (config_number(s, out))
        return 0;
    return fail(s, std::string(config_setting_name(group) ? config_setting_name(group) : "") + ": " + key +
                       " must be a number",
                error);
}

int service_outages_parse(const config_setting_t *group, std::vector<service_outage> *out, std::string *error)
{
    const config_setting_t *faults = config_setting_get_member(group, "faults");
    if (!faults)
        return 0;
    const std::string who = std::string(config_setting_name(group) ? config_setting_name(group) : "") + ": ";
    if (!config_setting_is_list(faults))
        return fail(faults, who + "faults must be a list of groups", error);
    for (int i = 0; i < config_setting_length(faults); i++) {
        const config_setting_t *f = config_setting_get_elem(faults, unsigned(i));
        if (!config_setting_is_group(f))
            return fail(f, who + "faults must be a list of groups", error);
        service_outage o;
        const char *kind = nullptr;
        if (setting_number(f, "at", &o.at_s, error) != 0)
            return -EINVAL;
        if (!config_setting_lookup_string(f, "kind", &kind))
            return fail(f, who + "a fault needs a kind (restart, kill)", error);
        if (std::string(kind) == "restart") {
            o.duration_s = 1.0;
            if (setting_number(f, "duration", &o.duration_s, error) != 0)
                return -EINVAL;
            if (!(o.duration_s >= 0))
                return fail(f, who + "a restart's duration must not be negative", error);
        } else if (std::string(kind) != "kill") {
            return fail(f, who + "unknown fault kind '" + kind + "' (restart, kill)", error);
        }
        if (!(o.at_s >= 0))
            return fail(f, who + "a fault's time must not be negative", error);
        out->push_back(o);
    }
    std::stable_sort(out->begin(), out->end(),
                     [](const service_outage &a, const service_outage &b) { return a.at_s < b.at_s; });
    return 0;
}

int service_group_from(config_t *cfg, const char *name, const service_group_parser &parse, std::string *error)
{
    const config_setting_t *simulator = cfg ? config_lookup(cfg, "simulator") : nullptr;
    const config_setting_t *group = simulator ? config_setting_get_member(simulator, name) : nullptr;
    if (group && !config_setting_is_group(group))
        return fail(group, std::string("simulator.") + name + " must be a group", error);
    return parse(group, error);
}

int gps_settings_from(config_t *cfg, gps_settings *out, std::string *error)
{
    gps_settings s;
    int r = service_group_from(
        cfg, "gps", [&s](const config_setting_t *g, std::string *e) { return parse_gps(g, &s, e); }, error);
    if (r == 0)
        *out = s;
    return r;
}

int gps_settings_load(const std::string &scenario_path, gps_settings *out, std::string *error)
{
    if (scenario_path.empty())
        return gps_settings_from(nullptr, out, error);
    return config_load_file(
        scenario_path.c_str(), [&](config_t *cfg, std::string *e) { return gps_settings_from(cfg, out, e); }, error);
}

struct gps_daemon::impl {
    gps_settings settings;
    vehicle model;
    int64_t epoch_ns;
    std::mt19937_64 rng;
    std::atomic<bool> stop{false};
    msg_server *server = nullptr;
    gps_daemon *owner = nullptr;
    msg_frame fw{};

    impl(const gps_settings &gs, const scenario &s, int64_t epoch)
        : settings(gs), model(s), epoch_ns(epoch), rng(s.seed ^ 0x9e3779b97f4a7c15ull)
    {
    }

    static void on_event(msg_server *, int event, msg_connection *conn, const msg_message *, void *user)
    {
        auto *self = static_cast<impl *>(user);
        if (event == MSG_EVENT_CONNECTED) {
            self->owner->clients_++;
            connection_send(conn, &self->fw);
        } else if (event == MSG_EVENT_DISCONNECTED) {
            self->owner->clients_--;
        }
    }

    bool open(std::string *error)
    {
        server = server_create(kGpsSocketName, on_event, this);
        if (!server) {
            if (error)
                *error = std::string("gps daemon: cannot listen on \"gps\": ") + strerror(errno);
            return false;
        }
        owner->serving_ = true;
        return true;
    }

    void close()
    {
        server_destroy(server);
        server = nullptr;
        owner->clients_ = 0;
        owner->serving_ = false;
    }

    double scenario_time() const { return double(monotonic_ns() - epoch_ns) / 1e9; }

    void run();
};

void gps_daemon::impl::run()
{
    std::normal_distribution<double> noise(0.0, 1.0);
    outage_follower outages(settings.outages);
    double t0 = scenario_time();
    double next_loc = t0, next_com = t0, next_er = t0, next_fw = t0 + settings.fw_period_s;
    auto due = [](double *next, double t, double rate_hz) {
        if (t < *next)
            return false;
        *next += 1.0 / rate_hz;
        if (*next < t) // fell behind (a stalled machine): no burst of stale messages
            *next = t + 1.0 / rate_hz;
        return true;
    };
    while (!stop.load()) {
        double t = scenario_time();
        const int change = outages.step(t, server != nullptr);
        if (change > 0 && open(nullptr))
            outages.reopened(); // a name taken meanwhile: tried again next tick
        else if (change < 0)
            close();
        if (!server) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kTickMs));
            continue;
        }
        server_process(server, kTickMs);
        t = scenario_time();
        const truth now = model.at(t);
        msg_frame frame;
        if (due(&next_loc, t, settings.loc_rate_hz)) {
            double altitude = now.altitude_m + settings.altitude_noise_m * noise(rng);
            message_build(&frame, kGpsMsgLoc, "%lf%lf%lf%lf%lu", settings.latitude_deg, settings.longitude_deg,
                          altitude, 1.5, uint64_t(t * 1000.0));
            server_broadcast(server, &frame);
            owner->fixes_++;
        }
        if (due(&next_com, t, settings.ex_com_rate_hz)) {
            // Velocity north, east, down (m/s): the vehicle only climbs.
            double climb = (model.at(t + 0.05).altitude_m - model.at(t - 0.05).altitude_m) / 0.1;
            message_build(&frame, kGpsMsgExCom, "%f%f%f%i%u%s", 0.0, 0.0, -climb, settings.satellites, 3u,
                          settings.constellation.c_str());
            server_broadcast(server, &frame);
        }
        if (due(&next_er, t, settings.ex_er_rate_hz)) {
            // Dilutions of precision (h, v, p), accuracies (horizontal m,
            // vertical m, speed m/s, heading deg), satellites used.
            message_build(&frame, kGpsMsgExEr, "%f%f%f%f%f%f%f%i", 0.8, 1.1, 1.4, 1.5,
                          std::max(0.5, 3.0 * settings.altitude_noise_m), 0.2, 2.0,
                          std::max(0, settings.satellites - 2));
            server_broadcast(server, &frame);
        }
        if (due(&next_fw, t, 1.0 / settings.fw_period_s))
            server_broadcast(server, &fw);
    }
    if (server)
        close();
}

gps_daemon::gps_daemon(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

gps_daemon::~gps_daemon()
{
    impl_->stop = true;
    if (thread_.joinable())
        thread_.join();
}

std::unique_ptr<gps_daemon> gps_daemon::start(const gps_settings &settings, const scenario &s, int64_t epoch_ns,
                                              std::string *error)
{
    auto p = std::make_unique<impl>(settings, s, epoch_ns);
    if (message_build(&p->fw, kGpsMsgFw, "%s%s", settings.firmware.c_str(), settings.receiver.c_str()) != 0) {
        if (error)
            *error = "gps daemon: firmware texts too long";
        return nullptr;
    }
    impl *raw = p.get();
    std::unique_ptr<gps_daemon> d(new gps_daemon(std::move(p)));
    raw->owner = d.get();
    // Bound even when an outage starts at once: a name already taken is an
    // error to report now, not a silent daemon.
    if (!raw->open(error))
        return nullptr;
    d->thread_ = std::thread([raw] { raw->run(); });
    return d;
}

} // namespace sim
