#!/usr/bin/env bash
# Builds the benchmarks, measures every figure of the performance report in
# one run on this machine, and writes docs/performance.md.
#
# Usage: scripts/bench-report.sh [--quick] [--output FILE] [--build-dir DIR] [--no-build] [--no-kernel]
#   --quick       short runs: checks that everything works end to end (the
#                 figures are then only indicative)
#   --output      where to write the report (default: docs/performance.md;
#                 or the variable BENCH_REPORT_OUT)
#   --build-dir   build directory (default: build-bench; or BUILD_DIR)
#   --no-build    use the binaries already in the build directory
#   --no-kernel   leave the genuine kernel's column out (its guest takes a
#                 minute or more)
# The per-cycle figures are measured on both transports: the network one
# (libiio's network backend to orlune-sim) and the board's (libiio's local
# backend on orlune-sim's sysfs stand-in, in scripts/board.sh's namespace;
# left out, with a note, where no namespace can be made), and again on the
# genuine kernel, in scripts/guest.sh's emulated guest (left out, with a
# note, where no guest can run).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/scripts/vehicle.sh"
build=${BUILD_DIR:-$root/build-bench}
out=${BENCH_REPORT_OUT:-$root/docs/performance.md}
quick=0
do_build=1
kernel=1
board_dir=""
kernel_dir=""
while [ $# -gt 0 ]; do
  case "$1" in
    --board-run) board_dir=$2; shift ;; # inside scripts/board.sh: the board's figures into DIR
    --kernel-run) kernel_dir=$2; shift ;; # inside scripts/guest.sh: the kernel's figures into DIR
    --quick) quick=1 ;;
    --output) out=$2; shift ;;
    --build-dir) build=$2; shift ;;
    --no-build) do_build=0 ;;
    --no-kernel) kernel=0 ;;
    -h|--help) sed -n '2,19p' "$0"; exit 0 ;;
    *) echo "bench-report: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done

# Sizes of the run. The full run takes about two minutes after the build;
# the quick one about twenty seconds.
if [ $quick = 1 ]; then
  cycles=200 cg_cycles=20 st_cycles=200 first_runs=3 tput_runs=1 tput_s=1 tlm_reps=2 tlm_min_time=0.01 age_s=1.5 stalls_s=3 replay_s=4
else
  cycles=4000 cg_cycles=400 st_cycles=1000 first_runs=9 tput_runs=5 tput_s=3 tlm_reps=5 tlm_min_time=0.2 age_s=10 stalls_s=8 replay_s=45
fi

load_start=$(cut -d' ' -f1-3 /proc/loadavg)
started=$(date -u '+%Y-%m-%d %H:%M UTC')
# The commit measured: the tree as it is when the run builds.
commit=$(git -C "$root" describe --always --dirty 2>/dev/null || echo unknown)
t_start=$(date +%s)

if [ $do_build = 1 ]; then
  "$root/scripts/deps.sh"
  if [ ! -f "$build/build.ninja" ]; then
    launcher=()
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" >/dev/null
  fi
  cmake --build "$build" -j "${BENCH_JOBS:-2}" \
    --target sensors_orlune orlune-sim orlune-host orlune-capture cycle_meter shm_telemetry_bench
fi
sim_bin=$build/sim/orlune-sim
host_bin=$build/tools/host/orlune-host
capture_bin=$build/tools/capture/orlune-capture
plugin=$(ls "$build"/libsensors_orlune.so 2>/dev/null || true)
meter=$build/bench/cycle_meter
tlm_bench=$build/bench/shm_telemetry_bench
for f in "$sim_bin" "$host_bin" "$capture_bin" "$plugin" "$meter" "$tlm_bench"; do
  [ -n "$f" ] && [ -x "$f" ] || { echo "bench-report: missing '$f': build first" >&2; exit 1; }
done
for tool in valgrind iio_readdev; do
  command -v $tool >/dev/null || { echo "bench-report: $tool is not installed (scripts/deps.sh)" >&2; exit 1; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/orlune-bench-XXXXXX")
sim_pid=""
stop_sim() {
  if [ -n "$sim_pid" ]; then
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
    sim_pid=""
  fi
}
trap 'stop_sim; rm -rf "$work"' EXIT

# value KEY FILE: the value of a "key value" line.
value() { awk -v k="$1" '$1 == k { print $2; found = 1 } END { if (!found) exit 1 }' "$2"; }
# median of the numbers on stdin.
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) exit 1; print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
# calc EXPR: floating-point arithmetic with awk's printf format first.
calc() { awk "BEGIN { printf $1 }"; }

# A private root with the virtual vehicle's files, as scripts/demo.sh makes
# it, and orlune-sim serving it. start_vehicle NAME [orlune-sim options].
start_vehicle() {
  local name=$1; shift
  local dir=$work/$name
  vehicle_root "$dir" "orlune-bench-$$-$name-"
  vehicle_start "$sim_bin" "$dir/sim.out" "$dir/sim.log" "$@" || exit 1
  # The vision and gimbal producers and the services need a moment to come up.
  sleep 0.5
}

# Self cost per object of a callgrind profile: lines "object Ir".
callgrind_objects() { awk -f "$root/bench/callgrind_objects.awk" "$1"; }

