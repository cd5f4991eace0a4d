// SPDX-License-Identifier: Apache-2.0
// The virtual vehicle's GPS daemon: serves the abstract socket "gps"
// (relocated by ORLUNE_SOCKET_PREFIX) and sends its four message kinds at
// their own rates from the scenario's truth. The scenario can restart it or
// kill it. Its settings are the group "gps" of the scenario's "simulator"
// group; see docs/gps-ultrasound.md.
#pragma once

#include <libconfig.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/scenario.h"

namespace sim {

// Message ids of the daemon's protocol.
inline constexpr uint32_t kGpsMsgLoc = 0;   // "%lf%lf%lf%lf%lu"
inline constexpr uint32_t kGpsMsgExCom = 1; // "%f%f%f%i%u%s"
inline constexpr uint32_t kGpsMsgExEr = 2;  // "%f%f%f%f%f%f%f%i"
inline constexpr uint32_t kGpsMsgFw = 3;    // "%s%s"

// A service's outage: it stops listening at at_s (scenario time) and drops
// its clients; it listens again duration_s later. One at 0 starts it late.
struct service_outage {
    double at_s = 0.0;
    double duration_s = -1.0; // < 0: killed, never back
};

// Follows a service's outage schedule (sorted by time) from its thread: an
// outage applies while the service is up, so one that begins during another
// begins when the service is back.
class outage_follower {
public:
    explicit outage_follower(const std::vector<service_outage> &outages) : outages_(outages) {}
    // What the service does at scenario time t: -1 stop listening, +1 listen
    // again (then reopened() once it does), 0 nothing.
    int step(double t, bool up)
    {
        if (!up)
            return back_at_ >= 0 && t >= back_at_ ? 1 : 0;
        if (next_ >= outages_.size() || t < outages_[next_].at_s)
            return 0;
        const service_outage &o = outages_[next_++];
        back_at_ = o.duration_s < 0 ? -1.0 : o.at_s + o.duration_s;
        return -1;
    }
    void reopened() { back_at_ = -1.0; }

private:
    const std::vector<service_outage> &outages_;
    size_t next_ = 0;
    double back_at_ = -1.0; // while down: when the service listens again, < 0 never
};

struct gps_settings {
    bool enabled = true;
    double latitude_deg = 45.1885; // the vehicle does not travel: a fixed place
    double longitude_deg = 5.7245;
    double loc_rate_hz = 5.0;
    double ex_com_rate_hz = 1.0;
    double ex_er_rate_hz = 1.0;
    double fw_period_s = 10.0; // also sent to each new client
    double altitude_noise_m = 0.3;
    int satellites = 12;
    std::string constellation = "GNSS";
    std::string firmware = "orlune-gpsd 2.1.0";
    std::string receiver = "ORL-M8 rev 3";
    std::vector<service_outage> outages; // sorted by time
};

using service_group_parser = std::function<int(const config_setting_t *, std::string *)>;
// Hands the group simulator.<name> of a parsed scenario to parse (null when
// the scenario has no such group; a null tree is the built-in scenario, which
// has none). 0, or -EINVAL with *error set.
int service_group_from(config_t *cfg, const char *name, const service_group_parser &parse, std::string *error);
// A number (integer or float) of a group; absent keys leave *out. 0 or -EINVAL.
int setting_number(const config_setting_t *group, const char *key, double *out, std::string *error);
// The group's list `faults = ( { at; kind = "restart"; duration; }, { at;
// kind = "kill"; } )` into *out, sorted by time; messages begin with the
// group's name. 0 or -EINVAL.
int service_outages_parse(const config_setting_t *group, std::vector<service_outage> *out, std::string *error);

int gps_settings_load(const std::string &scenario_path, gps_settings *out, std::string *error);
int gps_settings_from(config_t *cfg, gps_settings *out, std::string *error);

class gps_daemon {
public:
    // Starts serving now (unless an outage starts at 0), on a thread of its
    // own; the scenario's clock began at epoch_ns (monotonic). Null with
    // *error when the socket cannot be bound.
    static std::unique_ptr<gps_daemon> start(const gps_settings &settings, const scenario &s, int64_t epoch_ns,
                                             std::string *error);
    ~gps_daemon();
    gps_daemon(const gps_daemon &) = delete;
    gps_daemon &operator=(const gps_daemon &) = delete;

    bool serving() const { return serving_.load(); }
    size_t clients() const { return clients_.load(); }
    // Loc messages sent since start, to any client.
    uint64_t fixes_sent() const { return fixes_.load(); }

    struct impl;

private:
    explicit gps_daemon(std::unique_ptr<impl> p);
    std::unique_ptr<impl> impl_;
    std::atomic<bool> serving_{false};
    std::atomic<size_t> clients_{0};
    std::atomic<uint64_t> fixes_{0};
    std::thread thread_;
};

} // namespace sim
