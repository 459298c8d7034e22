# Sourced by the scripts that count instructions with callgrind (budget.sh, perf.sh).

# count_callbacks COMPARE BASE BACKEND ACTIVE ROUNDS: the timed rounds of one backend of the
# comparison program COMPARE under callgrind, with N = 1000 pairs and ACTIVE active ones;
# leaves BASE.out, BASE.log and BASE.callbacks.
count_callbacks() {
  valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$2.out" \
    "$1" --callgrind --backends="$3" --pairs=1000 --active="$4" \
    --blocks=1 --rounds="$5" --warmup=2 \
    2>"$2.log" | sed -n 's/^callgrind_callbacks=//p' >"$2.callbacks"
}

# count_wrappers PROGRAM DIR: the wrapped micro-benchmarks of PROGRAM (syscall_bench) under
# callgrind, where each wrapper's inclusive count is set against the bare libc call it
# makes; leaves DIR/wrapper-*.out.
count_wrappers() {
  local name
  for name in WrappedEventfdWriteRead WrappedIoctl; do
    LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file="$2/wrapper-$name.out" \
      "$1" --benchmark_filter="^BM_$name\$" \
      --benchmark_min_time=0.01 >"$2/wrapper-$name.log" 2>&1
  done
}
