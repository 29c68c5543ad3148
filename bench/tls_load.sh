#!/usr/bin/env bash
# HTTPS load: our demo_server beside nginx (one worker) on the same
# certificate (ECDSA P-256, made for the run by scripts/make-test-certs),
# both limited to TLS 1.3, with the pinning of bench/http_load.sh (servers on
# CPU 0, the client alone on CPU 1). Prints, side by side from one run:
#   keep-alive GET /hello over TLS: requests/s (wrk) and the server's CPU
#     (user + system, /proc/PID/stat) per request;
#   new connections per second, a full handshake each (openssl s_time -new,
#     which makes a new session every time), and the server's CPU per one;
#   memory per idle TLS connection: RSS growth while TLS_IDLE_CONNECTIONS
#     connections, each having made one request, sit open (the first 200 warm
#     up);
#   each round's keep-alive ratio, and (with perf) what each server asks of
#   the kernel per keep-alive request: system calls, reads, writes, epoll
#   waits, context switches.
# Rounds rotate the order (ours nginx, nginx ours, ...) so that outside load on
# a shared machine falls on both alike.
#
# Usage: bench/tls_load.sh BUILD_DIR
# Environment: TLS_LOAD_SECONDS (default 10, per server and test),
# TLS_LOAD_ROUNDS (default 2), TLS_LOAD_CONNECTIONS (default 50),
# TLS_IDLE_CONNECTIONS (default 10000).
set -euo pipefail

build=${1:?usage: tls_load.sh BUILD_DIR}
seconds=${TLS_LOAD_SECONDS:-10}
rounds=${TLS_LOAD_ROUNDS:-2}
connections=${TLS_LOAD_CONNECTIONS:-50}
idle=${TLS_IDLE_CONNECTIONS:-10000}
root=$(cd "$(dirname "$0")/.." && pwd)
demo="$build/examples/demo_server"
for tool in wrk nginx taskset curl python3 openssl getconf; do
  command -v "$tool" >/dev/null || { echo "tls_load: $tool not found (scripts/install-deps --bench)" >&2; exit 1; }
done
[[ -x "$demo" ]] || { echo "tls_load: $demo not built" >&2; exit 1; }
clock_ticks=$(getconf CLK_TCK)

source "$root/bench/lib.sh"
bench_workspace
"$root/scripts/make-test-certs" "$work/certs"
certs=$work/certs
ulimit -n "$((idle + 1000))" 2>/dev/null || ulimit -n "$(ulimit -Hn)"

declare -A port pid
read -r 'port[ours]' 'port[nginx]' < <(free_ports 2)

nginx_hello_conf "$work/nginx" "${port[nginx]}" "$((idle + 500))" 300s ssl \
  "ssl_certificate $certs/server.pem;" "ssl_certificate_key $certs/server-key.pem;" \
  "ssl_protocols TLSv1.3;"

# The demo as it runs by default (hardened), with only TLS 1.3 offered by the
# client side of every test, as nginx is limited to it.
taskset -c 0 "$demo" --port "${port[ours]}" --tls-cert "$certs/server.pem" \
  --tls-key "$certs/server-key.pem" >"$work/demo.log" 2>&1 &
pid[ours]=$!
pids+=($!)
taskset -c 0 nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "$work/nginx/error.log" \
  >"$work/nginx.out" 2>&1 &
pid[nginx]=$!
pids+=($!)
for name in ours nginx; do
  up=false
  for _ in $(seq 100); do
    if [[ $(curl -s --tlsv1.3 --cacert "$certs/ca.pem" "https://127.0.0.1:${port[$name]}/hello") == "Hello, world!" ]]; then
      up=true
      break
    fi
    sleep 0.1
  done
  $up || { echo "tls_load: $name does not answer over TLS" >&2; cat "$work/demo.log" "$work/nginx/error.log" >&2; exit 1; }
done


cat >"$work/summary.lua" <<'EOF'
done = function(summary, latency, requests)
  local e = summary.errors
  io.write(string.format("SUMMARY %d %d %d\n", summary.requests, summary.duration,
    e.connect + e.read + e.write + e.status + e.timeout))
end
EOF

# Ticks CPU $1 spent on anything (all of /proc/stat's fields but idle and
# iowait).
cpu_busy_ticks() {
  local -a f
  read -ra f < <(grep "^cpu$1 " /proc/stat)
  echo $((f[1] + f[2] + f[3] + f[6] + f[7] + f[8]))
}

# keep-alive: prints "requests microseconds client-CPU-seconds" (wrk's own
# user + system time: what the server makes the client do per answer).
run_wrk() {
  local name=$1 duration=$2 out summary requests micros errors user system
  out=$(/usr/bin/time -f 'CLIENT_CPU %U %S' taskset -c 1 wrk -t1 -c"$connections" \
    -d"${duration}s" --timeout 5s -s "$work/summary.lua" \
    "https://127.0.0.1:${port[$name]}/hello" 2>&1) || { echo "tls_load: wrk failed: $out" >&2; exit 1; }
  summary=$(grep '^SUMMARY ' <<<"$out") || { echo "tls_load: no summary: $out" >&2; exit 1; }
  read -r _ requests micros errors <<<"$summary"
  ((requests > 0 && errors == 0)) || { echo "tls_load: $name: errors under load: $out" >&2; exit 1; }
  read -r _ user system <<<"$(grep '^CLIENT_CPU ' <<<"$out")"
  echo "$requests $micros $(calc 'a[0] + a[1]' "$user" "$system")"
}

