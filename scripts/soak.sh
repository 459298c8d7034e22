#!/usr/bin/env bash
# Long run of the monitor's stress test with its Timer load: builds the default preset, then runs
# both stretched to the given number of seconds each, and checks that the Timers were
# re-armed at least a million times with none stopped and none revived.
# Usage: scripts/soak.sh [seconds per test]   (default 300: about half an hour in all)
# The figures lines ("[ figures ] ...") and the whole log end up in build/default/soak.log.
set -euo pipefail
cd "$(dirname "$0")/.."

readonly SECONDS_PER_TEST=${1:-${TAVREL_SOAK_SECONDS:-300}}
readonly MIN_REARMS=1000000
readonly LOG=build/default/soak.log

if ! [[ $SECONDS_PER_TEST =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: $0 [seconds per test, a positive integer]" >&2
  exit 2
fi

scripts/setup.sh --build-only
cmake --preset default >/dev/null
cmake --build --preset default --target monitor_tests

echo "soak: ${SECONDS_PER_TEST} s per time-bounded test; log in $LOG"
TAVREL_SOAK_SECONDS=$SECONDS_PER_TEST build/default/tests/monitor/monitor_tests \
  --gtest_filter='MonitorStress.*' 2>&1 | tee "$LOG"

echo
grep '^\[ figures \]' "$LOG"
read -r rearms stopped revived < <(sed -n \
  's/^\[ figures \] timer_load rearms=\([0-9]*\) stopped=\([0-9]*\) revived=\([0-9]*\)$/\1 \2 \3/p' "$LOG")
if [[ -z ${rearms:-} || $rearms -lt $MIN_REARMS || $stopped -ne 0 || $revived -ne 0 ]]; then
  echo "soak: ${rearms:-no} Timer re-arms (at least $MIN_REARMS wanted), ${stopped:-?} stopped," \
    "${revived:-?} revived" >&2
  exit 1
fi
echo "soak: passed with $rearms Timer re-arms, none stopped, none revived"
