#!/usr/bin/env bash
# The resilient channel against demo servers run as processes: calls/s and
# latency over one and three servers, kill -9 to the failure of the calls
# written to the killed server, calls lost in a rolling restart of three
# (bench/failover_bench.cc does the work).
#
# Usage: bench/failover_bench.sh BUILD_DIR
# Environment: FAILOVER_BENCH_SECONDS (default 2, per round), FAILOVER_BENCH_ROUNDS (default 3).
set -euo pipefail

build=${1:?usage: failover_bench.sh BUILD_DIR}
exe="$build/bench/failover_bench"
demo="$build/examples/demo_server"
[[ -x "$exe" ]] || { echo "failover_bench: $exe not built" >&2; exit 1; }
[[ -x "$demo" ]] || { echo "failover_bench: $demo not built" >&2; exit 1; }
exec "$exe" "$demo" --seconds "${FAILOVER_BENCH_SECONDS:-2}" --rounds "${FAILOVER_BENCH_ROUNDS:-3}"
