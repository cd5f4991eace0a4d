// SPDX-License-Identifier: Apache-2.0
// The sensor configuration record: file selection, parsing, and the sections
// other than the IMU's.
#include <linux/limits.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"
#include "config/sensorscfg.h"
#include "platform/failpoint.h"
#include "platform/paths.h"
#include "platform/properties.h"

namespace {

#define FIELD(type, f) static_cast<unsigned short>(offsetof(type, f))

// Sections whose enabled flag is followed by nothing but these keys.
struct section_desc {
    const char *name;
    uint32_t kind_bit;
    size_t offset;              // of the sub-record in sensors_config
    const char *missing_notice; // null: enabled is required
    const key_rule *keys;
    size_t key_count;
};

constexpr key_rule kBldcKeys[] = {
    {"device", cfg_type::string, true, FIELD(sensors_bldc_config, device), 0},
    {"trigger", cfg_type::string, true, FIELD(sensors_bldc_config, trigger), 0},
    // Telemetry rate of the motors section when the file says nothing.
    {"tlm_frequency", cfg_type::integer, false, FIELD(sensors_bldc_config, tlm_frequency), 200},
};
constexpr key_rule kBatteryKeys[] = {
    {"device", cfg_type::string, true, FIELD(sensors_battery_config, device), 0},
    // The smart battery's gauge updates about once a second.
    {"frequency", cfg_type::integer, false, FIELD(sensors_battery_config, frequency), 1},
};
constexpr key_rule kBaroKeys[] = {
    {"device", cfg_type::string, true, FIELD(sensors_baro_config, device), 0},
    {"trigger", cfg_type::string, true, FIELD(sensors_baro_config, trigger), 0},
};
// Only the lps22hb is given its output rate: for any other device the key is
// not read and the rate stays 0 (which the barometer module refuses, since it
// derives its telemetry period from the rate).
constexpr key_rule kBaroLps22hbKeys[] = {
    {"sampling-frequency", cfg_type::integer, true, FIELD(sensors_baro_config, sampling_frequency), 0},
};
constexpr key_rule kMagnetoKeys[] = {
    {"device", cfg_type::string, true, FIELD(sensors_magneto_config, device), 0},
    {"trigger", cfg_type::string, true, FIELD(sensors_magneto_config, trigger), 0},
};
// After the rotation matrix.
constexpr key_rule kMagnetoOptionalKeys[] = {
    {"sampling-frequency", cfg_type::integer, false, FIELD(sensors_magneto_config, sampling_frequency), 0},
    {"use-temperature", cfg_type::boolean, false, FIELD(sensors_magneto_config, use_temperature), 0},
};

constexpr key_rule kTofKeys[] = {
    {"device", cfg_type::string, true, FIELD(sensors_tof_config, device), 0},
    {"trigger", cfg_type::string, true, FIELD(sensors_tof_config, trigger), 0},
    {"calib", cfg_type::string, true, FIELD(sensors_tof_config, calib), 0},
    {"sampling-frequency", cfg_type::integer, false, FIELD(sensors_tof_config, sampling_frequency), 0},
    {"type", cfg_type::string, true, FIELD(sensors_tof_config, type), 0},
};
constexpr key_rule kTofRangeKeys[] = {
    {"min_distance", cfg_type::real32, true, FIELD(sensors_tof_config, min_distance), 0},
    {"max_distance", cfg_type::real32, true, FIELD(sensors_tof_config, max_distance), 0},
    {"min_amplitude", cfg_type::real32, true, FIELD(sensors_tof_config, min_amplitude), 0},
};
constexpr key_rule kTofLibKeys[] = {
    {"device", cfg_type::string, true, FIELD(sensors_tof_lib_config, device), 0},
    {"calib", cfg_type::string, true, FIELD(sensors_tof_lib_config, calib), 0},
    {"calib_per_design", cfg_type::string, false, FIELD(sensors_tof_lib_config, calib_per_design), 0},
    {"type", cfg_type::string, true, FIELD(sensors_tof_lib_config, type), 0},
    {"i2c_addr", cfg_type::integer, true, FIELD(sensors_tof_lib_config, i2c_addr), 0},
    {"hw_type", cfg_type::string, true, FIELD(sensors_tof_lib_config, hw_type), 0},
    {"gpio", cfg_type::string, true, FIELD(sensors_tof_lib_config, gpio), 0},
    {"flags", cfg_type::integer, true, FIELD(sensors_tof_lib_config, flags), 0},
    {"min_distance", cfg_type::real32, true, FIELD(sensors_tof_lib_config, min_distance), 0},
    {"max_distance", cfg_type::real32, true, FIELD(sensors_tof_lib_config, max_distance), 0},
    {"min_amplitude", cfg_type::real32, true, FIELD(sensors_tof_lib_config, min_amplitude), 0},
};
#undef FIELD

template <size_t N>
constexpr section_desc section(const char *name, uint32_t bit, size_t offset, const key_rule (&keys)[N],
                               const char *missing_notice = nullptr)
{
    return {name, bit, offset, missing_notice, keys, N};
}
constexpr section_desc section(const char *name, uint32_t bit, size_t offset,
                               const char *missing_notice = nullptr)
{
    return {name, bit, offset, missing_notice, nullptr, 0};
}

constexpr section_desc kBldc = section("bldc", SENSORS_KIND_BLDC, offsetof(sensors_config, bldc), kBldcKeys);
constexpr section_desc kGps = section("gps", SENSORS_KIND_GPS, offsetof(sensors_config, gps));
constexpr section_desc kBattery =
    section("battery", SENSORS_KIND_BATTERY, offsetof(sensors_config, battery), kBatteryKeys);
constexpr section_desc kUltrasound =
    section("ultrasound", SENSORS_KIND_ULTRASOUND, offsetof(sensors_config, ultrasound));
constexpr section_desc kCarpetDetection =
    section("carpet_detection", SENSORS_KIND_CARPET_DETECTION, offsetof(sensors_config, carpet_detection));
constexpr section_desc kVcamPosition =
    section("vcam_position", SENSORS_KIND_VCAM_POSITION, offsetof(sensors_config, vcam_position));
constexpr section_desc kFstcamPosition =
    section("fstcam_position", SENSORS_KIND_FSTCAM_POSITION, offsetof(sensors_config, fstcam_position));
constexpr section_desc kVcamOpticalFlow =
    section("vcam_optical_flow", SENSORS_KIND_VCAM_OPTICAL_FLOW, offsetof(sensors_config, vcam_optical_flow));
constexpr section_desc kFcamGimbal = section("fcam_gimbal", SENSORS_KIND_FCAM_GIMBAL,
                                             offsetof(sensors_config, fcam_gimbal),
                                             "fcam_gimbal section missing, disabling");

// The rangefinder lists; only their first element is read.
struct tof_list_desc {
    const char *name;
    size_t offset;          // of the sub-record in sensors_config
    size_t enabled_offset;  // within the sub-record
    size_t type_offset;
    size_t type_index_offset;
    const key_rule *keys;   // read before the type index
    size_t key_count;
    const key_rule *after;  // read after it
    size_t after_count;
};

constexpr tof_list_desc kTofs{"tofs",
                              offsetof(sensors_config, tof),
                              offsetof(sensors_tof_config, enabled),
                              offsetof(sensors_tof_config, type),
                              offsetof(sensors_tof_config, type_index),
                              kTofKeys,
                              std::size(kTofKeys),
                              kTofRangeKeys,
                              std::size(kTofRangeKeys)};
constexpr tof_list_desc kTofsLib{"tofs_lib",
                                 offsetof(sensors_config, tof_lib),
                                 offsetof(sensors_tof_lib_config, enabled),
                                 offsetof(sensors_tof_lib_config, type),
                                 offsetof(sensors_tof_lib_config, type_index),
                                 kTofLibKeys,
                                 std::size(kTofLibKeys),
                                 nullptr,
                                 0};
// Element keys are reported under this prefix, for both lists.
constexpr const char *kTofErrorPrefix = "tof";

constexpr const char *kTofTypes[] = {"vertical"};

// The debug properties that swap a section for an alternative one: the first
// character of the value, '1' or '2', selects names[1] or names[2].
struct section_choice {
    const char *property;
    const char *names[3];
};
constexpr section_choice kBaroChoice{"persist.dbg.flight_baro", {"barometer", "alt_baro", "tds_baro"}};
constexpr section_choice kMagnetoChoice{"persist.dbg.flight_magneto", {"magnetometer", "alt_magneto", "tds_magneto"}};

// Words of the "enabled sensors:" line, in its order.
struct enabled_word {
    const char *word;
    size_t offset; // of the enabled flag in sensors_config
};
constexpr enabled_word kEnabledWords[] = {
    {" baro", offsetof(sensors_config, baro.enabled)},
    {" bldc", offsetof(sensors_config, bldc.enabled)},
    {" gps", offsetof(sensors_config, gps.enabled)},
    {" imu", offsetof(sensors_config, imu.enabled)},
    {" magneto", offsetof(sensors_config, magneto.enabled)},
    {" battery", offsetof(sensors_config, battery.enabled)},
    {" ultrasound", offsetof(sensors_config, ultrasound.enabled)},
    {" fcam_gimbal", offsetof(sensors_config, fcam_gimbal.enabled)},
    {" vcam_position", offsetof(sensors_config, vcam_position.enabled)},
    {" fstcam_position", offsetof(sensors_config, fstcam_position.enabled)},
    {" vcam_optical_flow", offsetof(sensors_config, vcam_optical_flow.enabled)},
    {" carpet_detection", offsetof(sensors_config, carpet_detection.enabled)},
    {" imu_vcam", offsetof(sensors_config, imu_vcam.enabled)},
};
static_assert(std::size(kEnabledWords) == 13, "the enabled sensors line has thirteen words");

int32_t *flag_at(void *base, size_t offset)
{
    return reinterpret_cast<int32_t *>(static_cast<unsigned char *>(base) + offset);
}

const char *enabled_word_of(const sensors_config *config, size_t i)
{
    int32_t enabled;
    memcpy(&enabled, reinterpret_cast<const unsigned char *>(config) + kEnabledWords[i].offset, sizeof enabled);
    return enabled ? kEnabledWords[i].word : "";
}

const char *chosen_section(const section_choice &choice)
{
    char value[PROPERTY_VALUE_MAX];
    property_get(choice.property, value, "0");
    if (value[0] == '1')
        return choice.names[1];
    if (value[0] == '2')
        return choice.names[2];
    return choice.names[0];
}

void host_filter(int32_t *enabled, const sensors_probe_header *header, uint32_t kind_bit)
{
    if (*enabled && !(header->sensor_mask & kind_bit))
        *enabled = 0;
}

// Reads the enabled flag of a section: 1 when enabled, 0 when disabled
// (also when an optional flag is missing), -EINVAL when a required flag is.
int read_enabled(const key_scope &scope, int32_t *enabled, const char *missing_notice)
{
    char key[kConfigKeyMax];
    if (sensorscfg_lookup(scope, "enabled", cfg_type::boolean, enabled, key))
        return *enabled ? 1 : 0;
    if (!missing_notice)
        return sensorscfg_error(key);
    *enabled = 0;
    log_str(kConfigTag, LOG_INFO, missing_notice);
    return 0;
}

int read_section(const config_t *tree, sensors_config *config, const sensors_probe_header *header,
                 const section_desc &desc)
{
    void *sub = reinterpret_cast<unsigned char *>(config) + desc.offset;
    int32_t *enabled = flag_at(sub, 0);
    const key_scope scope{tree, nullptr, desc.name};
    int rc = read_enabled(scope, enabled, desc.missing_notice);
    if (rc <= 0)
        return rc;
    rc = sensorscfg_read_keys(scope, sub, desc.keys, desc.key_count);
    if (rc < 0)
        return rc;
    host_filter(enabled, header, desc.kind_bit);
    return 0;
}

int read_baro(const config_t *tree, sensors_config *config, const sensors_probe_header *header)
{
    sensors_baro_config *baro = &config->baro;
    const key_scope scope{tree, nullptr, chosen_section(kBaroChoice)};
    int rc = read_enabled(scope, &baro->enabled, nullptr);
    if (rc <= 0)
        return rc;
    rc = sensorscfg_read_keys(scope, baro, kBaroKeys);
    if (rc < 0)
        return rc;
    if (strstr(baro->device, "lps22hb")) {
        rc = sensorscfg_read_keys(scope, baro, kBaroLps22hbKeys);
        if (rc < 0)
            return rc;
    }
    host_filter(&baro->enabled, header, SENSORS_KIND_BARO);
    return 0;
}

int read_magneto(const config_t *tree, sensors_config *config, const sensors_probe_header *header)
{
    sensors_magneto_config *magneto = &config->magneto;
    const char *name = chosen_section(kMagnetoChoice);
    const key_scope scope{tree, nullptr, name};
    int rc = read_enabled(scope, &magneto->enabled, nullptr);
    if (rc <= 0)
        return rc;
    rc = sensorscfg_read_keys(scope, magneto, kMagnetoKeys);
    if (rc < 0)
        return rc;

    char key[kConfigKeyMax];
    if (!sensorscfg_key(key, name, "rotation-matrix"))
        return sensorscfg_error(key);
    // A malformed matrix is reported by the reader and is not fatal.
    int matrix = sensorscfg_get_matrix(tree, key, magneto->rotation_matrix);
    if (matrix == 1) {
        magneto->matrix_from_device_tree = 1;
        log_msg(kConfigTag, LOG_DEBUG, "%s.rotation-matrix will be retrieved from device-tree", name);
    } else if (matrix == 0) {
        log_msg(kConfigTag, LOG_DEBUG, "%s.rotation-matrix configuration retrieved from %s", name, kConfigDir);
    }

    rc = sensorscfg_read_keys(scope, magneto, kMagnetoOptionalKeys);
    if (rc < 0)
        return rc;
    host_filter(&magneto->enabled, header, SENSORS_KIND_MAGNETO);
    return 0;
}

int read_tof_list(const config_t *tree, sensors_config *config, const sensors_probe_header *header,
                  const tof_list_desc &desc)
{
    const config_setting_t *list = config_lookup(tree, desc.name);
    if (!list)
        return 0;
    if (!config_setting_is_list(list)) {
        log_str(kConfigTag, LOG_ERR, "tofs should be a list");
        return -EINVAL;
    }
    int count = config_setting_length(list);
    if (count > SENSORS_TOF_MAX) {
        log_msg(kConfigTag, LOG_ERR, "tof count exceeds SENSORS_TOF_MAX (%d != %d)", count, SENSORS_TOF_MAX);
        return -EINVAL;
    }
    if (count == 0)
        return 0;

    auto *sub = reinterpret_cast<unsigned char *>(config) + desc.offset;
    int32_t *enabled = flag_at(sub, desc.enabled_offset);
    const key_scope scope{tree, config_setting_get_elem(list, 0), kTofErrorPrefix};
    int rc = read_enabled(scope, enabled, "tof section missing, disabling");
    if (rc <= 0)
        return rc;
    rc = sensorscfg_read_keys(scope, sub, desc.keys, desc.key_count);
    if (rc < 0)
        return rc;
    const char *type;
    memcpy(&type, sub + desc.type_offset, sizeof type);
    int index = sensorscfg_tof_index(type);
    if (index < 0)
        return sensorscfg_error("tof.type");
    memcpy(sub + desc.type_index_offset, &index, sizeof index);
    rc = sensorscfg_read_keys(scope, sub, desc.after, desc.after_count);
    if (rc < 0)
        return rc;
    host_filter(enabled, header, SENSORS_KIND_TOF);
    return 0;
}

// Chooses the file: the override, else "<hw>.hwNN.cfg", else "<hw>.cfg" in
// the configuration directory. Returns a malloc'ed path or null.
char *select_file()
{
    char dir[PATH_MAX];
    if (platform_path(kConfigDir, dir, sizeof dir) != 0)
        return nullptr;

    char hardware[PROPERTY_VALUE_MAX] = "";
    char *path = nullptr;
    const char *override_path = getenv(kConfigPathEnv);
    if (override_path) {
        log_msg(kConfigTag, LOG_NOTICE, "Using cfg file '%s'", override_path);
        path = strdup(override_path);
    } else {
        char revision[PROPERTY_VALUE_MAX];
        property_get("ro.hardware", hardware, "");
        property_get("ro.revision", revision, "");
        int number = static_cast<int>(strtol(revision, nullptr, 10));
        if (asprintf(&path, "%s/%s.hw%02d.cfg", dir, hardware, number) < 0)
            path = nullptr;
    }
    if (!path)
        return nullptr;

    log_msg(kConfigTag, LOG_DEBUG, "check config file: '%s'", path);
    struct stat st;
    if (stat(path, &st) != 0) {
        free(path);
        if (asprintf(&path, "%s/%s.cfg", dir, hardware) < 0)
            return nullptr;
    }
    return path;
}

// Destroys the parsed tree and leaves its slot as never initialised, so that
// sensors_config_destroy knows there is nothing left to release.
void release_tree(config_t *tree)
{
    config_destroy(tree);
    memset(tree, 0, sizeof *tree);
}

int parse_file(config_t *tree, const char *path)
{
    config_init(tree);
    if (config_read_file(tree, path) == CONFIG_TRUE)
        return 0;
    // Never hand a missing text to %s.
    const char *text = config_error_text(tree);
    if (!text)
        text = "unknown error";
    log_msg(kConfigTag, LOG_ERR, "can't read configuration: %s:%d %s", path, config_error_line(tree), text);
    release_tree(tree);
    return -EINVAL;
}

int read_sections(const config_t *tree, sensors_config *config, const sensors_probe_header *header)
{
    int rc;
    if ((rc = read_baro(tree, config, header)) < 0 || (rc = read_section(tree, config, header, kBldc)) < 0 ||
        (rc = read_section(tree, config, header, kGps)) < 0)
        return rc;
    if (sensorscfg_read_imu(&config->imu, tree, header, kImuKind) < 0)
        return -EINVAL;
    // The second IMU is optional: any trouble only disables it.
    if (sensorscfg_read_imu(&config->imu_vcam, tree, header, kImuVcamKind) != 0)
        config->imu_vcam.enabled = 0;
    if ((rc = read_magneto(tree, config, header)) < 0 || (rc = read_section(tree, config, header, kBattery)) < 0 ||
        (rc = read_section(tree, config, header, kUltrasound)) < 0 ||
        (rc = read_section(tree, config, header, kCarpetDetection)) < 0 ||
        (rc = read_section(tree, config, header, kVcamPosition)) < 0 ||
        (rc = read_section(tree, config, header, kFstcamPosition)) < 0 ||
        (rc = read_section(tree, config, header, kVcamOpticalFlow)) < 0 ||
        (rc = read_tof_list(tree, config, header, kTofs)) < 0 ||
        (rc = read_tof_list(tree, config, header, kTofsLib)) < 0 ||
        (rc = read_section(tree, config, header, kFcamGimbal)) < 0)
        return rc;
    return 0;
}

} // namespace

