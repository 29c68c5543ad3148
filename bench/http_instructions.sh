#!/usr/bin/env bash
# Instructions per pipelined HTTP request, repeatable on a shared machine:
# demo_server runs under callgrind while one connection sends GET /hello (the
# request wrk sends in bench/http_load.sh) 16 deep, batch after batch, and
# waits for every answer. It runs twice, with N and 2N requests; the
# difference over N is what one request costs, start-up and shutdown cancelled
# out. The second run's profile is left in OUT_DIR for callgrind_annotate.
#
# The demo runs as it does by default; DEMO_ARGS adds arguments (for example
# DEMO_ARGS=--no-hardening).
#
# With HTTP_INSTRUCTIONS_KEEPALIVE=C the load is keep-alive as wrk makes it
# instead: C connections, one request in flight on each; every connection
# sends its request, then every answer is read, batch after batch.
#
# Usage: bench/http_instructions.sh BUILD_DIR [OUT_DIR]
# Environment: HTTP_INSTRUCTIONS_REQUESTS (N, default 16000),
# HTTP_INSTRUCTIONS_KEEPALIVE (C, default unset: pipelined), DEMO_ARGS.
set -euo pipefail

build=${1:?usage: http_instructions.sh BUILD_DIR [OUT_DIR]}
out_dir=${2:-}
requests=${HTTP_INSTRUCTIONS_REQUESTS:-16000}
keepalive=${HTTP_INSTRUCTIONS_KEEPALIVE:-0}
read -ra demo_args <<<"${DEMO_ARGS:-}"
demo="$build/examples/demo_server"
[[ -x "$demo" ]] || { echo "http_instructions: $demo not built" >&2; exit 1; }
command -v valgrind >/dev/null || { echo "http_instructions: valgrind not found" >&2; exit 1; }

source "$(dirname "$0")/lib.sh"
bench_workspace

# Runs the demo under callgrind for $1 requests; prints its total instructions.
measure() {
  local count=$1 out=$2 port
  read -r port < <(free_ports 1)
  valgrind --tool=callgrind ${CALLGRIND_ARGS:-} --callgrind-out-file="$out" "$demo" --address 127.0.0.1 \
    --port "$port" --drain-ms 0 --drain-announce-ms 0 ${demo_args[@]+"${demo_args[@]}"} \
    >"$work/demo.log" 2>&1 &
  local pid=$!
  pids+=("$pid")
  python3 - "$port" "$count" "$keepalive" <<'EOF'
import socket, sys, time
port, count, keepalive = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
request = f"GET /hello HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n\r\n".encode()
deadline = time.time() + 120
while True:
    try:
        s = socket.create_connection(("127.0.0.1", port), timeout=60)
        break
    except OSError:
        if time.time() > deadline:
            sys.exit("http_instructions: the demo did not listen")
        time.sleep(0.2)
# The demo listens before its handlers are registered, which under callgrind
# takes a while: until /hello answers 200, ask again on a connection of its own.
while True:
    probe = socket.create_connection(("127.0.0.1", port), timeout=60)
    probe.sendall(request)
    status = probe.recv(12)
    probe.close()
    if status == b"HTTP/1.1 200":
        break
    if time.time() > deadline:
        sys.exit(f"http_instructions: /hello answered {status!r}")
    time.sleep(0.2)
# Reads `wanted` answers from `sock`, after what `pending` holds; returns
# what is left over.
def read_answers(sock, pending, wanted):
    got = 0
    while got < wanted:
        head = pending.find(b"\r\n\r\n")
        if head >= 0:
            length = 0
            for line in pending[:head].split(b"\r\n")[1:]:
                name, _, value = line.partition(b":")
                if name.lower() == b"content-length":
                    length = int(value)
            if not pending.startswith(b"HTTP/1.1 200 "):
                sys.exit(f"http_instructions: unexpected answer {pending[:head]!r}")
            if len(pending) >= head + 4 + length:
                pending = pending[head + 4 + length:]
                got += 1
                continue
        chunk = sock.recv(65536)
        if not chunk:
            sys.exit("http_instructions: the demo closed the connection")
        pending += chunk
    return pending

answered = 0
if keepalive > 0:
    sockets = [s] + [socket.create_connection(("127.0.0.1", port), timeout=60)
                     for _ in range(keepalive - 1)]
    leftovers = [b""] * keepalive
    while answered < count:
        batch = sockets[:min(keepalive, count - answered)]
        for sock in batch:
            sock.sendall(request)
        for i, sock in enumerate(batch):
            leftovers[i] = read_answers(sock, leftovers[i], 1)
        answered += len(batch)
    for sock in sockets:
        sock.close()
else:
    depth = 16
    pending = b""
    while answered < count:
        batch = min(depth, count - answered)
        s.sendall(request * batch)
        pending = read_answers(s, pending, batch)
        answered += batch
    s.close()
EOF
  kill -TERM "$pid"
  wait "$pid" || { echo "http_instructions: the demo failed:" >&2; cat "$work/demo.log" >&2; exit 1; }
  callgrind_annotate "$out" 2>/dev/null | awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1 }'
}

single=$(measure "$requests" "$work/single.out")
double=$(measure $((2 * requests)) "$work/double.out")
if [[ -n "$out_dir" ]]; then
  mkdir -p "$out_dir"
  cp "$work/double.out" "$out_dir/callgrind.out"
fi
if ((keepalive > 0)); then
  load="keep-alive on $keepalive connections"
else
  load="16 deep on one connection"
fi
echo "demo_server${DEMO_ARGS:+ $DEMO_ARGS}: $requests and $((2 * requests)) GET /hello, $load:" \
  "$single and $double instructions"
echo "instructions per request: $(calc 'f"{(a[1] - a[0]) / a[2]:.0f}"' "$single" "$double" "$requests")"
