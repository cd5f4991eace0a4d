// SPDX-License-Identifier: Apache-2.0
#include "sim/scenario.h"

#include "sim/config_file.h"

#include <libconfig.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <optional>
#include <set>
#include <string_view>
#include <unistd.h>

#include "sim/vehicle.h"

namespace sim {
namespace {

constexpr std::array<const char *, 4> kDeviceKinds{"imu", "baro", "magneto", "motors"};
// Default delivery delay per kind, in sampling periods, indexed like kDeviceKinds.
constexpr std::array<double, 4> kDefaultDeliveryPeriods{0.0, 0.0, 0.0, 0.1};
// An explicit delivery-delay stays below this, s.
constexpr double kMaxDeliveryDelayS = 1.0;
static_assert(kDefaultDeliveryPeriods.size() == kDeviceKinds.size());
// Times a scenario may fly its list of phases.
constexpr int kMaxRepeat = 1000;
// Coefficients a drift polynomial may have: c0 to c7.
constexpr int kMaxDriftCoeffs = 8;
constexpr std::array<const char *, 5> kFaultKinds{"refill-error", "short-batch", "stall", "disconnect",
                                                    "motor-error"};

template <typename E, size_t N>
int kind_from_name(const std::array<const char *, N> &table, const char *name, E *out)
{
    for (size_t i = 0; name && i < table.size(); i++) {
        if (std::strcmp(table[i], name) == 0) {
            *out = static_cast<E>(i);
            return 0;
        }
    }
    return -EINVAL;
}

// Reads the scenario tree; each failure names the setting and its line.
class reader {
public:
    explicit reader(std::string *error) : error_(error) {}

    int fail(const config_setting_t *where, const std::string &what)
    {
        if (error_) {
            *error_ = what;
            if (where && config_setting_source_line(where))
                *error_ += " (line " + std::to_string(config_setting_source_line(where)) + ")";
        }
        return -EINVAL;
    }

    // Numbers may be written as integers or floats.
    int number(const config_setting_t *group, const char *key, double *out, bool required = false)
    {
        const config_setting_t *s = config_setting_get_member(group, key);
        if (!s)
            return required ? fail(group, std::string("missing '") + key + "'") : 0;
        if (!config_number(s, out))
            return fail(s, std::string("'") + key + "' must be a number");
        return 0;
    }

    // An optional number that stays unset when the key is absent.
    int number(const config_setting_t *group, const char *key, std::optional<double> *out)
    {
        double v = 0;
        if (!config_setting_get_member(group, key))
            return 0;
        const int rc = number(group, key, &v);
        if (rc == 0)
            *out = v;
        return rc;
    }

    int integer(const config_setting_t *group, const char *key, int *out, bool required = false)
    {
        const config_setting_t *s = config_setting_get_member(group, key);
        if (!s)
            return required ? fail(group, std::string("missing '") + key + "'") : 0;
        if (config_setting_type(s) != CONFIG_TYPE_INT)
            return fail(s, std::string("'") + key + "' must be an integer");
        *out = config_setting_get_int(s);
        return 0;
    }

    int text(const config_setting_t *group, const char *key, std::string *out, bool required = false)
    {
        const config_setting_t *s = config_setting_get_member(group, key);
        if (!s)
            return required ? fail(group, std::string("missing '") + key + "'") : 0;
        if (config_setting_type(s) != CONFIG_TYPE_STRING)
            return fail(s, std::string("'") + key + "' must be a string");
        *out = config_setting_get_string(s);
        return 0;
    }

    template <size_t N>
    int numbers(const config_setting_t *group, const char *key, std::array<double, N> *out)
    {
        const config_setting_t *s = config_setting_get_member(group, key);
        if (!s)
            return 0;
        if (!config_setting_is_array(s) || config_setting_length(s) != static_cast<int>(N))
            return fail(s, std::string("'") + key + "' must be an array of " + std::to_string(N) + " numbers");
        for (size_t i = 0; i < N; i++) {
            const config_setting_t *e = config_setting_get_elem(s, static_cast<unsigned>(i));
            if (!config_number(e, &(*out)[i]))
                return fail(s, std::string("'") + key + "' must hold numbers");
        }
        return 0;
    }

