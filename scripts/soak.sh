#!/usr/bin/env bash
# The long soak: the virtual vehicle with every sensor under orlune-host while
# the fault cycle (about 30 s: IIO errors, short batch, stalled trigger, IIO
# server restart, motor error, battery removal, GPS daemon restart, vision and
# gimbal producers restarting) repeats, then a report: per check PASS, WARN or
# FAIL with its numbers. The run's files (scenario, plug-in log, recording,
# resource samples) are kept in the output directory.
# Usage: scripts/soak.sh [--load] [--no-sched] [seconds] [output-dir]   (default 1800 s)
#   --load      a parallel build of the project (ninja -j6, over and over, in
#               output-dir/load-build) runs beside the vehicle for the whole run
#   --no-sched  without the scheduling table: the flight loop and the simulator
#               at ordinary priorities (ORLUNE_SOAK_SCHED=none)
# Environment: BUILD_DIR, ORLUNE_SOAK_SKIP, ORLUNE_SOAK_STRICT, ORLUNE_SOAK_SCHED
# (see docs/soak.md).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
load=0
while [ $# -gt 0 ]; do
  case $1 in
    --load) load=1; shift ;;
    --no-sched) export ORLUNE_SOAK_SCHED=none; shift ;;
    -*) echo "soak: unknown option $1 (--load, --no-sched)" >&2; exit 2 ;;
    *) break ;;
  esac
done
seconds=${1:-1800}
out=${2:-$build/soak-$(date +%Y%m%d-%H%M%S)}

# Installs, configures (again, after a demo-only configure) and builds everything.
"$root/scripts/build.sh" "$build"


mkdir -p "$out"
load_pid=""
if [ $load = 1 ]; then
  # The load: the project built from scratch with six jobs, again and again,
  # as a developer's machine or a vehicle updating itself is busy: compilers
  # and linkers coming and going, memory and files, more jobs than CPUs.
  load_dir=$out/load-build
  cmake -S "$root" -B "$load_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$out/load.log" 2>&1
  echo 0 > "$out/load-builds"
  setsid bash -c 'while :; do
      ninja -C "$1" -j6 >> "$2/load.log" 2>&1 && echo $(( $(cat "$2/load-builds") + 1 )) > "$2/load-builds"
      ninja -C "$1" -t clean > /dev/null 2>&1
    done' load "$load_dir" "$out" &
  load_pid=$!
  trap 'kill -- -$load_pid 2>/dev/null || true' EXIT
  sleep 5 # the build under way before the vehicle starts
fi
echo "soak: ${seconds} s$([ $load = 0 ] || echo ", beside a parallel build (ninja -j6)"); the report follows at the end (files in $out)"
status=0
ORLUNE_SOAK_SECONDS=$seconds ORLUNE_SOAK_OUT=$out "$build/tests/soak/soak_runner" | tee "$out/report.txt" || status=$?
if [ -n "$load_pid" ]; then
  kill -- -"$load_pid" 2>/dev/null || true
  wait "$load_pid" 2>/dev/null || true
  echo "load: $(cat "$out/load-builds") whole builds of the project (ninja -j6) finished during the run" | tee -a "$out/report.txt"
fi
exit $status
