// SPDX-License-Identifier: Apache-2.0
#include "sim/ultrasound.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "platform/msg_socket.h"
#include "platform/time_helpers.h"
#include "platform/ultrasound_service.h"
#include "sim/config_file.h"
#include "sim/gps_daemon.h"
#include "sim/vehicle.h"

namespace sim {

namespace {

// The shortest period the transducer can fire at, µs.
constexpr uint64_t kMinPeriodUs = 10000;
constexpr int kTickMs = 2;

int parse_ultrasound(const config_setting_t *g, ultrasound_settings *out, std::string *error)
{
    if (!g)
        return 0;
    const config_setting_t *enabled = config_setting_get_member(g, "enabled");
    if (enabled) {
        if (config_setting_type(enabled) != CONFIG_TYPE_BOOL) {
            *error = "ultrasound: enabled must be true or false (line " +
                     std::to_string(config_setting_source_line(enabled)) + ")";
            return -EINVAL;
        }
        out->enabled = config_setting_get_bool(enabled) != 0;
    }
    const struct {
        const char *key;
        double *value;
        double min;
        double max;
    } numbers[] = {
        {"short-range-limit", &out->short_range_limit_m, 0.0, 100.0},
        {"max-range", &out->max_range_m, 0.1, 100.0},
        {"noise", &out->noise_m, 0.0, 10.0},
        {"filter-gain", &out->filter_gain, 0.0, 1.0},
    };
    for (const auto &n : numbers) {
        if (setting_number(g, n.key, n.value, error) != 0)
            return -EINVAL;
        if (*n.value < n.min || *n.value > n.max) {
            *error = std::string("ultrasound: ") + n.key + " is out of range";
            return -EINVAL;
        }
    }
    return service_outages_parse(g, &out->outages, error);
}

} // namespace

int ultrasound_settings_from(config_t *cfg, ultrasound_settings *out, std::string *error)
{
    ultrasound_settings s;
    int r = service_group_from(
        cfg, "ultrasound", [&s](const config_setting_t *g, std::string *e) { return parse_ultrasound(g, &s, e); },
        error);
    if (r == 0)
        *out = s;
    return r;
}

int ultrasound_settings_load(const std::string &scenario_path, ultrasound_settings *out, std::string *error)
{
    if (scenario_path.empty())
        return ultrasound_settings_from(nullptr, out, error);
    return config_load_file(
        scenario_path.c_str(), [&](config_t *cfg, std::string *e) { return ultrasound_settings_from(cfg, out, e); },
        error);
}

struct ultrasound_service::impl {
    struct client {
        uint64_t period_us = 0; // 0: connected, not ranging
        double max_range_m = 0;
        int64_t next_ns = 0;
        double filtered = NAN;
    };

    ultrasound_settings settings;
    vehicle model;
    double ground_m;
    int64_t epoch_ns;
    std::mt19937_64 rng;
    std::atomic<bool> stop{false};
    msg_server *server = nullptr;
    ultrasound_service *owner = nullptr;
    std::map<msg_connection *, client> clients;

    impl(const ultrasound_settings &us, const scenario &s, int64_t epoch)
        : settings(us), model(s), ground_m(s.ground_altitude_m), epoch_ns(epoch), rng(s.seed ^ 0x5851f42d4c957f2dull)
    {
    }

    void count_ranging()
    {
        size_t n = 0;
        for (const auto &[conn, c] : clients)
            n += c.period_us != 0;
        owner->ranging_ = n;
    }

    static void on_event(msg_server *, int event, msg_connection *conn, const msg_message *message, void *user)
    {
        auto *self = static_cast<impl *>(user);
        if (event == MSG_EVENT_CONNECTED) {
            self->clients[conn] = client{};
        } else if (event == MSG_EVENT_DISCONNECTED) {
            self->clients.erase(conn);
        } else if (message_get_id(message) == kUsMsgRequest) {
            uint64_t period_us = 0;
            float max_range = 0;
            if (message_read(message, "%lu%f", &period_us, &max_range) != 0)
                return;
            client &c = self->clients[conn];
            c.period_us = std::max(period_us, kMinPeriodUs);
            c.max_range_m = max_range > 0 ? double(max_range) : self->settings.max_range_m;
            c.next_ns = monotonic_ns();
        }
        self->count_ranging();
    }

