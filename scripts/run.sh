#!/usr/bin/env bash
# Installs what is missing, builds, and runs the timer-latency tool for a short while.
# Extra arguments go to the tool (see --help).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --build-only
cmake --preset default -DTAVREL_VM_TEST=OFF >/dev/null
cmake --build --preset default --target tavrel-timerlat
exec build/default/tools/timerlat/tavrel-timerlat "$@"
