#!/usr/bin/env bash
# Regenerates the performance page (docs/performance.md and its two plots): builds
# the release configuration with the benchmarks and the comparison (the bench preset, in
# build/bench), then measures in one sitting
#   - the event-loop comparison (raw epoll, EpollMonitor, libevent, libev, libuv),
#   - the same workload's instructions per callback under callgrind, and the wrappers'
#     instructions over their bare calls (the figures scripts/budget.sh holds to budgets),
#   - Timer wake-up latency against a bare timerfd loop and cyclictest, all three memory-
#     locked with /dev/cpu_dma_latency held at 0, at normal priority and, where this
#     machine grants it, at SCHED_FIFO,
#   - the same latency while stress-ng loads every core (CPU and I/O workers), at SCHED_FIFO
#     where permitted,
#   - the registry's heap bytes per descriptor,
#   - the Google Benchmark programs (build/bench/bench/*_bench).
# Raw outputs stay in build/bench/perf/. The default run takes a few minutes; --full
# takes more blocks, rounds and timer runs for tighter figures.
#
#   scripts/perf.sh [--full] [--blocks N] [--rounds N] [--timer-runs N]
set -euo pipefail
source "$(dirname "$0")/lib/packages.sh"
source "$(dirname "$0")/lib/callgrind.sh"
cd "$(dirname "$0")/.."

blocks=20
rounds=20
timer_runs=3
timer_loops=5000
callgrind_rounds=10
bench_repetitions=3
# The real-time priority of the FIFO timer runs; cyclictest's -p takes the same number.
fifo_priority=80
while (($#)); do
  case "$1" in
    --full) blocks=40 rounds=40 timer_runs=5 bench_repetitions=5 ;;
    --blocks) blocks="$2"; shift ;;
    --rounds) rounds="$2"; shift ;;
    --timer-runs) timer_runs="$2"; shift ;;
    -h|--help) sed -n '2,18p' "$0"; exit 0 ;;
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
cmake --build --preset bench -j2 --target tavrel-compare tavrel-raw-timerlat tavrel-mapmem \
  tavrel-timerlat "${benches[@]}"

rm -rf "$out"
mkdir -p "$out/callgrind" "$out/timer" "$out/bench"
compare="$build/bench/compare/tavrel-compare"
timerlat="$build/tools/timerlat/tavrel-timerlat"
raw_timerlat="$build/bench/compare/tavrel-raw-timerlat"

# What this machine permits, tried the way the timer runs use it; the page says what was
# refused, and the runs go on without it.
try() { "$timerlat" -l 1 -q "$@" 2>&1 >/dev/null | head -1; }
lock=(-m) lock_state="locked by each timer program (-m)"
[[ -z $(try --laptop -m) ]] || lock=() lock_state="refused: $(try --laptop -m)"
schedules=(normal fifo) fifo_state="permitted (SCHED_FIFO $fifo_priority)"
[[ -z $(try --laptop -p "$fifo_priority") ]] ||
  schedules=(normal) fifo_state="refused: $(try --laptop -p "$fifo_priority")"
dma_state="held at 0 by each timer program"
[[ -z $(try) ]] || dma_state="not permitted: deep CPU idle states stay allowed ($(try))"

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
  echo "timer expiries: $timer_loops"
  echo "callgrind rounds: $callgrind_rounds"
  echo "benchmark repetitions: $bench_repetitions"
  echo "memory lock: $lock_state"
  echo "real-time priority: $fifo_state"
  echo "cpu_dma_latency: $dma_state"
  echo "timer slack: $(cat /proc/self/timerslack_ns) ns"
} >"$out/machine.txt"

echo "perf: event-loop comparison ($blocks blocks of $rounds rounds)"
head -1 /proc/stat >"$out/compare.stat"
"$compare" --blocks="$blocks" --rounds="$rounds" --csv="$out/compare.csv" \
  --blocks-csv="$out/compare-blocks.csv" | tee "$out/compare.txt"
head -1 /proc/stat >>"$out/compare.stat"

echo "perf: instructions per callback under callgrind (N = 1000)"
for backend in raw monitor libevent libev libuv; do
  for active in 1 10 100; do
    # Twice each: the counts must repeat to be worth reporting.
    for repeat in 1 2; do
      count_callbacks "$compare" "$out/callgrind/$backend-$active-$repeat" "$backend" "$active" \
        "$callgrind_rounds"
    done
  done