    // A group of name = "value" pairs.
    int attributes(const config_setting_t *group, std::vector<std::pair<std::string, std::string>> *out)
    {
        const config_setting_t *s = config_setting_get_member(group, "attributes");
        if (!s)
            return 0;
        if (!config_setting_is_group(s))
            return fail(s, "'attributes' must be a group of name = \"value\" pairs");
        for (int i = 0; i < config_setting_length(s); i++) {
            const config_setting_t *e = config_setting_get_elem(s, static_cast<unsigned>(i));
            if (config_setting_type(e) != CONFIG_TYPE_STRING)
                return fail(e, std::string("attribute '") + config_setting_name(e) + "' must be a string");
            out->emplace_back(config_setting_name(e), config_setting_get_string(e));
        }
        return 0;
    }

    // A polynomial: an array or a list of 1 to kMaxDriftCoeffs numbers.
    int poly(const config_setting_t *s, const char *key, drift_poly *out)
    {
        const int n = config_setting_length(s);
        if (!(config_setting_is_array(s) || config_setting_is_list(s)) || n < 1 || n > kMaxDriftCoeffs)
            return fail(s, std::string("'") + key + "' needs polynomials of 1 to " + std::to_string(kMaxDriftCoeffs) +
                               " coefficients, each in [ ]");
        out->resize(size_t(n));
        for (int i = 0; i < n; i++)
            if (!config_number(config_setting_get_elem(s, unsigned(i)), &(*out)[size_t(i)]))
                return fail(s, std::string("'") + key + "' must hold numbers");
        return 0;
    }

    // A list of N polynomials, one per axis (or per matrix entry, row-major).
    template <size_t N>
    int polys(const config_setting_t *group, const char *key, std::array<drift_poly, N> *out)
    {
        const config_setting_t *s = config_setting_get_member(group, key);
        if (!s)
            return 0;
        if (!config_setting_is_list(s) || config_setting_length(s) != int(N))
            return fail(s, std::string("'") + key + "' must be a list of " + std::to_string(N) + " polynomials");
        for (size_t i = 0; i < N; i++) {
            const int rc = poly(config_setting_get_elem(s, unsigned(i)), key, &(*out)[i]);
            if (rc)
                return rc;
        }
        return 0;
    }

    // The unit's true drift; only the keys of the device's kind.
    int drift(const config_setting_t *device, device_kind kind, std::optional<unit_drift> *out)
    {
        const config_setting_t *g = config_setting_get_member(device, "drift");
        if (!g)
            return 0;
        if (!config_setting_is_group(g))
            return fail(g, "'drift' must be a group");
        static constexpr std::array<std::pair<const char *, device_kind>, 6> kKeys{{{"gyro-bias", device_kind::imu},
                                                                                     {"accel-bias", device_kind::imu},
                                                                                     {"gyro-scale", device_kind::imu},
                                                                                     {"accel-scale", device_kind::imu},
                                                                                     {"pressure-bias", device_kind::baro},
                                                                                     {"field-bias", device_kind::magneto}}};
        for (int i = 0; i < config_setting_length(g); i++) {
            const config_setting_t *e = config_setting_get_elem(g, unsigned(i));
            const std::string_view name = config_setting_name(e);
            if (name == "temp-0")
                continue;
            auto known = std::find_if(kKeys.begin(), kKeys.end(), [&](const auto &k) { return name == k.first; });
            if (known == kKeys.end() || known->second != kind)
                return fail(e, "'drift' of a device of kind '" + std::string(device_kind_name(kind)) +
                                   "' has no key '" + std::string(name) + "'");
        }
        unit_drift d;
        const config_setting_t *pressure = config_setting_get_member(g, "pressure-bias");
        int rc;
        if ((rc = number(g, "temp-0", &d.temp0_k, true)) || (rc = polys(g, "gyro-bias", &d.gyro_bias)) ||
            (rc = polys(g, "accel-bias", &d.accel_bias)) || (rc = polys(g, "gyro-scale", &d.gyro_scale)) ||
            (rc = polys(g, "accel-scale", &d.accel_scale)) || (rc = polys(g, "field-bias", &d.field_bias)) ||
            (pressure && (rc = poly(pressure, "pressure-bias", &d.pressure_bias))))
            return rc;
        *out = std::move(d);
        return 0;
    }

