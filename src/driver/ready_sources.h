// SPDX-License-Identifier: Apache-2.0
// The modules' sources for the cycle's one poll: each module's hint, null
// when the module has none (not made, or a transport that cannot tell).
#pragma once

struct ready_hint;
struct barometer_ctx;
struct magneto_ctx;
struct gps_ctx;
struct us_ctx;

ready_hint *barometer_ready_hint(barometer_ctx *baro);
ready_hint *magneto_ready_hint(magneto_ctx *magneto);
ready_hint *gps_ready_hint(gps_ctx *gps);
ready_hint *us_ready_hint(us_ctx *us);
