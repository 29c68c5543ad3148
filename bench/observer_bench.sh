#!/usr/bin/env bash
# What the server's observer hook costs per request: bench/observer_bench.cc's
# table (no observer, an empty one, the metrics observer), without Google
# Benchmark's own lines.
#
# Usage: bench/observer_bench.sh BUILD_DIR
# Environment: OBSERVER_BENCH_MIN_TIME (seconds per repetition; default 0.3).
set -euo pipefail
build=${1:-build-bench}
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT
if ! output=$("$build/bench/observer_bench" --benchmark_min_time="${OBSERVER_BENCH_MIN_TIME:-0.3}" \
  --benchmark_color=false 2>"$errors"); then
  cat "$errors" >&2
  exit 1
fi
sed -n '/^== /,$p' <<<"$output"