    int device(const config_setting_t *g, scenario_device *d)
    {
        std::string kind;
        int rc = text(g, "kind", &kind, true);
        if (rc)
            return rc;
        if (device_kind_from_name(kind.c_str(), &d->kind))
            return fail(g, "unknown device kind '" + kind + "'");
        if ((rc = text(g, "name", &d->name, true)) || (rc = text(g, "trigger", &d->trigger, true)) ||
            (rc = integer(g, "sampling-frequency", &d->sampling_frequency)) ||
            (rc = integer(g, "rate-divider", &d->rate_divider)) || (rc = numbers(g, "mount-matrix", &d->mount_matrix)) ||
            (rc = number(g, "noise", &d->noise_counts)) || (rc = number(g, "warm-up-rise", &d->warm.rise_k)) ||
            (rc = number(g, "warm-up-time-constant", &d->warm.time_constant_s)) ||
            (rc = number(g, "supply-voltage", &d->supply_voltage)) || (rc = integer(g, "flight-time", &d->flight_time_s)) ||
            (rc = number(g, "delivery-delay", &d->delivery_delay_s)) || (rc = attributes(g, &d->attributes)) ||
            (rc = drift(g, d->kind, &d->drift)))
            return rc;
        return 0;
    }

    int phase(const config_setting_t *g, scenario_phase *p)
    {
        int rc;
        if ((rc = text(g, "name", &p->name)) || (rc = number(g, "duration", &p->duration_s, true)) ||
            (rc = number(g, "roll-rate", &p->roll_rate)) || (rc = number(g, "pitch-rate", &p->pitch_rate)) ||
            (rc = number(g, "yaw-rate", &p->yaw_rate)) || (rc = number(g, "climb-rate", &p->climb_rate)))
            return rc;
        return 0;
    }

    int fault(const config_setting_t *g, scenario_fault *f)
    {
        std::string kind;
        int rc = text(g, "kind", &kind, true);
        if (rc)
            return rc;
        if (fault_kind_from_name(kind.c_str(), &f->kind))
            return fail(g, "unknown fault kind '" + kind + "'");
        if ((rc = number(g, "at", &f->at_s, true)) || (rc = text(g, "device", &f->device)) ||
            (rc = integer(g, "errno", &f->error)) || (rc = integer(g, "scans", &f->scans)) ||
            (rc = integer(g, "count", &f->count)) || (rc = number(g, "duration", &f->duration_s)) ||
            (rc = integer(g, "motor", &f->motor)) || (rc = integer(g, "code", &f->code)))
            return rc;
        return 0;
    }

    template <typename T, typename Fn>
    int list(const config_setting_t *root, const char *key, std::vector<T> *out, Fn each)
    {
        const config_setting_t *s = config_setting_get_member(root, key);
        if (!s)
            return 0;
        if (!config_setting_is_list(s))
            return fail(s, std::string("'") + key + "' must be a list of groups");
        out->clear();
        for (int i = 0; i < config_setting_length(s); i++) {
            const config_setting_t *g = config_setting_get_elem(s, static_cast<unsigned>(i));
            if (!config_setting_is_group(g))
                return fail(g, std::string("'") + key + "' must hold groups");
            T item;
            int rc = (this->*each)(g, &item);
            if (rc)
                return rc;
            out->push_back(item);
        }
        return 0;
    }