# Sums a callgrind_objects listing into the groups of the report, per cycle:
# "plugin libiio libc other".
callgrind_groups() {
  awk -v n="$2" '
    { o = $1; sub(/.*\//, "", o)
      if (o ~ /^libsensors_orlune/) g = "plugin"
      else if (o ~ /^libiio/) g = "libiio"
      else if (o ~ /^libc[.-]/) g = "libc"
      else g = "other"
      ir[g] += $2 }
    END { printf "%.0f %.0f %.0f %.0f\n", ir["plugin"] / n, ir["libiio"] / n, ir["libc"] / n, ir["other"] / n }' "$1"
}

# callgrind_top_own PROFILE CYCLES N: table rows of the N functions of the
# plug-in's own code with the highest self cost per cycle, then the rest.
callgrind_top_own() {
  callgrind_annotate --threshold=100 "$1" 2>/dev/null |
    awk -v n="$2" -v top="$3" '/libsensors_orlune/ && $1 ~ /^[0-9,]+$/ {
        ir = $1; gsub(/,/, "", ir)
        fn = $0; sub(/^.*\.(cpp|h):/, "", fn); gsub(/\(anonymous namespace\)::/, "", fn); sub(/ \[.*$/, "", fn); sub(/\(.*$/, "", fn)
        if (shown < top) { printf "| `%s` | %.0f |\n", fn, ir / n; shown++ } else rest += ir }
      END { printf "| the rest | %.0f |\n", rest / n }'
}

# System calls per cycle under the collected function: its inclusive
# sysCount. (Callgrind
# attributes system calls to call arcs even while collection is off, so only
# the collected function's inclusive cost is exact.)
callgrind_syscalls() {
  callgrind_annotate --inclusive=yes --show=sysCount "$1" 2>/dev/null |
    awk -v f=":$2 " -v n="$3" 'index($0, f) {
      gsub(/\( *[0-9.]+%\)/, ""); gsub(/,/, ""); gsub(/(^| )\.( |$)/, " 0 ")
      printf "%.1f\n", $1 / n; found = 1; exit }
      END { if (!found) print 0 }'
}

# measure_cycles DIR: the cycle meter and the two callgrind runs against the
# running vehicle, into DIR (cycles.txt, cg-*.txt, cg-*.sum).
measure_cycles() {
  local dir=$1 part n
  "$meter" cycles "$cycles" 50 --modules > "$dir/cycles.txt"
  for part in own_step imu_wait; do
    valgrind --tool=callgrind --collect-systime=nsec --toggle-collect="orlune_meter_$part" \
      --callgrind-out-file="$dir/callgrind.$part" "$meter" cycles "$cg_cycles" 20 \
      > "$dir/cg-$part.txt" 2> "$dir/cg-$part.log"
    n=$(value cycles "$dir/cg-$part.txt")
    callgrind_objects "$dir/callgrind.$part" > "$dir/cg-$part.objects"
    echo "$(callgrind_groups "$dir/cg-$part.objects" "$n") $(callgrind_syscalls "$dir/callgrind.$part" "orlune_meter_$part" "$n")" \
      > "$dir/cg-$part.sum"
  done
  # System calls as the kernel sees them, IMU wait included: strace over
  # runs of st_cycles and three times as many; their difference per cycle
  # leaves start-up and shut-down out. Clock reads are left out too: the
  # plug-in's are answered in user space (vDSO), the meter's CPU-time clock
  # is a system call of its own.
  if command -v strace >/dev/null; then
    local m
    for m in 1 3; do
      strace -f -c -o "$dir/strace-$m.txt" "$meter" cycles $((m * st_cycles)) 50 > /dev/null 2>&1 || true
    done
    awk -v n=$((2 * st_cycles)) 'FNR == 1 { f++ }
      $1 ~ /^[0-9.]+$/ && $NF != "total" && $NF != "clock_gettime" { calls[f] += $4 }
      END { if (calls[1] && calls[2]) printf "%.2f\n", (calls[2] - calls[1]) / n }' \
      "$dir/strace-1.txt" "$dir/strace-3.txt" > "$dir/strace.sum"
  fi
}

# The board's transport: the same per-cycle figures and an IMU age run,
# with the devices read through libiio's local backend, on the stand-in or
# on the genuine kernel.
if [ -n "$kernel_dir" ]; then
  board_dir=$kernel_dir
fi
if [ -n "$board_dir" ]; then
  mkdir -p "$board_dir"
  if [ -n "$kernel_dir" ]; then
    start_vehicle kernel --kernel /dev/orlune-vehicle
  else
    start_vehicle board --sysfs /
  fi
  unset IIOD_REMOTE
  measure_cycles "$board_dir"
  "$host_bin" --plugin "$plugin" --view none --duration "$age_s" --record "$board_dir/rec.csv" \
    > "$board_dir/host.txt" 2> "$board_dir/host.log"
  stop_sim
  awk -F, 'NR == 1 { for (i = 1; i <= NF; i++) col[$i] = i; next }
           $col["imu_n"] > 0 { printf "%.6f %.3f\n", $col["t"], ($col["t"] - $col["imu_t1"]) * 1e3 }' \
    "$board_dir/rec.csv" > "$board_dir/ages.txt"
  exit 0
fi

echo "bench-report: measuring (load average at start: $load_start)" >&2

# --- The plug-in on the virtual vehicle, every sensor enabled ---------------
start_vehicle vehicle
measure_cycles "$work"
read -r own_plugin own_iio own_libc own_other own_sys < "$work/cg-own_step.sum"
read -r wait_plugin wait_iio wait_libc wait_other wait_sys < "$work/cg-imu_wait.sum"
for i in $(seq "$first_runs"); do
  "$meter" first-sample > "$work/first-$i.txt"
done
stop_sim

# run_inside NAME WHAT COMMAND...: this script again under COMMAND (board.sh's
# namespace, guest.sh's guest), its figures into $work/NAME-run. Prints the
# note for the report when COMMAND cannot run here (status 77); fails when
# the run does.
run_inside() {
  local name=$1 what=$2 status=0
  shift 2
  local args=("--$name-run" "$work/$name-run" --no-build --build-dir "$build")
  [ $quick = 1 ] && args+=(--quick)
  "$@" "$0" "${args[@]}" > "$work/$name-run.log" 2>&1 || status=$?
  if [ $status = 77 ]; then
    echo "not measured: $(tail -1 "$work/$name-run.log")"
  elif [ $status != 0 ] || [ ! -s "$work/$name-run/cycles.txt" ]; then
    echo "bench-report: $what run failed:" >&2
    cat "$work/$name-run.log" >&2
    return 1
  fi
}

# --- The same on the board's transport, and on the genuine kernel ---------
board_note=$(run_inside board "the board's transport" "$root/scripts/board.sh") || exit 1
kernel_note="not measured: --no-kernel"
if [ $kernel = 1 ]; then
  kernel_note=$(run_inside kernel "the genuine kernel's" "$root/scripts/guest.sh" --timeout 900 --share "$work" --) ||
    exit 1
fi

# --- IMU batch rate: orlune-host beside iio_readdev ------------------------
start_vehicle throughput --scenario "$root/examples/scenarios/bench.cfg"
cat > "$work/throughput/imu-only.cfg" <<'EOF'
imu = { enabled = true; device = "orlune-imu"; trigger = "orlune-imu-trig";
  sampling-frequency = 1000000; sampling-rate-div = 5;
  temperature = { sensitivity = 326.8; offset = 25.0; };
  accelero_scale = 0.0047884; gyro_scale = 0.0010653; };
barometer = { enabled = false; }; bldc = { enabled = false; }; gps = { enabled = false; };
magnetometer = { enabled = false; }; battery = { enabled = false; };
ultrasound = { enabled = false; }; carpet_detection = { enabled = false; };
vcam_position = { enabled = false; }; fstcam_position = { enabled = false; };
vcam_optical_flow = { enabled = false; }; fcam_gimbal = { enabled = false; };
EOF
: > "$work/tput.txt"
for i in $(seq "$tput_runs"); do
  LIBVIGIL_CFG_PATH=$work/throughput/imu-only.cfg "$host_bin" --plugin "$plugin" --view none \
    --duration "$tput_s" > "$work/host-$i.txt" 2> "$work/host-$i.log"
  # "imu samples      N (R/s), lost L (judged by the timestamps)"
  read -r h_samples h_rate h_lost < <(
    sed -nE 's|^imu samples +([0-9]+) \(([0-9.]+)/s\), lost ([0-9]+).*|\1 \2 \3|p' "$work/host-$i.txt")
  if [ -z "$h_lost" ] || [ "$h_samples" -eq 0 ]; then
    echo "bench-report: orlune-host read no IMU samples:" >&2
    cat "$work/host-$i.txt" "$work/host-$i.log" >&2
    exit 1
  fi
  h_secs=$(awk '/^duration/ { print $2 }' "$work/host-$i.txt")
  # iio_readdev pulls as many scans from the same device, in the same batches.
  t0=$(date +%s%N)
  iio_readdev -u "$IIOD_REMOTE" -t orlune-imu-trig -b 5 -s "$h_samples" orlune-imu > "$work/readdev.bin" 2> "$work/readdev.log"
  t1=$(date +%s%N)
  r_bytes=$(stat -c %s "$work/readdev.bin")
  r_scans=$((r_bytes / 24))
  r_rate=$(calc "\"%.1f\", $r_scans / (($t1 - $t0) / 1e9)")
  echo "$h_rate $r_rate $h_lost $h_secs $r_scans $(calc "\"%.3f\", ($t1 - $t0) / 1e9")" >> "$work/tput.txt"
