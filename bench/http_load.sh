#!/usr/bin/env bash
# HTTP load: our demo_server's /hello beside nginx with one worker serving the
# same body, and beside the floor (bench/floor/floor_server: no parsing, every
# request end answered with the demo's own /hello answer, captured from it at
# start), one after the other in the same run. The servers share CPU 0 and wrk
# runs alone on CPU 1, so each server gets one core, as our one event thread
# would. For keep-alive and for 16-deep pipelining it prints requests/second
# and the server's CPU time per request (user + system from /proc/PID/stat,
# read before and after each measured run, over the requests served), each
# with the ratios between the three.
#
# The machine may be shared, so each server's time is split into rounds whose
# order rotates (ours nginx floor, nginx floor ours, ...): outside load that
# comes and goes then falls on all alike. req/s is all of a server's requests
# over all its rounds' time, CPU per request all its rounds' CPU over all their
# requests; the rounds are printed too.
#
# The demo runs as it does by default; DEMO_ARGS adds arguments (for example
# DEMO_ARGS=--no-hardening).
#
# Usage: bench/http_load.sh BUILD_DIR
# Environment: HTTP_LOAD_SECONDS (default 10, per server and test),
# HTTP_LOAD_ROUNDS (default 2), HTTP_LOAD_WARMUP (default 2),
# HTTP_LOAD_CONNECTIONS (default 50), DEMO_ARGS (default none).
set -euo pipefail

build=${1:?usage: http_load.sh BUILD_DIR}
seconds=${HTTP_LOAD_SECONDS:-10}
rounds=${HTTP_LOAD_ROUNDS:-2}
warmup=${HTTP_LOAD_WARMUP:-2}
connections=${HTTP_LOAD_CONNECTIONS:-50}
read -ra demo_args <<<"${DEMO_ARGS:-}"
server_cpu=0
client_cpu=1
servers=(ours nginx floor)

demo="$build/examples/demo_server"
floor="$build/bench/floor/floor_server"
for tool in wrk nginx taskset curl python3 getconf; do
  command -v "$tool" >/dev/null || { echo "http_load: $tool not found (scripts/install-deps --bench)" >&2; exit 1; }
done
for exe in "$demo" "$floor"; do
  [[ -x "$exe" ]] || { echo "http_load: $exe not built" >&2; exit 1; }
done
clock_ticks=$(getconf CLK_TCK)

source "$(dirname "$0")/lib.sh"
bench_workspace

# Three distinct free loopback ports.
declare -A port pid log
read -r 'port[ours]' 'port[nginx]' 'port[floor]' < <(free_ports 3)
log[ours]=$work/demo.log
log[nginx]=$work/nginx/error.log
log[floor]=$work/floor.log

nginx_hello_conf "$work/nginx" "${port[nginx]}" 1024 75s

# wrk scripts. done() prints a machine-readable summary line; defining only
# done() keeps wrk on its fast path (no Lua call per request or response).
cat >"$work/summary.lua" <<'EOF'
done = function(summary, latency, requests)
  local e = summary.errors
  io.write(string.format("SUMMARY %d %d %d %d %d %d %d %d\n", summary.requests,
    summary.duration, e.connect, e.read, e.write, e.status, e.timeout, summary.bytes))
end
EOF
# Sixteen requests in one write; wrk counts each response separately.
cat >"$work/pipeline.lua" <<'EOF'
init = function(args)
  local batch = {}
  for i = 1, 16 do
    batch[i] = wrk.format(nil, "/hello")
  end
  pipelined = table.concat(batch)
end
request = function()
  return pipelined
end
EOF
cat "$work/summary.lua" >>"$work/pipeline.lua"

