#!/usr/bin/env bash
# Process memory per idle open connection: the demo server's RSS growth while
# 10,000 keep-alive connections, each having made one request, sit idle.
# Target: at most 4 KiB per connection.
set -euo pipefail
build=${1:-build-bench}
connections=${IDLE_CONNECTIONS:-10000}
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
"$build/examples/demo_server" --port "$port" >/dev/null &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
for _ in $(seq 50); do
  curl -s -o /dev/null "http://127.0.0.1:$port/hello" && break
  sleep 0.1
done
echo "== Idle connections: demo_server RSS growth over $connections keep-alive connections"
python3 - "$server" "$port" "$connections" <<'PY'
import resource, socket, sys, time
pid, port, count = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, count + 1000), hard))

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
    for s in socks:
        got = b""
        while not got.endswith(b"Hello, world!\n"):
            chunk = s.recv(4096)
            if not chunk:
                sys.exit("connection closed early")
            got += chunk
    return socks

warm = open_idle(200)  # let allocator arenas and the first pages settle
time.sleep(0.5)
before = rss_kib()
socks = open_idle(count)
time.sleep(0.5)
after = rss_kib()
per = (after - before) * 1024 / count
print(f"{'connections':>12} {'RSS before KiB':>15} {'RSS after KiB':>14} {'bytes/conn':>11} {'target':>7}")
print(f"{count:>12} {before:>15} {after:>14} {per:>11.0f} {4096:>7}")
PY
