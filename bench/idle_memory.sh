#!/usr/bin/env bash
# Process memory per idle open connection: the demo server's RSS growth while
# 10,000 keep-alive connections, each having made one request, sit idle.
# Target: at most 4 KiB per connection.
#
# The first 200 connections only warm the server up (allocator arenas, first
# pages); the growth is measured over the rest. All of them stay open, so at
# most IDLE_CONNECTIONS are open at once: within the 10,000 connections the
# demo's hardened options allow.
#
# Usage: bench/idle_memory.sh BUILD_DIR
# Environment: IDLE_CONNECTIONS (default 10000, at least 1000), DEMO_ARGS
# (arguments added to the demo's; default none).
set -euo pipefail
build=${1:-build-bench}
connections=${IDLE_CONNECTIONS:-10000}
((connections >= 1000)) || { echo "idle_memory: IDLE_CONNECTIONS must be at least 1000" >&2; exit 2; }
read -ra demo_args <<<"${DEMO_ARGS:-}"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
"$build/examples/demo_server" --port "$port" ${demo_args[@]+"${demo_args[@]}"} >/dev/null &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
up=false
for _ in $(seq 50); do
  curl -s -o /dev/null "http://127.0.0.1:$port/hello" && { up=true; break; }
  sleep 0.1
done
$up || { echo "idle_memory: the demo did not answer on port $port" >&2; exit 1; }
echo "== Idle connections: demo_server${DEMO_ARGS:+ $DEMO_ARGS} RSS growth with $connections" \
  "keep-alive connections open (the first 200 to warm up)"
python3 - "$server" "$port" "$connections" <<'PY'
import resource, socket, sys, time
pid, port, count = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, count + 1000), hard))
warm_count = 200
measured = count - warm_count

def rss_kib():
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])

request = f"GET /hello HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode()
def open_idle(n):
    socks = []
    for _ in range(n):
        s = socket.create_connection(("127.0.0.1", port))
        s.sendall(request)
        socks.append(s)
    for i, s in enumerate(socks):
        got = b""
        while not got.endswith(b"Hello, world!\n"):
            try:
                chunk = s.recv(4096)
            except ConnectionResetError:
                chunk = b""
            if not chunk:
                sys.exit(f"idle_memory: the server closed connection {i + 1} of {n} "
                         "before answering (a connection limit?)")
            got += chunk
    return socks

warm = open_idle(warm_count)  # let allocator arenas and the first pages settle
time.sleep(0.5)
before = rss_kib()
socks = open_idle(measured)
time.sleep(0.5)
after = rss_kib()
per = (after - before) * 1024 / measured
print(f"{'measured':>12} {'RSS before KiB':>15} {'RSS after KiB':>14} {'bytes/conn':>11} {'target':>7}")
print(f"{measured:>12} {before:>15} {after:>14} {per:>11.0f} {4096:>7}")
PY