# Waits until NAME answers /hello exactly as expected, or fails with its log.
expect_hello() {
  local name=$1 got
  for _ in $(seq 100); do
    if got=$(curl -s --max-time 2 -o "$work/body" -w '%{http_code} %{content_type}' \
      "http://127.0.0.1:${port[$name]}/hello"); then
      if [[ "$got" == "200 text/plain"* ]] && printf 'Hello, world!\n' | cmp -s - "$work/body"; then
        return 0
      fi
      echo "http_load: $name answered /hello with '$got' and body:" >&2
      od -c "$work/body" | head >&2
      exit 1
    fi
    sleep 0.1
  done
  echo "http_load: $name did not answer on port ${port[$name]}; its log:" >&2
  cat "${log[$name]}" >&2
  exit 1
}

taskset -c "$server_cpu" "$demo" --address 127.0.0.1 --port "${port[ours]}" \
  ${demo_args[@]+"${demo_args[@]}"} >"${log[ours]}" 2>&1 &
pid[ours]=$!
pids+=($!)
taskset -c "$server_cpu" nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "${log[nginx]}" \
  >"$work/nginx.out" 2>&1 &
pid[nginx]=$!
pids+=($!)
expect_hello ours
expect_hello nginx

# The floor answers with exactly the bytes the demo sends for one GET /hello.
python3 - "${port[ours]}" "$work/hello.bin" <<'EOF'
import socket, sys
port, path = int(sys.argv[1]), sys.argv[2]
s = socket.create_connection(("127.0.0.1", port), timeout=5)
s.sendall(f"GET /hello HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode())
got = b""
while True:
    head = got.find(b"\r\n\r\n")
    if head >= 0:
        fields = [line.split(b":", 1) for line in got[:head].split(b"\r\n")[1:]]
        lengths = [int(v) for k, v in fields if k.strip().lower() == b"content-length"]
        if len(lengths) != 1:
            sys.exit(f"http_load: the demo's /hello answer has no single Content-Length: {got!r}")
        if len(got) >= head + 4 + lengths[0]:
            break
    chunk = s.recv(4096)
    if not chunk:
        sys.exit(f"http_load: the demo closed the connection after {got!r}")
    got += chunk
if len(got) != head + 4 + lengths[0]:
    sys.exit(f"http_load: more than one answer from the demo to one /hello: {got!r}")
open(path, "wb").write(got)
EOF
taskset -c "$server_cpu" "$floor" --port "${port[floor]}" --answer "$work/hello.bin" \
  >"${log[floor]}" 2>&1 &
pid[floor]=$!
pids+=($!)
expect_hello floor

# Runs wrk against a server; prints "requests microseconds". Any socket error or
# non-2xx answer fails the whole benchmark: a fast server that drops requests
# is no win.
run_wrk() {
  local name=$1 script=$2 duration=$3 out
  out=$(taskset -c "$client_cpu" wrk -t1 -c"$connections" -d"${duration}s" --timeout 5s \
    -s "$script" "http://127.0.0.1:${port[$name]}/hello" 2>&1) || {
    echo "http_load: wrk against $name failed:" >&2
    echo "$out" >&2
    exit 1
  }
  local summary
  summary=$(grep '^SUMMARY ' <<<"$out") || {
    echo "http_load: no summary from wrk against $name:" >&2
    echo "$out" >&2
    exit 1
  }
  local requests micros connect read write status timeout bytes
  read -r _ requests micros connect read write status timeout bytes <<<"$summary"
  if ((requests == 0 || connect + read + write + status + timeout > 0)); then
    echo "http_load: $name: $requests requests, errors: connect $connect read $read" \
      "write $write non-2xx/3xx $status timeout $timeout" >&2
    echo "$out" >&2
    exit 1
  fi
  echo "$requests $micros"
}

# Each server must still be alive after the runs: a crash under load shows up
# as connection errors above, but check explicitly so the message says so.
check_alive() {
  local name=$1
  if ! kill -0 "${pid[$name]}" 2>/dev/null; then
    echo "http_load: $name exited during the benchmark; its log:" >&2
    cat "${log[$name]}" >&2
    exit 1
  fi
}

# wrk takes whole seconds.
round_seconds=$(((seconds + rounds - 1) / rounds))
seconds=$((round_seconds * rounds))
declare -A requests micros ticks per_round
for test in keepalive pipelined16; do
  script="$work/summary.lua"
  [[ $test == pipelined16 ]] && script="$work/pipeline.lua"
  for server in "${servers[@]}"; do
    run_wrk "$server" "$script" "$warmup" >/dev/null
    requests[$test,$server]=0
    micros[$test,$server]=0
    ticks[$test,$server]=0
    per_round[$test,$server]=""
  done
  for ((round = 0; round < rounds; ++round)); do
    for ((k = 0; k < ${#servers[@]}; ++k)); do
      server=${servers[(round + k) % ${#servers[@]}]}
      before=$(cpu_ticks "${pid[$server]}")
      measured=$(run_wrk "$server" "$script" "$round_seconds")
      after=$(cpu_ticks "${pid[$server]}")
      read -r got took <<<"$measured"
      requests[$test,$server]=$((requests[$test,$server] + got))
      micros[$test,$server]=$((micros[$test,$server] + took))
      ticks[$test,$server]=$((ticks[$test,$server] + after - before))
      per_round[$test,$server]+=" $((got * 1000000 / took))"
    done
  done
  for server in "${servers[@]}"; do
    check_alive "$server"
  done
done
expect_hello ours

label() {
  case $1 in
    keepalive) echo "keep-alive" ;;
    pipelined16) echo "pipelined (16 deep)" ;;
  esac
}

# Figures per test and server: req/s, and server CPU µs per request.
declare -A rate cpu
for test in keepalive pipelined16; do
  for server in "${servers[@]}"; do
    rate[$test,$server]=$(calc 'f"{a[0] / (a[1] / 1e6):.0f}"' \
      "${requests[$test,$server]}" "${micros[$test,$server]}")
    cpu[$test,$server]=$(calc 'f"{a[0] * 1e6 / a[1] / a[2]:.2f}"' \
      "${ticks[$test,$server]}" "$clock_ticks" "${requests[$test,$server]}")
  done
done

# One table: the three servers' figures and the ratios of ours to nginx, ours
# to the floor and nginx to the floor.
table() {
  local -n figures=$1
  local what=$2
  # printf pads by bytes, and "µ" takes two.
  local wide=12
  [[ $what == *µ* ]] && wide=13
  printf "%-20s %${wide}s %${wide}s %${wide}s %11s %11s %11s\n" test "ours $what" "nginx $what" \
    "floor $what" ours/nginx ours/floor nginx/floor
  for test in keepalive pipelined16; do
    local ours=${figures[$test,ours]} nginx=${figures[$test,nginx]} floor=${figures[$test,floor]}
    printf '%-20s %12s %12s %12s %11s %11s %11s\n' "$(label $test)" "$ours" "$nginx" "$floor" \
      "$(calc 'f"{a[0] / a[1]:.2f}"' "$ours" "$nginx")" \
      "$(calc 'f"{a[0] / a[1]:.2f}"' "$ours" "$floor")" \
      "$(calc 'f"{a[0] / a[1]:.2f}"' "$nginx" "$floor")"
  done
}

echo "== HTTP /hello, one server core (CPU $server_cpu), wrk -t1 -c$connections on CPU $client_cpu," \
  "${seconds}s per server and test in $rounds rotating rounds"
echo "   ours: demo_server${DEMO_ARGS:+ $DEMO_ARGS}; nginx: 1 worker; floor: counts request ends," \
  "answers each with the demo's $(stat -c %s "$work/hello.bin")-byte /hello answer"
table rate "req/s"
echo
echo "server CPU (user + system) per request, µs; lower is better"
table cpu "µs/req"
echo
echo "req/s per round"
for test in keepalive pipelined16; do
  for server in "${servers[@]}"; do
    echo "  $test, $server:${per_round[$test,$server]}"
  done
done
