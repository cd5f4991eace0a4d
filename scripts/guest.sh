#!/usr/bin/env bash
# Runs a command inside a QEMU guest that boots Debian's kernel with its
# genuine IIO core: the host's root shared read-only under a tmpfs overlay,
# the IIO core modules and our driver (kernel/) loaded, then COMMAND as root
# in the caller's working directory. COMMAND's stdout and stderr come back on
# stdout (a pipe in the guest, as under ctest; its stdin is empty), and the
# script exits with its status.
# Usage: scripts/guest.sh [--timeout SECONDS] [--share DIR]... [--forward HOSTPORT:GUESTPORT]... [--no-module] -- COMMAND [ARGS...]
#        scripts/guest.sh --prepare
#   --timeout S    bound of the whole guest run, boot included (default 600): QEMU is killed then
#   --share DIR    DIR (made when missing) is writable in the guest at the same path; everywhere
#                  else the guest's writes vanish with it
#   --forward H:G  the host's 127.0.0.1:H reaches the guest's TCP port G (user network)
#   --no-module    load only the IIO core modules, not orlune_vehicle.ko
#   --prepare      fetch and unpack the kernel, build the module and the initramfs; run nothing
# In the guest: PATH and the caller's ORLUNE_*, SENSORS_*, IIOD_REMOTE and
# LIBVIGIL_CFG_PATH, HOME=/root, nothing else; host name orlune-guest; eth0
# 10.0.2.15/24 behind QEMU's user network (gateway 10.0.2.2, DNS 10.0.2.3).
# /tmp, /var/tmp, /run, /root and /dev/shm are the guest's own, empty; the
# project's tree and the working directory are there even when under them.
# The output travels over an emulated serial port, about 120 KB/s: leave
# bulky results in a --share directory.
# Exit status: COMMAND's; 125 when the guest never reported one (a module
# that fails to build or load, a boot failure, a kernel panic, the time
# limit), with the reason on stderr; 77 with a one-line reason when no guest
# can run here (no qemu-system-x86_64, no kernel obtainable); 2 on a usage
# error.
# Environment:
#   ORLUNE_GUEST_DIR      the cache: the kernel package, its unpacked tree, vmlinux, the
#                         initramfs, the built module (default build/guest)
#   ORLUNE_GUEST_MEM      guest memory in MiB (512)
#   ORLUNE_GUEST_CPUS     virtual CPUs (2)
#   ORLUNE_GUEST_ACCEL    tcg (the default) or kvm
#   ORLUNE_GUEST_VERBOSE  1: the whole console on stderr, and what preparation runs
# Several runs may start at once: the preparation is done under a lock in the
# cache directory, and each run boots from its own copy of the module.
# Packages: scripts/deps.sh kernel.
set -euo pipefail

# The guest's kernel: the image is fetched with apt-get download, the module
# is built against the headers of the same version (scripts/deps.sh installs
# them and reads this line).
KVER=6.1.0-56-amd64

root=$(cd "$(dirname "$0")/.." && pwd)
cache=${ORLUNE_GUEST_DIR:-$root/build/guest}
verbose=${ORLUNE_GUEST_VERBOSE:-0}
[ "$verbose" = 1 ] || verbose=0

usage() {
  echo "usage: scripts/guest.sh [--timeout SECONDS] [--share DIR]... [--forward HOSTPORT:GUESTPORT]... [--no-module] -- COMMAND [ARGS...]" >&2
  echo "       scripts/guest.sh --prepare" >&2
  exit 2
}
skip() { echo "guest: $*" >&2; exit 77; }
fail() { echo "guest: $*" >&2; exit 125; }
note() { echo "guest: $*" >&2; }

