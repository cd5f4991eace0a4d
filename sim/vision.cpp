// SPDX-License-Identifier: Apache-2.0
#include "sim/vision.h"

#include "sim/config_file.h"

#include <libconfig.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "sim/vehicle.h"

namespace sim {
namespace {

constexpr std::array<const char *, kVisionProducerCount> kProducerNames{"carpet", "position", "optical-flow",
                                                                        "gimbal"};
constexpr std::array<const char *, 5> kFaultKinds{"late-start", "pause", "restart", "stale", "stop"};

constexpr double kHalfPi = 1.5707963267948966;
constexpr double kMaxRateHz = 1000.0;
// Sections hold two seconds of samples, as the plug-in's own sections do.
constexpr double kHistoryS = 2.0;

// ---- published records, as the vision and gimbal processes lay them out ----

struct carpet_record {
    float position_x; // mm, forward
    float position_y; // mm, left
    float position_z; // mm, up
    float orientation; // rad, from the vehicle's y axis
    uint32_t nb_targets;
};
constexpr tlm_field_desc kCarpetFields[] = {
    {offsetof(carpet_record, position_x), "position_x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(carpet_record, position_y), "position_y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(carpet_record, position_z), "position_z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(carpet_record, orientation), "orientation", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(carpet_record, nb_targets), "nb_targets", TLM_TYPE_UINT32, 0, 4, 1, {}},
};

struct position_record {
    float x, y, z; // m, north-east-down from the take-off point
    float discriminable_ft_ratio;
    int32_t status;
    int64_t last_ref_image_ts; // ns, monotonic time of the reference image
};
constexpr tlm_field_desc kPositionFields[] = {
    {offsetof(position_record, x), "x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(position_record, y), "y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(position_record, z), "z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(position_record, discriminable_ft_ratio), "discriminable_ft_ratio", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(position_record, status), "status", TLM_TYPE_INT32, 0, 4, 1, {}},
    {offsetof(position_record, last_ref_image_ts), "last_ref_image_ts", TLM_TYPE_INT64, 0, 8, 1, {}},
};

struct flow_record {
    double flow_s[3];   // rad/s
    float corr_cam[3];  // m/s
    float quality_indicator;
    int32_t nb_valid_zones;
    uint8_t defined;
};
constexpr tlm_field_desc kFlowFields[] = {
    {offsetof(flow_record, flow_s) + 0, "flow_x_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
    {offsetof(flow_record, flow_s) + 8, "flow_y_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
    {offsetof(flow_record, flow_s) + 16, "flow_z_s", TLM_TYPE_DOUBLE, 0, 8, 1, {}},
    {offsetof(flow_record, corr_cam) + 0, "corr_cam_x_m_s", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(flow_record, corr_cam) + 4, "corr_cam_y_m_s", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(flow_record, corr_cam) + 8, "corr_cam_z_m_s", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(flow_record, quality_indicator), "quality_indicator", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(flow_record, nb_valid_zones), "nb_valid_zones", TLM_TYPE_INT32, 0, 4, 1, {}},
    {offsetof(flow_record, defined), "defined", TLM_TYPE_BOOL, 0, 1, 1, {}},
};

// The gimbal stabilisation's estimate, published as "gimbal_stab" fields
// "est.state.ef_rate" and "est.state.ef_q.w" to "est.state.ef_q.z".
struct gimbal_record {
    float ef_rate[3]; // rad/s, earth frame
    float ef_q_w, ef_q_x, ef_q_y, ef_q_z;
};
constexpr tlm_field_desc kGimbalFields[] = {
    {offsetof(gimbal_record, ef_rate), "ef_rate", TLM_TYPE_FLOAT, 0, 4, 3, {}},
    {offsetof(gimbal_record, ef_q_w), "ef_q.w", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(gimbal_record, ef_q_x), "ef_q.x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(gimbal_record, ef_q_y), "ef_q.y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(gimbal_record, ef_q_z), "ef_q.z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
};

struct producer_shape {
    const char *section;
    const char *prefix;
    const tlm_field_desc *fields;
    size_t field_count;
};
constexpr std::array<producer_shape, kVisionProducerCount> kShapes{{
    {"vision_carpet_estimation", nullptr, kCarpetFields, std::size(kCarpetFields)},
    {"vcam_position", nullptr, kPositionFields, std::size(kPositionFields)},
    {"vcam_optical_flow", nullptr, kFlowFields, std::size(kFlowFields)},
    {"gimbal_stab", "est.state", kGimbalFields, std::size(kGimbalFields)},
}};

// ---- settings ----------------------------------------------------------------

int fail(std::string *error, const config_setting_t *where, const std::string &what)
{
    if (error) {
        *error = "vision: " + what;
        if (where && config_setting_source_line(where))
            *error += " (line " + std::to_string(config_setting_source_line(where)) + ")";
    }
    return -EINVAL;
}

// Numbers may be written as integers or floats.
int number(const config_setting_t *group, const char *key, double *out, std::string *error, bool required = false)
{
    const config_setting_t *s = config_setting_get_member(group, key);
    if (!s)
        return required ? fail(error, group, std::string("missing '") + key + "'") : 0;
    if (!config_number(s, out))
        return fail(error, s, std::string("'") + key + "' must be a number");
    return 0;
}

int text(const config_setting_t *group, const char *key, std::string *out, std::string *error)
{
    const config_setting_t *s = config_setting_get_member(group, key);
    if (!s)
        return fail(error, group, std::string("missing '") + key + "'");
    if (config_setting_type(s) != CONFIG_TYPE_STRING)
        return fail(error, s, std::string("'") + key + "' must be a string");
    *out = config_setting_get_string(s);
    return 0;
}

int parse_fault(const config_setting_t *g, vision_fault *f, std::string *error)
{
    std::string kind;
    std::string producer;
    int rc;
    if ((rc = text(g, "kind", &kind, error)) || (rc = text(g, "producer", &producer, error)) ||
        (rc = number(g, "at", &f->at_s, error, true)) || (rc = number(g, "duration", &f->duration_s, error)) ||
        (rc = number(g, "age", &f->age_s, error)))
        return rc;
    size_t k = 0;
    while (k < kFaultKinds.size() && kind != kFaultKinds[k])
        k++;
    if (k == kFaultKinds.size())
        return fail(error, g, "unknown fault kind '" + kind + "'");
    f->kind = vision_fault_kind(k);
    for (size_t i = 0; i < kVisionProducerCount; i++)
        f->producers[i] = producer == "all" || producer == kProducerNames[i];
    if (producer != "all" && std::find(kProducerNames.begin(), kProducerNames.end(), producer) == kProducerNames.end())
        return fail(error, g, "unknown producer '" + producer + "' (carpet, position, optical-flow, gimbal or all)");
    if (f->at_s < 0.0 || f->duration_s < 0.0 || f->age_s <= 0.0)
        return fail(error, g, "'at' and 'duration' must not be negative and 'age' must be positive");
    return 0;
}

int parse_group(const config_setting_t *v, vision_settings *out, std::string *error)
{
    vision_settings s;
    const config_setting_t *enabled = config_setting_get_member(v, "enabled");
    if (enabled) {
        if (config_setting_type(enabled) != CONFIG_TYPE_BOOL)
            return fail(error, enabled, "'enabled' must be true or false");
        s.enabled = config_setting_get_bool(enabled);
    }
    int rc;
    if ((rc = number(v, "rate", &s.rate_hz, error)) || (rc = number(v, "gimbal-rate", &s.gimbal_rate_hz, error)))
        return rc;
    if (!(s.rate_hz > 0.0 && s.rate_hz <= kMaxRateHz && s.gimbal_rate_hz > 0.0 && s.gimbal_rate_hz <= kMaxRateHz))
        return fail(error, v, "'rate' and 'gimbal-rate' must lie in (0, 1000] Hz");
    if (const config_setting_t *c = config_setting_get_member(v, "carpet-position")) {
        if (!config_setting_is_array(c) || config_setting_length(c) != 2)
            return fail(error, c, "'carpet-position' must be [north, east] in metres");
        for (unsigned i = 0; i < 2; i++)
            if (!config_number(config_setting_get_elem(c, i), &s.carpet_ne_m[i]))
                return fail(error, c, "'carpet-position' must be [north, east] in metres");
    }
    if (const config_setting_t *faults = config_setting_get_member(v, "faults")) {
        if (!config_setting_is_list(faults))
            return fail(error, faults, "'faults' must be a list of groups");
        for (int i = 0; i < config_setting_length(faults); i++) {
            const config_setting_t *g = config_setting_get_elem(faults, unsigned(i));
            if (!config_setting_is_group(g))
                return fail(error, g, "'faults' must hold groups");
            vision_fault f;
            if ((rc = parse_fault(g, &f, error)))
                return rc;
            s.faults.push_back(f);
        }
    }
    *out = std::move(s);
    return 0;
}

int parse_config(config_t *cfg, vision_settings *out, std::string *error)
{
    const config_setting_t *v = config_lookup(cfg, "simulator.vision");
    if (!v) {
        *out = vision_settings{};
        return 0;
    }
    if (!config_setting_is_group(v))
        return fail(error, v, "'vision' must be a group");
    return parse_group(v, out, error);
}

// ---- the producers -------------------------------------------------------------


struct producer_state {
    vision_producer_id id;
    shm_producer *section = nullptr;
    int64_t period_ns = 0;
    int64_t next_ns = 0;
    union {
        carpet_record carpet;
        position_record position;
        flow_record flow;
        gimbal_record gimbal;
    } record{};
    std::vector<bool> restarted; // per fault: a restart already done
    std::atomic<uint64_t> published{0};
    int open_error = 0; // of the last attempt to make the section
};

} // namespace

struct vision_producers::impl {
    scenario scn;
    vehicle flight;
    vision_settings settings;
    int64_t epoch_ns;
    std::array<producer_state, kVisionProducerCount> producers;
    std::mutex lock;
    std::condition_variable wake;
    bool stopping = false;
    std::thread thread;

    impl(const scenario &s, const vision_settings &v, int64_t epoch)
        : scn(s), flight(s), settings(v), epoch_ns(epoch)
    {
    }

    ~impl()
    {
        for (producer_state &p : producers)
            close(p);
    }

    bool hits(const vision_fault &f, vision_producer_id id) const { return f.producers[size_t(id)]; }
    static bool within(const vision_fault &f, double t) { return t >= f.at_s && t < f.at_s + f.duration_s; }

    void close(producer_state &p)
    {
        producer_destroy(p.section);
        p.section = nullptr;
    }

    int open(producer_state &p)
    {
        const producer_shape &shape = kShapes[size_t(p.id)];
        const uint32_t period_us = uint32_t(p.period_ns / 1000);
        const uint32_t count = uint32_t(std::ceil(kHistoryS * 1e9 / double(p.period_ns)));
        p.section = producer_create(shape.section, count, period_us);
        if (!p.section)
            return -ENOMEM;
        const tlm_struct_desc desc{0, shape.field_count, shape.fields};
        int r = producer_register_struct(p.section, &p.record, shape.prefix, &desc);
        if (r == 0)
            r = producer_complete(p.section);
        if (r < 0)
            close(p);
        return r;
    }

    // Fills p's record from the truth t seconds into the flight.
    void fill(producer_state &p, double t)
    {
        const double dt = 0.01;
        const truth now = flight.at(t);
        const truth next = flight.at(t + dt);
        const double height = now.altitude_m - scn.ground_altitude_m;
        const double yaw = now.attitude[2];
        switch (p.id) {
        case vision_producer_id::carpet: {
            // The carpet seen from the vehicle, in the estimator's millimetres
            // and axes (forward, left, up), its orientation from the y axis.
            const double dn = settings.carpet_ne_m[0], de = settings.carpet_ne_m[1];
            const double forward = std::cos(yaw) * dn + std::sin(yaw) * de;
            const double right = -std::sin(yaw) * dn + std::cos(yaw) * de;
            p.record.carpet = {float(forward * 1000.0), float(-right * 1000.0), float(-height * 1000.0),
                               float(kHalfPi - yaw), 1u};
            break;
        }
        case vision_producer_id::position:
            p.record.position = {0.0f, 0.0f, float(-height), 0.8f, 1, epoch_ns};
            break;
        case vision_producer_id::optical_flow: {
            // A downward camera over still ground sees the vehicle's rotation
            // and its climb.
            const double climb = (next.altitude_m - now.altitude_m) / dt;
            p.record.flow = {{now.rates[0], now.rates[1], now.rates[2]},
                             {0.0f, 0.0f, float(-climb)},
                             1.0f,
                             16,
                             1};
            break;
        }
        case vision_producer_id::gimbal: {
            // The gimbal holds the camera level: its attitude is the heading alone.
            const double yaw_rate = (next.attitude[2] - yaw) / dt;
            p.record.gimbal = {{0.0f, 0.0f, float(yaw_rate)}, float(std::cos(yaw / 2)), 0.0f, 0.0f,
                               float(std::sin(yaw / 2))};
            break;
        }
        }
    }

    // One tick of producer p at monotonic time now.
    void tick(producer_state &p, int64_t now)
    {
        const double t = double(now - epoch_ns) / 1e9;
        bool present = true;
        bool paused = false;
        double age_s = 0.0;
        for (size_t i = 0; i < settings.faults.size(); i++) {
            const vision_fault &f = settings.faults[i];
            if (!hits(f, p.id))
                continue;
            switch (f.kind) {
            case vision_fault_kind::late_start:
                present = present && t >= f.at_s;
                break;
            case vision_fault_kind::stop:
                present = present && !within(f, t);
                break;
            case vision_fault_kind::pause:
                paused = paused || within(f, t);
                break;
            case vision_fault_kind::stale:
                if (within(f, t))
                    age_s = f.age_s;
                break;
            case vision_fault_kind::restart:
                if (t >= f.at_s && !p.restarted[i]) {
                    p.restarted[i] = true;
                    close(p); // reopened below: a new section file under the same name
                }
                break;
            }
        }
        if (!present) {
            close(p);
            return;
        }
        if (!p.section && (p.open_error = open(p)) < 0)
            return; // tried again at the next tick
        if (paused)
            return;
        fill(p, t);
        const timespec stamp = ns_to_timespec(now - int64_t(age_s * 1e9));
        if (producer_put_sample(p.section, &stamp) == 0)
            p.published.fetch_add(1, std::memory_order_relaxed);
    }

    void run()
    {
        std::unique_lock<std::mutex> guard(lock);
        while (!stopping) {
            int64_t due = INT64_MAX;
            for (producer_state &p : producers)
                due = std::min(due, p.next_ns);
            const int64_t now = monotonic_ns();
            if (due > now) {
                // steady_clock is the monotonic clock the samples are stamped with.
                wake.wait_for(guard, std::chrono::nanoseconds(due - now));
                continue;
            }
            for (producer_state &p : producers) {
                if (p.next_ns > now)
                    continue;
                tick(p, now);
                p.next_ns += p.period_ns;
                if (p.next_ns <= now) // fell behind: skip, do not burst
                    p.next_ns = now + p.period_ns;
            }
        }
        for (producer_state &p : producers)
            close(p);
    }
};

int vision_settings_from(config_t *cfg, vision_settings *out, std::string *error)
{
    return parse_config(cfg, out, error);
}

int vision_settings_parse(const char *text_in, vision_settings *out, std::string *error)
{
    return config_load_text(
        text_in, [out](config_t *cfg, std::string *e) { return parse_config(cfg, out, e); }, error);
}

int vision_settings_load(const char *path, vision_settings *out, std::string *error)
{
    return config_load_file(
        path, [out](config_t *cfg, std::string *e) { return parse_config(cfg, out, e); }, error);
}

const char *vision_producer_name(vision_producer_id id)
{
    return size_t(id) < kProducerNames.size() ? kProducerNames[size_t(id)] : "unknown";
}

const char *vision_fault_kind_name(vision_fault_kind kind)
{
    return size_t(kind) < kFaultKinds.size() ? kFaultKinds[size_t(kind)] : "unknown";
}

vision_producers::vision_producers(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

vision_producers::~vision_producers()
{
    stop();
}

std::unique_ptr<vision_producers> vision_producers::start(const scenario &s, const vision_settings &v,
                                                          int64_t epoch_ns, std::string *error)
{
    auto p = std::make_unique<impl>(s, v, epoch_ns);
    const int64_t now = monotonic_ns();
    for (size_t i = 0; i < kVisionProducerCount; i++) {
        producer_state &st = p->producers[i];
        st.id = vision_producer_id(i);
        const double rate = st.id == vision_producer_id::gimbal ? v.gimbal_rate_hz : v.rate_hz;
        st.period_ns = int64_t(1e9 / rate);
        // Without vision, no producer ever becomes due.
        st.next_ns = v.enabled ? now : INT64_MAX;
        st.restarted.assign(v.faults.size(), false);
    }
    if (v.enabled) {
        // A section that cannot be made at all (a directory that cannot be
        // written) is an error now rather than a silent vision outage.
        const char *dir_probe = kShapes[0].section;
        char path[512];
        if (tlm_section_path(dir_probe, path, sizeof path) < 0) {
            if (error)
                *error = "vision: telemetry directory name too long";
            return nullptr;
        }
    }
    try {
        p->thread = std::thread([raw = p.get()] { raw->run(); });
    } catch (const std::system_error &e) {
        if (error)
            *error = std::string("vision: cannot start the producers' thread: ") + e.what();
        return nullptr;
    }
    return std::unique_ptr<vision_producers>(new vision_producers(std::move(p)));
}

void vision_producers::stop()
{
    if (!impl_ || !impl_->thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> guard(impl_->lock);
        impl_->stopping = true;
    }
    impl_->wake.notify_all();
    impl_->thread.join();
}

uint64_t vision_producers::published(vision_producer_id id) const
{
    return impl_->producers[size_t(id)].published.load(std::memory_order_relaxed);
}

} // namespace sim