done
stop_sim

# --- IMU age at read return ---------------------------------------------------
# The scenario's faults, one per line: "at kind device duration" (scenario
# seconds; duration 0 for a fault without one).
stalls_cfg=$root/examples/scenarios/stalls.cfg
awk 'match($0, /at = [0-9.]+;/) && match($0, /kind = "[^"]+"/) {
       at = $0; sub(/.*at = /, "", at); sub(/;.*/, "", at)
       kind = $0; sub(/.*kind = "/, "", kind); sub(/".*/, "", kind)
       dev = "-"; if ($0 ~ /device = "/) { dev = $0; sub(/.*device = "/, "", dev); sub(/".*/, "", dev) }
       d = 0; if ($0 ~ /duration = /) { d = $0; sub(/.*duration = /, "", d); sub(/;.*/, "", d) }
       print at, kind, dev, d }' "$stalls_cfg" | sort -g > "$work/stall-faults.txt"
[ -s "$work/stall-faults.txt" ] || { echo "bench-report: no faults read from $stalls_cfg" >&2; exit 1; }

# age_run NAME SECONDS SCENARIO|- [orlune-host options]: orlune-host with its
# recording on a fresh vehicle (SCENARIO, or - for the default flight). Leaves
# NAME/ages.txt, "t age_ms" per read that delivered IMU samples (by the
# recording's column names), and NAME/epoch, the monotonic time of scenario
# time 0.
age_run() {
  local name=$1 secs=$2 scenario=$3 dir=$work/$1; shift 3
  if [ "$scenario" = - ]; then start_vehicle "$name"; else start_vehicle "$name" --scenario "$scenario"; fi
  "$host_bin" --plugin "$plugin" --view none --duration "$secs" --record "$dir/rec.csv" "$@" \
    > "$dir/host.txt" 2> "$dir/host.log"
  stop_sim
  sed -n 's/^SIM_EPOCH=//p' "$dir/sim.out" > "$dir/epoch"
  awk -F, 'NR == 1 { for (i = 1; i <= NF; i++) col[$i] = i
                     if (!col["t"] || !col["imu_n"] || !col["imu_t1"]) exit 1; next }
           $col["imu_n"] > 0 { printf "%.6f %.3f\n", $col["t"], ($col["t"] - $col["imu_t1"]) * 1e3 }' \
    "$dir/rec.csv" > "$dir/ages.txt" || { echo "bench-report: $dir/rec.csv lacks t, imu_n or imu_t1" >&2; exit 1; }
  if [ ! -s "$dir/ages.txt" ] || [ ! -s "$dir/epoch" ]; then
    echo "bench-report: orlune-host recorded no IMU batch in the $name run:" >&2
    cat "$dir/host.txt" "$dir/host.log" >&2
    exit 1
  fi
}
age_run age-imu "$age_s" - --mask imu
age_run age-all "$age_s" -
age_run age-imu-stalls "$stalls_s" "$stalls_cfg" --mask imu
age_run age-all-stalls "$stalls_s" "$stalls_cfg"

# age_stats NAME: "reads median p99 max over5" of the run's ages, in ms: the
# quantiles by nearest rank (the smallest age with at least that share of
# the reads at or below it), over5 the percentage of reads older than one
# batch period (5 ms).
age_stats() {
  awk '{ print $2 }' "$work/$1/ages.txt" | sort -g | awk '
    function rank(q,  r) { r = int(q * NR - 1e-9); return r + 1 }
    { v[NR] = $1; if ($1 > 5) over++ }
    END { printf "%d %.3f %.3f %.3f %.1f\n", NR, v[rank(0.5)], v[rank(0.99)], v[NR], 100 * over / NR }'
}

