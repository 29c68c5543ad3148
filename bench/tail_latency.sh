#!/usr/bin/env bash
# Tail latency under an open-loop load (bench/open_loop_http.cc for HTTP,
# rpc_bench --open-loop for RPC): requests fall due at a fixed rate and each
# one's latency runs from its due time, so a stall is not hidden by a client
# that waited. HTTP keep-alive: our demo_server's /hello beside nginx with one
# worker, 50 connections. RPC: our echo beside gRPC's, at most 64 calls out.
# Each side's peak is measured closed-loop first; then p50, p99 and p99.9 at
# half of each side's own peak and at one common rate, three quarters of the
# lower peak, in the same run. Servers on CPU 0, the load on CPU 1.
#
# Usage: bench/tail_latency.sh BUILD_DIR
# Environment: TAIL_SECONDS (default 5, per run), TAIL_WARMUP (default 1),
# TAIL_CONNECTIONS (default 50).
set -euo pipefail

build=${1:?usage: tail_latency.sh BUILD_DIR}
seconds=${TAIL_SECONDS:-5}
warmup=${TAIL_WARMUP:-1}
connections=${TAIL_CONNECTIONS:-50}
demo="$build/examples/demo_server"
load="$build/bench/open_loop_http"
rpc="$build/bench/rpc_bench"
for tool in nginx taskset curl python3; do
  command -v "$tool" >/dev/null || { echo "tail_latency: $tool not found (scripts/install-deps --bench)" >&2; exit 1; }
done
for exe in "$demo" "$load" "$rpc"; do
  [[ -x "$exe" ]] || { echo "tail_latency: $exe not built" >&2; exit 1; }
done

source "$(dirname "$0")/lib.sh"
bench_workspace

read -r ours_port nginx_port < <(free_ports 2)

nginx_hello_conf "$work/nginx" "$nginx_port" 1024 75s

taskset -c 0 "$demo" --port "$ours_port" >"$work/demo.log" 2>&1 &
pids+=($!)
taskset -c 0 nginx -c "$work/nginx/nginx.conf" -p "$work/nginx" >"$work/nginx.log" 2>&1 &
pids+=($!)
for port in "$ours_port" "$nginx_port"; do
  for _ in $(seq 100); do
    if [[ "$(curl -s --max-time 2 "http://127.0.0.1:$port/hello" || true)" == "Hello, world!" ]]; then
      continue 2
    fi
    sleep 0.1
  done
  echo "tail_latency: the server on port $port never answered /hello" >&2
  cat "$work/demo.log" "$work/nginx/error.log" >&2 2>/dev/null || true
  exit 1
done

# One open-loop (or --peak) run; prints its RESULT line's fields.
run_load() {
  local port=$1
  shift
  taskset -c 1 "$load" --port "$port" --connections "$connections" --seconds "$seconds" \
    --warmup "$warmup" "$@" | sed -n 's/^RESULT //p'
}
field() { awk -v name="$2" '{ for (i = 1; i < NF; i++) if ($i == name) print $(i + 1) }' <<<"$1"; }

peak_ours=$(field "$(run_load "$ours_port" --peak)" achieved)
peak_nginx=$(field "$(run_load "$nginx_port" --peak)" achieved)
common=$(python3 -c "print(round(0.75 * min($peak_ours, $peak_nginx)))")
echo "== HTTP keep-alive /hello, open loop: $connections connections, one request out on each,"
echo "   latency from each request's due time; servers on CPU 0, load on CPU 1, ${seconds} s (+${warmup} s) per run"
echo "   peaks, closed loop: ours $peak_ours req/s, nginx $peak_nginx req/s; common rate $common req/s"
printf '%-24s %10s %10s %10s %10s %10s %7s\n' run rate/s achieved "p50 µs" "p99 µs" "p99.9 µs" errors
status=0
declare -A p99
for run in "ours half $(python3 -c "print(round($peak_ours / 2))") $ours_port" \
  "nginx half $(python3 -c "print(round($peak_nginx / 2))") $nginx_port" \
  "ours common $common $ours_port" "nginx common $common $nginx_port"; do
  read -r side kind rate port <<<"$run"
  result=$(run_load "$port" --rate "$rate") || status=1
  printf '%-24s %10s %10s %9s %9s %9s %7s\n' "$side, $kind" "$rate" "$(field "$result" achieved)" \
    "$(field "$result" p50)" "$(field "$result" p99)" "$(field "$result" p999)" "$(field "$result" errors)"
  p99[$side-$kind]=$(field "$result" p99)
done
python3 -c "print('p99 at the common rate, ours / nginx: %.2f' % (${p99[ours-common]} / ${p99[nginx-common]}))"

echo
taskset -c 1 "$rpc" --open-loop --seconds "$seconds" --warmup "$warmup" || status=1
exit $status
