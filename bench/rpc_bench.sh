#!/usr/bin/env bash
# RPC echo load: our RPCChannel and HttpServer beside gRPC C++, 1 and 64 calls
# in flight on one channel (bench/rpc_bench.cc does the work and the pinning).
#
# Usage: bench/rpc_bench.sh BUILD_DIR
# Environment: RPC_BENCH_SECONDS (default 2, per round), RPC_BENCH_WARMUP
# (default 0.5), RPC_BENCH_ROUNDS (default 3).
#
# It also measures what TLS costs a call (TLS 1.3, ECDSA P-256), with
# certificates made for the run by scripts/make-test-certs.
set -euo pipefail

build=${1:?usage: rpc_bench.sh BUILD_DIR}
exe="$build/bench/rpc_bench"
[[ -x "$exe" ]] || { echo "rpc_bench: $exe not built" >&2; exit 1; }
certs=$(mktemp -d)
trap 'rm -rf "$certs"' EXIT
"$(dirname "$0")/../scripts/make-test-certs" "$certs"
RPC_BENCH_TLS_DIR=$certs "$exe" --seconds "${RPC_BENCH_SECONDS:-2}" --warmup "${RPC_BENCH_WARMUP:-0.5}" \
  --rounds "${RPC_BENCH_ROUNDS:-3}"