int sensorscfg_tof_index(const char *type)
{
    for (size_t i = 0; i < std::size(kTofTypes); i++)
        if (type && strcmp(type, kTofTypes[i]) == 0)
            return static_cast<int>(i);
    log_msg(kConfigTag, LOG_ERR, "unknown tof type: %s", type ? type : "(null)");
    return -1;
}

int sensorscfg_read(sensors_config *config, const sensors_probe_header *header)
{
    if (!config || !header)
        return -EINVAL;
    char *path = select_file();
    if (!path)
        return -EINVAL;
    log_msg(kConfigTag, LOG_INFO, "load config from '%s'", path);
    config_t *tree = sensorscfg_tree(config);
    int rc = parse_file(tree, path);
    free(path);
    if (rc < 0)
        return rc;
    if (read_sections(tree, config, header) < 0) {
        release_tree(tree);
        return -EINVAL;
    }
    return 0;
}

extern "C" SENSORS_API sensors_config *sensors_config_new(const sensors_probe_header *header)
{
    if (!header || failpoint_check(kFailRecordAlloc) != 0)
        return nullptr;
    owned<sensors_config, sensors_config_destroy> config{zeroed_new<sensors_config>()};
    if (!config)
        return nullptr;
    if (sensorscfg_read(config.get(), header) != 0)
        return nullptr;

    const sensors_config *c = config.get();
    log_msg(kConfigTag, LOG_INFO, "enabled sensors:%s%s%s%s%s%s%s%s%s%s%s%s%s", enabled_word_of(c, 0),
            enabled_word_of(c, 1), enabled_word_of(c, 2), enabled_word_of(c, 3), enabled_word_of(c, 4),
            enabled_word_of(c, 5), enabled_word_of(c, 6), enabled_word_of(c, 7), enabled_word_of(c, 8),
            enabled_word_of(c, 9), enabled_word_of(c, 10), enabled_word_of(c, 11), enabled_word_of(c, 12));
    if (c->tof.enabled)
        log_msg(kConfigTag, LOG_INFO, "enabled sensors: tof %s", c->tof.type);
    return config.release();
}

extern "C" SENSORS_API void sensors_config_destroy(sensors_config *config)
{
    if (!config)
        return;
    config_t *tree = sensorscfg_tree(config);
    // A tree that was never initialised, or was released after a failed
    // reading, has no root.
    if (tree->root)
        release_tree(tree);
    free(config->imu.thread_cfg);
    free(config->imu_vcam.thread_cfg);
    free(config);
}