# new connections: prints "connections seconds".
run_s_time() {
  local name=$1 duration=$2 out
  out=$(taskset -c 1 openssl s_time -connect "127.0.0.1:${port[$name]}" -new -tls1_3 \
    -time "$duration" -CAfile "$certs/ca.pem" 2>&1) || { echo "tls_load: s_time failed: $out" >&2; exit 1; }
  # "N connections in T.TTs; ..."
  grep -oE '^[0-9]+ connections in [0-9.]+s' <<<"$out" | head -1 | awk '{print $1, $4}' | tr -d s
}

round_seconds=$(((seconds + rounds - 1) / rounds))
declare -A total took ticks rate_of client busy_of cores_of
client=([ours]=0 [nginx]=0)
for test in keepalive handshake; do
  for name in ours nginx; do
    total[$test,$name]=0
    took[$test,$name]=0
    ticks[$test,$name]=0
  done
  servers=(ours nginx)
  for ((round = 0; round < rounds; ++round)); do
    for ((k = 0; k < 2; ++k)); do
      name=${servers[(round + k) % 2]}
      before=$(cpu_ticks "${pid[$name]}")
      before_cpus="$(cpu_busy_ticks 0) $(cpu_busy_ticks 1)"
      if [[ $test == keepalive ]]; then
        read -r got micros client_seconds < <(run_wrk "$name" "$round_seconds")
        client[$name]=$(calc 'a[0] + a[1]' "${client[$name]}" "$client_seconds")
      else
        read -r got secs < <(run_s_time "$name" "$round_seconds")
        micros=$(calc 'int(a[0] * 1e6)' "$secs")
      fi
      after=$(cpu_ticks "${pid[$name]}")
      read -r cpu0 cpu1 <<<"$before_cpus"
      # How busy each core was in the round, whoever used it: the server's
      # core beyond the server, or the client's beyond wrk, is other load.
      cores_of[$test,$round,$name]=$(calc 'f"{a[0] / a[2] / (a[3] / 1e6):.2f}+{a[1] / a[2] / (a[3] / 1e6):.2f}"' \
        "$(($(cpu_busy_ticks 0) - cpu0))" "$(($(cpu_busy_ticks 1) - cpu1))" "$clock_ticks" "$micros")
      rate_of[$test,$round,$name]=$(calc 'a[0] / (a[1] / 1e6)' "$got" "$micros")
      # How much of the round the server was busy.
      busy_of[$test,$round,$name]=$(calc 'f"{a[0] / a[1] / (a[2] / 1e6):.2f}"' \
        "$((after - before))" "$clock_ticks" "$micros")
      total[$test,$name]=$((total[$test,$name] + got))
      took[$test,$name]=$((took[$test,$name] + micros))
      ticks[$test,$name]=$((ticks[$test,$name] + after - before))
    done
  done
done

# Per keep-alive request, what each server asks of the kernel, from a run of
# its own (perf adds a little to every system call, so its rate is not
# used): system calls, reads, writes, epoll waits and context switches.
# Needs perf with tracepoints; skipped without.
profile_events="task-clock,context-switches,raw_syscalls:sys_enter"
for call in read write recvfrom sendto recvmsg sendmsg readv writev epoll_wait; do
  profile_events+=",syscalls:sys_enter_$call"
done
declare -A profile
profile_ok=false
if command -v perf >/dev/null && perf stat -e "$profile_events" -o /dev/null true 2>/dev/null; then
  profile_ok=true
fi
profile_server() {
  local name=$1 out requests
  perf stat -x, -e "$profile_events" -p "${pid[$name]}" -o "$work/perf.$name" &
  local perf_pid=$!
  sleep 0.2
  out=$(taskset -c 1 wrk -t1 -c"$connections" -d2s --timeout 5s -s "$work/summary.lua" \
    "https://127.0.0.1:${port[$name]}/hello" 2>&1)
  kill -INT "$perf_pid"
  wait "$perf_pid" || true
  read -r _ requests _ _ <<<"$(grep '^SUMMARY ' <<<"$out")"
  python3 - "$work/perf.$name" "$requests" <<'PY'
import sys
counts = {}
for line in open(sys.argv[1]):
    fields = line.strip().split(",")
    if len(fields) > 2 and fields[0].replace(".", "").isdigit():
        counts[fields[2].split(":")[-1].replace("sys_enter_", "")] = float(fields[0])
requests = int(sys.argv[2])
reads = sum(counts.get(c, 0) for c in ("read", "recvfrom", "recvmsg", "readv"))
writes = sum(counts.get(c, 0) for c in ("write", "sendto", "sendmsg", "writev"))
print(f"{counts['sys_enter'] / requests:.2f} {reads / requests:.2f} {writes / requests:.2f} "
      f"{counts['epoll_wait'] / requests:.3f} {counts['context-switches'] / requests:.3f}")
PY
}
if $profile_ok; then
  for name in ours nginx; do
    read -r "profile[$name,calls]" "profile[$name,reads]" "profile[$name,writes]" \
      "profile[$name,waits]" "profile[$name,switches]" \
      < <(profile_server "$name")
  done
