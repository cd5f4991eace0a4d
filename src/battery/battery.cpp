// SPDX-License-Identifier: Apache-2.0
// The smart battery module: the pack's kernel driver attributes in sysfs,
// read at the configured rate into the battery sub-record, with the pack's
// transitions as flight-log events.
#include <sensors/battery.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"

namespace {

constexpr log_tag kTag{"battery"};

constexpr const char *kDriverName = "smartbattery";
constexpr const char *kSection = "sensors_battery";
// The sub-record holds two cells; a pack with another count cannot be logged.
constexpr int kCells = 2;
// Attribute reads: sysfs hands back short texts; these are the most each
// attribute is allowed to carry.
constexpr size_t kIntText = 14;
constexpr size_t kCellText = 79;
constexpr size_t kAlertsText = 14;
constexpr size_t kUsbText = 29;
constexpr size_t kAnomalyText = 31;
// Two seconds of samples in the telemetry section.
constexpr uint32_t kTlmHistoryUs = 2000000;
constexpr int32_t kUsPerSecond = 1000000;
// Celsius of a whole-kelvin temperature, as the flight logs report it.
constexpr int kKelvinOffset = 273;

// Attributes whose absence means the driver is not the one this module reads.
constexpr const char *kRequired[] = {
    "manufacturer_name", "model_name", "voltage_now", "current_now", "rsoc", "soh",
    "temperature", "avg_time_to_empty", "full_charge_cap", "remaining_cap", "alerts",
};

// Attributes kept open, in the order they are opened.
enum attribute {
    PRESENT, VOLTAGE, CURRENT, RSOC, SOH, CYCLE_COUNT, TEMPERATURE, TIME_TO_EMPTY, FULL_CHARGE_CAP,
    REMAINING_CAP, ALERTS, AUTHENTICATED, USB_PEER, CELL_VOLTAGE, ANOMALY, ATTRIBUTE_COUNT
};
constexpr const char *kAttributeFiles[ATTRIBUTE_COUNT] = {
    "present", "voltage_now", "current_now", "rsoc", "soh", "cycle_count", "temperature", "avg_time_to_empty",
    "full_charge_cap", "remaining_cap", "alerts", "authenticated", "usb_peer", "cell_voltage", "anomaly",
};

template <size_t N>
constexpr const char *label(const std::array<const char *, N> &table, uint32_t code)
{
    return code < table.size() ? table[code] : "unknown";
}

constexpr std::array<const char *, 7> kFaults{"none", "info CRC", "gauge", "charger", "usb", "signatures",
                                              "SPI Flash"};
constexpr std::array<const char *, 5> kTemperatureAlerts{"none", "high critical", "high warning", "low critical",
                                                         "low warning"};
constexpr std::array<const char *, 6> kAnomalies{"not_detected", "fw_upload", "controller", "gauge", "charger",
                                                 "usb"};
// USB roles as the sub-record codes them: index = code.
constexpr std::array<const char *, 3> kDataRoles{"NONE", "HOST", "DEVICE"};
constexpr std::array<const char *, 3> kPowerRoles{"NONE", "SOURCE", "SINK"};

// The zero-value warnings: each is said once per run of zero readings, for
// the whole process (re-creating the module does not say them again).
enum zero_warning { NO_VOLTAGE, NO_CAPACITY, NO_SOH, NO_TIME_TO_EMPTY, NO_FULL_CHARGE_CAP, NO_REMAINING_CAP,
                    ZERO_WARNING_COUNT };
constexpr const char *kZeroMessages[ZERO_WARNING_COUNT] = {
    "No voltage", "No capacity", "No State-Of-Health", "No Time To Empty", "No full charge capacity",
    "No remaining capacity",
};

// Process-wide flight-log state: what was last reported, so that a pack
// re-opened by a new module does not repeat its fault or alert.
struct reported_state {
    int32_t fault;
    int32_t temperature_alert;
    uint8_t zero_latch[ZERO_WARNING_COUNT];
};
reported_state g_reported;

void zero_warning(zero_warning which, int32_t value)
{
    uint8_t &latch = g_reported.zero_latch[which];
    if (value != 0) {
        latch = 0;
    } else if (!latch) {
        log_msg(kTag, LOG_WARNING, "%s", kZeroMessages[which]);
        latch = 1;
    }
}

// Reads up to max bytes from the start of fd into text (max + 1 bytes),
// terminated. Returns the byte count or -errno.
ssize_t read_text(int fd, char *text, size_t max)
{
    ssize_t n = pread(fd, text, max, 0);
    if (n < 0)
        return -errno;
    text[n] = '\0';
    return n;
}

} // namespace

