#!/usr/bin/env bash
# Runs every GoogleTest program of a build under valgrind's memcheck: any invalid access,
# use of uninitialised memory or leak fails the program (--error-exitcode), as does a
# failing test. Death tests are left out: their child dies on purpose, leaking by design.
# Usage: scripts/valgrind.sh <build-dir>   (a configured and built native tree)
# One line per program; full logs in <build-dir>/valgrind/. Exits non-zero on any failure.
set -euo pipefail

if [[ $# -ne 1 || ! -d "$1/tests" ]]; then
  echo "usage: $0 <build-dir>   (a built tree with a tests/ folder)" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
logs="$build/valgrind"
mkdir -p "$logs"

# gtest's convention names death test suites *DeathTest; *Death* also catches variants.
readonly FILTER='-*DeathTest*:*Death*'
# Threads take the one virtual CPU in turn (--fair-sched=yes): with valgrind's default lock
# a thread that never blocks, like the reliability tests' core spinner, keeps winning it
# back, and the monitor thread it competes with starves as under no kernel scheduler.
vg=(valgrind --error-exitcode=1 --leak-check=full --num-callers=30 --fair-sched=yes)
# Suppressions only for what is not ours; the file says why for each.
[[ -f "$root/tests/valgrind.supp" ]] && vg+=("--suppressions=$root/tests/valgrind.supp")

# gtest_discover_tests leaves <target>[N]_include.cmake beside each test program it
# registers, so these name exactly the GoogleTest programs, and no helper binary.
mapfile -t includes < <(find "$build/tests" -name '*\[[0-9]*\]_include.cmake' | sort)
if ((${#includes[@]} == 0)); then
  echo "valgrind: no test programs under $build/tests (build it first)" >&2
  exit 1
fi

passed=0
failed=0
for include in "${includes[@]}"; do
  program="${include%\[*}"
  name=$(basename "$program")
  log="$logs/$name.log"
  if [[ ! -x "$program" ]]; then
    echo "FAIL $name: no program at $program (not built?)"
    failed=$((failed + 1))
    continue
  fi
  start=$SECONDS
  # Run from the program's folder, as CTest does.
  rc=0
  (cd "$(dirname "$program")" && "${vg[@]}" "$program" --gtest_filter="$FILTER") >"$log" 2>&1 || rc=$?
  took=$((SECONDS - start))
  tests=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\..*/\1/p' "$log" | tail -n1)
  if ((rc == 0)); then
    echo "PASS $name: ${tests:-0} tests, no valgrind error (${took} s)"
    passed=$((passed + 1))
  else
    # The last summary is the test program's own; forked children print theirs earlier.
    errors=$(sed -n 's/^==[0-9]*== ERROR SUMMARY: \([0-9]*\) errors.*/\1/p' "$log" | tail -n1)
    bad=$(sed -n 's/^ *\([0-9]*\) FAILED TESTS\?$/\1/p' "$log" | tail -n1)
    echo "FAIL $name: exit $rc, ${errors:-?} valgrind errors, ${bad:-0} failed tests (${took} s; log $log)"
    failed=$((failed + 1))
  fi
done

echo "valgrind: $passed passed, $failed failed"
((failed == 0))
