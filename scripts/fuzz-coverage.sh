#!/usr/bin/env bash
# Which lines of each parser the fuzz corpora reach. Builds the fuzz targets
# with clang's source coverage (no sanitizers) in build-fuzz-cov/, runs each
# target once over every input of fuzz/corpus/<name>/, and reports, per
# target, the lines of the sources it fuzzes that the corpus executes.
#
# usage: scripts/fuzz-coverage.sh [--show] [TARGET ...]
#   --show   also write each target's annotated sources (unreached lines
#            marked) to build-fuzz-cov/coverage/<name>/
#   TARGET   target names (battery_fuzz or battery); default: every target
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${FUZZ_COVERAGE_DIR:-$root/build-fuzz-cov}")
show=0
targets=()
while [ $# -gt 0 ]; do
  case $1 in
    --show) show=1; shift ;;
    -h|--help) sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "fuzz-coverage: unknown option $1" >&2; exit 2 ;;
    *) targets+=("${1%_fuzz}_fuzz"); shift ;;
  esac
done

# The sources each target fuzzes: its parser and what the parser calls for
# the input (not the target, not the libraries).
sources_of() {
  case $1 in
    battery_fuzz) echo src/battery/battery.cpp ;;
    calib_fuzz) echo src/calib/calib_file.cpp src/calib/imu_calib.cpp src/calib/baro_magneto_calib.cpp ;;
    config_fuzz) echo src/config/sensors_config.cpp src/config/sensorscfg_keys.cpp src/config/sensorscfg_imu.cpp ;;
    host_files_fuzz) echo src/platform/properties.cpp src/platform/sched_config.cpp ;;
    iio_device_fuzz) echo src/platform/iio_helper.cpp ;;
    iiod_fuzz) echo sim/iiod_command.cpp ;;
    msg_socket_fuzz) echo src/platform/msg_socket.cpp src/gps_us/gps.cpp ;;
    scenario_fuzz) echo sim/config_file.cpp sim/scenario.cpp sim/battery.cpp sim/vision.cpp sim/gps_daemon.cpp sim/ultrasound.cpp ;;
    tlm_section_fuzz) echo src/platform/shm_telemetry.cpp ;;
    *) return 1 ;;
  esac
}

"$root/scripts/deps.sh"
if [ ${#targets[@]} -eq 0 ]; then
  for src in "$root"/fuzz/*_fuzz.cpp; do
    [ -e "$src" ] && targets+=("$(basename "$src" .cpp)")
  done
fi
for name in "${targets[@]}"; do
  if ! sources_of "$name" >/dev/null; then
    echo "fuzz-coverage: no sources known for $name: add it to sources_of in $0" >&2
    exit 2
  fi
done

if [ ! -f "$build/build.ninja" ]; then
  flags="-fprofile-instr-generate -fcoverage-mapping"
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DORLUNE_FUZZ=ON -DORLUNE_BUILD_TESTS=OFF -DORLUNE_BUILD_BENCH=OFF \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="-fprofile-instr-generate" -DCMAKE_SHARED_LINKER_FLAGS="-fprofile-instr-generate"
fi
cmake --build "$build" --target "${targets[@]}" -j "$(nproc)"

out=$build/coverage
mkdir -p "$out"
printf '%-18s %8s %14s %9s   %s\n' target inputs "lines reached" share sources
for name in "${targets[@]}"; do
  corpus=$root/fuzz/corpus/$name
  scratch=$(mktemp -d)
  rm -f "$out/$name".*.profraw
  inputs=$(find "$corpus" -type f 2>/dev/null | wc -l)
  # One process over the whole corpus: libFuzzer runs each input once.
  (cd "$scratch" && ORLUNE_ROOT=$scratch/.root SENSORS_LOG_OUTPUT=none LLVM_PROFILE_FILE="$out/$name.%p.profraw" \
    "$build/fuzz/$name" -runs=0 -detect_leaks=0 "$corpus" >"$out/$name.log" 2>&1) || {
    echo "fuzz-coverage: $name failed on its corpus; log: $out/$name.log" >&2
    rm -rf "$scratch"
    exit 1
  }
  rm -rf "$scratch"
  llvm-profdata merge -sparse "$out/$name".*.profraw -o "$out/$name.profdata"
  rm -f "$out/$name".*.profraw
  read -r -a files <<<"$(sources_of "$name")"
  paths=()
  for f in "${files[@]}"; do paths+=("$root/$f"); done
  llvm-cov report "$build/fuzz/$name" -instr-profile="$out/$name.profdata" "${paths[@]}" >"$out/$name.report"
  # The TOTAL row: lines, missed lines, share (columns 8 to 10 of llvm-cov's report).
  read -r lines missed share < <(awk '$1 == "TOTAL" { print $8, $9, $10 }' "$out/$name.report")
  printf '%-18s %8s %14s %9s   %s\n' "$name" "$inputs" "$((lines - missed)) / $lines" "$share" "${files[*]}"
  if [ "$show" -eq 1 ]; then
    llvm-cov show "$build/fuzz/$name" -instr-profile="$out/$name.profdata" -format=text \
      -show-line-counts-or-regions -output-dir="$out/$name" "${paths[@]}"
  fi
done
echo "per-file figures: $out/<name>.report"
