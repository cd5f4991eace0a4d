#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer
# (the "asan" preset, in build-asan/) and runs the whole test suite there,
# but for the genuine kernel's tests (label kernel): their flights count
# cycles in wall time, which an emulated guest meets and a sanitized build
# in one does not, and the code they run is the board's transport's, which
# runs here on the sysfs stand-in.
# Usage: scripts/sanitize.sh [ctest arguments...], e.g. -R Battery
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/deps.sh
if [ ! -f build-asan/build.ninja ] || ! grep -q '^ORLUNE_FAILPOINTS:BOOL=ON$' build-asan/CMakeCache.txt; then
  cmake --preset asan
fi
cmake --build --preset asan -j "$(nproc)"
ctest --preset asan -j "$(nproc)" -LE kernel "$@"
