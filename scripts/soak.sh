#!/usr/bin/env bash
# The long soak: the virtual vehicle with every sensor under orlune-host while
# the fault cycle (about 30 s: IIO errors, short batch, stalled trigger, IIO
# server restart, motor error, battery removal, GPS daemon restart, vision and
# gimbal producers restarting) repeats, then a report: per check PASS, WARN or
# FAIL with its numbers. The run's files (scenario, plug-in log, recording,
# resource samples) are kept in the output directory.
# Usage: scripts/soak.sh [seconds] [output-dir]   (default 1800 s)
# Environment: BUILD_DIR, ORLUNE_SOAK_SKIP, ORLUNE_SOAK_STRICT (see docs/soak.md).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
seconds=${1:-1800}
out=${2:-$build/soak-$(date +%Y%m%d-%H%M%S)}

# Installs, configures (again, after a demo-only configure) and builds everything.
"$root/scripts/build.sh" "$build"


mkdir -p "$out"
echo "soak: ${seconds} s; the report follows at the end (files in $out)"
status=0
ORLUNE_SOAK_SECONDS=$seconds ORLUNE_SOAK_OUT=$out "$build/tests/soak/soak_runner" | tee "$out/report.txt" || status=$?
exit $status
