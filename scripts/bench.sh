#!/usr/bin/env bash
# Builds the release configuration and runs every benchmark program once, side by side.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --build-only
cmake --preset default -DTAVREL_VM_TEST=OFF >/dev/null
cmake --build --preset default
for bench in build/default/bench/*_bench; do
  printf '\n=== %s\n' "$(basename "$bench")"
  "$bench" --benchmark_min_time=0.2
done