done

echo "perf: wrapper instructions under callgrind"
count_wrappers "$build/bench/syscall_bench" "$out/callgrind"

# Runs the three timer programs timer_runs times into folder $1 at schedule $2 (normal or
# fifo): back to back, each run starting with the next program, so that none always follows
# the same one. A failed run is left out of the page (which counts its runs), not fatal.
run_timer_programs() {
  local dir=$1 schedule=$2 run k program base ours theirs
  ours=(--policy other -p 0) theirs=(--policy=other)
  if [[ $schedule == fifo ]]; then
    ours=(-p "$fifo_priority") theirs=(-p "$fifo_priority")
  fi
  local common=("${lock[@]}" -i 1000 -l "$timer_loops" -q) programs=(timer raw cyclictest)
  mkdir -p "$dir"
  for ((run = 1; run <= timer_runs; run++)); do
    for ((k = 0; k < ${#programs[@]}; k++)); do
      program=${programs[(run + k - 1) % ${#programs[@]}]}
      base="$dir/$program-$schedule-$run"
      case $program in
        timer) "$timerlat" "${ours[@]}" "${common[@]}" -h 20000 --histfile "$base.hist" >"$base.txt" ;;
        raw) "$raw_timerlat" "${ours[@]}" "${common[@]}" -h 20000 --histfile "$base.hist" >"$base.txt" ;;
        cyclictest) cyclictest "${theirs[@]}" "${common[@]}" -h 20000 >"$base.hist" 2>"$base.txt" ;;
      esac || { echo "perf: $program failed at $schedule (exit $?)" >&2; rm -f "$base.hist"; }
    done
  done
}

echo "perf: timer wake-up latency (${schedules[*]}; $timer_runs runs of $timer_loops expiries at 1 ms)"
head -1 /proc/stat >"$out/timer.stat"
for schedule in "${schedules[@]}"; do
  run_timer_programs "$out/timer" "$schedule"
done
head -1 /proc/stat >>"$out/timer.stat"

# The same three programs, run as above, while stress-ng keeps every core busy with CPU
# workers and I/O workers (sync) at normal priority: at SCHED_FIFO where permitted, where
# the workers wait for the timer threads, else at normal priority, where they compete.
ensure_packages perf stress-ng
load_workers=$(nproc)
load_schedule=${schedules[-1]}
echo "stress-ng: $(dpkg-query -W -f='${Version}' stress-ng)" >>"$out/machine.txt"
load=(stress-ng --cpu "$load_workers" --io "$load_workers")
echo "stress-ng load: ${load[*]}" >>"$out/machine.txt"
echo "perf: timer wake-up latency under load ($load_schedule; ${load[*]})"
mkdir -p "$out/loaded"
"${load[@]}" --metrics-brief >"$out/loaded/stress-ng.log" 2>&1 &
stress_pid=$!
trap 'kill -INT "$stress_pid" 2>/dev/null || true' EXIT
sleep 2 # every worker running
head -1 /proc/stat >"$out/loaded.stat"
run_timer_programs "$out/loaded" "$load_schedule"
head -1 /proc/stat >>"$out/loaded.stat"
kill -INT "$stress_pid"
wait "$stress_pid" || true
trap - EXIT

echo "perf: registry memory"
"$build/bench/compare/tavrel-mapmem" | tee "$out/mapmem.txt"

for bench in "${benches[@]}"; do
  echo "perf: $bench"
  "$build/bench/$bench" --benchmark_min_time=0.2 --benchmark_repetitions="$bench_repetitions" \
    --benchmark_display_aggregates_only=true --benchmark_out="$out/bench/$bench.json" \
    --benchmark_out_format=json
done
echo "load at end: $(cut -d' ' -f1-3 /proc/loadavg)" >>"$out/machine.txt"

mkdir -p docs
python3 bench/compare/perf_report.py "$out" docs/performance.md "$out/plot.dat" \
  "$out/instructions.dat"
gnuplot -e "datafile='$out/plot.dat'; outfile='docs/performance.svg'" bench/compare/performance.gp
gnuplot -e "datafile='$out/instructions.dat'; outfile='docs/performance-instructions.svg'" \
  bench/compare/instructions.gp
echo "perf: wrote docs/performance.md, docs/performance.svg and docs/performance-instructions.svg"
