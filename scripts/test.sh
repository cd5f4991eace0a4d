#!/usr/bin/env bash
# Installs every package and builds everything, runs each fuzz target
# briefly, then runs every test in parallel; ctest's summary closes the
# output.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

"$root/scripts/build.sh" "$build"
status=0
"$root/scripts/fuzz.sh" --seconds "${FUZZ_SECONDS:-10}" --jobs "$(nproc)" || status=1
(cd "$build" && ctest -j "$(nproc)" --output-on-failure --timeout 300) || status=$?
exit $status
