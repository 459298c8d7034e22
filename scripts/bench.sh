#!/usr/bin/env bash
# Builds the release configuration with the benchmarks (the bench preset, in build/bench)
# and runs every benchmark program once, side by side.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --build-only
cmake --preset bench >/dev/null
mapfile -t benches < <(sed -n 's/^tavrel_add_bench(NAME \([A-Za-z0-9_]*\).*/\1/p' bench/CMakeLists.txt)
cmake --build --preset bench --target "${benches[@]}"
for bench in "${benches[@]}"; do
  printf '\n=== %s\n' "$bench"
  "build/bench/bench/$bench" --benchmark_min_time=0.2
done