# fault_ages NAME: per fault of the scenario that happened while the host
# ran, "at kind device duration worst recovery": the worst age of the reads
# from its onset to one second after its end (or to the next fault), and
# the number of reads from its end until the first one under 1 ms ("none of
# N" when no read under 1 ms came before the next fault or the run's end).
fault_ages() {
  awk -v epoch="$(cat "$work/$1/epoch")" '
    NR == FNR { n++; line[n] = $0; on[n] = epoch + $1; off[n] = on[n] + $4; next }
    { m++; t[m] = $1; a[m] = $2 }
    END {
      for (i = 1; i <= n; i++) {
        if (on[i] > t[m]) break
        stop = i < n ? on[i + 1] : t[m] + 1
        worst = -1; count = 0; back = ""
        for (j = 1; j <= m; j++) {
          if (t[j] >= on[i] && t[j] < stop && t[j] < off[i] + 1 && a[j] > worst) worst = a[j]
          if (back == "" && t[j] >= off[i] && t[j] < stop) { if (a[j] < 1) back = count; else count++ }
        }
        printf "%s %s %s\n", line[i], worst < 0 ? "-" : sprintf("%.3f", worst), back == "" ? "none of " count : back
      }
    }' "$work/stall-faults.txt" "$work/$1/ages.txt"
}

# --- Telemetry put and latest read beside memcpy ----------------------------
"$tlm_bench" --benchmark_filter='BM_(PutSample|ReadLatest|Memcpy)/' \
  --benchmark_repetitions="$tlm_reps" --benchmark_report_aggregates_only=true \
  --benchmark_min_time="$tlm_min_time" --benchmark_format=csv > "$work/tlm.csv" 2> "$work/tlm.log"
# tlm_ns NAME ARG: median CPU time in ns.
tlm_ns() { awk -F, -v n="\"$1/$2_median\"" '$1 == n { print $4 }' "$work/tlm.csv"; }

# --- Capture and replay --------------------------------------------------------
# The demo flight with orlune-capture beside the host from its second second,
# then the capture replayed as fast as the plug-in reads, timed from the
# host's start to the end of the capture.
start_vehicle capture --scenario "$root/examples/scenarios/flight.cfg"
"$host_bin" --plugin "$plugin" --view none --duration "$((replay_s + 2))" \
  > "$work/capture/host.txt" 2> "$work/capture/host.log" &
host_pid=$!
sleep 1
TIMEFORMAT='%R %U %S'
{ time "$capture_bin" --quiet --duration "$replay_s" -o "$work/capture/flight.cap" 2> "$work/capture/capture.log"; } \
  2> "$work/capture/capture.time" || { echo "bench-report: orlune-capture failed:" >&2; cat "$work/capture/capture.log" >&2; exit 1; }
wait $host_pid || true
stop_sim
read -r cap_real cap_user cap_sys < "$work/capture/capture.time"
cap_bytes=$(stat -c %s "$work/capture/flight.cap")
cap_lost=$(sed -nE 's/^imu samples .*lost ([0-9]+).*/\1/p' "$work/capture/host.txt")
start_vehicle replay --replay "$work/capture/flight.cap" --fast
t0=$(date +%s.%N)
"$host_bin" --plugin "$plugin" --view none --duration 100000 > "$work/replay/host.txt" 2> "$work/replay/host.log" &
host_pid=$!
until grep -q '^# replay over' "$work/replay/sim.out"; do
  kill -0 $host_pid 2>/dev/null || { echo "bench-report: the host stopped during the replay:" >&2; cat "$work/replay/host.log" >&2; exit 1; }
  sleep 0.05
done
t1=$(date +%s.%N)
kill -INT $host_pid; wait $host_pid || true
stop_sim
replay_wall=$(calc "\"%.2f\", $t1 - $t0")
replay_cycles=$(sed -nE 's/^cycles +([0-9]+).*/\1/p' "$work/replay/host.txt")

elapsed=$(($(date +%s) - t_start))
load_end=$(cut -d' ' -f1-3 /proc/loadavg)