timeout_s=600
shares=()
forwards=()
load_module=1
prepare_only=0
while [ $# -gt 0 ]; do
  case $1 in
    --timeout)
      [ $# -ge 2 ] && [[ $2 =~ ^[1-9][0-9]*$ ]] || { echo "guest: --timeout needs a number of seconds" >&2; usage; }
      timeout_s=$2; shift 2 ;;
    --share)
      [ $# -ge 2 ] && [ -n "$2" ] || usage
      mkdir -p -- "$2" || { echo "guest: cannot make the shared directory $2" >&2; exit 2; }
      shares+=("$(cd -- "$2" && pwd -P)"); shift 2 ;;
    --forward)
      [ $# -ge 2 ] && [[ $2 =~ ^[0-9]{1,5}:[0-9]{1,5}$ ]] || { echo "guest: --forward needs HOSTPORT:GUESTPORT" >&2; usage; }
      forwards+=("$2"); shift 2 ;;
    --no-module) load_module=0; shift ;;
    --prepare) prepare_only=1; shift ;;
    --) shift; break ;;
    *) usage ;;
  esac
done
if [ $prepare_only = 1 ]; then
  [ $# -eq 0 ] || usage
else
  [ $# -gt 0 ] || usage
fi

# ---------------------------------------------------------------------------
# What the host needs

command -v qemu-system-x86_64 >/dev/null || skip "no qemu-system-x86_64 here (scripts/deps.sh kernel installs it)"
for tool in cpio xz flock timeout; do
  command -v $tool >/dev/null || skip "no $tool here (scripts/deps.sh kernel installs it)"
done
# The initramfs needs a static busybox: it runs before any library is there.
if [ ! -x /bin/busybox ] || [[ $(LC_ALL=C ldd /bin/busybox 2>&1 || true) != *"not a dynamic executable"* ]]; then
  skip "no static /bin/busybox here (package busybox-static; scripts/deps.sh kernel installs it)"
fi
accel=(-accel tcg)
case ${ORLUNE_GUEST_ACCEL:-tcg} in
  tcg) ;;
  # For machines with hardware virtualization. Untested: our machines' /dev/kvm
  # is nested virtualization that cannot run a stock kernel.
  kvm)
    [ -r /dev/kvm ] && [ -w /dev/kvm ] || skip "ORLUNE_GUEST_ACCEL=kvm, but /dev/kvm is not usable here"
    accel=(-enable-kvm -cpu host) ;;
  *) echo "guest: ORLUNE_GUEST_ACCEL is tcg or kvm, not '$ORLUNE_GUEST_ACCEL'" >&2; exit 2 ;;
esac
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo -n"

# ---------------------------------------------------------------------------
# Preparation, each step skipped when its output is there and up to date

# apt_quiet LOG ARGS...: apt-get as root, never asking, its output in LOG.
apt_quiet() {
  local log=$1
  shift
  $sudo env DEBIAN_FRONTEND=noninteractive timeout 900 apt-get -q -y "$@" >"$log" 2>&1
}

