#!/usr/bin/env bash
# Mutation check: puts each small fault listed in scripts/mutants.txt into a
# copy of the working tree, one at a time, and runs the tests recorded as
# catching it. A fault that no test notices shows where the suite is blind.
#
# usage: scripts/mutants.sh [--full] [--list FILE] [-j N] [ID|REGEX ...]
#   --full   run the whole suite against each fault instead of its recorded
#            tests, and name every test that failed (slow; to find catchers)
#   --list   another list of faults in the same format (default:
#            scripts/mutants.txt), e.g. scripts/mutants-unseen.txt
#   -j N     tests run N at a time (default: the number of cores)
#   ID|REGEX only the faults whose id is or matches one of these (default: all)
#
# The working tree is never touched: the files git tracks or would add, with
# their current contents (uncommitted edits included), are copied to
# build-mutants/tree, which the copy's scripts/build.sh builds for tests
# (fail points on) in build-mutants/build.
# Each fault is then applied to the copy, rebuilt incrementally, tested and
# undone, also when the run is interrupted. Before any fault, the selected
# tests must pass on the unchanged copy: a test that already fails catches
# nothing.
#
# One line a fault: its id, its file and "caught by <tests>", "SURVIVED",
# "STALE" (its 'from' text is not in the file exactly once) or "DOES NOT
# BUILD"; a summary line closes the run. The exit status is non-zero when a
# fault survived, is stale or does not build. Each fault's build and test
# output is kept in build-mutants/logs/<id>.log.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
list=$root/scripts/mutants.txt
work=$root/build-mutants
tree=$work/tree
build=$work/build
logs=$work/logs
full=0
jobs=$(nproc)
selectors=()
while [ $# -gt 0 ]; do
  case $1 in
    --full) full=1; shift ;;
    --list) list=$(cd "$(dirname "$2")" && pwd)/$(basename "$2"); shift 2 ;;
    -j) jobs=$2; shift 2 ;;
    -j*) jobs=${1#-j}; shift ;;
    -h|--help) sed -n '2,27p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "mutants: unknown option $1" >&2; exit 2 ;;
    *) selectors+=("$1"); shift ;;
  esac
done
case $jobs in ''|*[!0-9]*|0) echo "mutants: -j needs a positive number" >&2; exit 2 ;; esac

