#!/usr/bin/env bash
# Compares the dynamic symbols a library defines with the expected list.
set -eu
lib=$1
expected=$2
# The linker's own section markers, and a sanitizer build's markers, are not ours to list.
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v -x -E '__bss_start|_edata|_end|_init|_fini|__odr_asan\..*' | sort -u)
wanted=$(grep -v -E '^(#|$)' "$expected" | sort -u)
if [ "$actual" != "$wanted" ]; then
  echo "exported symbols of $lib differ from $expected:"
  diff <(echo "$wanted") <(echo "$actual") | sed -n 's/^</missing: /p; s/^>/unexpected: /p'
  exit 1
fi
echo "exports match: $(echo "$actual" | grep -c . || true) symbols"
