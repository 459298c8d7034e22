#!/usr/bin/env bash
# Installs what is missing, builds, and runs the timer-latency tool for a short while.
# Extra arguments go to the tool (see --help), after an optional -- that sets them apart:
#   scripts/run.sh -- -m -p 80 -D 10s
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --build-only
cmake --preset default >/dev/null
cmake --build --preset default --target tavrel-timerlat
[[ ${1:-} == -- ]] && shift
exec build/default/tools/timerlat/tavrel-timerlat "$@"
