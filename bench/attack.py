#!/usr/bin/env python3
"""What hostile clients cost the demo server, with and without hardening.

For each attack a fresh demo_server is started (so that its peak RSS is the
attack's), a second client keeps asking for /hello on its own connection the
whole time, and the table gives: the bytes the attacker got the server to take,
the peak RSS growth over the server's resting size (and as a multiple of what
was sent), the RSS growth left after the attacker's connection closed, how the
server answered, and the longest /hello round trip the other client saw.

Usage: attack.py DEMO_SERVER [attack ...]
"""

import os
import re
import socket
import subprocess
import sys
import threading
import time

MB = 1 << 20


def rss_kb(pid, field):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


class Demo:
    def __init__(self, binary, args):
        self.process = subprocess.Popen([binary, "--port", "0"] + args, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)
        line = self.process.stdout.readline()
        match = re.search(r":(\d+)/", line)
        if not match:
            raise RuntimeError("demo_server did not start: " + line)
        self.port = int(match.group(1))
        self.pid = self.process.pid

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()


def connect(port):
    s = socket.create_connection(("127.0.0.1", port))
    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return s


HELLO = b"GET /hello HTTP/1.1\r\nHost: h\r\n\r\n"


def read_answer(s, buffered=b""):
    """Reads one answer with a Content-Length; returns (answer, rest)."""
    data = buffered
    while b"\r\n\r\n" not in data:
        chunk = s.recv(65536)
        if not chunk:
            return None, b""
        data += chunk
    head, _, rest = data.partition(b"\r\n\r\n")
    length = int(re.search(rb"Content-Length: (\d+)", head).group(1))
    while len(rest) < length:
        chunk = s.recv(65536)
        if not chunk:
            return None, b""
        rest += chunk
    return head, rest[length:]


class Prober(threading.Thread):
    """Asks for /hello again and again; keeps the longest round trip."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.socket = connect(port)
        self.socket.settimeout(60)
        self.longest = 0.0
        self.count = 0
        self.failed = None
        self.stopping = threading.Event()

    def run(self):
        rest = b""
        try:
            while not self.stopping.is_set():
                started = time.monotonic()
                self.socket.sendall(HELLO)
                head, rest = read_answer(self.socket, rest)
                if head is None:
                    self.failed = "connection closed"
                    return
                self.longest = max(self.longest, time.monotonic() - started)
                self.count += 1
                time.sleep(0.001)
        except OSError as error:
            self.failed = str(error)


def send_all(s, pieces, stall_limit):
    """Sends the pieces; gives up when nothing more goes out for stall_limit
    seconds (the server stopped reading) or the server closes. Returns the
    bytes sent."""
    s.setblocking(False)
    sent = 0
    for piece in pieces:
        view = memoryview(piece)
        while len(view):
            try:
                n = s.send(view)
                sent += n
                view = view[n:]
            except BlockingIOError:
                import select
                _, writable, _ = select.select([], [s], [], stall_limit)
                if not writable:
                    return sent
            except OSError:
                return sent
    return sent


def drain(s, limit):
    """Reads what the server answered, up to `limit` bytes or its close."""
    s.setblocking(True)
    s.settimeout(2)
    got = b""
    try:
        while len(got) < limit:
            chunk = s.recv(1 << 20)
            if not chunk:
                break
            got += chunk
    except OSError:
        pass
    return got


def status_of(answer):
    lines = set(re.findall(rb"HTTP/1\.1 (\d{3})", answer[:1 << 20]))
    return "/".join(sorted(x.decode() for x in lines)) or "none"


def repeated(unit, total):
    block = unit * (MB // len(unit) + 1)
    out, left = [], total
    while left > 0:
        out.append(block[:min(left, len(block))])
        left -= len(out[-1])
    return out


ATTACKS = {
    # name: (pieces to send, how much of the answer to read)
    "slow reader, 1M pipelined GETs": lambda: ([HELLO * 1000000], 0),
    "16 MB query": lambda: ([b"GET /hello?"] + repeated(b"a=b&", 16 * MB) +
                            [b" HTTP/1.1\r\nHost: h\r\n\r\n"], 1 << 20),
    "64 MB path": lambda: ([b"GET /"] + repeated(b"p", 64 * MB) + [b" HTTP/1.1\r\nHost: h\r\n\r\n"],
                           1 << 20),
    "100 MB header line": lambda: ([HELLO[:-2] + b"X-Big: "] + repeated(b"v", 100 * MB) +
                                   [b"\r\n\r\n"], 1 << 20),
    "1M headers": lambda: ([HELLO[:-2]] + [b"".join(b"X-%07d: v\r\n" % i
                                                    for i in range(j, j + 100000))
                                           for j in range(0, 1000000, 100000)] + [b"\r\n"],
                           1 << 20),
    "100 MB body": lambda: ([b"POST /hello HTTP/1.1\r\nHost: h\r\nContent-Length: %d\r\n\r\n"
                             % (100 * MB)] + repeated(b"b", 100 * MB), 1 << 20),
}


def run(binary, mode, name):
    demo = Demo(binary, ["--no-hardening"] if mode == "default" else [])
    try:
        warm = connect(demo.port)
        warm.sendall(HELLO)
        read_answer(warm)
        warm.close()
        time.sleep(0.2)
        resting = rss_kb(demo.pid, "VmRSS")
        pieces, answer_limit = ATTACKS[name]()
        prober = Prober(demo.port)
        prober.start()
        attacker = connect(demo.port)
        sent = send_all(attacker, pieces, stall_limit=2.0)
        answer = drain(attacker, answer_limit) if answer_limit else b""
        time.sleep(0.3)
        peak = rss_kb(demo.pid, "VmHWM")
        attacker.close()
        time.sleep(1.0)
        after = rss_kb(demo.pid, "VmRSS")
        prober.stopping.set()
        prober.join(30)
        return {
            "sent": sent,
            "peak": (peak - resting) * 1024,
            "after": (after - resting) * 1024,
            "answer": status_of(answer) if answer_limit else "-",
            "stall": prober.longest,
            "probes": prober.count,
            "prober_failed": prober.failed,
        }
    finally:
        demo.stop()


def main():
    if len(sys.argv) < 2:
        print(__doc__)
        return 2
    binary = sys.argv[1]
    names = sys.argv[2:] or list(ATTACKS)
    print("%-8s %-32s %9s %10s %7s %10s %8s %9s" %
          ("server", "attack", "sent MB", "peak MB", "x sent", "after MB", "answer", "stall ms"))
    failed = False
    for name in names:
        for mode in ("default", "hardened"):
            r = run(binary, mode, name)
            ratio = r["peak"] / r["sent"] if r["sent"] else 0
            print("%-8s %-32s %9.1f %10.1f %7.2f %10.1f %8s %9.1f%s" %
                  (mode, name, r["sent"] / MB, r["peak"] / MB, ratio, r["after"] / MB,
                   r["answer"], r["stall"] * 1000,
                   "" if not r["prober_failed"] else "  prober: " + r["prober_failed"]))
            sys.stdout.flush()
            failed = failed or bool(r["prober_failed"])
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
