#!/usr/bin/env bash
# The main job: installs and builds what the demo needs (the plug-in, the
# virtual vehicle, the sensor host and the telemetry tool), then flies the
# virtual vehicle under the sensor host with every sensor enabled.
# Usage: scripts/run.sh [seconds] [demo options...]   (see scripts/demo.sh)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

"$root/scripts/build.sh" --demo "$build"
BUILD_DIR=$build exec "$root/scripts/demo.sh" "$@"
