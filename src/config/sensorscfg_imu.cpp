// SPDX-License-Identifier: Apache-2.0
// The two IMU sections and the 3x3 mounting matrix reader.
#include <cerrno>
#include <cstdlib>

#include "config/sensorscfg.h"
#include "platform/failpoint.h"

namespace {

struct imu_section {
    int kind;
    const char *name;
    const char *default_tlm_section;
};

constexpr imu_section kImuSections[] = {
    {kImuKind, "imu", "sensors_imu"},
    {kImuVcamKind, "imu_vcam", "sensors_imu_vcam"},
};

const imu_section *imu_section_of(int kind)
{
    for (const imu_section &s : kImuSections)
        if (s.kind == kind)
            return &s;
    return nullptr;
}

#define IMU_FIELD(f) static_cast<unsigned short>(offsetof(sensors_imu_config, f))
// Read only when the section is enabled, in this order.
constexpr key_rule kImuKeys[] = {
    {"device", cfg_type::string, true, IMU_FIELD(device), 0},
    {"sampling-frequency", cfg_type::integer, true, IMU_FIELD(sampling_frequency), 0},
    {"sampling-rate-div", cfg_type::integer, false, IMU_FIELD(sampling_rate_div), 0},
    {"trigger", cfg_type::string, true, IMU_FIELD(trigger), 0},
    {"temperature.sensitivity", cfg_type::real64, true, IMU_FIELD(temperature_sensitivity), 0},
    {"temperature.offset", cfg_type::real64, true, IMU_FIELD(temperature_offset), 0},
    {"accelero_scale", cfg_type::real64, true, IMU_FIELD(accelero_scale), 0},
    {"gyro_scale", cfg_type::real64, true, IMU_FIELD(gyro_scale), 0},
};
#undef IMU_FIELD

// The scheduling configuration names, in file order, borrowed from the tree.
int read_thread_cfg(sensors_imu_config *imu, const config_t *tree, const char *section)
{
    char key[kConfigKeyMax];
    if (!sensorscfg_key(key, section, "thread_cfg"))
        return sensorscfg_error(key);
    const config_setting_t *names = config_lookup(tree, key);
    if (!names || !config_setting_is_aggregate(names) || config_setting_length(names) <= 0)
        return 0;
    // The record gets the names and their count together, or neither.
    const int count = config_setting_length(names);
    if (failpoint_check(kFailThreadCfgAlloc) != 0)
        return -ENOMEM;
    auto **array = static_cast<const char **>(calloc(size_t(count), sizeof(const char *)));
    if (!array)
        return -ENOMEM;
    for (int i = 0; i < count; i++) {
        array[i] = config_setting_get_string_elem(names, i);
        if (!array[i]) {
            free(array);
            return sensorscfg_error(key);
        }
    }
    imu->thread_cfg = array;
    imu->thread_cfg_count = count;
    return 0;
}

} // namespace

int sensorscfg_get_matrix(const config_t *tree, const char *key, float matrix[9])
{
    const config_setting_t *setting = config_lookup(tree, key);
    if (!setting)
        return 1;
    for (int r = 0; r < 3; r++) {
        const config_setting_t *row = config_setting_get_elem(setting, r);
        if (!row)
            return sensorscfg_error(key);
        for (int c = 0; c < 3; c++) {
            const config_setting_t *element = config_setting_get_elem(row, c);
            if (!element || config_setting_type(element) != CONFIG_TYPE_FLOAT)
                return sensorscfg_error(key);
            matrix[3 * r + c] = static_cast<float>(config_setting_get_float(element));
        }
    }
    return 0;
}

int sensorscfg_read_imu(sensors_imu_config *imu, const config_t *tree, const sensors_probe_header *header,
                        int kind)
{
    const imu_section *section = imu_section_of(kind);
    if (!section || !imu || !tree || !header)
        return -EINVAL;
    const key_scope scope{tree, nullptr, section->name};
    char key[kConfigKeyMax];

    int rc = read_thread_cfg(imu, tree, section->name);
    if (rc < 0)
        return rc;

    if (!sensorscfg_lookup(scope, "tlm_section", cfg_type::string, &imu->tlm_section, key))
        imu->tlm_section = section->default_tlm_section;

    // A missing IMU flag is only a notice: imu_vcam is commonly absent.
    if (!sensorscfg_lookup(scope, "enabled", cfg_type::boolean, &imu->enabled, key)) {
        log_msg(kConfigTag, LOG_NOTICE, "'%s' not found or incorrect type", key);
        return -EINVAL;
    }
    if (!imu->enabled)
        return 0;

    rc = sensorscfg_read_keys(scope, imu, kImuKeys);
    if (rc < 0)
        return rc;

    if (!sensorscfg_key(key, section->name, "rotation-matrix"))
        return sensorscfg_error(key);
    int matrix = sensorscfg_get_matrix(tree, key, imu->rotation_matrix);
    if (matrix == 1) {
        imu->matrix_from_device_tree = 1;
        log_msg(kConfigTag, LOG_DEBUG, "%s will be retrieved from device-tree", key);
    }
    // A malformed matrix was reported by the reader and is not fatal.

    if (!sensorscfg_lookup(scope, "rotation-after-calib", cfg_type::boolean, &imu->rotation_after_calib, key))
        imu->rotation_after_calib = 0;

    const char *no_rotation = getenv(kNoRotationEnv);
    if (no_rotation && no_rotation[0] == 'y') {
        imu->rotation_enabled = 0;
        log_msg(kConfigTag, LOG_INFO, "%s.rotation-matrix is disabled", section->name);
    } else {
        imu->rotation_enabled = 1;
        log_msg(kConfigTag, LOG_INFO, "%s.rotation-matrix is applied", section->name);
    }

    if (matrix == 0)
        log_msg(kConfigTag, LOG_DEBUG, "%s.rotation-matrix configuration retrieved from %s", section->name,
                kConfigDir);

    if (!(header->sensor_mask & (1u << kind)))
        imu->enabled = 0;
    return 0;
}
