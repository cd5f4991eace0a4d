#!/usr/bin/env bash
# Runs each case of a GoogleTest binary that FILTER selects in a process of
# its own, as ctest runs the cases of the network transport, and fails when
# one fails. Used on the board's transport, inside scripts/board.sh.
# Usage: tests/board_cases.sh BINARY FILTER
set -u
bin=$1
filter=$2
cases=$("$bin" --gtest_list_tests --gtest_filter="$filter" | awk '/^[^ ]/ { suite = $1 } /^  [^ ]/ { print suite $1 }')
[ -n "$cases" ] || { echo "board: no case of $bin matches $filter" >&2; exit 1; }
log=$(mktemp)
trap 'rm -f "$log"' EXIT
failed=0
for c in $cases; do
  if "$bin" --gtest_filter="$c" > "$log" 2>&1; then
    echo "passed: $c"
  else
    failed=$((failed + 1))
    echo "FAILED: $c"
    grep -v '^WARNING: High-speed mode not enabled$' "$log"
  fi
done
[ $failed -eq 0 ]