# in_archive PACKAGE: apt knows a version of PACKAGE that it can fetch.
in_archive() {
  [[ $(apt-cache policy "$1" 2>/dev/null) =~ Candidate:\ [^\(] ]]
}

# current_kernel: the version the archive's linux-image-amd64 depends on now.
current_kernel() {
  apt-cache depends linux-image-amd64 2>/dev/null |
    sed -n 's/^ *Depends: linux-image-\([0-9].*\)$/\1/p; T; q'
}

# choose_kernel: sets kver. The pinned version unless it is neither in the
# cache nor in the archive; then the one linux-image-amd64 depends on, said
# once and remembered in the cache.
choose_kernel() {
  kver=$KVER
  [ -s "$cache/$kver/linux-image.deb" ] && return
  local updated=0
  while :; do
    in_archive "linux-image-$KVER" && { kver=$KVER; return; }
    if [ -s "$cache/fallback" ] && [ "$(head -n 1 "$cache/fallback")" = "$KVER" ]; then
      kver=$(sed -n 2p "$cache/fallback")
      [ -s "$cache/$kver/linux-image.deb" ] && return
    fi
    kver=$(current_kernel)
    if [ -n "$kver" ] && in_archive "linux-image-$kver"; then
      note "linux-image-$KVER is no longer in the package archive; using linux-image-$kver, which linux-image-amd64 depends on now, and its headers"
      printf '%s\n%s\n' "$KVER" "$kver" > "$cache/fallback"
      return
    fi
    # The package lists may never have been fetched, or be old.
    [ $updated = 0 ] || break
    updated=1
    apt_quiet "$cache/apt.log" update || break
  done
  skip "no kernel obtainable: neither linux-image-$KVER nor linux-image-amd64 is in the package archive"
}

# fetch_image: $kdir/linux-image.deb, by apt-get download (as root, without
# dropping to apt's sandbox user, who could not write the directory).
fetch_image() {
  local deb=$kdir/linux-image.deb dl
  [ -s "$deb" ] && return
  note "downloading linux-image-$kver (about 70 MB)"
  rm -rf "$cache"/download.*
  dl=$(mktemp -d "$cache/download.XXXXXX")
  local sandbox=()
  [ "$(id -u)" -ne 0 ] || sandbox=(-o APT::Sandbox::User=root)
  if ! (cd "$dl" && timeout 900 apt-get -q "${sandbox[@]}" download "linux-image-$kver") >"$dl/log" 2>&1; then
    if [ "$kver" = "$KVER" ] && ! [ -e "$cache/updated" ] && apt_quiet "$cache/apt.log" update; then
      # Old package lists: the archive may have moved on since.
      touch "$cache/updated"
      rm -rf "$dl"
      choose_kernel
      kdir=$cache/$kver
      mkdir -p "$kdir"
      fetch_image
      return
    fi
    local why
    why=$(grep -m 1 -E '^(E|W):' "$dl/log" || true)
    rm -rf "$dl"
    skip "no kernel obtainable: apt-get download linux-image-$kver failed: ${why:-see apt-get}"
  fi
  mv "$dl"/linux-image-*.deb "$deb"
  rm -rf "$dl"
}

# unpack_image: $kdir/tree (the package's files) with modules.dep, made by
# busybox's depmod (kmod may be missing on the host).
unpack_image() {
  local deb=$kdir/linux-image.deb tree=$kdir/tree
  [ "$tree/.unpacked" -nt "$deb" ] && return
  note "unpacking linux-image-$kver"
  rm -rf "$tree" "$tree.new"
  mkdir -p "$tree.new"
  dpkg-deb -x "$deb" "$tree.new" || fail "cannot unpack $deb"
  timeout 300 /bin/busybox depmod -b "$tree.new" "$kver" || fail "busybox depmod failed on the unpacked tree"
  touch "$tree.new/.unpacked"
  mv "$tree.new" "$tree"
}

# extract_vmlinux: the uncompressed kernel from vmlinuz (booted directly
# through PVH, which spares the decompression under emulation): the xz
# stream from its magic on.
extract_vmlinux() {
  local vmlinuz=$kdir/tree/boot/vmlinuz-$kver out=$kdir/vmlinux offset
  [ "$out" -nt "$kdir/tree/.unpacked" ] && return
  [ -f "$vmlinuz" ] || fail "the package has no boot/vmlinuz-$kver"
  offset=$(LC_ALL=C grep -m 1 -obUaP '\xfd7zXZ\x00' "$vmlinuz" | cut -d: -f1)
  [ -n "$offset" ] || fail "no xz stream in $vmlinuz"
  # xz stops at the stream's end and leaves the rest unread.
  { tail -c +"$((offset + 1))" "$vmlinuz" 2>/dev/null || :; } | xz -dc --single-stream > "$out.new" ||
    fail "cannot decompress the kernel in $vmlinuz"
  [ "$(head -c 4 "$out.new" | od -An -c | tr -d ' ')" = '177ELF' ] || fail "what $vmlinuz holds is not an ELF kernel"
  mv "$out.new" "$out"
}

# The initramfs's /init: loads the modules the guest needs to reach the
# host's root, mounts it under a tmpfs overlay with this run's directory
# (share orlune-run) in it, and switches to the run's job.sh. Anything that
# fails is said on the kernel log and the guest powers off.
init_script() {
  cat <<'EOF'
#!/bin/busybox sh
bb=/bin/busybox
$bb mount -t proc proc /proc
$bb mount -t sysfs sysfs /sys
$bb mount -t devtmpfs devtmpfs /dev
exec </dev/console >/dev/console 2>&1
boot_failed() {
  echo "<2>orlune-guest: boot failed: $*" > /dev/kmsg
  $bb poweroff -f
}
for m in $($bb cat /early-modules); do
  $bb modprobe "$m" || boot_failed "modprobe $m"
done
$bb mkdir -p /lower /upper /newroot
$bb mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=512000 hostroot /lower ||
  boot_failed "mounting the host's root"
$bb mount -t tmpfs -o mode=0755 upper /upper
$bb mkdir /upper/data /upper/work
$bb mount -t overlay -o lowerdir=/lower,upperdir=/upper/data,workdir=/upper/work overlay /newroot ||
  boot_failed "mounting the overlay root"
$bb mount -t tmpfs -o mode=0755 run /newroot/run || boot_failed "mounting /run"
$bb mkdir -p /newroot/run/orlune/job /newroot/run/orlune/host
$bb cp /bin/busybox /newroot/run/orlune/busybox
# The host's root as it is, for what the guest's tmpfs mounts will hide.
$bb mount --bind /lower /newroot/run/orlune/host || boot_failed "binding the host's root"
$bb mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=512000 orlune-run /newroot/run/orlune/job ||
  boot_failed "mounting the run's directory"
for d in dev proc sys; do
  $bb mount --move /$d /newroot/$d || boot_failed "moving /$d"
done
exec $bb switch_root /newroot /run/orlune/busybox sh /run/orlune/job/job.sh
EOF
}

# The modules /init loads, their dependencies first (from modules.dep).
early_modules=(virtio_pci 9pnet_virtio 9p overlay virtio_net)

# make_initramfs: $kdir/initramfs.cpio (uncompressed: nothing to inflate at
# boot): static busybox, /init, the early modules and their modules.dep.
make_initramfs() {
  local out=$kdir/initramfs.cpio stage=$kdir/initramfs.stage mods=$kdir/tree/lib/modules/$kver
  if [ "$out" -nt "$kdir/tree/.unpacked" ] && [ "$out" -nt /bin/busybox ] &&
     init_script | cmp -s - "$kdir/init"; then
    return
  fi
  rm -rf "$stage"
  mkdir -p "$stage/bin" "$stage/dev" "$stage/proc" "$stage/sys" "$stage/lib/modules/$kver"
  cp /bin/busybox "$stage/bin/busybox"
  init_script > "$stage/init"
  chmod 755 "$stage/init"
  # Each early module with what it depends on, in load order.
  local order=() m line path
  for m in "${early_modules[@]}"; do
    line=$(awk -v want="$m" '{
        name = $1; sub(/:$/, "", name); sub(/.*\//, "", name); sub(/\.ko$/, "", name)
        gsub(/-/, "_", name); w = want; gsub(/-/, "_", w)
        if (name == w) { print; exit }
      }' "$mods/modules.dep")
    if [ -z "$line" ]; then
      grep -q "/${m//-/[-_]}\.ko$" "$mods/modules.builtin" 2>/dev/null && continue
      fail "the kernel has no module $m"
    fi
    for path in ${line#*:} ${line%%:*}; do
      mkdir -p "$stage/lib/modules/$kver/$(dirname "$path")"
      cp "$mods/$path" "$stage/lib/modules/$kver/$path"
    done
    order+=("$m")
  done
  printf '%s\n' "${order[@]}" > "$stage/early-modules"
  timeout 60 /bin/busybox depmod -b "$stage" "$kver" || fail "busybox depmod failed on the initramfs"
  (cd "$stage" && find . | LC_ALL=C sort | cpio -o -H newc --quiet -R 0:0) > "$out.new" ||
    fail "cpio failed making the initramfs"
  mv "$out.new" "$out"
  init_script > "$kdir/init"
  rm -rf "$stage"
}

# ensure_headers: the headers the module is built against, installed when
# missing (the pinned ones come with scripts/deps.sh kernel; a fallback
# kernel's are installed here).
ensure_headers() {
  headers=/usr/src/linux-headers-$kver
  [ -f "$headers/Makefile" ] && return
  note "installing linux-headers-$kver"
  apt_quiet "$cache/apt.log" install --no-install-recommends "linux-headers-$kver" ||
    skip "cannot build the module: linux-headers-$kver is not installed and apt-get could not install it (see $cache/apt.log)"
}

# build_module: kernel/* copied to $kdir/module and built there against the
# headers, again only when a source changed.
build_module() {
  local src=$root/kernel dir=$kdir/module sum
  [ -f "$src/orlune_vehicle.c" ] && [ -f "$src/Kbuild" ] ||
    fail "no module source in $src (orlune_vehicle.c, Kbuild); --no-module boots without it"
  sum=$(cd "$src" && find . -maxdepth 1 -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum)
  sum+=$'\n'"$kver"
  if [ -f "$dir/orlune_vehicle.ko" ] && [ "$sum" = "$(cat "$dir/.sources" 2>/dev/null)" ]; then
    return
  fi
  note "building orlune_vehicle.ko against linux-headers-$kver"
  rm -rf "$dir"
  mkdir -p "$dir"
  find "$src" -maxdepth 1 -type f -exec cp {} "$dir/" \;
  if ! timeout 600 make -C "$headers" M="$dir" modules >"$dir/build.log" 2>&1 ||
     [ ! -f "$dir/orlune_vehicle.ko" ]; then
    # The messages name the sources where they are, not where they were built.
    grep -v '^make\(\[[0-9]*\]\)\?: \(Entering\|Leaving\)' "$dir/build.log" | sed "s|$dir/|$src/|g" >&2
    fail "orlune_vehicle.ko does not build (above, the compiler's messages)"
  fi
  [ $verbose = 0 ] || cat "$dir/build.log" >&2
  printf '%s' "$sum" > "$dir/.sources"
}

mkdir -p "$cache"
cache=$(cd "$cache" && pwd -P)
exec 9>"$cache/lock"
flock -w 1800 9 || fail "waited 30 min for another run's preparation (lock $cache/lock)"
choose_kernel
kdir=$cache/$kver
mkdir -p "$kdir"
fetch_image
unpack_image
extract_vmlinux
make_initramfs
if [ $prepare_only = 1 ] || [ $load_module = 1 ]; then
  ensure_headers
  build_module
fi
if [ $prepare_only = 1 ]; then
  exit 0
fi

# ---------------------------------------------------------------------------
# The run

run=$(mktemp -d "${TMPDIR:-/tmp}/orlune-guest.XXXXXX")
qpid=""
tailpid=""
cleanup() {
  [ -z "$qpid" ] || kill -TERM "$qpid" 2>/dev/null || true
  [ -z "$tailpid" ] || kill "$tailpid" 2>/dev/null || true
  rm -rf "$run"
}
trap cleanup EXIT
# This run's own copy of the module: another run may rebuild it meanwhile.
[ $load_module = 0 ] || cp "$kdir/module/orlune_vehicle.ko" "$run/orlune_vehicle.ko"
exec 9>&-

# sq WORD: WORD quoted for the guest's shell.
sq() { printf "'%s'" "${1//\'/\'\\\'\'}"; }

nonce=$(basename "$run" | tr -dc 'A-Za-z0-9')$RANDOM
{
  echo "# This run's job, made by scripts/guest.sh."
  echo "nonce=$(sq "$nonce")"
  echo "kver=$(sq "$kver")"
  echo "modules_tree=$(sq "$kdir/tree/lib/modules/$kver")"
  echo "load_module=$load_module"
  echo "cwd=$(sq "$PWD")"
  echo "project=$(sq "$root")"
  echo "mount_shares() {"
  echo "  :"
  for i in "${!shares[@]}"; do
    echo "  share share$i $(sq "${shares[$i]}")"
  done
  echo "}"
  echo "run_command() {"
  printf '  exec $bb env -i'
  printf ' %s' "$(sq "PATH=$PATH")" "HOME=/root"
  while IFS= read -r name; do
    case $name in
      ORLUNE_*|SENSORS_*|IIOD_REMOTE|LIBVIGIL_CFG_PATH) printf ' %s' "$(sq "$name=${!name}")" ;;
    esac
  done < <(compgen -e | LC_ALL=C sort)
  printf ' %s' "$(sq "$1")"
  shift
  for arg in "$@"; do printf ' %s' "$(sq "$arg")"; done
  echo
  echo "}"
  cat <<'EOF'
# The guest's second stage, pid 1 in the overlay root: the usual mounts, the
# modules, the network and the shares, then the command with its output
# carried to the second serial port, and its status on the kernel log.
bb=/run/orlune/busybox
say() { echo "<2>orlune-guest[$nonce]: $*" > /dev/kmsg; }
setup_failed() {
  say "setup failed: $1"
  if [ -n "${2-}" ]; then
    printf '%s\n' "$2" | while IFS= read -r line; do say "| $line"; done
  fi
  $bb poweroff -f
}
# share TAG DIR: the host's DIR, writable (made here when a tmpfs hides it).
share() {
  out=$( { $bb mkdir -p "$2" && $bb mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000 "$1" "$2"; } 2>&1) ||
    setup_failed "mounting the share $2" "$out"
}

$bb mkdir -p /dev/pts /dev/shm
$bb mount -t devpts -o gid=5,mode=620,ptmxmode=666 devpts /dev/pts || setup_failed "mounting /dev/pts"
for d in /tmp /dev/shm /var/tmp; do
  $bb mount -t tmpfs -o mode=1777 tmpfs $d || setup_failed "mounting $d"
done
$bb mount -t tmpfs -o mode=0700 tmpfs /root || setup_failed "mounting /root"
# devtmpfs has the device nodes only; no udev makes these.
$bb ln -sf /proc/self/fd /dev/fd
$bb ln -sf /proc/self/fd/0 /dev/stdin
$bb ln -sf /proc/self/fd/1 /dev/stdout
$bb ln -sf /proc/self/fd/2 /dev/stderr
$bb hostname orlune-guest
echo "127.0.1.1 orlune-guest" >> /etc/hosts
$bb rm -f /etc/resolv.conf
echo "nameserver 10.0.2.3" > /etc/resolv.conf

out=$( { $bb mkdir -p /lib/modules/$kver && $bb mount --bind "/run/orlune/host$modules_tree" /lib/modules/$kver; } 2>&1) ||
  setup_failed "binding /lib/modules/$kver" "$out"
for m in industrialio kfifo_buf industrialio-triggered-buffer; do
  out=$($bb modprobe $m 2>&1) || setup_failed "modprobe $m" "$out"
done
if [ "$load_module" = 1 ]; then
  before=$($bb dmesg | $bb wc -l)
  out=$($bb insmod /run/orlune/job/orlune_vehicle.ko 2>&1) ||
    setup_failed "loading orlune_vehicle.ko" "$out
$($bb dmesg | $bb tail -n +$((before + 1)) | $bb head -n 40)"
fi

out=$( { $bb ip link set lo up && $bb ip link set eth0 up && $bb ip addr add 10.0.2.15/24 dev eth0 &&
  $bb ip route add default via 10.0.2.2; } 2>&1) || setup_failed "configuring the network" "$out"
mount_shares
# The project's tree and the working directory, when a tmpfs above hides
# them (a clone under /tmp, say), are shown from the host's root, their
# writes vanishing as elsewhere.
n=0
for dir in "$project" "$cwd"; do
  [ ! -d "$dir" ] && [ -d "/run/orlune/host$dir" ] || continue
  n=$((n + 1))
  up=/run/orlune/shown$n
  out=$( { $bb mkdir -p "$dir" $up && $bb mount -t tmpfs -o mode=0755 shown $up && $bb mkdir $up/data $up/work &&
    $bb mount -t overlay -o "lowerdir=/run/orlune/host$dir,upperdir=$up/data,workdir=$up/work" overlay "$dir"; } 2>&1) ||
    setup_failed "showing $dir from the host" "$out"
done
$bb umount -l /run/orlune/host && $bb rmdir /run/orlune/host
cd "$cwd" || setup_failed "entering $cwd"

# Raw: the bytes leave as the command wrote them, no CR added.
$bb stty -F /dev/ttyS1 raw -echo || setup_failed "setting up /dev/ttyS1"
$bb mkfifo /run/orlune/output
$bb cat /run/orlune/output > /dev/ttyS1 &
copier=$!
say running
( run_command ) </dev/null >/run/orlune/output 2>&1
status=$?
# A process the command left running may hold the pipe open: the copier has
# a second to finish.
( $bb sleep 1; $bb kill $copier 2>/dev/null ) &
wait $copier
# Setting the port again waits until its output has left.
$bb stty -F /dev/ttyS1 raw -echo
say "status $status"
$bb poweroff -f
EOF
} > "$run/job.sh"

# QEMU's option syntax doubles a comma inside a value.
qv() { printf '%s' "${1//,/,,}"; }

netdev="user,id=n0,ipv6=off"
for f in "${forwards[@]}"; do
  netdev+=",hostfwd=tcp:127.0.0.1:${f%%:*}-:${f##*:}"
done
loglevel=5
[ $verbose = 0 ] || loglevel=7
# shellcheck disable=SC2054  # QEMU's options are comma-separated lists
qemu=(qemu-system-x86_64 "${accel[@]}"
  -m "${ORLUNE_GUEST_MEM:-512}" -smp "${ORLUNE_GUEST_CPUS:-2}"
  -nodefaults -no-user-config -display none -no-reboot
  -kernel "$kdir/vmlinux" -initrd "$kdir/initramfs.cpio"
  -append "console=ttyS0 loglevel=$loglevel printk.devkmsg=on panic=-1 rdinit=/init"
  # ttyS0: the kernel's console, into a file; ttyS1: the command's output.
  -serial "file:$run/console.log" -serial stdio
  -fsdev "local,id=hostroot,path=/,security_model=none,readonly=on,multidevs=remap"
  -device virtio-9p-pci,fsdev=hostroot,mount_tag=hostroot
  -fsdev "local,id=run,path=$(qv "$run"),security_model=none,readonly=on"
  -device virtio-9p-pci,fsdev=run,mount_tag=orlune-run
  -netdev "$netdev" -device virtio-net-pci,netdev=n0,romfile=)
for i in "${!shares[@]}"; do
  qemu+=(-fsdev "local,id=share$i,path=$(qv "${shares[$i]}"),security_model=none,multidevs=remap"
    -device "virtio-9p-pci,fsdev=share$i,mount_tag=share$i")
done

: > "$run/console.log"
timeout -k 5 "$timeout_s" "${qemu[@]}" </dev/null 2>"$run/qemu.err" &
qpid=$!
if [ $verbose = 1 ]; then
  tail -n +1 -s 0.2 -F --pid="$qpid" "$run/console.log" 2>/dev/null | tr -d '\r' >&2 &
  tailpid=$!
fi
interrupted=""
trap 'interrupted=yes; kill -TERM "$qpid" 2>/dev/null || true' INT TERM
qrc=0
wait "$qpid" || qrc=$?
if [ -n "$interrupted" ]; then
  wait "$qpid" 2>/dev/null || true
fi
qpid=""
[ -z "$tailpid" ] || wait "$tailpid" 2>/dev/null || true
tailpid=""
[ $verbose = 0 ] || cat "$run/qemu.err" >&2

console=$(tr -d '\r' < "$run/console.log")
tag="orlune-guest[$nonce]: "
status=$(printf '%s\n' "$console" | sed -n "s/^.*orlune-guest\[$nonce\]: status \([0-9]\{1,3\}\)\$/\1/p" | tail -n 1)

# kernel_faults: what the kernel reported of its own faults after the
# command started (a warning's or an oops's lines, 40 at most).
kernel_faults() {
  printf '%s\n' "$console" | awk -v tag="$tag" '
    index($0, tag "running") { running = 1; next }
    !running || !/^\[ *[0-9]+\.[0-9]+\] / || index($0, tag) { next }
    /(cut here|WARNING:|BUG:|Oops|general protection fault|Kernel panic|Call Trace|UBSAN|KASAN|corruption|INFO: task .* blocked)/ { show = 1 }
    show && shown < 40 { print; shown++ }'
}
faults=$(kernel_faults)
if [ -n "$faults" ]; then
  note "the kernel reported a fault while the command ran:"
  printf '%s\n' "$faults" >&2
fi

if [ -n "$status" ]; then
  exit "$status"
fi
if [ -n "$interrupted" ]; then
  fail "interrupted; QEMU stopped"
fi
setup=$(printf '%s\n' "$console" | sed -n "s/^.*orlune-guest\[$nonce\]: \(setup failed: .*\|| .*\)\$/\1/p")
if [ -n "$setup" ]; then
  note "${setup%%$'\n'*} (in the guest)"
  [ "$setup" = "${setup%%$'\n'*}" ] || printf '%s\n' "${setup#*$'\n'}" | sed 's/^| /  /' >&2
  exit 125
fi
started=0
grep -qF "${tag}running" <<<"$console" && started=1
if [ $qrc -eq 124 ] || [ $qrc -eq 137 ]; then
  if [ $started = 1 ]; then
    fail "time limit of $timeout_s s reached while the command ran; QEMU killed"
  fi
  printf '%s\n' "$console" | tail -n 20 >&2
  fail "time limit of $timeout_s s reached before the command started (boot failure?); QEMU killed; the console's last lines above"
fi
if grep -q 'Kernel panic' <<<"$console"; then
  [ -n "$faults" ] || awk '/Kernel panic/ { show = 1 } show && shown < 40 { print; shown++ }' <<<"$console" >&2
  fail "kernel panic in the guest (above)"
fi
if [ $qrc -ne 0 ]; then
  cat "$run/qemu.err" >&2
  fail "QEMU failed with status $qrc (its messages above)"
fi
boot=$(sed -n 's/^.*orlune-guest: \(boot failed: .*\)$/\1/p; T; q' <<<"$console")
if [ -n "$boot" ]; then
  printf '%s\n' "$console" | tail -n 20 >&2
  fail "$boot (the console's last lines above)"
fi
printf '%s\n' "$console" | tail -n 20 >&2
if [ $started = 1 ]; then
  fail "the guest stopped before the command's end marker was seen (the console's last lines above)"
fi
fail "boot failure: the guest stopped before it started the command (the console's last lines above)"
