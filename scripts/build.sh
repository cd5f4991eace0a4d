#!/usr/bin/env bash
# Configures (once) and builds the project in build/ with Ninja.
# Usage: scripts/build.sh [build-dir] [extra cmake args...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true

"$root/scripts/deps.sh"
if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$root" -B "$build" -G Ninja "$@"
fi
cmake --build "$build" -j "$(nproc)"
