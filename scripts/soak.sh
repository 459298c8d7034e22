#!/usr/bin/env bash
# Long run of the reliability tests: builds the default preset, then runs reliability_tests
# with every time-bounded test stretched to the given number of seconds (counts grow in
# proportion), and checks that the Timers were re-armed at least a million times.
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
cmake --build --preset default --target reliability_tests

echo "soak: ${SECONDS_PER_TEST} s per time-bounded test; log in $LOG"
TAVREL_SOAK_SECONDS=$SECONDS_PER_TEST build/default/tests/reliability/reliability_tests 2>&1 |
  tee "$LOG"

echo
grep '^\[ figures \]' "$LOG"
rearms=$(sed -n 's/^\[ figures \] timer_load .* rearms=\([0-9]*\) .*/\1/p' "$LOG")
if [[ -z $rearms || $rearms -lt $MIN_REARMS ]]; then
  echo "soak: ${rearms:-no} Timer re-arms, fewer than $MIN_REARMS; run longer" >&2
  exit 1
fi
echo "soak: passed with $rearms Timer re-arms"
