#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on) in build-fuzz/ and runs them from their seed
# corpora, each with its dictionary (fuzz/dict/<name>.dict) and its own flags
# (fuzz/<name>.options, one flag a line).
#
# usage: scripts/fuzz.sh [--seconds S | --runs N] [--jobs J] [--keep] [TARGET ...]
#   --seconds S  run each target for S seconds (default 10; a bare number is S too)
#   --runs N     run each target for N executions instead
#   --jobs J     run J targets at a time (default 1)
#   --keep       merge what the run found that reaches new code into
#                fuzz/corpus/<name>/ (only inputs that add coverage are kept)
#   TARGET       target names (battery_fuzz or battery); default: every target
#
# Each target prints its executions and executions per second; the figures
# are also in build-fuzz/findings/summary.txt. A finding fails the run with
# the input saved in build-fuzz/findings/ and the log's end printed. A target
# interrupted (kill -INT on its process) ends its run early as if its budget
# were spent.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${FUZZ_BUILD_DIR:-$root/build-fuzz}")
seconds=10
runs=
jobs=1
keep=0
targets=()
while [ $# -gt 0 ]; do
  case $1 in
    --seconds) seconds=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --jobs) jobs=$2; shift 2 ;;
    --keep) keep=1; shift ;;
    -h|--help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "fuzz: unknown option $1" >&2; exit 2 ;;
    *[!0-9]*) targets+=("${1%_fuzz}_fuzz"); shift ;;
    *) seconds=$1; shift ;;
  esac
done

"$root/scripts/deps.sh"
if [ ${#targets[@]} -eq 0 ]; then
  for src in "$root"/fuzz/*_fuzz.cpp; do
    [ -e "$src" ] && targets+=("$(basename "$src" .cpp)")
  done
fi
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no fuzz targets"
  exit 0
fi
for name in "${targets[@]}"; do
  if [ ! -f "$root/fuzz/$name.cpp" ]; then
    echo "fuzz: no target $name (fuzz/$name.cpp)" >&2
    exit 2
  fi
done
if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DORLUNE_FUZZ=ON -DORLUNE_BUILD_TESTS=OFF -DORLUNE_BUILD_BENCH=OFF -DORLUNE_SANITIZE=address,undefined
fi
cmake --build "$build" --target "${targets[@]}" -j "$(nproc)"

findings=$build/findings
mkdir -p "$findings"
: >"$findings/summary.txt"

# One target: its corpus copied to a scratch directory (the seeds stay as
# they are unless --keep), run, then its figures.
run_one() {
  local name=$1 corpus log flags=() limit
  corpus=$(mktemp -d)
  log=$findings/$name.log
  [ -d "$root/fuzz/corpus/$name" ] && cp -r "$root/fuzz/corpus/$name/." "$corpus/"
  [ -f "$root/fuzz/dict/$name.dict" ] && flags+=("-dict=$root/fuzz/dict/$name.dict")
  if [ -f "$root/fuzz/$name.options" ]; then
    while read -r flag; do
      case $flag in ''|'#'*) ;; *) flags+=("$flag") ;; esac
    done <"$root/fuzz/$name.options"
  fi
  if [ -n "$runs" ]; then
    limit=-runs=$runs
  else
    limit=-max_total_time=$seconds
  fi
  local status=0
  (cd "$findings" && ORLUNE_ROOT=$corpus/.root SENSORS_LOG_OUTPUT=none \
    "$build/fuzz/$name" "${flags[@]}" "$limit" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    "$corpus" >"$log" 2>&1) || status=$?
  # libFuzzer's exit status when interrupted (SIGINT to the target): the run
  # ends early but found nothing, and what it grew is kept like a full run's.
  local interrupted=0
  if [ "$status" -eq 72 ]; then
    interrupted=1
    status=0
  fi
  local executed rate added
  executed=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  added=$(sed -n 's/^stat::new_units_added: *//p' "$log" | tail -n 1)
  if [ "$status" -eq 0 ] && [ "$keep" -eq 1 ]; then
    mkdir -p "$root/fuzz/corpus/$name"
    (cd "$findings" && SENSORS_LOG_OUTPUT=none "$build/fuzz/$name" -merge=1 "${flags[@]}" -timeout=10 \
      "$root/fuzz/corpus/$name" "$corpus" >"$findings/$name.merge.log" 2>&1) || status=$?
  fi
  rm -rf "$corpus"
  local line
  line=$(printf '%-18s %12s executions %8s exec/s %6s new inputs' "$name" "${executed:-?}" "${rate:-?}" "${added:-?}")
  if [ "$status" -ne 0 ]; then
    echo "fuzz: $line  FOUND A PROBLEM; log: $log"
    tail -n 40 "$log"
    echo "$line FAILED" >>"$findings/summary.txt"
    return 1
  fi
  [ "$interrupted" -eq 1 ] && line="$line  (interrupted)"
  echo "fuzz: $line"
  echo "$line" >>"$findings/summary.txt"
}

if [ -n "$runs" ]; then
  echo "fuzz: ${#targets[@]} targets, $runs executions each, $jobs at a time"
else
  echo "fuzz: ${#targets[@]} targets, ${seconds}s each, $jobs at a time"
fi
failed=0
running=0
for name in "${targets[@]}"; do
  if [ "$running" -ge "$jobs" ]; then
    wait -n || failed=$((failed + 1))
    running=$((running - 1))
  fi
  run_one "$name" &
  running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=$((failed + 1))
  running=$((running - 1))
done
echo "fuzz: $((${#targets[@]} - failed)) passed, $failed failed"
[ "$failed" -eq 0 ]
