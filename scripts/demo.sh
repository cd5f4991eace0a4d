#!/usr/bin/env bash
# Runs the virtual vehicle under the sensor host: orlune-sim serves the
# simulated IIO devices, orlune-host loads the plug-in with the virtual
# vehicle's configuration and shows the live view, then a summary.
# Usage: scripts/demo.sh [seconds] [extra orlune-host options...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
duration=${1:-20}
shift || true

# A private root: the vehicle's configuration found by its hardware name, the
# example calibration, and the telemetry sections, none of it touching /etc,
# /data or /factory of this machine.
vehicle=$(mktemp -d "${TMPDIR:-/tmp}/orlune-vehicle-XXXXXX")
export ORLUNE_ROOT=$vehicle
export ORLUNE_TLM_DIR=$vehicle/tlm
export ORLUNE_SOCKET_PREFIX="orlune-demo-$$-"
mkdir -p "$vehicle/etc/sensors" "$vehicle/etc/orlune"
cp "$root/examples/config/orlune_sim.cfg" "$vehicle/etc/sensors/orlune_sim.cfg"
cp -r "$root/examples/calibration/data" "$root/examples/calibration/factory" "$vehicle/"
printf 'ro.hardware=orlune_sim\nro.revision=1\n' > "$vehicle/etc/orlune/system.prop"

"$build/sim/orlune-sim" > "$vehicle/sim.out" 2> "$vehicle/sim.log" &
sim=$!
trap 'kill $sim 2>/dev/null; wait $sim 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  grep -q '^IIOD_REMOTE=' "$vehicle/sim.out" 2>/dev/null && break
  sleep 0.05
done
if ! grep -q '^IIOD_REMOTE=' "$vehicle/sim.out"; then
  echo "orlune-sim did not start:" >&2
  cat "$vehicle/sim.log" >&2
  exit 1
fi
export "$(grep '^IIOD_REMOTE=' "$vehicle/sim.out")"
echo "virtual vehicle: $IIOD_REMOTE, files in $vehicle"

# Unless told otherwise, fly the motors: start after 2 s, spin up, stop 2 s
# before the end.
motors=()
case " $* " in
  *" -M "*|*" --motors "*) ;;
  *) if [ "${duration%.*}" -ge 8 ]; then
       motors=(--motors "2:start,3:speeds=6000,$((${duration%.*} - 2)):stop")
     fi ;;
esac

"$build/tools/host/orlune-host" --duration "$duration" --log "$vehicle/host.log" "${motors[@]}" "$@"
echo "plug-in log: $vehicle/host.log"
