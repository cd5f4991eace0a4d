#!/usr/bin/env bash
# Lines of code by kind, from the files git tracks (and, in the working tree,
# new files it does not ignore): C and C++ sources and headers, and scripts
# (*.sh, or a first line "#!"). CMake files, docs, examples and corpora are
# not code here.
#
# usage: scripts/code-size.sh [REVISION]   (default: the working tree)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
rev=${1:-}

# The code files under the given paths, one a line.
code_files() {
  local f
  if [ -n "$rev" ]; then
    git ls-tree -r --name-only "$rev" -- "$@"
  else
    git ls-files --cached --others --exclude-standard -- "$@"
  fi | while read -r f; do
    case $f in */corpus/*) continue ;; esac
    [ -n "$rev" ] || [ -f "$f" ] || continue
    case ${f##*/} in
      *.c|*.cpp|*.h|*.sh) echo "$f" ;;
      *.*) ;;
      *) if [ "$(show "$f" | head -c 2)" = "#!" ]; then echo "$f"; fi ;;
    esac
  done
}

show() {
  if [ -n "$rev" ]; then git show "$rev:$1"; else cat "$1"; fi
}

lines() {
  code_files "$@" | while read -r f; do show "$f"; done | wc -l
}

product=$(lines src include sim tools)
tests=$(lines tests)
bench=$(lines bench)
fuzz=$(lines fuzz)
scripts=$(lines scripts .ci)
all=$((product + tests + bench + fuzz + scripts))
pct() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f %%", b ? 100 * a / b : 0 }'; }

printf '%-34s %8s\n' "product (src include sim tools)" "$product"
printf '%-34s %8s\n' "tests (tests)" "$tests"
printf '%-34s %8s\n' "benchmarks (bench)" "$bench"
printf '%-34s %8s\n' "fuzz targets (fuzz)" "$fuzz"
printf '%-34s %8s\n' "scripts (scripts .ci)" "$scripts"
printf '%-34s %8s\n' "all" "$all"
printf '%-34s %8s\n' "tests / all" "$(pct "$tests" "$all")"
printf '%-34s %8s\n' "tests / product" "$(pct "$tests" "$product")"