# --- The list ---------------------------------------------------------------
# Blocks of "key: value" lines under a "[id]" header; '#' lines and blank
# lines are ignored. The value is the rest of the line after "key: ", taken
# as it is (no quoting, no escapes).
ids=() files=() froms=() tos=() catchers=()
declare -A seen=()
lineno=0
fail_list() { echo "mutants: $list:$lineno: $*" >&2; exit 2; }
close_block() {
  [ ${#ids[@]} -eq 0 ] && return
  local i=$((${#ids[@]} - 1))
  [ -n "${files[$i]}" ] || fail_list "[${ids[$i]}] has no file"
  [ -n "${froms[$i]}" ] || fail_list "[${ids[$i]}] has no from"
  [ -n "${catchers[$i]}" ] || fail_list "[${ids[$i]}] has no caught-by"
  [ "${froms[$i]}" != "${tos[$i]}" ] || fail_list "[${ids[$i]}] changes nothing"
}
while IFS= read -r line || [ -n "$line" ]; do
  lineno=$((lineno + 1))
  case $line in
    '#'*|'') continue ;;
    '['*']')
      close_block
      id=${line#[}; id=${id%]}
      [[ $id =~ ^[A-Za-z0-9_.-]+$ ]] || fail_list "bad id '$id'"
      [ -z "${seen[$id]:-}" ] || fail_list "id '$id' twice"
      seen[$id]=1
      ids+=("$id") files+=("") froms+=("") tos+=("") catchers+=("")
      ;;
    *)
      [ ${#ids[@]} -gt 0 ] || fail_list "a line before the first [id]"
      i=$((${#ids[@]} - 1))
      case $line in
        'file: '*) files[$i]=${line#file: } ;;
        'from: '*) froms[$i]=${line#from: } ;;
        'to: '*) tos[$i]=${line#to: } ;;
        'to:') tos[$i]="" ;;
        'caught-by: '*) catchers[$i]=${line#caught-by: } ;;
        *) fail_list "unknown line '$line'" ;;
      esac
      ;;
  esac
done <"$list"
close_block

chosen=()
for i in "${!ids[@]}"; do
  if [ ${#selectors[@]} -eq 0 ]; then
    chosen+=("$i")
    continue
  fi
  for s in "${selectors[@]}"; do
    if [ "${ids[$i]}" = "$s" ] || [[ ${ids[$i]} =~ $s ]]; then
      chosen+=("$i")
      break
    fi
  done
done
if [ ${#chosen[@]} -eq 0 ]; then
  echo "mutants: no fault matches ${selectors[*]}" >&2
  exit 2
fi

# --- The copy and its build -------------------------------------------------
start=$(date +%s)
mkdir -p "$tree" "$build" "$logs"

# The files git knows of or would add (new files not yet added count, as
# their edits do), as they are now. A file is copied only when its content
# differs, with a new time stamp, so that ninja rebuilds exactly what changed
# since the last run (a file a fault was undone in included). Files that are
# gone from the working tree leave the copy.
echo "mutants: copying the working tree to $tree"
(cd "$root" && git ls-files -z --cached --others --exclude-standard) |
  while IFS= read -r -d '' f; do
    if [ -f "$root/$f" ]; then printf '%s\0' "$f"; fi
  done | sort -zu >"$work/files"
while IFS= read -r -d '' f; do
  if ! cmp -s "$root/$f" "$tree/$f"; then
    mkdir -p "$(dirname "$tree/$f")"
    rm -f "$tree/$f"
    cp "$root/$f" "$tree/$f"
  fi
done <"$work/files"
(cd "$tree" && find . -type f -printf '%P\0') | sort -z >"$work/copied"
comm -z -23 "$work/copied" "$work/files" | (cd "$tree" && xargs -0 -r rm -f)

# Configured and built by the copy's own scripts/build.sh, as a build for
# tests is (fail points on, nothing left out), but without link-time
# optimisation: every fault relinks the plug-in, which would optimise the
# whole library again each time.
echo "mutants: building the unchanged copy"
if ! "$tree/scripts/build.sh" "$build" -DORLUNE_LTO=OFF >"$work/build.log" 2>&1; then
  tail -n 40 "$work/build.log" >&2
  echo "mutants: the unchanged copy does not build (log: $work/build.log)" >&2
  exit 1
fi

# runs the tests a selection names into a log: "-R <regex>", "-I <numbers>"
# or nothing (every test). The names of the tests that failed are left in
# $failed, one a line.
failed=""
run_tests() {
  local log=$1 status=0
  shift
  local args=(--test-dir "$build" -j "$jobs" --timeout 300 --no-tests=error --output-on-failure "$@")
  rm -f "$build/Testing/Temporary/LastTestsFailed.log"
  ctest "${args[@]}" >>"$log" 2>&1 || status=$?
  failed=""
  if [ -f "$build/Testing/Temporary/LastTestsFailed.log" ]; then
    # Value-parameterised cases carry their parameter's bytes after " # ".
    failed=$(cut -d: -f2- "$build/Testing/Temporary/LastTestsFailed.log" | sed 's/ *# GetParam() = .*//')
  elif [ $status -ne 0 ]; then
    failed="(ctest exit status $status, see $log)"
  fi
}

# The selected tests must pass as the tree is, and each fault's tests must
# name at least one test. They run together, by number: ctest's regular
# expressions allow too few groups to join every fault's into one.
numbers=()
problems=0
for i in "${chosen[@]}"; do
  found=$(ctest --test-dir "$build" -N -R "${catchers[$i]}" | sed -n 's/^ *Test *#\([0-9]*\):.*/\1/p')
  if [ -z "$found" ]; then
    echo "mutants: [${ids[$i]}] caught-by '${catchers[$i]}' names no test" >&2
    problems=$((problems + 1))
  fi
  numbers+=($found)
done
[ $problems -eq 0 ] || exit 1
: >"$logs/unchanged.log"
if [ $full -eq 1 ]; then
  echo "mutants: running every test on the unchanged copy"
  run_tests "$logs/unchanged.log"
else
  selection=$(printf '%s\n' "${numbers[@]}" | sort -nu | paste -sd, -)
  echo "mutants: running the selected tests on the unchanged copy ($(tr ',' '\n' <<<"$selection" | wc -l))"
  run_tests "$logs/unchanged.log" -I "0,0,0,$selection"
fi
if [ -n "$failed" ]; then
  echo "mutants: these tests fail without any fault, so they catch nothing (log: $logs/unchanged.log):" >&2
  sed 's/^/  /' <<<"$failed" >&2
  exit 1
fi

# --- The faults -------------------------------------------------------------
applied=""
backup=$work/original
undo() {
  if [ -n "$applied" ]; then
    cp "$backup" "$tree/$applied"   # a new time stamp: the next build recompiles it
    applied=""
  fi
}
trap undo EXIT
trap 'undo; echo "mutants: interrupted" >&2; exit 130' INT TERM

count() {
  MUT_FROM=$1 perl -0777 -ne 'my $n = 0; my $p = 0; my $f = $ENV{MUT_FROM};
    while (($p = index($_, $f, $p)) >= 0) { $n++; $p += length $f } print $n' "$2"
}
apply() {
  MUT_FROM=$1 MUT_TO=$2 perl -0777 -i -pe 'my $p = index($_, $ENV{MUT_FROM});
    substr($_, $p, length $ENV{MUT_FROM}) = $ENV{MUT_TO}' "$3"
}

# The failed tests on one line; a long list is cut after three (the log has
# them all), unless --full asked for every one.
names() {
  local n
  n=$(grep -c . <<<"$1")
  if [ $full -eq 1 ] || [ "$n" -le 3 ]; then
    tr '\n' ' ' <<<"$1" | sed 's/ $//'
  else
    echo "$(head -n 3 <<<"$1" | tr '\n' ' ')and $((n - 3)) more"
  fi
}

caught=0 survived=0 stale=0 broken=0
for i in "${chosen[@]}"; do
  id=${ids[$i]} file=${files[$i]} regex=${catchers[$i]}
  log=$logs/$id.log
  t0=$(date +%s)
  : >"$log"
  if [ ! -f "$tree/$file" ]; then
    printf '%-36s %-40s STALE (no such file)\n' "$id" "$file"
    stale=$((stale + 1))
    continue
  fi
  n=$(count "${froms[$i]}" "$tree/$file")
  if [ "$n" -ne 1 ]; then
    printf '%-36s %-40s STALE (its text is there %s times)\n' "$id" "$file" "$n"
    stale=$((stale + 1))
    continue
  fi
  cp "$tree/$file" "$backup"
  applied=$file
  apply "${froms[$i]}" "${tos[$i]}" "$tree/$file"
  if ! cmake --build "$build" -j "$(nproc)" >>"$log" 2>&1; then
    undo
    printf '%-36s %-40s DOES NOT BUILD (log: %s)\n' "$id" "$file" "${log#"$root"/}"
    broken=$((broken + 1))
    continue
  fi
  if [ $full -eq 1 ]; then
    run_tests "$log"
  else
    run_tests "$log" -R "$regex"
  fi
  undo
  secs=$(($(date +%s) - t0))
  if [ -n "$failed" ]; then
    caught=$((caught + 1))
    note=""
    if [ $full -eq 1 ] && ! grep -Eq -- "$regex" <<<"$failed"; then
      note=" (not by its recorded tests)"
    fi
    printf '%-36s %-40s caught by %s%s [%ss]\n' "$id" "$file" "$(names "$failed")" "$note" "$secs"
  else
    survived=$((survived + 1))
    printf '%-36s %-40s SURVIVED %s [%ss]\n' "$id" "$file" "$([ $full -eq 1 ] && echo "the whole suite" || echo "$regex")" "$secs"
  fi
done

elapsed=$(($(date +%s) - start))
echo "mutants: ${#chosen[@]} mutants, $caught caught, $survived survived, $stale stale, $broken did not build ($((elapsed / 60)) min $((elapsed % 60)) s)"
[ $survived -eq 0 ] && [ $stale -eq 0 ] && [ $broken -eq 0 ]
