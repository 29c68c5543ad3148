#!/usr/bin/env bash
# The large-message echo: our RPC beside gRPC C++ and beside the floor (the
# same bytes echoed over one loopback connection by a program that only reads
# and writes them back), 64 KiB, 1 MiB and 16 MiB of bytes at 1 and 8 calls in
# flight; MB/s, server CPU per MB and peak server memory per byte in flight
# (bench/rpc_bench.cc --payloads does the work and the pinning).
#
# Usage: bench/large_messages.sh BUILD_DIR
# Environment: LARGE_BENCH_SECONDS (default 2, per round), LARGE_BENCH_WARMUP
# (default 0.5), LARGE_BENCH_ROUNDS (default 2), LARGE_BENCH_PAYLOADS (default
# 65536,1048576,16777216), LARGE_BENCH_IN_FLIGHT (default 1,8).
set -euo pipefail

build=${1:?usage: large_messages.sh BUILD_DIR}
exe="$build/bench/rpc_bench"
[[ -x "$exe" ]] || { echo "large_messages: $exe not built" >&2; exit 1; }
"$exe" --payloads "${LARGE_BENCH_PAYLOADS:-65536,1048576,16777216}" \
  --in-flight "${LARGE_BENCH_IN_FLIGHT:-1,8}" --seconds "${LARGE_BENCH_SECONDS:-2}" \
  --warmup "${LARGE_BENCH_WARMUP:-0.5}" --rounds "${LARGE_BENCH_ROUNDS:-2}"
