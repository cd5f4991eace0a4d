#!/usr/bin/env bash
# bench/callgrind_objects.awk on a small profile written the way callgrind
# writes them: compressed names first defined on a cob= line, relative and
# repeated positions, an inlined file, and a call's inclusive cost that must
# not be counted twice. The self costs must add up to the profile's totals.
# Usage: callgrind_objects_test.sh AWK_FILE
set -euo pipefail
profile=$(mktemp)
trap 'rm -f "$profile"' EXIT
cat > "$profile" <<'PROFILE'
version: 1
creator: callgrind-3.19.0
events: Ir sysCount
ob=(1) /build/libsensors_orlune.so.0.1.0
fl=(1) cycle.cpp
fn=(1) sensors_orlune_read
16 100
+2 50 1
cob=(2) /usr/lib/x86_64-linux-gnu/libiio.so.0.24
cfi=(2) ???
cfn=(2) iio_buffer_refill
calls=3 0
+1 900 3
* 7
fi=(3) inline.h
+1 3
ob=(2)
fl=(2)
fn=(2)
0 800 3
cob=(3) /usr/lib/x86_64-linux-gnu/libc.so.6
cfi=(4) ???
cfn=(3) memcpy
calls=1 0
0 40
ob=(3)
fl=(4)
fn=(3)
0 40
ob=(1)
fl=(1)
fn=(4) imu_read
-3 20

totals: 1020 4
PROFILE

got=$(awk -f "$1" "$profile" | sort)
expected=$(printf '%s\n' "/build/libsensors_orlune.so.0.1.0 180" "/usr/lib/x86_64-linux-gnu/libc.so.6 40" \
  "/usr/lib/x86_64-linux-gnu/libiio.so.0.24 800")
if [ "$got" != "$expected" ]; then
  printf 'FAIL: per-object self costs\n--- got\n%s\n--- expected\n%s\n' "$got" "$expected"
  exit 1
fi
sum=$(awk '{ s += $2 } END { print s }' <<< "$got")
total=$(awk '/^totals:/ { print $2 }' "$profile")
[ "$sum" = "$total" ] || { echo "FAIL: self costs add up to $sum, the profile's totals say $total"; exit 1; }
echo "per-object self costs match"
