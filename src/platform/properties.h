// SPDX-License-Identifier: Apache-2.0
// System properties: key=value pairs from the properties file.
//
// The file is ORLUNE_PROPERTIES when set, else /etc/orlune/system.prop
// (relocated under ORLUNE_ROOT). One "key=value" per line; blanks around the
// key are ignored, the value is the rest of the line; lines starting with '#'
// are comments; a key given twice takes its last value.
#pragma once

#include <cstddef>

inline constexpr size_t PROPERTY_VALUE_MAX = 92; // value buffer size, terminator included
inline constexpr const char *kPropertiesEnv = "ORLUNE_PROPERTIES";
inline constexpr const char *kPropertiesFile = "/etc/orlune/system.prop";

// Copies the value of key (or default_value, or "" when that is null) into
// value, which must hold PROPERTY_VALUE_MAX bytes; a longer value is cut to
// PROPERTY_VALUE_MAX - 1 characters. Returns the length of what was copied.
// A missing file or key gives the default.
int property_get(const char *key, char *value, const char *default_value);
