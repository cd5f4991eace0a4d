#!/usr/bin/env bash
# Replays a capture (orlune-capture) through the plug-in: orlune-sim serves
# the capture, orlune-host flies on it and records, as in the demo.
#
# Usage: scripts/replay.sh CAPTURE [--fast] [--seek S] [--loop] [--data DIR] [--out DIR] [orlune-host options...]
#   --fast      as fast as the plug-in reads, not at the original pace
#   --seek S    start S seconds into the capture
#   --loop      start over at the end (from S), until Ctrl-C
#   --data DIR  files that replace the vehicle's /data ones (its flight
#               calibration: a new calibration file, for instance)
#   --out DIR   where the recording and logs go (default replay-output/<date-time>)
# The plug-in runs with the virtual vehicle's configuration and calibration.
# The host stops when the capture has no more scans (with --loop, at Ctrl-C). At the original pace,
# as root, both run in a time namespace whose monotonic clock is the
# capture's (docs/replay.md): every timestamp is as recorded and as fresh as
# it was in flight.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

capture=${1:?usage: scripts/replay.sh CAPTURE [--fast] [--seek S] [--loop] [--data DIR] [--out DIR] [orlune-host options...]}
shift
[ -f "$capture" ] || { echo "replay: no capture '$capture'" >&2; exit 2; }
capture=$(realpath "$capture")
sim_args=()
host_args=()
out=""
data=""
fast=0
while [ $# -gt 0 ]; do
  case $1 in
    --fast) fast=1; sim_args+=(--fast); shift ;;
    --seek) sim_args+=(--seek "${2:?--seek needs seconds}"); shift 2 ;;
    --loop) sim_args+=(--loop); shift ;;
    --out) out=${2:?--out needs a directory}; shift 2 ;;
    --data) data=$(realpath "${2:?--data needs a directory}"); shift 2 ;;
    *) host_args+=("$1"); shift ;;
  esac
done

if [ "${ORLUNE_REPLAY_NS:-}" != 1 ]; then
  "$root/scripts/build.sh" --demo "$build" >/dev/null
  info=$("$build/tools/capture/orlune-capture" --info "$capture") || exit 2
  # The capture's clock, two seconds before its first record, becomes this
  # clock's now: the host starts before the first scan is due.
  first=$(sed -n 's/^  first record: \([0-9]*\)\..*/\1/p' <<<"$info")
  if [ $fast = 0 ] && [ "$(id -u)" = 0 ] &&
     offset=$((first - 2 - $(cut -d. -f1 /proc/uptime))) &&
     unshare --time --monotonic="$offset" --fork true 2>/dev/null; then
    ORLUNE_REPLAY_NS=1 exec unshare --time --monotonic="$offset" --fork "$0" "$capture" \
      "${sim_args[@]}" ${out:+--out "$out"} ${data:+--data "$data"} "${host_args[@]}"
  fi
else
  sim_args+=(--capture-clock)
fi

out=${out:-$root/replay-output/$(date +%Y%m%d-%H%M%S)}
mkdir -p "$out"
out=$(cd "$out" && pwd)
source "$root/scripts/vehicle.sh"
vehicle=$(mktemp -d "${TMPDIR:-/tmp}/orlune-replay-XXXXXX")
vehicle_root "$vehicle" "orlune-replay-$$-"
[ -z "$data" ] || cp -r "$data/." "$vehicle/data/"
sim_pid=""
host_pid=""
trap '[ -z "$host_pid" ] || kill $host_pid 2>/dev/null || true
      [ -z "$sim_pid" ] || { kill $sim_pid 2>/dev/null || true; wait $sim_pid 2>/dev/null || true; }
      rm -rf "$vehicle"' EXIT
vehicle_start "$build/sim/orlune-sim" "$vehicle/sim.out" "$out/sim.log" --replay "$capture" "${sim_args[@]}" || exit 1
grep '^# replay of' "$vehicle/sim.out" | sed 's/^# //'

"$build/tools/host/orlune-host" --duration 1000000 --log "$out/host.log" --record "$out/recording.csv" \
  "${host_args[@]}" &
host_pid=$!
until grep -q '^# replay over' "$vehicle/sim.out"; do
  kill -0 $host_pid 2>/dev/null || break
  sleep 0.2
done
kill -INT $host_pid 2>/dev/null || true
status=0
wait $host_pid || status=$?
host_pid=""
echo
echo "recording:  $out/recording.csv (one row per cycle)"
echo "logs:       $out/host.log, $out/sim.log"
exit $status
