#!/usr/bin/env bash
# Flies the virtual vehicle under the sensor host: orlune-sim serves the
# simulated hardware, orlune-host loads the plug-in with the virtual vehicle's
# configuration, shows the live view and a summary, and records the flight;
# the recording, the simulator's truth and the logs are then plotted.
#
# Usage: scripts/demo.sh [seconds] [--scenario FILE] [--out DIR] [--board|--kernel] [orlune-host options...]
#   seconds     how long the host acquires (default 45: the whole demo flight)
#   --scenario  the scenario (default examples/scenarios/flight.cfg)
#   --out DIR   where the recording, logs and plots go (default demo-output/<date-time>)
#   --board     the IIO devices through the board's transport (libiio's local
#               backend on the simulator's sysfs stand-in, scripts/board.sh;
#               needs root) instead of the network
#   --kernel    the IIO devices of a genuine Linux kernel: the flight runs in a
#               QEMU guest (scripts/guest.sh) whose kernel has the virtual
#               vehicle's driver, fed by the simulator and read through
#               libiio's local backend; the output comes back to --out
# The flight loop and the simulator run at real-time priorities
# (examples/config/sched.conf, orlune-sim --realtime) where the system allows
# it (not in the --kernel guest); without the privilege the host says so once
# and flies all the same.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

if [ "${ORLUNE_BOARD_NS:-}" != 1 ] && [[ " $* " == *" --board "* ]]; then
  exec "$root/scripts/board.sh" "$0" "$@"
fi

args=("$@")
duration=45
board=0
kernel=0
if [ $# -gt 0 ] && [[ $1 =~ ^[0-9]+([.][0-9]+)?$ ]]; then
  duration=$1
  shift
fi
scenario=$root/examples/scenarios/flight.cfg
out=""
host_args=()
while [ $# -gt 0 ]; do
  case $1 in
    --scenario) scenario=$(realpath "${2:?--scenario needs a file}"); shift 2 ;;
    --out) out=${2:?--out needs a directory}; shift 2 ;;
    --board) board=1; shift ;;
    --kernel) kernel=1; shift ;;
    *) host_args+=("$1"); shift ;;
  esac
done
[ -f "$scenario" ] || { echo "demo: no scenario file '$scenario'" >&2; exit 2; }
out=${out:-$root/demo-output/$(date +%Y%m%d-%H%M%S)}
mkdir -p "$out"
out=$(cd "$out" && pwd)
if [ $kernel = 1 ] && [ "${ORLUNE_IN_GUEST:-}" != 1 ]; then
  "$root/scripts/deps.sh" kernel
  echo "booting the guest (its kernel under emulation: a minute or more before the flight)"
  exec "$root/scripts/guest.sh" --share "$out" -- \
    env ORLUNE_IN_GUEST=1 BUILD_DIR="$build" "$0" "${args[@]}" --out "$out"
fi

source "$root/scripts/vehicle.sh"
vehicle=$(mktemp -d "${TMPDIR:-/tmp}/orlune-vehicle-XXXXXX")
vehicle_root "$vehicle" "orlune-demo-$$-"
# The vehicle's scheduling table where a board keeps it (/etc/orlune/sched.conf),
# and the simulator above the flight loop on its CPU. Not in the emulated
# guest, whose CPUs are threads of this machine's emulator: real-time
# priorities there would only take its kernel's time.
realtime=(--realtime 70 --cpus 1)
if [ $kernel = 0 ]; then
  cp "$root/examples/config/sched.conf" "$vehicle/etc/orlune/sched.conf"
else
  realtime=()
fi
sim_pid=""
trap '[ -z "$sim_pid" ] || { kill $sim_pid 2>/dev/null || true; wait $sim_pid 2>/dev/null || true; }; rm -rf "$vehicle"' EXIT
sysfs=()
[ $board = 0 ] || sysfs=(--sysfs /)
[ $kernel = 0 ] || sysfs=(--kernel /dev/orlune-vehicle)
vehicle_start "$build/sim/orlune-sim" "$vehicle/sim.out" "$out/sim.log" \
  --scenario "$scenario" --truth "$out/truth.csv" "${realtime[@]}" "${sysfs[@]}" || exit 1
if [ $board = 1 ] || [ $kernel = 1 ]; then
  unset IIOD_REMOTE # libiio's local backend: the board's own devices
  where="the board's transport (local IIO devices)"
  [ $kernel = 0 ] || where="the guest kernel's IIO devices ($(uname -r))"
  echo "virtual vehicle: $(basename "$scenario" .cfg) on $where, output in $out"
else
  echo "virtual vehicle: $(basename "$scenario" .cfg) on $IIOD_REMOTE, output in $out"
fi
# What the simulated hardware runs with. Without the privilege its refusal
# stays in sim.log: the host says once that the vehicle flies without
# real-time priorities.
grep '^orlune-sim: every thread at' "$out/sim.log" || true

# The demo flight's motor commands follow its phases (see the scenario's
# header); another scenario gets a start, a spin and a stop.
motors=()
case " ${host_args[*]:-} " in
  *" -M "*|*" --motors "*) ;;
  *) if [ "$(basename "$scenario")" = flight.cfg ]; then
       motors=(--motors "1:start,1.5:stall-on,3:speeds=7200,8:speeds=6400,24:speeds=7000,28:speeds=6400,31:speeds=5800,39:speeds=3000,41:stop")
     elif [ "${duration%.*}" -ge 8 ]; then
       motors=(--motors "2:start,3:speeds=6000,$((${duration%.*} - 2)):stop")
     fi ;;
esac

status=0
"$build/tools/host/orlune-host" --duration "$duration" --log "$out/host.log" --record "$out/recording.csv" \
  "${motors[@]}" "${host_args[@]}" || status=$?
kill $sim_pid 2>/dev/null || true; wait $sim_pid 2>/dev/null || true
sim_pid=""
# Where the samples the summary counts as lost went: the scans a full kernel
# buffer refused, and those the simulator's feeder never handed the kernel.
[ $kernel = 0 ] || grep -E '^orlune-sim: kernel: .* scans (refused|missing)' "$out/sim.log" || true

echo
echo "recording:  $out/recording.csv (one row per cycle)"
echo "truth:      $out/truth.csv (the simulator's flight)"
echo "logs:       $out/host.log (plug-in), $out/sim.log (simulator)"
if [ $status -eq 0 ] && [ -s "$out/recording.csv" ]; then
  "$root/scripts/plot.sh" "$out/recording.csv" --truth "$out/truth.csv" --log "$out/host.log" --out "$out/plots" ||
    echo "plots: not made (see above)"
fi
exit $status
