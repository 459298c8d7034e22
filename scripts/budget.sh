#!/usr/bin/env bash
# Holds the hot path to its instruction budgets, counted with callgrind, and fails when one
# is broken:
#   - dispatch per callback (N = 1000 socket pairs, A active): at most the raw epoll loop's
#     count + 25 at A = 10 and 100, and below libev's and libuv's at A = 1, 10 and 100;
#   - System::EPollWait, Read, Write and Ioctl: at most 25 instructions per call over the
#     bare call each makes;
#   - the dispatch's skip of entries detached within their batch: at most 3 per callback
#     at A = 1, counted on its source line.
# Builds what it runs in the bench preset (build/bench); counts stay in build/bench/budget/.
# Instruction counts repeat exactly, so one run of each settles a budget.
#
#   scripts/budget.sh
set -euo pipefail
source "$(dirname "$0")/lib/packages.sh"
source "$(dirname "$0")/lib/callgrind.sh"
cd "$(dirname "$0")/.."

ensure_packages budget libevent-dev libev-dev libuv1-dev libbenchmark-dev valgrind python3
cmake --preset bench >/dev/null
cmake --build --preset bench -j2 --target tavrel-compare syscall_bench >/dev/null

out=build/bench/budget
rm -rf "$out"
mkdir -p "$out"
for backend in raw monitor libev libuv; do
  for active in 1 10 100; do
    count_callbacks build/bench/bench/compare/tavrel-compare "$out/$backend-$active" \
      "$backend" "$active" 10
  done
done
count_wrappers build/bench/bench/syscall_bench "$out"
python3 bench/compare/budget.py "$out"