struct battery_ctx {
    char *directory;
    shm_producer *producer;
    int fds[ATTRIBUTE_COUNT];
    uint16_t last_voltage;      // mV
    int16_t last_current;       // mA
    uint8_t last_rsoc;          // %
    uint8_t last_soh;           // %
    uint16_t last_cycle_count;
    int16_t last_temperature;   // K
    uint32_t last_time_to_empty; // s
    uint16_t last_full_charge_cap; // mAh
    uint16_t last_remaining_cap;   // mAh
    uint16_t last_cells[kCells];   // mV
    uint8_t last_fault;
    uint8_t last_temperature_alert;
    uint8_t last_data_role;
    uint8_t last_power_role;
    int32_t last_authenticated;
    timespec last_read;
    uint32_t period_us;
    uint8_t present;
    sensors_battery_data *record;
};

namespace {

// Path of an attribute; false when it does not fit.
template <size_t N>
bool attribute_path(const battery_ctx &battery, const char *name, char (&out)[N])
{
    int n = snprintf(out, N, "%s/%s", battery.directory, name);
    return n >= 0 && size_t(n) < N;
}

// The configured directory, under ORLUNE_ROOT when it is an absolute path.
char *resolve_directory(const char *configured)
{
    if (configured[0] != '/')
        return strdup(configured);
    char path[PATH_MAX];
    if (platform_path(configured, path, sizeof path) != 0)
        return nullptr;
    return strdup(path);
}

bool driver_is_smartbattery(const battery_ctx &battery)
{
    char path[PATH_MAX];
    if (!attribute_path(battery, "name", path))
        return false;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        log_msg(kTag, LOG_ERR, "Cannot open %s: %s", path, strerror(errno));
        return false;
    }
    char name[kIntText + 1];
    ssize_t n = read_text(fd, name, kIntText);
    close(fd);
    if (n < 0)
        return false;
    name[strcspn(name, "\n")] = '\0';
    if (strcmp(name, kDriverName) != 0) {
        log_msg(kTag, LOG_WARNING, "Smartbattery Driver not present");
        return false;
    }
    return true;
}

bool pack_inserted(const battery_ctx &battery)
{
    char path[PATH_MAX];
    if (!attribute_path(battery, "present", path))
        return false;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        log_msg(kTag, LOG_ERR, "Cannot open %s: %s", path, strerror(errno));
        return false;
    }
    int32_t present = 0;
    int r = get_int(fd, &present);
    close(fd);
    if (r < 0)
        return false;
    if (present != 1) {
        log_msg(kTag, LOG_WARNING, "Smartbattery not present");
        return false;
    }
    return true;
}

bool attributes_accessible(const battery_ctx &battery)
{
    for (const char *name : kRequired) {
        char path[PATH_MAX];
        if (!attribute_path(battery, name, path)) {
            log_msg(kTag, LOG_ERR, "Mismatch between Smartbattery Driver and Libvigil");
            return false;
        }
        if (access(path, R_OK) != 0) {
            log_msg(kTag, LOG_ERR, "battery: cannot access to \"%s\"\n", name);
            log_msg(kTag, LOG_ERR, "Mismatch between Smartbattery Driver and Libvigil");
            return false;
        }
    }
    return true;
}

int open_attribute(const battery_ctx &battery, attribute which)
{
    char path[PATH_MAX];
    if (!attribute_path(battery, kAttributeFiles[which], path))
        return -1;
    return open(path, O_RDONLY | O_CLOEXEC);
}

// Whether a reading differs from the last value kept at the width T, which
// then takes the reading. Unsigned widths compare zero-extended, signed ones
// sign-extended.
template <typename T, typename V>
bool update(T *last, V value)
{
    bool changed = value != static_cast<V>(*last);
    *last = static_cast<T>(value);
    return changed;
}

