#!/usr/bin/env bash
# Tail latency under an open-loop load (bench/open_loop_http.cc for HTTP,
# rpc_bench --open-loop for RPC): requests fall due at a fixed rate and each
# one's latency runs from its due time, so a stall is not hidden by a client
# that waited. HTTP keep-alive: our demo_server's /hello beside nginx with one
# worker, 50 connections. RPC: our echo beside gRPC's, at most 64 calls out.
# Each side's peak is measured closed-loop first; then p50, p99 and p99.9 at
# half of each side's own peak and at one common rate, three quarters of the
# lower peak, in the same run, the two HTTP servers alternating over several
# rounds. Servers on CPU 0, the load on CPU 1.
#
# Usage: bench/tail_latency.sh BUILD_DIR
# Environment: TAIL_SECONDS (default 4, per run), TAIL_WARMUP (default 1),
# TAIL_CONNECTIONS (default 50), TAIL_ROUNDS (default 3, HTTP).
set -euo pipefail

build=${1:?usage: tail_latency.sh BUILD_DIR}
seconds=${TAIL_SECONDS:-4}
rounds=${TAIL_ROUNDS:-3}
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

# The machine may be shared: a burst of other work that lands on one side's
# only run would decide the comparison. So the two sides run in alternating
# order, round after round, and each side's latencies are pooled over its
# rounds. Peaks: two closed-loop runs each, alternating, the higher of each.
port_of() { if [[ $1 == ours ]]; then echo "$ours_port"; else echo "$nginx_port"; fi; }
pid_of() { if [[ $1 == ours ]]; then echo "${pids[0]}"; else echo "${pids[1]}"; fi; }
declare -A peak=([ours]=0 [nginx]=0)
for side in ours nginx nginx ours; do
  got=$(field "$(run_load "$(port_of "$side")" --peak)" achieved)
  peak[$side]=$(python3 -c "print(max(${peak[$side]}, ${got:-0}))")
done
common=$(python3 -c "print(round(0.75 * min(${peak[ours]}, ${peak[nginx]})))")
declare -A rate=([ours-half]=$(python3 -c "print(round(${peak[ours]} / 2))")
  [nginx-half]=$(python3 -c "print(round(${peak[nginx]} / 2))")
  [ours-common]=$common [nginx-common]=$common)
echo "== HTTP keep-alive /hello, open loop: $connections connections, one request out on each,"
echo "   latency from each request's due time; servers on CPU 0, load on CPU 1;"
echo "   $rounds rounds of ${seconds} s (+${warmup} s) per run, the two sides alternating, samples pooled"
echo "   peaks, closed loop (better of two): ours ${peak[ours]} req/s, nginx ${peak[nginx]} req/s;" \
  "common rate $common req/s"
status=0
errors=0
# Server CPU ticks spent in the common-rate runs, per side: at a rate both
# share, the server that needs more CPU per request runs nearer its limit and
# keeps a backlog longer after any preemption.
declare -A common_ticks=([ours]=0 [nginx]=0)
for round in $(seq "$rounds"); do
  order="ours nginx"
  ((round % 2 == 0)) && order="nginx ours"
  for side in $order; do
    for kind in half common; do
      before=$(cpu_ticks "$(pid_of "$side")")
      result=$(run_load "$(port_of "$side")" --rate "${rate[$side-$kind]}" \
        --samples "$work/$side-$kind-$round") || status=1
      if [[ $kind == common ]]; then
        common_ticks[$side]=$((common_ticks[$side] + $(cpu_ticks "$(pid_of "$side")") - before))
      fi
      # No result line at all counts as a failed run.
      failed=$(field "$result" errors)
      errors=$((errors + ${failed:-1}))
    done
  done
done
python3 - "$work" "$rounds" "${rate[ours-half]}" "${rate[nginx-half]}" "$common" "$errors" \
  "${common_ticks[ours]}" "${common_ticks[nginx]}" "$(getconf CLK_TCK)" "$seconds" "$warmup" <<'EOF'
import array, math, os, sys
work, rounds = sys.argv[1], int(sys.argv[2])
rates = {"ours-half": sys.argv[3], "nginx-half": sys.argv[4],
         "ours-common": sys.argv[5], "nginx-common": sys.argv[5]}
def load(name):
    samples = array.array("d")
    path = os.path.join(work, name)
    if os.path.exists(path):
        with open(path, "rb") as f:
            samples.frombytes(f.read())
    return sorted(samples)
def pct(s, q):
    return s[min(len(s), max(1, math.ceil(q * len(s)))) - 1] if s else float("nan")
print("%-14s %7s %8s %7s %7s %7s %7s %7s %7s   %s" % ("run (µs)", "rate/s", "samples", "p50",
      "p90", "p99", "p99.9", "p99.99", "max", "p99 of each round"))
pooled = {}
for key in ("ours-half", "nginx-half", "ours-common", "nginx-common"):
    per_round = [load("%s-%d" % (key, r)) for r in range(1, rounds + 1)]
    s = sorted(x for run in per_round for x in run)
    pooled[key] = s
    print("%-14s %7s %8d %7.0f %7.0f %7.0f %7.0f %7.0f %7.0f   %s" % (
        key.replace("-", ", "), rates[key], len(s), pct(s, .5), pct(s, .9), pct(s, .99),
        pct(s, .999), pct(s, .9999), s[-1] if s else float("nan"),
        " ".join("%.0f" % pct(run, .99) for run in per_round)))
print("p99 at the common rate, ours / nginx, pooled: %.2f; errors: %s" % (
    pct(pooled["ours-common"], .99) / pct(pooled["nginx-common"], .99), sys.argv[6]))
# Over every request of those runs, warm-up included.
tick_us = 1e6 / float(sys.argv[9])
sent = float(sys.argv[5]) * (float(sys.argv[10]) + float(sys.argv[11])) * rounds
print("server CPU per request at the common rate (µs): ours %.2f, nginx %.2f" % (
    int(sys.argv[7]) * tick_us / sent, int(sys.argv[8]) * tick_us / sent))
EOF
[[ $errors -eq 0 ]] || status=1

echo
taskset -c 1 "$rpc" --open-loop --seconds "$seconds" --warmup "$warmup" || status=1
exit $status
