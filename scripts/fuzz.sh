#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on) in build-fuzz/ and runs each one for a
# bounded time from its seed corpus. Usage: scripts/fuzz.sh [seconds per target]
# A finding stops the run with the crashing input saved in build-fuzz/findings/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${1:-10}

"$root/scripts/deps.sh"
if ! ls "$root"/fuzz/*_fuzz.cpp >/dev/null 2>&1; then
  echo "fuzz: no fuzz targets"
  exit 0
fi
if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DORLUNE_FUZZ=ON -DORLUNE_BUILD_TESTS=OFF -DORLUNE_BUILD_BENCH=OFF -DORLUNE_SANITIZE=address,undefined
fi
cmake --build "$build" --target fuzz_all -j "$(nproc)"

mkdir -p "$build/findings"
passed=0
failed=0
for src in "$root"/fuzz/*_fuzz.cpp; do
  name=$(basename "$src" .cpp)
  corpus=$(mktemp -d)
  [ -d "$root/fuzz/corpus/$name" ] && cp -r "$root/fuzz/corpus/$name/." "$corpus/"
  echo "fuzz: $name for ${seconds}s"
  if (cd "$build/findings" && ORLUNE_ROOT=$corpus/.root SENSORS_LOG_OUTPUT=none \
      "$build/fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=0 "$corpus" >"$build/findings/$name.log" 2>&1); then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "fuzz: $name FOUND A PROBLEM; log: $build/findings/$name.log"
    tail -n 40 "$build/findings/$name.log"
  fi
  rm -rf "$corpus"
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