# --- The report --------------------------------------------------------------
cpu=$(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo)
compiler=$(awk -F= '/^CMAKE_CXX_COMPILER:/ { print $2 }' "$build/CMakeCache.txt")
compiler_version=$("${compiler:-c++}" --version | head -1)
build_type=$(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$build/CMakeCache.txt")
mode=full; [ $quick = 1 ] && mode="quick (--quick: short runs, indicative only)"

c() { value "$1" "$work/cycles.txt"; }
# slot NAME FIELD: a field of a step's "slot" line (1 calls, 2 wall µs per
# cycle, 3 of which in refills, 4 own allocations, 5 refill allocations,
# 6 wall µs per cycle setting the IIO context's timeout).
slot() { awk -v n="$1" -v f="$2" '$1 == "slot" && $2 == n { print $(f + 2) }' "$work/cycles.txt"; }
n_cycles=$(c cycles)
own_mean=$(c own_wall_us_mean); own_median=$(c own_wall_us_median); own_p99=$(c own_wall_us_p99)
own_cpu=$(c own_cpu_us_mean); wait_wall=$(c wait_wall_us_mean); wait_cpu=$(c wait_cpu_us_mean)
motor_refill=$(slot bldc_cypress_read 3)
polled_refill=$(calc "\"%.3f\", $(slot barometer_read 3) + $(slot magneto_read 3)")
motor_timeout=$(slot bldc_cypress_read 6)
refills_all=$(for name in $(awk '$1 == "slot" { print $2 }' "$work/cycles.txt"); do slot "$name" 3; done |
  awk '{ s += $1 } END { print s }')
own_rest=$(calc "\"%.3f\", $own_mean - $refills_all - $motor_timeout")
period=$(calc "\"%.1f\", $wait_wall + $own_mean")
both_waits=$(calc "\"%.1f\", $wait_wall + $motor_refill")
own_ir_total=$((own_plugin + own_iio + own_libc + own_other))
wait_ir_total=$((wait_plugin + wait_iio + wait_libc + wait_other))
pct() { calc "\"%.1f\", ($1) ? 100 * $2 / $1 : 0"; }
gps_allocs=$(slot gps_read 4)
own_allocs=$(c own_allocs)
n_cg=$(value cycles "$work/cg-own_step.txt")

first_med() { for i in $(seq "$first_runs"); do value "$1" "$work/first-$i.txt"; done | median; }
first_sample=$(first_med first_sample_ms)
first_min=$(for i in $(seq "$first_runs"); do value first_sample_ms "$work/first-$i.txt"; done | sort -g | head -1)
first_max=$(for i in $(seq "$first_runs"); do value first_sample_ms "$work/first-$i.txt"; done | sort -g | tail -1)

host_rate=$(awk '{ print $1 }' "$work/tput.txt" | median)
readdev_rate=$(awk '{ print $2 }' "$work/tput.txt" | median)
tput_ratio=$(awk '{ print $1 / $2 }' "$work/tput.txt" | median)
host_lost=$(awk '{ s += $3 } END { print s }' "$work/tput.txt")

# transport_row LABEL NET BOARD KERNEL: a row of the side-by-side table.
transport_row() { printf '| %s | %s | %s | %s |\n' "$1" "$2" "${3:--}" "${4:--}"; }
# cycle_figures DIR: "own_wall own_cpu wait_wall wait_cpu allocs_per_cycle
# own_instructions own_syscalls wait_instructions wait_syscalls
# own_plugin_instructions syscalls_per_cycle (strace, IMU wait included)"
cycle_figures() {
  local d=$1 own_sum wait_sum
  read -r -a own_sum < "$d/cg-own_step.sum"
  read -r -a wait_sum < "$d/cg-imu_wait.sum"
  echo "$(value own_wall_us_mean "$d/cycles.txt") $(value own_cpu_us_mean "$d/cycles.txt")" \
    "$(value wait_wall_us_mean "$d/cycles.txt") $(value wait_cpu_us_mean "$d/cycles.txt")" \
    "$(value own_allocs_per_cycle "$d/cycles.txt")" \
    "$((own_sum[0] + own_sum[1] + own_sum[2] + own_sum[3])) ${own_sum[4]}" \
    "$((wait_sum[0] + wait_sum[1] + wait_sum[2] + wait_sum[3])) ${wait_sum[4]}" "${own_sum[0]}" \
    "$(cat "$d/strace.sum" 2>/dev/null | grep . || echo -)"
}
read -r -a net_fig < <(cycle_figures "$work")
read -r net_age_reads net_age_med net_age_p99 net_age_max net_age_over < <(age_stats age-all)
board_fig=()
board_age_med=""
if [ -z "$board_note" ]; then
  read -r -a board_fig < <(cycle_figures "$work/board-run")
  read -r board_age_reads board_age_med board_age_p99 board_age_max board_age_over < <(age_stats board-run)
fi
kernel_fig=()
kernel_age_med=""
if [ -z "$kernel_note" ]; then
  read -r -a kernel_fig < <(cycle_figures "$work/kernel-run")
  n_cg_kernel=$(value cycles "$work/kernel-run/cg-own_step.txt")
  kernel_warnings=$(grep -c '^\[ *[0-9.]*\] W ' "$work/kernel-run/cg-own_step.log" || true)
  read -r kernel_age_reads kernel_age_med kernel_age_p99 kernel_age_max kernel_age_over < <(age_stats kernel-run)
fi

mkdir -p "$(dirname "$out")"
{
cat <<EOF
# Performance

Measured by \`scripts/bench-report.sh\` in one run; every figure below comes
from that run. Re-run it to refresh this page (\`--quick\` for a short check).

| | |
|---|---|
| date | $started |
| commit | $commit |
| run | $mode, ${elapsed} s |
| machine | $cpu, $(nproc) cores, Linux $(uname -r) |
| compiler | $compiler_version, $build_type |
| libiio | $(pkg-config --modversion libiio 2>/dev/null || echo unknown), network backend to \`orlune-sim\` on 127.0.0.1 |
| load average (1, 5, 15 min) | $load_start at the start, $load_end at the end |

The machine is shared with other builds: the load average says how busy it
was. Wall times suffer most from it; instruction and allocation counts do not.

## The transports

The same cycle measured both ways a host can reach the IIO devices: over
libiio's network backend to \`orlune-sim\` (the demo's way, and a workstation's
way to a board's iiod), and through libiio's local backend (the way a board
reads its own devices), here on the simulator's sysfs stand-in in a private
mount namespace (\`scripts/board.sh\`), and on the genuine kernel with the
virtual vehicle's driver in the emulated guest of \`scripts/guest.sh\`. Every
sensor enabled, the default flight; the sections after this one detail the
network figures. A board sees the local backend's system calls and
instructions${board_note:+ (stand-in: $board_note)}${kernel_note:+ (kernel: $kernel_note)}.

| per cycle (mean unless said) | network backend | local backend, stand-in | local backend, genuine kernel (emulated) |
|---|---|---|---|
EOF
transport_row "read + tlm_write without the IMU wait, wall µs" "${net_fig[0]}" "${board_fig[0]:-}" "${kernel_fig[0]:-}"
transport_row "the same, CPU µs" "${net_fig[1]}" "${board_fig[1]:-}" "${kernel_fig[1]:-}"
transport_row "IMU wait, wall µs" "${net_fig[2]}" "${board_fig[2]:-}" "${kernel_fig[2]:-}"
transport_row "IMU wait, CPU µs" "${net_fig[3]}" "${board_fig[3]:-}" "${kernel_fig[3]:-}"
transport_row "system calls, IMU wait included (strace, clock reads aside)" "${net_fig[10]}" "${board_fig[10]:-}" "${kernel_fig[10]:-}"
transport_row "system calls without the IMU wait (callgrind)" "${net_fig[6]}" "${board_fig[6]:-}" "${kernel_fig[6]:-}"
transport_row "system calls in the IMU wait (callgrind)" "${net_fig[8]}" "${board_fig[8]:-}" "${kernel_fig[8]:-}"
transport_row "instructions without the IMU wait (user space, callgrind)" "${net_fig[5]}" "${board_fig[5]:-}" "${kernel_fig[5]:-}"
transport_row "of which the plug-in's own code (\`libsensors_orlune.so\`)" "${net_fig[9]}" "${board_fig[9]:-}" "${kernel_fig[9]:-}"
transport_row "instructions in the IMU wait (user space, callgrind)" "${net_fig[7]}" "${board_fig[7]:-}" "${kernel_fig[7]:-}"
transport_row "plug-in's own heap allocations" "${net_fig[4]}" "${board_fig[4]:-}" "${kernel_fig[4]:-}"
transport_row "IMU age at read return, median / p99 / max ms (orlune-host, ${age_s} s)" \
  "$net_age_med / $net_age_p99 / $net_age_max" \
  "${board_age_med:+$board_age_med / $board_age_p99 / $board_age_max}" \
  "${kernel_age_med:+$kernel_age_med / $kernel_age_p99 / $kernel_age_max}"
cat <<EOF

On the local backend the simulator's stand-in forwards each batch from its
own server to a FIFO, and answers each \`poll()\` and \`read()\` of the
device's file itself, a round trip to the simulator of some tens of
microseconds: the IMU age and the cycle's wall time include those hops,
which a kernel's buffer does not make; the plug-in's system calls and
instructions are its own, as on a board (the device file's read stands for
the character device's).

The genuine kernel's column runs under QEMU's emulation (TCG), with the
simulator feeding the driver from the same guest: its wall times and IMU
ages are the emulation's, many times a board's, and say nothing of one. Its
system calls and instructions count what the plug-in did in those cycles,
on the kernel's own attribute files and character devices; but under
callgrind and strace in the guest the plug-in falls behind its devices and catches
up, which a board does not make it do: ${kernel_warnings:-no} warnings in the
${n_cg_kernel:-} cycles of the kernel's callgrind run (the motor controller's
samples flushed, each a formatted message and a write).

## Plug-in cost per cycle

Every sensor enabled (\`examples/config/orlune_sim.cfg\`: imu, barometer,
magnetometer, motors, gps, ultrasound, battery, carpet detection,
vcam_position, optical flow, fcam_gimbal) against \`orlune-sim\` running the
default flight: IMU at 1000 Hz in batches of 5 (one cycle every 5 ms), motor
controller at 200 Hz, barometer 75 Hz, magnetometer 100 Hz. $n_cycles cycles
after 50 of warm-up; callgrind over $n_cg cycles in runs of their own.

| per cycle (mean unless said) | wall µs | CPU µs |
|---|---|---|
| read + tlm_write without the IMU wait | $own_mean | $own_cpu |
| the same, median / 99th percentile | $own_median / $own_p99 | |
| of which blocked in the motor controller's flush (its refills) | $motor_refill | |
| of which the motor read's two changes of the IIO context's timeout | $motor_timeout | |
| of which the barometer's and magnetometer's refills | $polled_refill | |
| the rest: plug-in code, GPS and ultrasound sockets, shared memory | $own_rest | |
| IMU wait | $wait_wall | $wait_cpu |
| the two waits together | $both_waits | |
| cycle period (IMU wait + the rest) | $period | |

Per step of the cycle, from the same run:

| step | calls | wall µs per cycle | of which in libiio refills | allocations: own / libiio's refills |
|---|---|---|---|---|
EOF
for name in imu_read barometer_read magneto_read gps_read us_read carpet_detection_read vision_position_read \
            vision_optical_flow_read fcam_gimbal_read bldc_cypress_read battery_read tlm_pushes; do
  printf '| %s | %s | %s | %s | %s / %s |\n' "$name" "$(slot $name 1)" "$(slot $name 2)" "$(slot $name 3)" \
    "$(slot $name 4)" "$(slot $name 5)"
done
cat <<EOF

Instructions and system calls per cycle (callgrind):

| | read + tlm_write without the IMU wait | IMU wait |
|---|---|---|
| instructions, plug-in's own code (\`libsensors_orlune.so\`) | $own_plugin | $wait_plugin |
| instructions, libiio | $own_iio | $wait_iio |
| instructions, libc | $own_libc | $wait_libc |
| instructions, other (libstdc++, libm, loader, the meter) | $own_other | $wait_other |
| plug-in's own share of the instructions | $(pct "$own_ir_total" "$own_plugin") % of $own_ir_total | $(pct "$wait_ir_total" "$wait_plugin") % of $wait_ir_total |
| system calls (under valgrind, where clock reads are system calls too) | $own_sys | $wait_sys |

Where the plug-in's own instructions go, outside the IMU wait: its ten
costliest functions (self cost, per cycle; the rest of its code after them).
\`tests/bench/bench_report_test.sh\` fails the test run when the plug-in's own
instructions per cycle exceed its budget on either transport.

| function | instructions per cycle |
|---|---|
$(callgrind_top_own "$work/callgrind.own_step" "$(value cycles "$work/cg-own_step.txt")" 10)

The largest part is the IMU batch's arithmetic, in \`imu_read\` and the
helpers it inlines (whose lines the table counts under their own headers,
in the rest). A batch in the usual layout (16-bit vectors and temperature,
a 64-bit timestamp, each at its known place in every scan) has its
temperatures and times read first, as they lie; then each of its ten
vectors is read, turned into the vehicle's axes (nine products in single
precision), corrected at the batch's temperature (nine more in double) and
stored, in one pass: about 1,100 instructions a batch in all. Any other
layout goes through the channels' decoders. The 24 thermal
polynomials (\`imu_calib_terms_at\`) are evaluated again only when the
batch's mean temperature has moved since the last evaluation: a die warms
far more slowly than batches come. Then the telemetry readers
(\`read_section\`): the gimbal's latest five samples every cycle, whether or
not new ones came, and the vision readers' latest sample, copied run by run
into the record (fields that lie end to end in both are one copy). Each
sample is copied out of the ring once, when it is first read; later cycles
hand it out from the reader's copy. The motor controller's sample
(\`fetch\`: sixteen channels, read as they lie in the controller's usual
format) and the frame's calls make most of the rest. Each channel's place
in a scan is resolved once, when its buffer is made: libiio is not asked for
it every cycle (its \`iio_buffer_first\` costs about 140 instructions a
call, in libiio's row). The library is linked with link-time optimisation:
the small helpers of one source file (the motor client's accessors, the
telemetry and time helpers) are inlined into the modules that call them
in others, while the modules' exported entry points stay calls.

**How the waits are separated.** \`bench/cycle_meter\` makes each cycle two
calls: \`imu_wait\` (libiio's refill of the IMU buffer: blocked until the
batch of five is complete, then receiving it), and the rest: \`imu_read\`,
then the host's \`read\` with the IMU switched off for that call (the frame
then polls every other sensor and leaves the IMU sub-record alone), then
\`tlm_write\` with the IMU's update bit restored: the work of \`read\` +
\`tlm_write\` minus the IMU refill. Wall and thread CPU clocks are read
between the calls. The meter also defines \`iio_buffer_refill\` and the
module reads and pushes that the frame calls; the plug-in reaches them
through the dynamic linker, and they time each step and its libiio refills
(about 30 clock reads per cycle, well under a microsecond in all) before
calling the real ones. Callgrind collects each of the two calls alone
(\`--toggle-collect\`); its per-object self costs give the split, without the
per-step clocks.

**What bounds it.** Three things, and the plug-in's arithmetic is not one of
them. First, the motor controller's read takes the controller's samples up to
the time of the batch's first IMU sample. It asks the IIO server for a sample
only while one up to that time is due, so with the controller at the batch
rate it makes one refill per cycle that finds its sample already delivered,
and waits only when a due sample is late (the controller's delivery delay
beyond the batch's span): a round trip, rarely a wait. On a board (libiio's
local backend) that refill first reads without waiting: a due sample that is
there costs one read, without the poll a waiting refill makes first.
Second, round trips to the IIO server over libiio's network backend: one
refill per polled IIO device per cycle (the barometer and magnetometer mostly
answer -EAGAIN), each a request and an answer on the socket, with system calls
on both sides. The motor read's timeout changes around its flush cost nothing
any more: the flush's 5000 ms is the network backend's own timeout, and the
platform layer makes no request for a value already in force. Third, the rest (\`imu_read\`, the GPS and ultrasound sockets'
non-blocking reads, the vision and gimbal readers' shared-memory reads, the
battery's attribute files once a second, the telemetry pushes): the last row
of the first table. The thread's CPU time is mostly the kernel's work for the
system calls; the plug-in's own instructions are the smaller part of the user
space ones (callgrind table). Callgrind sees no kernel instructions: the
system call count stands for the kernel. Under load, the wall times' tail
grows with the scheduling of the other processes (the IIO server among them),
not with the plug-in.

## Heap allocations per cycle

Counted by the allocator interposed in \`bench/cycle_meter\`
(tests/support/alloc_counter) over the same $n_cycles cycles, on the thread that
runs them; an allocation made inside \`iio_buffer_refill\` is libiio's.

| over $n_cycles cycles | allocations | per cycle |
|---|---|---|
| plug-in's own (read + tlm_write without the IMU wait, outside libiio's refills) | $own_allocs | $(c own_allocs_per_cycle) |
| of which inside gps_read (the decoder's message texts) | $gps_allocs | |
| plug-in's own apart from the GPS texts | $((own_allocs - gps_allocs)) | $(calc "\"%.4f\", ($own_allocs - $gps_allocs) / $n_cycles") |
| libiio's refills of the polled IIO devices | $(c poll_refill_allocs) | $(c poll_refill_allocs_per_cycle) |
| libiio's IMU refill (inside the IMU wait) | $(c wait_refill_allocs) | $(c wait_refill_allocs_per_cycle) |

**What bounds it.** The plug-in makes every buffer, descriptor and telemetry
producer when it is probed and started, so its cycle allocates nothing of its
own, with one exception by design: the GPS decoder allocates the texts of the
GPS daemon's text messages and frees them in the callback (the simulated
daemon sends such a message about once a second). libiio's network backend
allocates once for each refill that brings data (the IMU's every cycle, the
motor controller's, and the barometer's and magnetometer's when they have a
new scan): that is libiio's design, not the plug-in's.

## IMU batch rate: orlune-host beside iio_readdev

\`examples/scenarios/bench.cfg\`: the IMU alone at 1 MHz in batches of 5,
faster than one client can pull it, so the transport sets the pace.
\`orlune-host --view none --duration $tput_s\` with only the IMU enabled, then
\`iio_readdev -b 5\` pulling as many scans from the same simulated device;
$tput_runs run(s), medians.

| | scans/s | batches/s | µs per batch |
|---|---|---|---|
| orlune-host (read + tlm_write) | $host_rate | $(calc "\"%.1f\", $host_rate / 5") | $(calc "\"%.1f\", 5e6 / $host_rate") |
| iio_readdev | $readdev_rate | $(calc "\"%.1f\", $readdev_rate / 5") | $(calc "\"%.1f\", 5e6 / $readdev_rate") |
| ratio host / iio_readdev | $(calc "\"%.3f\", $tput_ratio") | | |

Scans the host judged lost by their timestamps (the device outruns both
clients): $host_lost in total.

| run | host scans/s | iio_readdev scans/s | host s | iio_readdev scans, s |
|---|---|---|---|---|
EOF
awk '{ printf "| %d | %s | %s | %s | %s, %s |\n", NR, $1, $2, $4, $5, $6 }' "$work/tput.txt"
cat <<EOF

**What bounds it.** Each batch is one refill, and each refill is a request
and an answer between client and server over the loopback: the same exchange
of libiio's network backend for both clients, one batch at a time, with
nothing overlapping. So whatever a client does between two refills adds to
every batch: for the host, \`imu_read\` (conversion, thermal calibration and
rotation of five samples: its row in the step table above) and one telemetry
sample, and the host loop's own bookkeeping; for \`iio_readdev\`, writing the
batch to a file. On two cores the server, the client and whatever else runs
share the CPU, so the ratio moves with the load; the difference in µs per
batch is the host's extra work per batch. \`iio_readdev\`'s time also
includes its start-up (context creation), which makes it look a little
slower than it is.

## IMU age at read return

The flight loop acts on the IMU batch that \`read\` returns, and goes on
acting on it until the next read. The IMU age is how old that batch is when
\`read\` returns: the monotonic time of the return minus the timestamp of the
batch's last sample (\`imu.timestamps[nb_samples - 1]\`, on the same clock).
It is the delay between the vehicle's motion and the loop's reaction that
the sensors side adds to the sampling itself, so it is the flight loop's
control delay: every millisecond of it is phase the attitude controller
loses at its crossover. Its floor is the transfer of the batch; whatever the
cycle does after the batch is complete (polling the other sensors, waiting
for the motor controller) adds to it, and reading a batch that was complete a
period or more earlier (a backlog) adds whole periods.

\`orlune-host --view none --duration $age_s --record\` on a fresh
\`orlune-sim\` (the default flight), then \`--duration $stalls_s\` on
\`examples/scenarios/stalls.cfg\` (a hover with an IMU trigger stall and a
motor controller stall of 0.5 s each, and two refill errors on each of the
two devices, at the times below); every sensor: \`examples/config/orlune_sim.cfg\`;
the IMU alone: the same with \`--mask imu\`. Each age is \`t - imu_t1\` of a
recording row with \`imu_n > 0\` (microsecond resolution); quantiles by
nearest rank. The host's own summary and live view show the same figures
from a histogram of 10 µs bins.

| sensors | scenario | reads | median ms | 99th percentile ms | max ms | older than 5 ms |
|---|---|---|---|---|---|---|
EOF
for run in "age-imu:IMU alone:default flight" "age-all:every sensor:default flight" \
           "age-imu-stalls:IMU alone:stalls.cfg" "age-all-stalls:every sensor:stalls.cfg"; do
  IFS=: read -r name who scenario <<< "$run"
  read -r n med p99 max over5 < <(age_stats "$name")
  printf '| %s | %s | %s | %s | %s | %s | %s %% |\n' "$who" "$scenario" "$n" "$med" "$p99" "$max" "$over5"
done
cat <<EOF

After each fault of \`stalls.cfg\` that fell within the run: the worst age
from the fault's onset to one second after its end (or to the next fault),
and the reads from its end until the first one with an age under 1 ms (0:
the first read after it already was; "none of N": none of the N reads before
the next fault or the end of the run).

| sensors | fault at (scenario s) | fault | worst age ms | reads until under 1 ms |
|---|---|---|---|---|
EOF
for run in "age-imu-stalls:IMU alone" "age-all-stalls:every sensor"; do
  fault_ages "${run%%:*}" | while read -r at kind dev dur worst back; do
    what="$kind $dev"; [ "$dur" != 0 ] && what="$what, $dur s"
    printf '| %s | %s | %s | %s | %s |\n' "${run#*:}" "$at" "$what" "$worst" "$back"
  done
done
cat <<EOF

**Which figures matter.** The median is the delay the loop flies with; the
99th percentile is what its stability margin has to hold; the share older
than one batch period says whether the host reads behind the IMU (a backlog
of whole batches). The maximum and the reads until the age is under 1 ms
again say what a fault costs: a stall that blocks the cycle while the IMU
goes on sampling leaves a backlog, which the reads after it drain a batch at
a time.
With the IMU alone, read returns as soon as the batch is in: the age is the
transfer and the conversion. With every sensor, the difference is what the
rest of the cycle adds after the batch is complete.

## Telemetry: put and latest read beside memcpy

\`bench/shm_telemetry_bench\`, median CPU time of $tlm_reps repetitions: one
sample published into a section with \`producer_put_sample\`, and the latest
sample read by a consumer with \`consumer_get_sample_at\`, each beside a
\`memcpy\` of the same record.

| record | bytes | put ns | latest read ns | memcpy ns | put / memcpy | read / memcpy |
|---|---|---|---|---|---|---|
EOF
arg=0
for rec in "baro:32" "imu:232" "gps:768"; do
  put=$(tlm_ns BM_PutSample $arg); get=$(tlm_ns BM_ReadLatest $arg); cpy=$(tlm_ns BM_Memcpy $arg)
  printf '| %s | %s | %.1f | %.1f | %.1f | %.1f | %.1f |\n' "${rec%%:*}" "${rec#*:}" "$put" "$get" "$cpy" \
    "$(calc "\"%f\", $put / $cpy")" "$(calc "\"%f\", $get / $cpy")"
  arg=$((arg + 1))
done
cat <<EOF

**What bounds it.** A plain copy of a few hundred bytes takes a few
nanoseconds, bound by the cache. Putting a sample marks the ring slot's
sequence odd, copies each registered record into the slot, marks it even with
release ordering and publishes the count written. Reading the latest sample
checks that the section is still the producer's (its closed flag every time,
the section file's identity with a \`stat\` once in a while, which the median
hides), copies the slot into a scratch area between two reads of its sequence
(again if the writer lapped it), then copies each field to its place in the
consumer's own layout: two copies plus the checks, the price of reading by
field name from a producer built with another layout, and of noticing a
producer that restarted. Both stay far below a microsecond, against a cycle
of 5 ms.

## Capture and replay

\`orlune-capture --duration $replay_s\` beside \`orlune-host\` (every sensor) on
the demo flight (\`examples/scenarios/flight.cfg\`), started a second after
the host; then \`orlune-sim --replay --fast\` of that capture under a fresh
host, timed from the host's start to the replay's \`# replay over\`
([replay](replay.md)).

| | |
|---|---|
| capture size | $cap_bytes bytes for $replay_s s: $(calc "\"%.2f\", $cap_bytes / 1e6 * 60 / $replay_s") MB per flight minute |
| capture CPU | $cap_user s user, $cap_sys s system over $cap_real s ($(calc "\"%.1f\", ($cap_user + $cap_sys) * 100 / $cap_real") % of a core) |
| IMU samples the host lost meanwhile | $cap_lost |
| replay of the $replay_s s, as fast as the plug-in reads | $replay_wall s ($(calc "\"%.0f\", $replay_wall * 100 / $replay_s") % of the flight's time), $replay_cycles reads ($(calc "\"%.0f\", $replay_cycles / $replay_wall") a second) |

**What bounds the replay.** Each read is a refill of the IMU that the replay
answers at once, after the other streams have been served up to the batch's
time; the host's cycle (the plug-in's own work and its other refills) is the
rest. The host's summary of a fast replay shows IMU ages of seconds and
more: the recorded timestamps are kept while the host's clock runs on.

## Probe to first sample

From the host's \`probe\` call to the first \`read\` that returns IMU data, with
every sensor enabled against the running \`orlune-sim\` (default flight);
$first_runs runs, each a fresh process.

| | median | min | max |
|---|---|---|---|
| probe to first IMU sample | $first_sample ms | $first_min ms | $first_max ms |
| probe | $(first_med probe_ms) ms | | |
| start | $(first_med start_ms) ms | | |
| start to the first read with IMU data | $(first_med first_read_ms) ms | | |

**What bounds it.** Probe is the bulk of it: it reads the configuration and
the calibration files, creates the IIO context (libiio asks the server for its
whole device description and parses it), finds and sets up every IIO device
(attribute reads and writes, each a round trip to the server), connects the
GPS and ultrasound sockets and creates the telemetry sections. Start opens
the IIO buffers and enables the triggers, a few more round trips. Then the
first read waits for a whole batch: five IMU periods (5 ms at 1000 Hz) after
the stream starts, which is what the last row shows. Each run is a fresh
process, so libiio's first context and the first page faults are in it, as
they are for a host starting up.
EOF
} > "$out"
echo "bench-report: wrote $out (${elapsed} s)" >&2
