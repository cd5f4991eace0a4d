// SPDX-License-Identifier: Apache-2.0
// Internals of the configuration reader, shared by its sources and its tests.
#pragma once

#include <libconfig.h>
#include <sensors/config.h>

#include <cstddef>

#include "platform/log.h"

inline constexpr log_tag kConfigTag{"sensors_config"};

// Directory of the configuration files (relocated under ORLUNE_ROOT).
inline constexpr const char *kConfigDir = "/etc/sensors";
inline constexpr const char *kConfigPathEnv = "LIBVIGIL_CFG_PATH";
inline constexpr const char *kNoRotationEnv = "SENSORS_IMU_NO_ROTATION";

// Section keys are composed as "<section>.<key>" into a buffer of this size.
inline constexpr size_t kConfigKeyMax = 128;

// Fail points for the allocations of the reader.
inline constexpr const char *kFailRecordAlloc = "sensors_config.alloc";
inline constexpr const char *kFailThreadCfgAlloc = "sensors_config.thread_cfg";

// Sensor kind numbers of the two IMU sections (their bit in sensor_mask).
inline constexpr int kImuKind = 2;
inline constexpr int kImuVcamKind = 13;

static_assert(sizeof(config_t) <= sizeof(sensors_config_tree), "the parsed tree must fit its slot");
static_assert(alignof(config_t) <= alignof(sensors_config_tree), "the parsed tree slot is under-aligned");

inline config_t *sensorscfg_tree(sensors_config *config)
{
    return reinterpret_cast<config_t *>(config->tree.bytes);
}

// Selects, parses and reads the whole file into config. 0 or -EINVAL.
int sensorscfg_read(sensors_config *config, const sensors_probe_header *header);

// Logs "'<key>' not found or incorrect type" at error level; returns -EINVAL.
int sensorscfg_error(const char *key);

// Reads the IMU section of the given kind (kImuKind or kImuVcamKind).
// 0, -EINVAL or -ENOMEM.
int sensorscfg_read_imu(sensors_imu_config *imu, const config_t *tree, const sensors_probe_header *header,
                        int kind);

// Reads a 3x3 row-major float matrix: 1 when key is absent (nothing written),
// 0 when read, -EINVAL when malformed (elements before the faulty one stay written).
int sensorscfg_get_matrix(const config_t *tree, const char *key, float matrix[9]);

// Index of a known rangefinder type, or -1 (logged) for an unknown one.
int sensorscfg_tof_index(const char *type);

// Composes "<section>.<key>" into out (kConfigKeyMax bytes). False when it does not fit.
bool sensorscfg_key(char *out, const char *section, const char *key);

// Key tables: each section's keys after its enabled flag, in reading order.
enum class cfg_type : unsigned char { boolean, integer, real32, real64, string };

struct key_rule {
    const char *key;
    cfg_type type;
    bool required;
    unsigned short offset; // of the field in the sub-record
    int fallback;          // stored when an optional integer key is missing
};

// Where keys are looked up: section keys as the path "<name>.<key>" in the
// tree; list element keys inside the element, with "<name>.<key>" (name being
// the error prefix) only shown in messages.
struct key_scope {
    const config_t *tree;
    const config_setting_t *element;
    const char *name;
};

// Looks key up with the type's own lookup and stores it at dst (i32 for
// booleans and integers, f32, f64 or a borrowed string). False when missing
// or of another type. full_key receives the key as messages show it.
bool sensorscfg_lookup(const key_scope &scope, const char *key, cfg_type type, void *dst,
                       char (&full_key)[kConfigKeyMax]);

// Reads rules in order into sub_record; the first required key that is
// missing or mistyped is reported and gives -EINVAL.
int sensorscfg_read_keys(const key_scope &scope, void *sub_record, const key_rule *rules, size_t count);

template <size_t N>
int sensorscfg_read_keys(const key_scope &scope, void *sub_record, const key_rule (&rules)[N])
{
    return sensorscfg_read_keys(scope, sub_record, rules, N);
}
