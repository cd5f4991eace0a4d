#!/usr/bin/env bash
# Installs the Debian packages one purpose needs, when missing.
# Usage: scripts/deps.sh [demo|kernel|all]   (default: all)
#   demo    what scripts/run.sh needs to build the plug-in, orlune-sim,
#           orlune-host and orlune-tlm, fly the demo and plot it
#   kernel  what scripts/guest.sh needs to boot its guest and build our
#           driver: QEMU, a static busybox, cpio and xz for the initramfs and
#           the kernel, iiod, and the headers of the guest's kernel (its
#           version is the KVER line of scripts/guest.sh)
#   all     everything the project can use: the demo's and the kernel's
#           packages, and the tests, benchmarks, fuzzers, sanitizers and the
#           benchmark report (llvm brings llvm-symbolizer: clang's sanitizers
#           name the frames with it, and the fuzz targets' leak suppressions
#           match those names)
# When every package is there (dpkg -s), nothing is run and nothing printed.
set -euo pipefail

demo=(
  g++ cmake ninja-build pkg-config
  libconfig-dev libiio-dev
  gnuplot-nox
)
kver=$(sed -n 's/^KVER=//p' "$(dirname "$0")/guest.sh")
kernel=(
  qemu-system-x86 busybox-static cpio xz-utils iiod
  make gcc "linux-headers-$kver"
)
all=(
  "${demo[@]}"
  "${kernel[@]}"
  libiio-utils
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev llvm
  valgrind strace
)

purpose=${1:-all}
case $purpose in
  demo) packages=("${demo[@]}") ;;
  kernel) packages=("${kernel[@]}") ;;
  all) packages=("${all[@]}") ;;
  *) echo "deps: unknown purpose '$purpose' (demo, kernel or all)" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
log=$(mktemp "${TMPDIR:-/tmp}/orlune-deps-XXXXXX")
trap 'rm -f "$log"' EXIT

# apt_progress LABEL: turns apt's status lines (APT::Status-Fd) into one
# progress line, rewritten in place on a terminal, else printed at every
# tenth of the way.
apt_progress() {
  local tty=0
  [ -t 1 ] && tty=1
  awk -F: -v label="$1" -v tty="$tty" '
    function show(text) {
      if (tty) { printf "\r\033[K%s", text; shown = 1 }
      else print text
      fflush()
    }
    BEGIN { show(label "...") }
    # "dlstatus:N:PERCENT:Retrieving file N of M", then for an install
    # "pmstatus:PACKAGE:PERCENT:Unpacking PACKAGE (ARCH)" and the like.
    $1 == "dlstatus" || $1 == "pmstatus" {
      pct = int($3)
      what = $4
      if ($1 == "dlstatus") { sub(/^Retrieving /, "", what); what = "downloading, " what }
      line = sprintf("%s: %3d%% %s", label, pct, what)
      if (tty) show(line)
      else if (int(pct / 10) != step || $1 != kind) {
        step = int(pct / 10); kind = $1
        show(line)
      }
    }
    END { if (shown) printf "\r\033[K" }'
}

# run_apt LABEL ARGS...: apt-get, never asking, with its progress on one line;
# its own messages are shown only when it fails. The redirections are made
# inside sudo, which would close the status descriptor.
run_apt() {
  local label=$1
  shift
  if ! $sudo env DEBIAN_FRONTEND=noninteractive bash -c \
      'exec apt-get -qq -o APT::Status-Fd=3 "$@" 3>&1 >"$0" 2>&1' "$log" "$@" | apt_progress "$label"; then
    echo "deps: apt-get $* failed:" >&2
    cat "$log" >&2
    exit 1
  fi
}

echo "installing ${#missing[@]} packages: ${missing[*]}"
started=$SECONDS
run_apt "updating the package lists" update
# The security archive keeps only the current kernel: once the guest's
# pinned version has left it, scripts/guest.sh falls back to the current one
# and installs its headers itself.
for i in "${!missing[@]}"; do
  if [ "${missing[$i]}" = "linux-headers-$kver" ] &&
     [[ ! $(apt-cache policy "linux-headers-$kver" 2>/dev/null) =~ Candidate:\ [^\(] ]]; then
    echo "deps: linux-headers-$kver is no longer in the package archive; scripts/guest.sh will use the current kernel's headers"
    unset 'missing[i]'
  fi
done
missing=("${missing[@]}")
[ ${#missing[@]} -eq 0 ] && exit 0
run_apt "installing" install -y --no-install-recommends "${missing[@]}"
echo "installed ${#missing[@]} packages in $((SECONDS - started)) s"
