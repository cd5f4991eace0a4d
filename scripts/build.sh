#!/usr/bin/env bash
# Installs what the build needs, configures when needed and builds with Ninja.
# Usage: scripts/build.sh [--demo] [build-dir] [extra cmake args...]
#   (default)  everything: installs every package (scripts/deps.sh all) and
#              builds every target, the tests and benchmarks included
#   --demo     only what the demo flight needs: the demo's packages
#              (scripts/deps.sh demo), and the plug-in, orlune-sim,
#              orlune-host and orlune-tlm
# The build directory is build/ by default. Both ways share it: a directory
# configured by --demo before the tests' packages were installed is
# configured again by the default way, which then builds everything.
# The default way builds for tests: with fail points (ORLUNE_FAILPOINTS=ON),
# which the tests arm; --demo leaves a directory's choice as it is, and a
# new one without them, as a build for a vehicle. Extra cmake args configure
# the directory again, whatever it holds.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
demo=0
if [ "${1:-}" = --demo ]; then
  demo=1
  shift
fi
build=${1:-$root/build}
shift || true

if [ $demo = 1 ]; then
  "$root/scripts/deps.sh" demo
else
  "$root/scripts/deps.sh" all
fi

# What the last configure left out for want of packages (see CMakeLists.txt).
left_out() { sed -n 's/^ORLUNE_LEFT_OUT:INTERNAL=//p' "$build/CMakeCache.txt" 2>/dev/null; }

configure() {
  echo "configuring $build"
  mkdir -p "$build"
  if ! cmake -S "$root" -B "$build" -G Ninja "$@" > "$build/configure.log" 2>&1; then
    cat "$build/configure.log" >&2
    echo "build: configuring failed (log: $build/configure.log)" >&2
    exit 1
  fi
}
failpoints() { grep -q '^ORLUNE_FAILPOINTS:BOOL=ON$' "$build/CMakeCache.txt" 2>/dev/null; }

if [ $demo = 0 ]; then
  if [ ! -f "$build/build.ninja" ] || [ -n "$(left_out)" ] || ! failpoints || [ $# -gt 0 ]; then
    configure -DORLUNE_FAILPOINTS=ON "$@"
  fi
elif [ ! -f "$build/build.ninja" ] || [ $# -gt 0 ]; then
  configure "$@"
fi

if [ $demo = 1 ]; then
  echo "building the plug-in, the simulator, the host and the telemetry tool"
  cmake --build "$build" -j "$(nproc)" --target sensors_orlune orlune-sim orlune-host orlune-tlm orlune-capture
else
  if [ -n "$(left_out)" ]; then
    echo "build: the $(left_out | sed 's/;/ and the /') are still left out for want of packages (log: $build/configure.log)" >&2
    exit 1
  fi
  echo "building everything"
  cmake --build "$build" -j "$(nproc)"
fi
