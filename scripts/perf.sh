#!/usr/bin/env bash
# Regenerates the performance page (docs/performance.md and docs/performance.svg): builds
# the release configuration with the benchmarks and the comparison (the bench preset, in
# build/bench), then measures in one sitting
#   - the event-loop comparison (raw epoll, EpollMonitor, libevent, libev, libuv),
#   - the same workload's instructions per callback under callgrind,
#   - Timer wake-up latency against a bare timerfd loop and cyclictest,
#   - the registry's heap bytes per descriptor,
#   - the Google Benchmark programs (build/bench/bench/*_bench).
# Raw outputs stay in build/bench/perf/. The default run takes a few minutes; --full
# takes more blocks, rounds and timer runs for tighter figures.
#
#   scripts/perf.sh [--full] [--blocks N] [--rounds N] [--timer-runs N]
set -euo pipefail
source "$(dirname "$0")/lib/packages.sh"
cd "$(dirname "$0")/.."

blocks=20
rounds=20
timer_runs=3
callgrind_rounds=10
while (($#)); do
  case "$1" in
    --full) blocks=40 rounds=40 timer_runs=5 ;;
    --blocks) blocks="$2"; shift ;;
    --rounds) rounds="$2"; shift ;;
    --timer-runs) timer_runs="$2"; shift ;;
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
    *) echo "perf: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done

# What the measurements need beyond the build itself, from Debian's packages.
readonly PERF_PACKAGES=(libevent-dev libev-dev libuv1-dev valgrind rt-tests gnuplot-nox python3)
scripts/setup.sh --build-only
ensure_packages perf "${PERF_PACKAGES[@]}"

build=build/bench
out="$build/perf"
cmake --preset bench >/dev/null
mapfile -t benches < <(sed -n 's/^tavrel_add_bench(NAME \([A-Za-z0-9_]*\).*/\1/p' bench/CMakeLists.txt)
cmake --build --preset bench --target tavrel-compare tavrel-raw-timerlat tavrel-mapmem \
  tavrel-timerlat "${benches[@]}"

rm -rf "$out"
mkdir -p "$out/callgrind" "$out/timer" "$out/bench"
compare="$build/bench/compare/tavrel-compare"

{
  echo "date: $(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "cpu: $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
  echo "cores: $(nproc)"
  echo "memory: $(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo)"
  echo "kernel: $(uname -r)"
  echo "os: $(. /etc/os-release && echo "$PRETTY_NAME")"
  echo "compiler: $(g++ -dumpfullversion) (g++, RelWithDebInfo: -O2 -g)"
  for pkg in libevent-dev libev-dev libuv1-dev valgrind rt-tests libbenchmark-dev; do
    echo "$pkg: $(dpkg-query -W -f='${Version}' "$pkg")"
  done
  echo "load at start: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "blocks: $blocks"
  echo "rounds: $rounds"
  echo "timer runs: $timer_runs"
  echo "callgrind rounds: $callgrind_rounds"
} >"$out/machine.txt"

echo "perf: event-loop comparison ($blocks blocks of $rounds rounds)"
"$compare" --blocks="$blocks" --rounds="$rounds" --csv="$out/compare.csv" | tee "$out/compare.txt"

echo "perf: instructions per callback under callgrind (N = 1000)"
for backend in raw monitor libevent libev libuv; do
  for active in 1 10 100; do
    # Twice each: the counts must repeat to be worth reporting.
    for repeat in 1 2; do
      name="$backend-$active-$repeat"
      valgrind --tool=callgrind --instr-atstart=no \
        --callgrind-out-file="$out/callgrind/$name.out" \
        "$compare" --callgrind --backends="$backend" --pairs=1000 --active="$active" \
        --blocks=1 --rounds="$callgrind_rounds" --warmup=2 \
        2>"$out/callgrind/$name.log" | sed -n 's/^callgrind_callbacks=//p' \
        >"$out/callgrind/$name.callbacks"
    done
  done
done

# The wrappers' own instructions: the wrapped micro-benchmarks under callgrind, where each
# wrapper's inclusive count is set against the bare libc call it makes.
if [[ -x "$build/bench/syscall_bench" ]]; then
  echo "perf: wrapper instructions under callgrind"
  for name in WrappedEventfdWriteRead WrappedIoctl; do
    valgrind --tool=callgrind --callgrind-out-file="$out/callgrind/wrapper-$name.out" \
      "$build/bench/syscall_bench" --benchmark_filter="^BM_$name\$" \
      --benchmark_min_time=0.01 >"$out/callgrind/wrapper-$name.log" 2>&1
  done
fi

echo "perf: timer wake-up latency ($timer_runs runs of 5000 expiries at 1 ms)"
for ((run = 1; run <= timer_runs; run++)); do
  # A failed run is left out of the page (which says how many runs it has), not fatal.
  "$build/tools/timerlat/tavrel-timerlat" --interval 1000 --loops 5000 --quiet \
    >"$out/timer/timerlat-$run.txt" || echo "perf: tavrel-timerlat failed (exit $?)" >&2
  "$build/bench/compare/tavrel-raw-timerlat" --interval 1000 --loops 5000 \
    >"$out/timer/raw-$run.txt"
  cyclictest -m -i 1000 -l 5000 -q -h 20000 >"$out/timer/cyclictest-$run.txt"
done

echo "perf: registry memory"
"$build/bench/compare/tavrel-mapmem" | tee "$out/mapmem.txt"

for bench in "${benches[@]}"; do
  echo "perf: $bench"
  "$build/bench/$bench" --benchmark_min_time=0.2 --benchmark_out="$out/bench/$bench.json" \
    --benchmark_out_format=json
done
echo "load at end: $(cut -d' ' -f1-3 /proc/loadavg)" >>"$out/machine.txt"

mkdir -p docs
python3 bench/compare/perf_report.py "$out" docs/performance.md "$out/plot.dat"
gnuplot -e "datafile='$out/plot.dat'; outfile='docs/performance.svg'" bench/compare/performance.gp
echo "perf: wrote docs/performance.md and docs/performance.svg"
