// SPDX-License-Identifier: Apache-2.0
// The host interface records are plain C; including them here has the C++
// compiler check every offset assertion they carry, as the C header test does
// for the C compiler.
#include <sensors/sensors.h>

#include <type_traits>

static_assert(std::is_standard_layout_v<sensors_data>);
static_assert(std::is_trivially_copyable_v<sensors_data>);
static_assert(std::is_standard_layout_v<sensors_motor_command>);
static_assert(std::is_standard_layout_v<sensors_probe_header>);
