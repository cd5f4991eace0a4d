// SPDX-License-Identifier: Apache-2.0
// The live view and the closing summary.
#pragma once

#include <string>

#include "host_log.h"
#include "host_stats.h"

enum class view_mode { live, lines, none };

struct view_context {
    std::string plugin;
    double elapsed_s;
    const sensors_data *data;
    host_stats *stats;
    host_log *log;
    bool motor_keys = false;     // the live view takes motor command keys
    unsigned motor_commands = 0; // sent with write
    unsigned motor_failures = 0; // of which write returned an error
    unsigned restarts = 0;       // plug-in restarts after a lost IIO server
    std::string scheduling;      // what the acquisition thread runs with, and why
};

// Live: redraws the terminal (per sensor its rate and latest values, the log
// below). Lines: one status line per refresh. None: nothing.
void view_refresh(view_mode mode, const view_context &ctx);
void view_summary(const view_context &ctx);