// The sub-record as the last full read left it, in its own units.
void rebuild(const battery_ctx &battery, sensors_battery_data *d)
{
    d->present = 1;
    d->changed_mask = 0;
    d->data_role = battery.last_data_role;
    d->power_role = battery.last_power_role;
    d->voltage = float(battery.last_voltage) / 1000.0f;
    d->current = float(battery.last_current) / 1000.0f;
    d->rsoc = battery.last_rsoc;
    d->full_charge_cap = float(battery.last_full_charge_cap) / 1000.0f;
    d->remaining_cap = float(battery.last_remaining_cap) / 1000.0f;
    d->avg_time_to_empty = battery.last_time_to_empty;
    d->temperature = float(battery.last_temperature);
    d->soh = battery.last_soh;
    d->fault = battery.last_fault;
    d->temperature_alert = battery.last_temperature_alert;
    d->cycle_count = battery.last_cycle_count;
    for (int i = 0; i < kCells; i++)
        d->cell_voltage[i] = float(battery.last_cells[i]) / 1000.0f;
}

void read_alerts(battery_ctx &battery, sensors_battery_data *d)
{
    char text[kAlertsText + 1];
    int fault = 0, alert = 0;
    if (read_text(battery.fds[ALERTS], text, kAlertsText) < 0 || sscanf(text, "%d %d", &fault, &alert) != 2)
        return;
    d->fault = fault;
    d->temperature_alert = alert;
    if (fault != battery.last_fault || alert != battery.last_temperature_alert) {
        d->changed_mask |= SENSORS_BATTERY_CHANGED_ALERTS;
        battery.last_fault = uint8_t(fault);
        battery.last_temperature_alert = uint8_t(alert);
    }
    if (battery.last_fault != g_reported.fault)
        log_msg(kTag, LOG_NOTICE, "EVT:SMARTBATTERY;fault='%s'", label(kFaults, battery.last_fault));
    g_reported.fault = battery.last_fault;
    if (battery.last_temperature_alert != g_reported.temperature_alert)
        log_msg(kTag, LOG_NOTICE, "EVT:SMARTBATTERY;temperature_alert='%s';temperature=%d",
                label(kTemperatureAlerts, battery.last_temperature_alert),
                int(battery.last_temperature) - kKelvinOffset);
    g_reported.temperature_alert = battery.last_temperature_alert;
}

// "usb_peer": connected, data role (0 device, 1 host), power role (0 source, 1 sink).
void read_usb_peer(battery_ctx &battery, sensors_battery_data *d)
{
    char text[kUsbText + 1];
    int connected = 0, data = 0, power = 0;
    if (read_text(battery.fds[USB_PEER], text, kUsbText) < 0 ||
        sscanf(text, "%d %d %d", &connected, &data, &power) != 3)
        return;
    uint8_t data_role = 0, power_role = 0;
    if (connected != 0) {
        if ((data != 0 && data != 1) || (power != 0 && power != 1))
            return;
        data_role = data == 0 ? 2 : 1;
        power_role = power == 0 ? 1 : 2;
    }
    if (data_role == battery.last_data_role && power_role == battery.last_power_role)
        return;
    battery.last_data_role = data_role;
    battery.last_power_role = power_role;
    d->data_role = data_role;
    d->power_role = power_role;
    d->changed_mask |= SENSORS_BATTERY_CHANGED_USB_ROLES;
    log_msg(kTag, LOG_NOTICE, "EVT:SMARTBATTERY;data_role='%s';power_role='%s'", label(kDataRoles, data_role),
            label(kPowerRoles, power_role));
}

// Anomalies have no memory: a bit still set is reported at every full read.
void read_anomaly(const battery_ctx &battery)
{
    if (battery.fds[ANOMALY] < 0)
        return;
    char text[kAnomalyText + 1];
    if (read_text(battery.fds[ANOMALY], text, kAnomalyText) < 0)
        return;
    unsigned long bits = strtoul(text, nullptr, 0);
    for (uint32_t bit = 0; bit < kAnomalies.size(); bit++)
        if (bits & (1ul << bit))
            log_msg(kTag, LOG_NOTICE, "EVT:SMARTBATTERY;anomaly='%s'", kAnomalies[bit]);
}

