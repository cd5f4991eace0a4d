#!/usr/bin/env bash
# Run inside the guest of scripts/guest.sh: a capture beside a host flying
# on the genuine kernel's devices. The kernel lets one reader stream a
# device, so through the local backend the capture is refused with its
# reason; through iiod, which shares a device among its clients, it records
# the IMU's scans beside the host, and the capture is intact.
# Usage: kernel_capture.sh BUILD_DIR
set -u
build=$1
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
source "$root/scripts/vehicle.sh"
vehicle_root "$work/v" "kcap-"
export LIBVIGIL_CFG_PATH=$root/examples/config/minimal.cfg # the IMU alone
vehicle_start "$build/sim/orlune-sim" "$work/sim.out" "$work/sim.log" --kernel /dev/orlune-vehicle || exit 1
host=$build/tools/host/orlune-host
capture=$build/tools/capture/orlune-capture
imu=$(grep -l '^orlune-imu$' /sys/bus/iio/devices/iio:device*/name | head -1 | xargs dirname | xargs basename)
[ -n "$imu" ] || { echo "FAIL: the kernel has no orlune-imu"; exit 1; }

# A board's host reads its devices through the local backend.
unset IIOD_REMOTE
"$host" --view none --duration 5 > "$work/host-local.out" 2>&1 &
host_pid=$!
sleep 3
"$capture" --uri local: --quiet --duration 1 --no-gps --no-ultrasound -o "$work/local.cap" 2> "$work/local.err"
rc=$?
wait $host_pid || fail "the host flying through the local backend: $(tail -3 "$work/host-local.out")"
[ $rc -ne 0 ] || fail "a capture through the local backend beside the host succeeded"
grep -q "orlune-capture: $imu: another reader streams it and this context cannot share it: capture through iiod" \
  "$work/local.err" || fail "the local capture's refusal: $(cat "$work/local.err")"

# Both through iiod.
/usr/sbin/iiod > /dev/null 2>&1 &
iiod_pid=$!
for _ in $(seq 50); do iio_info -u ip:127.0.0.1 2>/dev/null | grep -q orlune-imu && break; sleep 0.2; done
export IIOD_REMOTE=ip:127.0.0.1
"$host" --view none --duration 7 --record "$work/host.csv" > "$work/host-iiod.out" 2>&1 &
host_pid=$!
sleep 3
"$capture" --uri ip:127.0.0.1 --quiet --duration 2 -o "$work/flight.cap" 2> "$work/iiod.err" ||
  fail "the capture through iiod: $(cat "$work/iiod.err")"
wait $host_pid || fail "the host flying through iiod: $(tail -3 "$work/host-iiod.out")"
"$capture" --info "$work/flight.cap" > "$work/info.txt" 2>&1 || fail "the capture is not intact: $(cat "$work/info.txt")"
# Two seconds of the IMU's 24-byte scans at 1000 Hz: at least half of them
# under emulation; and the host flew on beside it.
bytes=$(sed -n "s/^  stream [0-9]*: $imu: [0-9]* records, \([0-9]*\) bytes.*/\1/p" "$work/info.txt")
[ "${bytes:-0}" -ge 24000 ] || fail "the IMU's stream holds ${bytes:-no} bytes: $(cat "$work/info.txt")"
rows=$(($(wc -l < "$work/host.csv") - 1))
[ "$rows" -ge 200 ] || fail "the host recorded $rows rows beside the capture"
echo "capture beside the host through iiod: $(grep -E "^  stream [0-9]*: $imu:" "$work/info.txt"); the host's rows: $rows"

# The guest ends with this script: nothing to wait for.
kill $iiod_pid $sim_pid 2>/dev/null
rm -rf "$work"
[ $failures -eq 0 ]
