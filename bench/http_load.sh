#!/usr/bin/env bash
# HTTP load: our demo_server's /hello beside nginx with one worker serving the
# same body, one after the other in the same run. Both servers share CPU 0 and
# wrk runs alone on CPU 1, so each server gets one core, as our one event thread
# would. Prints requests/second for keep-alive and for 16-deep pipelining.
#
# The machine may be shared, so each server's time is split into rounds that
# alternate ours, nginx, nginx, ours, ...: outside load that comes and goes
# then falls on both alike. req/s is all of a server's requests over all its
# rounds' time; the rounds are printed too.
#
# Usage: bench/http_load.sh BUILD_DIR
# Environment: HTTP_LOAD_SECONDS (default 10, per server and test),
# HTTP_LOAD_ROUNDS (default 2), HTTP_LOAD_WARMUP (default 2),
# HTTP_LOAD_CONNECTIONS (default 50).
set -euo pipefail

build=${1:?usage: http_load.sh BUILD_DIR}
seconds=${HTTP_LOAD_SECONDS:-10}
rounds=${HTTP_LOAD_ROUNDS:-2}
warmup=${HTTP_LOAD_WARMUP:-2}
connections=${HTTP_LOAD_CONNECTIONS:-50}
server_cpu=0
client_cpu=1

demo="$build/examples/demo_server"
for tool in wrk nginx taskset curl python3; do
  command -v "$tool" >/dev/null || { echo "http_load: $tool not found (scripts/install-deps --bench)" >&2; exit 1; }
done
[[ -x "$demo" ]] || { echo "http_load: $demo not built" >&2; exit 1; }

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Two distinct free loopback ports: bind port 0 and read back what the kernel chose.
read -r our_port nginx_port < <(python3 - <<'EOF'
import socket
socks = [socket.socket() for _ in range(2)]
for s in socks:
    s.bind(("127.0.0.1", 0))
print(*(s.getsockname()[1] for s in socks))
EOF
)

mkdir -p "$work/nginx"
cat >"$work/nginx/nginx.conf" <<EOF
worker_processes 1;
daemon off;
master_process off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log warn;
events {
  worker_connections 1024;
}
http {
  access_log off;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  keepalive_requests 1000000;
  keepalive_timeout 75s;
  server {
    listen 127.0.0.1:$nginx_port;
    location = /hello {
      default_type text/plain;
      return 200 "Hello, world!\n";
    }
  }
}
EOF

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

taskset -c "$server_cpu" "$demo" --address 127.0.0.1 --port "$our_port" \
  >"$work/demo.log" 2>&1 &
pids+=($!)
taskset -c "$server_cpu" nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "$work/nginx/error.log" \
  >"$work/nginx.out" 2>&1 &
pids+=($!)

# Waits until NAME answers /hello exactly as expected, or fails with its log.
expect_hello() {
  local name=$1 port=$2 log=$3 got
  for _ in $(seq 100); do
    if got=$(curl -s --max-time 2 -o "$work/body" -w '%{http_code} %{content_type}' \
      "http://127.0.0.1:$port/hello"); then
      if [[ "$got" == "200 text/plain"* ]] && printf 'Hello, world!\n' | cmp -s - "$work/body"; then
        return 0
      fi
      echo "http_load: $name answered /hello with '$got' and body:" >&2
      od -c "$work/body" | head >&2
      exit 1
    fi
    sleep 0.1
  done
  echo "http_load: $name did not answer on port $port; its log:" >&2
  cat "$log" >&2
  exit 1
}
expect_hello ours "$our_port" "$work/demo.log"
expect_hello nginx "$nginx_port" "$work/nginx/error.log"

# Runs wrk against PORT; prints "requests microseconds". Any socket error or non-2xx
# answer fails the whole benchmark: a fast server that drops requests is no win.
run_wrk() {
  local name=$1 port=$2 script=$3 duration=$4 out
  out=$(taskset -c "$client_cpu" wrk -t1 -c"$connections" -d"${duration}s" --timeout 5s \
    -s "$script" "http://127.0.0.1:$port/hello" 2>&1) || {
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

# Requests per second from "requests microseconds" pairs summed up.
rate() {
  python3 -c "print(f'{$1 / ($2 / 1e6):.0f}')"
}

# Each server must still be alive after the runs: a crash under load shows up
# as connection errors above, but check explicitly so the message says so.
check_alive() {
  local name=$1 pid=$2 log=$3
  if ! kill -0 "$pid" 2>/dev/null; then
    echo "http_load: $name exited during the benchmark; its log:" >&2
    cat "$log" >&2
    exit 1
  fi
}

# wrk takes whole seconds.
round_seconds=$(((seconds + rounds - 1) / rounds))
seconds=$((round_seconds * rounds))
declare -A requests micros per_round
for test in keepalive pipelined16; do
  script="$work/summary.lua"
  [[ $test == pipelined16 ]] && script="$work/pipeline.lua"
  for server in ours nginx; do
    port=$our_port
    [[ $server == nginx ]] && port=$nginx_port
    run_wrk "$server" "$port" "$script" "$warmup" >/dev/null
    requests[$test,$server]=0
    micros[$test,$server]=0
    per_round[$test,$server]=""
  done
  for ((round = 0; round < rounds; ++round)); do
    order="ours nginx"
    ((round % 2)) && order="nginx ours"
    for server in $order; do
      port=$our_port
      [[ $server == nginx ]] && port=$nginx_port
      measured=$(run_wrk "$server" "$port" "$script" "$round_seconds")
      read -r got took <<<"$measured"
      requests[$test,$server]=$((requests[$test,$server] + got))
      micros[$test,$server]=$((micros[$test,$server] + took))
      per_round[$test,$server]+=" $(rate "$got" "$took")"
    done
  done
  check_alive ours "${pids[0]}" "$work/demo.log"
  check_alive nginx "${pids[1]}" "$work/nginx/error.log"
done
expect_hello ours "$our_port" "$work/demo.log"

echo "== HTTP /hello, one server core (CPU $server_cpu), wrk -t1 -c$connections on CPU $client_cpu," \
  "${seconds}s per server and test in $rounds alternating rounds"
printf '%-22s %14s %14s %8s\n' test "ours req/s" "nginx req/s" ratio
for test in keepalive pipelined16; do
  ours=$(rate "${requests[$test,ours]}" "${micros[$test,ours]}")
  peer=$(rate "${requests[$test,nginx]}" "${micros[$test,nginx]}")
  label="keep-alive"
  [[ $test == pipelined16 ]] && label="pipelined (16 deep)"
  printf '%-22s %14s %14s %8s\n' "$label" "$ours" "$peer" \
    "$(python3 -c "print(f'{$ours / $peer:.2f}')")"
done
echo "req/s per round"
for test in keepalive pipelined16; do
  for server in ours nginx; do
    echo "  $test, $server:${per_round[$test,$server]}"
  done
done
