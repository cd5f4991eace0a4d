#!/usr/bin/env bash
# Runs a command on the board's transport: in a private mount namespace whose
# /sys/bus and /dev are empty (the usual /dev nodes, /dev/shm and /dev/pts
# bound back), where `orlune-sim --sysfs /` presents the virtual vehicle's IIO
# devices as a kernel does and libiio's local backend (IIOD_REMOTE unset)
# finds them. Nothing outside the namespace sees the change; it ends with the
# command.
# Usage: scripts/board.sh COMMAND [ARGS...]
# Needs root (a mount namespace); exits with status 77 and says why when it
# cannot make one.
set -euo pipefail
if [ $# -eq 0 ]; then
  echo "usage: scripts/board.sh COMMAND [ARGS...]" >&2
  exit 2
fi
if [ "${ORLUNE_BOARD_NS:-}" != 1 ]; then
  if [ "$(id -u)" != 0 ] || ! unshare -m --propagation private true 2>/dev/null; then
    echo "board: a private mount namespace needs root (CAP_SYS_ADMIN); not available here" >&2
    exit 77
  fi
  exec unshare -m --propagation private -- env ORLUNE_BOARD_NS=1 "$0" "$@"
fi

mount -t tmpfs -o mode=0755 orlune-sys /sys/bus
mkdir -p /sys/bus/iio/devices
old_dev=$(mktemp -d "${TMPDIR:-/tmp}/orlune-dev-XXXXXX")
mount --rbind /dev "$old_dev"
mount -t tmpfs -o mode=0755 orlune-dev /dev
for node in null zero full random urandom tty fuse; do
  if [ -e "$old_dev/$node" ]; then
    touch "/dev/$node"
    mount --bind "$old_dev/$node" "/dev/$node"
  fi
done
for dir in shm pts; do
  mkdir "/dev/$dir"
  [ -d "$old_dev/$dir" ] && mount --rbind "$old_dev/$dir" "/dev/$dir"
done
ln -s /proc/self/fd /dev/fd
ln -s /proc/self/fd/0 /dev/stdin
ln -s /proc/self/fd/1 /dev/stdout
ln -s /proc/self/fd/2 /dev/stderr
umount -l "$old_dev"
rmdir "$old_dev"
exec "$@"
