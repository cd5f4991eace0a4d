// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/log.h"

inline constexpr log_tag kFrameTag{"sensors_orlune"};
