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
    capture_fuzz) echo tools/capture/capture_file.cpp sim/replay.cpp sim/replay_devices.cpp ;;
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

# Functions of those sources that the target does not fuzz by design (a
# regular expression over their names): what needs a live device, socket or
# producer rather than input, and the file-reading wrappers of a parser that
# the target calls from memory.
outside_of() {
  case $1 in
    capture_fuzz) echo 'capture::writer|open_file|replay_capture::load\(|replay_clock|replay_services|recorded_model::(sample|write_attr|read_attr)' ;;
    host_files_fuzz) echo 'sched_config_apply|sched_config_open_default|apply_to|read_comm' ;;
    iio_device_fuzz) echo 'device_enable|device_disable|device_deinit|buffer_first_|context_timeout|vector_rotate|channel_convert_float' ;;
    msg_socket_fuzz) echo 'socket_relocate|socket_address|message_build|loop_get_fd|context_connect|context_is_connected|context_process_fd|context_send|server_|connection_send|gps_start|gps_stop|gps_read|gps_tlm_push' ;;
    scenario_fuzz) echo 'battery_sim|phase_load|vision_producer|vision_fault_kind_name|gps_daemon|ultrasound_service|_settings_load|_settings_parse|scenario_load|scenario_parse' ;;
    tlm_section_fuzz) echo 'producer_' ;;
    *) echo '^$' ;;
  esac
}

# Lines reached and lines in the functions of file that the target fuzzes:
# prints "reached total"; the functions left out are listed in $out/<name>.outside.
count_lines() {
  local name=$1 file=$2 functions regex
  functions=$(llvm-cov report "$build/fuzz/$name" -instr-profile="$out/$name.profdata" "$file" -show-functions |
    awk 'NR > 2 && $1 !~ /^-/ && $1 != "TOTAL" && NF > 1 { print $1 }')
  # Keep the functions whose demangled name is not outside the target.
  regex=$(while read -r f; do
      [ -n "$f" ] || continue
      d=$(printf '%s\n' "${f#*.cpp:}" | c++filt)
      if printf '%s\n' "$d" | grep -Eq "$(outside_of "$name")"; then
        echo "$d" >>"$out/$name.outside"
      else
        printf '%s\n' "$f"
      fi
    done <<<"$functions" | sed 's/[.$]/\\&/g' | paste -sd'|')
  [ -n "$regex" ] || { echo "0 0"; return; }
  # "  LINE|  COUNT|source": a line shown by two functions (a lambda inside
  # another) is counted once.
  llvm-cov show "$build/fuzz/$name" -instr-profile="$out/$name.profdata" "$file" -name-regex="^($regex)\$" |
    awk -F'|' 'NF >= 3 && $1 ~ /^ *[0-9]+$/ && $2 ~ /[0-9]/ {
        line = $1 + 0; count = $2; gsub(/ /, "", count)
        if (!(line in seen)) { seen[line] = 1; total++ }
        if (count != "0" && !(line in hit)) { hit[line] = 1; reached++ }
      }
      END { print reached + 0, total + 0 }'
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
printf '%-18s %8s %14s %9s   %s\n' target inputs "lines reached" share "sources (functions fuzzed)"
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
  : >"$out/$name.outside"
  reached=0
  total=0
  for path in "${paths[@]}"; do
    read -r r t < <(count_lines "$name" "$path")
    reached=$((reached + r))
    total=$((total + t))
  done
  printf '%-18s %8s %14s %8s%%   %s\n' "$name" "$inputs" "$reached / $total" \
    "$(awk -v r="$reached" -v t="$total" 'BEGIN { printf "%.1f", t ? 100 * r / t : 0 }')" "${files[*]}"
  if [ "$show" -eq 1 ]; then
    llvm-cov show "$build/fuzz/$name" -instr-profile="$out/$name.profdata" -format=text \
      -show-line-counts-or-regions -output-dir="$out/$name" "${paths[@]}"
  fi
done
echo "per-file figures of whole files: $out/<name>.report; functions left out: $out/<name>.outside"