fi

# Idle TLS connections: RSS growth of one server while they are open.
idle_bytes() {
  python3 - "$1" "$2" "$idle" "$certs/ca.pem" <<'PY'
import resource, socket, ssl, sys, time
pid, port, count, ca = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, count + 1000), hard))
context = ssl.create_default_context(cafile=ca)
context.minimum_version = ssl.TLSVersion.TLSv1_3
def rss_kib():
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
request = b"GET /hello HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"
def open_idle(n):
    socks = []
    for _ in range(n):
        s = context.wrap_socket(socket.create_connection(("127.0.0.1", port)),
                                server_hostname="127.0.0.1")
        s.sendall(request)
        got = b""
        while not got.endswith(b"Hello, world!\n"):
            chunk = s.recv(4096)
            if not chunk:
                sys.exit("tls_load: a connection closed before its answer")
            got += chunk
        socks.append(s)
    return socks
warm = open_idle(200)
time.sleep(0.5)
before = rss_kib()
socks = open_idle(count - 200)
time.sleep(0.5)
print(round((rss_kib() - before) * 1024 / (count - 200)))
PY
}
declare -A idle_per
for name in ours nginx; do
  idle_per[$name]=$(idle_bytes "${pid[$name]}" "${port[$name]}")
done

declare -A rate cpu
for test in keepalive handshake; do
  for name in ours nginx; do
    rate[$test,$name]=$(calc 'f"{a[0] / (a[1] / 1e6):.0f}"' "${total[$test,$name]}" "${took[$test,$name]}")
    cpu[$test,$name]=$(calc 'f"{a[0] * 1e6 / a[1] / a[2]:.1f}"' "${ticks[$test,$name]}" \
      "$clock_ticks" "${total[$test,$name]}")
  done
done

echo "== HTTPS (TLS 1.3, ECDSA P-256), one server core (CPU 0), client on CPU 1," \
  "${round_seconds}s x $rounds rotating rounds per server and test"
echo "   ours: demo_server --tls-cert/--tls-key (hardened); nginx: 1 worker, ssl_protocols TLSv1.3"
printf "%-34s %12s %12s %11s\n" test ours nginx ours/nginx
row() {
  printf "%-34s %12s %12s %11s\n" "$1" "$2" "$3" "$(calc 'f"{a[0] / a[1]:.2f}"' "$2" "$3")"
}
row "keep-alive req/s (wrk -c$connections)" "${rate[keepalive,ours]}" "${rate[keepalive,nginx]}"
row "keep-alive server CPU µs/req" "${cpu[keepalive,ours]}" "${cpu[keepalive,nginx]}"
row "keep-alive client (wrk) CPU µs/req" \
  "$(calc 'f"{a[0] * 1e6 / a[1]:.1f}"' "${client[ours]}" "${total[keepalive,ours]}")" \
  "$(calc 'f"{a[0] * 1e6 / a[1]:.1f}"' "${client[nginx]}" "${total[keepalive,nginx]}")"
row "new connections/s (s_time -new)" "${rate[handshake,ours]}" "${rate[handshake,nginx]}"
row "server CPU µs per new connection" "${cpu[handshake,ours]}" "${cpu[handshake,nginx]}"
row "idle TLS connection, bytes ($idle)" "${idle_per[ours]}" "${idle_per[nginx]}"
# Each round's ratio: how far the machine moved the figures while they were
# taken (a server against itself swings as much on a shared machine).
ratios=""
for ((round = 0; round < rounds; ++round)); do
  ratios+=" $(calc 'f"{a[0] / a[1]:.2f}"' "${rate_of[keepalive,$round,ours]}" \
    "${rate_of[keepalive,$round,nginx]}")"
done
echo "keep-alive req/s ours/nginx by round:$ratios"
busy=""
for ((round = 0; round < rounds; ++round)); do
  busy+=" ${busy_of[keepalive,$round,ours]}/${busy_of[keepalive,$round,nginx]}"
done
echo "keep-alive server busy, ours/nginx by round:$busy"
cores=""
for ((round = 0; round < rounds; ++round)); do
  cores+=" ${cores_of[keepalive,$round,ours]}/${cores_of[keepalive,$round,nginx]}"
done
echo "keep-alive CPU 0+1 busy (anyone), ours/nginx by round:$cores"
if $profile_ok; then
  echo "per keep-alive request (perf stat, wrk -c$connections, 2 s each):"
  printf "  %-32s %12s %12s\n" "" ours nginx
  for item in "calls:system calls" "reads:reads (read, recv)" "writes:writes (write, send)" \
    "waits:epoll waits" "switches:context switches"; do
    printf "  %-32s %12s %12s\n" "${item#*:}" "${profile[ours,${item%%:*}]}" \
      "${profile[nginx,${item%%:*}]}"
  done
fi
