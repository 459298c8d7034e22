#!/usr/bin/env bash
# Runs each libFuzzer harness of a fuzz build (cmake --preset fuzz) for a while, one after
# the other, from its seed corpus under tests/fuzz/corpus/. The corpus is copied first: what
# a run adds stays out of the tree. Stops at the first harness that crashes, leaks or trips a
# sanitizer, showing its report; the input that did it is kept in BUILD_DIR/fuzz-artifacts/.
# Prints how many inputs each harness tried.
#   scripts/fuzz.sh BUILD_DIR [SECONDS]   (default: 20 s each)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
seconds=${2:-20}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$build/fuzz-artifacts"
for corpus in tests/fuzz/corpus/*/; do
  name=$(basename "$corpus")
  cp -r "$corpus" "$work/$name"
  # The parsers' own reports on stderr would drown the fuzzer's; sanitizer reports still show.
  if ! "$build/tests/fuzz/$name" -max_total_time="$seconds" -close_fd_mask=3 \
    -print_final_stats=1 -artifact_prefix="$build/fuzz-artifacts/$name-" "$work/$name" \
    >"$work/$name.log" 2>&1; then
    tail -n 60 "$work/$name.log"
    echo
    echo "fuzz: $name failed; its input is in $build/fuzz-artifacts/" >&2
    exit 1
  fi
  echo "fuzz: $name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$name.log")" \
    "inputs in $seconds s, no fault"
done