// One pass over every attribute; an attribute that cannot be read keeps its
// last value.
void read_attributes(battery_ctx &battery, sensors_battery_data *d)
{
    int32_t v = 0;
    if (get_int(battery.fds[VOLTAGE], &v) == 0) {
        d->voltage = float(v) / 1000.0f;
        if (update(&battery.last_voltage, v))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_VOLTAGE;
        zero_warning(NO_VOLTAGE, v);
    }
    if (get_int(battery.fds[CURRENT], &v) == 0) {
        d->current = float(v) / 1000.0f;
        if (update(&battery.last_current, v))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_CURRENT;
    }
    if (get_int(battery.fds[RSOC], &v) == 0) {
        d->rsoc = uint32_t(v);
        if (update(&battery.last_rsoc, v))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_RSOC;
        zero_warning(NO_CAPACITY, v);
    }
    if (get_int(battery.fds[SOH], &v) == 0) {
        d->soh = uint32_t(v);
        if (update(&battery.last_soh, v)) {
            d->changed_mask |= SENSORS_BATTERY_CHANGED_SOH;
            log_msg(kTag, LOG_NOTICE, "EVT:SMARTBATTERY;soh=%d", v);
        }
        zero_warning(NO_SOH, v);
    }
    if (get_int(battery.fds[TEMPERATURE], &v) == 0) {
        int32_t kelvin = v / 10; // tenths of a kelvin, truncated toward zero
        d->temperature = float(kelvin);
        if (update(&battery.last_temperature, kelvin))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_TEMPERATURE;
    }
    if (get_int(battery.fds[TIME_TO_EMPTY], &v) == 0) {
        uint32_t seconds = uint32_t(v) * 60u; // minutes
        d->avg_time_to_empty = seconds;
        if (update(&battery.last_time_to_empty, seconds))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_TIME_TO_EMPTY;
        zero_warning(NO_TIME_TO_EMPTY, v);
    }
    if (get_int(battery.fds[FULL_CHARGE_CAP], &v) == 0) {
        d->full_charge_cap = float(v) / 1000.0f;
        if (update(&battery.last_full_charge_cap, v))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_FULL_CHARGE_CAP;
        zero_warning(NO_FULL_CHARGE_CAP, v);
    }
    if (get_int(battery.fds[REMAINING_CAP], &v) == 0) {
        d->remaining_cap = float(v) / 1000.0f;
        if (update(&battery.last_remaining_cap, v))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_REMAINING_CAP;
        zero_warning(NO_REMAINING_CAP, v);
    }
    uint16_t cells[kCells];
    int count = 0;
    if (get_cell_voltage(battery.fds[CELL_VOLTAGE], cells, &count) == 0) {
        for (int i = 0; i < kCells; i++) {
            d->cell_voltage[i] = float(cells[i]) / 1000.0f;
            if (update(&battery.last_cells[i], cells[i]))
                d->changed_mask |= SENSORS_BATTERY_CHANGED_CELL_VOLTAGES;
        }
    }
    read_alerts(battery, d);
    if (get_int(battery.fds[CYCLE_COUNT], &v) == 0) {
        d->cycle_count = uint32_t(v);
        if (update(&battery.last_cycle_count, v))
            d->changed_mask |= SENSORS_BATTERY_CHANGED_CYCLE_COUNT;
    }
    read_usb_peer(battery, d);
    read_anomaly(battery);
    if (get_int(battery.fds[AUTHENTICATED], &v) == 0 && v != battery.last_authenticated) {
        battery.last_authenticated = v;
        log_msg(kTag, LOG_NOTICE, "EVT:SMARTBATTERY;authenticated='%s'", v == 1 ? "yes" : "no");
    }
}

} // namespace

extern "C" int get_int(int fd, int32_t *value)
{
    if (fd < 0 || !value)
        return -EINVAL;
    char text[kIntText + 1];
    ssize_t n = read_text(fd, text, kIntText);
    if (n < 0)
        return int(n);
    errno = 0;
    long v = strtol(text, nullptr, 0);
    if ((v == LONG_MIN || v == LONG_MAX) && errno == ERANGE)
        return -ERANGE;
    *value = int32_t(uint32_t(static_cast<unsigned long>(v)));
    return 0;
}

extern "C" int get_cell_voltage(int fd, uint16_t voltages[2], int *count)
{
    if (!voltages || !count)
        return -EINVAL;
    *count = -1;
    if (fd < 0)
        return -EINVAL;
    voltages[0] = voltages[1] = 0;
    char text[kCellText + 1];
    if (read_text(fd, text, kCellText) < 0)
        return -EINVAL;
    if (sscanf(text, "%d", count) != 1)
        return -EINVAL;
    int converted = -1;
    if (*count == kCells)
        converted = sscanf(text, "%d %hu %hu", count, &voltages[0], &voltages[1]);
    // Widened: a count of INT_MAX has no successor in an int.
    return converted == int64_t{*count} + 1 ? 0 : -EINVAL;
}

extern "C" void battery_destroy(battery_ctx *battery)
{
    if (!battery)
        return;
    for (int fd : battery->fds)
        if (fd >= 0)
            close(fd);
    producer_destroy(battery->producer);
    free(battery->directory);
    free(battery);
}

