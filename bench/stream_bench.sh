#!/usr/bin/env bash
# Answers that come later and answers that stream: bench/async_handler_bench.cc's
# table (a plain handler beside an async one, ns per request) and
# bench/sse_fanout.cc's (memory per Server-Sent Events stream beyond an idle
# connection, and the time one event takes to reach every client).
#
# Usage: bench/stream_bench.sh BUILD_DIR
# Environment: ASYNC_BENCH_MIN_TIME (seconds per repetition; default 0.3),
# ASYNC_BENCH_ROUNDS (interleaved turns; default 500), SSE_CLIENTS (default
# 10000).
set -euo pipefail
build=${1:-build-bench}
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT
if ! output=$("$build/bench/async_handler_bench" \
  --benchmark_min_time="${ASYNC_BENCH_MIN_TIME:-0.3}" --benchmark_color=false 2>"$errors"); then
  cat "$errors" >&2
  exit 1
fi
sed -n '/^== /,$p' <<<"$output"
# The same three in interleaved turns: the ratios to hold on to where the
# machine is shared.
"$build/bench/async_handler_bench" --interleaved="${ASYNC_BENCH_ROUNDS:-500}"
"$build/bench/sse_fanout" "${SSE_CLIENTS:-10000}"
