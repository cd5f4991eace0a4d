# Sourced by the scripts that run the virtual vehicle (demo, benchmark
# report): its private root and the simulator's start.
#
# vehicle_root DIR PREFIX: makes DIR a private root holding the vehicle's
# configuration as /etc/sensors/orlune_sim.cfg, found by its hardware name,
# and the example calibration; points the plug-in and the simulator at it
# (ORLUNE_ROOT, ORLUNE_TLM_DIR) and gives their sockets the name prefix
# PREFIX, so that nothing of this machine's /etc, /data, /factory, /sys or
# /dev/shm is touched and two runs never meet.
vehicle_root() {
  local dir=$1 repo
  repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  mkdir -p "$dir/etc/sensors" "$dir/etc/orlune"
  cp "$repo/examples/config/orlune_sim.cfg" "$dir/etc/sensors/orlune_sim.cfg"
  cp -r "$repo/examples/calibration/data" "$repo/examples/calibration/factory" "$dir/"
  printf 'ro.hardware=orlune_sim\nro.revision=1\n' > "$dir/etc/orlune/system.prop"
  export ORLUNE_ROOT=$dir ORLUNE_TLM_DIR=$dir/tlm ORLUNE_SOCKET_PREFIX=$2
  unset LIBVIGIL_CFG_PATH
}

# vehicle_start SIM OUT LOG [orlune-sim options...]: starts the simulator in
# the background (its pid in sim_pid), its stdout in OUT and stderr in LOG,
# waits until it serves, and exports the IIOD_REMOTE it printed. Returns 1,
# with the simulator's messages on stderr, when it does not come up.
vehicle_start() {
  local sim=$1 out=$2 log=$3
  shift 3
  "$sim" "$@" > "$out" 2> "$log" &
  sim_pid=$!
  for _ in $(seq 200); do
    grep -q '^IIOD_REMOTE=' "$out" 2>/dev/null && break
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.05
  done
  if ! grep -q '^IIOD_REMOTE=' "$out"; then
    echo "orlune-sim did not start:" >&2
    cat "$log" >&2
    return 1
  fi
  export "$(grep '^IIOD_REMOTE=' "$out")"
}