    // One echo: the slant range along the sensor's axis, which points down
    // the vehicle's z axis.
    void measure(msg_connection *conn, client &c, int64_t at_ns)
    {
        const double t = double(at_ns - epoch_ns) / 1e9;
        const truth s = model.at(t);
        const double height = std::max(0.0, s.altitude_m - ground_m);
        const double tilt = std::cos(s.attitude[0]) * std::cos(s.attitude[1]);
        double range = tilt > 0.1 ? height / tilt : INFINITY;
        range += settings.noise_m * std::normal_distribution<double>(0.0, 1.0)(rng);
        range = std::max(0.0, range);
        uint32_t status = 0;
        if (range > c.max_range_m) {
            status = 1; // no echo within range
            range = c.max_range_m;
        }
        c.filtered = std::isnan(c.filtered) ? range : c.filtered + settings.filter_gain * (range - c.filtered);
        const uint32_t mode = range < settings.short_range_limit_m ? kUsRangeShort : kUsRangeLong;
        msg_frame frame;
        if (message_build(&frame, kUsMsgMeasurement, "%f%f%u%u", range, c.filtered, status, mode) == 0)
            connection_send(conn, &frame);
    }

    bool open(std::string *error)
    {
        server = server_create(kUltrasoundSocketName, on_event, this);
        if (!server) {
            if (error)
                *error = std::string("ultrasound service: cannot listen on \"ultrasound\": ") + strerror(errno);
            return false;
        }
        owner->serving_ = true;
        return true;
    }

    void close()
    {
        server_destroy(server);
        server = nullptr;
        clients.clear();
        owner->ranging_ = 0;
        owner->serving_ = false;
    }

    // Goes down when an outage begins and back up when it ends.
    outage_follower outages{settings.outages};

    void follow_outages()
    {
        const int change = outages.step(double(monotonic_ns() - epoch_ns) / 1e9, server != nullptr);
        if (change > 0 && open(nullptr))
            outages.reopened(); // a name taken meanwhile: tried again next tick
        else if (change < 0)
            close();
    }

    void run()
    {
        while (!stop.load()) {
            follow_outages();
            if (!server) {
                std::this_thread::sleep_for(std::chrono::milliseconds(kTickMs));
                continue;
            }
            server_process(server, kTickMs);
            const int64_t now = monotonic_ns();
            std::vector<msg_connection *> due;
            for (auto &[conn, c] : clients)
                if (c.period_us && now >= c.next_ns)
                    due.push_back(conn);
            for (msg_connection *conn : due) {
                auto it = clients.find(conn); // a send may have dropped an earlier one
                if (it == clients.end())
                    continue;
                client &c = it->second;
                c.next_ns += int64_t(c.period_us) * kNsPerUs;
                if (c.next_ns < now)
                    c.next_ns = now + int64_t(c.period_us) * kNsPerUs;
                measure(conn, c, now);
            }
        }
    }
};

ultrasound_service::ultrasound_service(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

ultrasound_service::~ultrasound_service()
{
    impl_->stop = true;
    if (thread_.joinable())
        thread_.join();
    impl_->close();
}

std::unique_ptr<ultrasound_service> ultrasound_service::start(const ultrasound_settings &settings, const scenario &s,
                                                              int64_t epoch_ns, std::string *error)
{
    auto p = std::make_unique<impl>(settings, s, epoch_ns);
    impl *raw = p.get();
    std::unique_ptr<ultrasound_service> service(new ultrasound_service(std::move(p)));
    raw->owner = service.get();
    // Bound even when it starts late: a name already taken is an error to
    // report now, not a silent service. An outage that has begun closes it
    // again before anyone is told the vehicle is up.
    if (!raw->open(error))
        return nullptr;
    raw->follow_outages();
    service->thread_ = std::thread([raw] { raw->run(); });
    return service;
}

} // namespace sim
