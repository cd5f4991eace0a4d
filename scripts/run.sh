#!/usr/bin/env bash
# The main job: builds everything and runs the virtual vehicle under the
# sensor host with every sensor enabled.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

"$root/scripts/build.sh" "$build"

host=$build/tools/host/orlune-host
sim=$build/sim/orlune-sim
if [ ! -x "$host" ] || [ ! -x "$sim" ]; then
  echo "built: $build/libsensors_orlune.so"
  echo "the sensor host and the virtual vehicle are not built yet: nothing to run"
  exit 0
fi
exec "$root/scripts/demo.sh" "$@"