extern "C" battery_ctx *battery_new(const sensors_battery_config *config, sensors_battery_data *data)
{
    if (!config || !config->device || config->frequency < 1 || !data)
        return nullptr;
    // A faster rate would leave no whole microsecond between full reads.
    if (config->frequency > kUsPerSecond) {
        log_msg(kTag, LOG_ERR, "Battery frequency=%d Hz above %d Hz", config->frequency, kUsPerSecond);
        return nullptr;
    }
    owned<battery_ctx, battery_destroy> battery{zeroed_new<battery_ctx>()};
    if (!battery)
        return nullptr;
    battery->record = data;
    for (int &fd : battery->fds)
        fd = -1;
    // All ones: the first full read marks every field changed.
    battery->last_voltage = 0xFFFF;
    battery->last_current = -1;
    battery->last_rsoc = 0xFF;
    battery->last_soh = 0xFF;
    battery->last_cycle_count = 0xFFFF;
    battery->last_temperature = -1;
    battery->last_time_to_empty = 0xFFFFFFFF;
    battery->last_full_charge_cap = 0xFFFF;
    battery->last_remaining_cap = 0xFFFF;
    battery->last_authenticated = -1;
    battery->directory = resolve_directory(config->device);
    if (!battery->directory)
        return nullptr;

    if (!driver_is_smartbattery(*battery) || !pack_inserted(*battery) || !attributes_accessible(*battery))
        return nullptr;
    for (int i = PRESENT; i < ANOMALY; i++) {
        battery->fds[i] = open_attribute(*battery, attribute(i));
        if (battery->fds[i] < 0)
            return nullptr;
    }

    uint16_t cells[kCells];
    int count = -1;
    if (get_cell_voltage(battery->fds[CELL_VOLTAGE], cells, &count) < 0) {
        log_msg(kTag, LOG_ERR, "Cannot log cell voltage (cell count=%d max=%d)", count, kCells);
        return nullptr;
    }
    if (count != kCells)
        log_msg(kTag, LOG_WARNING, "Cell count mismatch (configured=%d detected=%d)", kCells, count);
    else
        log_msg(kTag, LOG_NOTICE, "EVT:SMARTBATTERY;type='start';cell_voltage_0=%d;cell_voltage_1=%d", cells[0],
                cells[1]);
    // Older drivers have no anomaly report: never read then.
    battery->fds[ANOMALY] = open_attribute(*battery, ANOMALY);

    log_msg(kTag, LOG_INFO, "Battery frequency=%d Hz\n", config->frequency);
    int32_t period = kUsPerSecond / config->frequency;
    battery->period_us = uint32_t(period);
    battery->producer = producer_create(kSection, kTlmHistoryUs / uint32_t(period), uint32_t(period));
    if (!battery->producer)
        return nullptr;
    if (producer_register_struct(battery->producer, data, nullptr, layout_of(tlm_kind::battery)) < 0 ||
        producer_complete(battery->producer) < 0)
        return nullptr;
    log_msg(kTag, LOG_INFO, "Smartbattery operational\n");
    return battery.release();
}

extern "C" int battery_read(battery_ctx *battery, uint32_t *updated)
{
    if (!battery || !updated)
        return -EINVAL;
    sensors_battery_data *d = battery->record;
    monotonic_now(&d->timestamp);
    uint64_t now_us = 0, last_us = 0;
    duration_in_us(&d->timestamp, &now_us);
    duration_in_us(&battery->last_read, &last_us);
    rebuild(*battery, d);

    if (last_us != 0 && now_us - last_us < battery->period_us) {
        if (battery->present)
            return 0;
        return -ENODEV;
    }
    battery->last_read = d->timestamp;

    int32_t present = 0;
    if (get_int(battery->fds[PRESENT], &present) < 0) {
        battery->present = 0;
        return -EIO;
    }
    if (present == 0) {
        battery->present = 0;
        return -ENODEV;
    }
    read_attributes(*battery, d);
    if (d->changed_mask)
        *updated |= SENSORS_UPDATED_BATTERY;
    if (battery->producer)
        producer_put_sample(battery->producer, &battery->last_read);
    battery->present = 1;
    return 0;
}

extern "C" int battery_is_present(battery_ctx *battery)
{
    return battery ? battery->present : 0;
}

extern "C" int battery_tlm_push(battery_ctx *battery)
{
    if (!battery || !battery->producer)
        return -EINVAL;
    return producer_put_sample(battery->producer, &battery->record->timestamp);
}