    int all(const config_setting_t *root, scenario *s)
    {
        double seed = static_cast<double>(s->seed);
        int repeat = 1; // times the list of phases is flown
        int rc;
        if ((rc = text(root, "name", &s->name)) || (rc = number(root, "seed", &seed)) ||
            (rc = number(root, "ambient-temperature", &s->ambient_k)) ||
            (rc = number(root, "ground-altitude", &s->ground_altitude_m)) ||
            (rc = number(root, "initial-heading", &s->initial_heading_rad)) ||
            (rc = numbers(root, "earth-field", &s->earth_field_gauss)) ||
            (rc = list(root, "devices", &s->devices, &reader::device)) ||
            (rc = list(root, "phases", &s->phases, &reader::phase)) ||
            (rc = list(root, "faults", &s->faults, &reader::fault)) || (rc = integer(root, "repeat", &repeat)))
            return rc;
        if (repeat < 1 || repeat > kMaxRepeat)
            return fail(config_setting_get_member(root, "repeat"),
                        "'repeat' must be from 1 to " + std::to_string(kMaxRepeat));
        const std::vector<scenario_phase> cycle = s->phases;
        for (int i = 1; i < repeat; i++)
            s->phases.insert(s->phases.end(), cycle.begin(), cycle.end());
        // 2^64: the first value a seed cannot hold.
        if (!(seed >= 0 && seed < 18446744073709551616.0))
            return fail(config_setting_get_member(root, "seed"), "'seed' must be from 0 to 2^64 - 1");
        s->seed = static_cast<uint64_t>(seed);
        return 0;
    }

private:
    std::string *error_;
};

bool is_wire_name(const std::string &name)
{
    // Names travel verbatim in the protocol's space-separated lines and in
    // XML attributes.
    if (name.empty() || name.size() > 64)
        return false;
    for (char c : name)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.' || c == ':'))
            return false;
    return true;
}

int set_error(std::string *error, const std::string &what)
{
    if (error)
        *error = what;
    return -EINVAL;
}

int parse_config(config_t *cfg, scenario *out, std::string *error)
{
    const config_setting_t *root = config_lookup(cfg, "simulator");
    if (!root || !config_setting_is_group(root))
        return set_error(error, "missing group 'simulator'");
    scenario s = default_scenario();
    int rc = reader(error).all(root, &s);
    if (rc)
        return rc;
    rc = scenario_validate(s, error);
    if (rc)
        return rc;
    *out = std::move(s);
    return 0;
}

} // namespace

double drift_poly_eval(const drift_poly &poly, double x)
{
    double value = 0.0;
    for (auto c = poly.rbegin(); c != poly.rend(); ++c)
        value = value * x + *c;
    return value;
}

const char *device_kind_name(device_kind kind)
{
    size_t i = static_cast<size_t>(kind);
    return i < kDeviceKinds.size() ? kDeviceKinds[i] : "unknown";
}

const char *fault_kind_name(fault_kind kind)
{
    size_t i = static_cast<size_t>(kind);
    return i < kFaultKinds.size() ? kFaultKinds[i] : "unknown";
}

int device_kind_from_name(const char *name, device_kind *out)
{
    return kind_from_name(kDeviceKinds, name, out);
}

int fault_kind_from_name(const char *name, fault_kind *out)
{
    return kind_from_name(kFaultKinds, name, out);
}

int64_t delivery_delay_ns(const scenario_device &d, int64_t period_ns)
{
    if (d.delivery_delay_s)
        return std::llround(*d.delivery_delay_s * 1e9);
    const size_t i = static_cast<size_t>(d.kind);
    const double periods = i < kDefaultDeliveryPeriods.size() ? kDefaultDeliveryPeriods[i] : 0.0;
    return std::llround(periods * static_cast<double>(period_ns));
}

scenario default_scenario()
{
    scenario s;
    s.name = "default";
    s.seed = 42;
    s.ambient_k = 293.15;
    s.ground_altitude_m = 100.0;
    // IMU mounted with x and y swapped and z down, as on the flight board.
    scenario_device imu{device_kind::imu, "orlune-imu", "orlune-imu-trig", 1000, 5, {0, 1, 0, 1, 0, 0, 0, 0, -1},
                    2.0, {12.0, 90.0}};
    scenario_device baro{device_kind::baro, "orlune-lps22hb", "orlune-baro-trig", 75, 1, {1, 0, 0, 0, 1, 0, 0, 0, 1},
                     20.0, {6.0, 120.0}};
    scenario_device magneto{device_kind::magneto, "orlune-magneto", "orlune-magneto-trig", 100, 1,
                        {-1, 0, 0, 0, 1, 0, 0, 0, -1}, 1.5, {4.0, 120.0}};
    // The motor controller samples at the motors section's 200 Hz.
    scenario_device esc{device_kind::motors, "orlune-esc", "orlune-esc-trig", 200, 1, {1, 0, 0, 0, 1, 0, 0, 0, 1}};
    esc.flight_time_s = 3600;
    s.devices = {imu, baro, magneto, esc};
    s.phases = {
        {"hover", 5.0, 0, 0, 0, 0},
        {"climb", 4.0, 0, 0, 0, 1.5},
        {"turn", 6.0, 0, 0, 0.5, 0},
        {"bank", 2.0, 0.2, 0, 0, 0},
        {"level", 2.0, -0.2, 0, 0, 0},
        {"hover", 5.0, 0, 0, 0, 0},
    };
    return s;
}

int scenario_validate(const scenario &s, std::string *error)
{
    std::set<std::string> names;
    for (const scenario_device &d : s.devices) {
        if (!is_wire_name(d.name) || !is_wire_name(d.trigger))
            return set_error(error, "device and trigger names need 1-64 of [A-Za-z0-9._:-]: '" + d.name + "', '" +
                                        d.trigger + "'");
        if (!names.insert(d.name).second || !names.insert(d.trigger).second)
            return set_error(error, "duplicate name '" + d.name + "' or '" + d.trigger + "'");
        if (d.sampling_frequency <= 0 || d.sampling_frequency > 1000000)
            return set_error(error, d.name + ": sampling-frequency must be 1..1000000 Hz");
        if (d.rate_divider < 1 || d.rate_divider > 64)
            return set_error(error, d.name + ": rate-divider must be 1..64");
        mat3 inverse;
        if (!mat_inverse(d.mount_matrix, &inverse))
            return set_error(error, d.name + ": mount-matrix cannot be inverted");
        if (d.noise_counts < 0 || d.warm.time_constant_s <= 0)
            return set_error(error, d.name + ": noise must be >= 0 and warm-up-time-constant > 0");
        if (!(d.supply_voltage > 0 && d.supply_voltage < 60) || d.flight_time_s < 0)
            return set_error(error, d.name + ": supply-voltage must be 0..60 V and flight-time >= 0");
        if (d.delivery_delay_s && !(*d.delivery_delay_s >= 0 && *d.delivery_delay_s < kMaxDeliveryDelayS))
            return set_error(error, d.name + ": delivery-delay must be >= 0 and below 1 s");
    }
    for (const scenario_device &a : s.devices)
        for (const scenario_device &b : s.devices)
            if (&a != &b && b.trigger.compare(0, a.trigger.size(), a.trigger) == 0)
                return set_error(error, "trigger name '" + a.trigger + "' is a prefix of '" + b.trigger + "'");
    for (const scenario_phase &p : s.phases)
        if (!(p.duration_s > 0))
            return set_error(error, "phase '" + p.name + "': duration must be positive");
    for (const scenario_fault &f : s.faults) {
        if (f.at_s < 0 || f.count < 1 || f.scans < 0 || f.error <= 0 || f.duration_s < 0)
            return set_error(error, std::string(fault_kind_name(f.kind)) + ": at, count, scans, errno or duration out of range");
        if (f.kind == fault_kind::motor_error && (f.motor < 0 || f.motor > 3 || f.code < 0 || f.code > 255))
            return set_error(error, "motor-error: motor must be 0..3 and code 0..255");
        if (f.kind != fault_kind::disconnect && !names.count(f.device))
            return set_error(error, std::string(fault_kind_name(f.kind)) + ": unknown device '" + f.device + "'");
    }
    return 0;
}

int scenario_from_config(config_t *cfg, scenario *out, std::string *error)
{
    return parse_config(cfg, out, error);
}

int scenario_parse(const char *text, scenario *out, std::string *error)
{
    return config_load_text(
        text, [out](config_t *cfg, std::string *e) { return parse_config(cfg, out, e); }, error);
}

int scenario_load(const char *path, scenario *out, std::string *error)
{
    return config_load_file(
        path, [out](config_t *cfg, std::string *e) { return parse_config(cfg, out, e); }, error);
}

} // namespace sim
