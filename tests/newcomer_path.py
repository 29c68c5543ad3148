#!/usr/bin/env python3
"""What a newcomer meets first, end to end against the demo as a process:
its command line (help, errors that name the bad argument, host names), its
health check through a drain's announce period, and the Python client the
README prints, run as printed.

Usage: newcomer_path.py DEMO_SERVER README PROTOC DEMO_PROTO
"""
import http.client
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

DEMO, README, PROTOC, DEMO_PROTO = sys.argv[1:5]
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from readme_blocks import readme_blocks  # noqa: E402
failures = []


def check(condition, text):
    if not condition:
        failures.append(text)
        print("newcomer_path: FAIL: " + text)


def run_demo(*args):
    return subprocess.run([DEMO] + list(args), capture_output=True, text=True, timeout=60)


class Demo:
    """The demo on a port the kernel picks; stopped on exit."""

    def __init__(self, *args):
        self.process = subprocess.Popen([DEMO, "--port", "0"] + list(args),
                                        stdout=subprocess.PIPE, text=True)
        self.line = self.process.stdout.readline()
        match = re.search(r"http://(\[[^]]*\]|[^:/]*):(\d+)/", self.line)
        if not match:
            self.process.kill()
            raise SystemExit("newcomer_path: FAIL: the demo did not start: %r" % self.line)
        self.host = match.group(1).strip("[]")
        self.port = int(match.group(2))

    def get(self, connection, path):
        connection.request("GET", path)
        answer = connection.getresponse()
        return answer.status, answer.read().decode()

    def connect(self):
        return http.client.HTTPConnection(self.host, self.port, timeout=30)

    def stop(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


def command_line():
    run = run_demo("--help")
    check(run.returncode == 0 and run.stdout.startswith("usage: ") and run.stderr == "",
          "--help: exit %d, out %r, err %r" % (run.returncode, run.stdout[:40], run.stderr))
    for args, named in [(["--port", "abc"], ['--port', '"abc"']),
                        (["--port", "70000"], ["--port", '"70000"']),
                        (["--port=-1"], ["--port", '"-1"']),
                        (["--bogus", "1"], ["--bogus"]),
                        (["--drain-ms"], ["--drain-ms needs a value"]),
                        (["--log", "http_server"], ["--log", '"http_server"']),
                        (["--address", "no-such-host.invalid"], ["no-such-host.invalid"])]:
        run = run_demo(*args)
        lines = run.stderr.splitlines()
        check(run.returncode == 2 and len(lines) == 1 and all(n in run.stderr for n in named),
              "%s: exit %d, err %r (wants one line naming %s)" %
              (args, run.returncode, run.stderr, named))
    # A host name is resolved; the demo says where it listens and answers there.
    demo = Demo("--address", "localhost")
    try:
        check(demo.host in ("127.0.0.1", "::1"), "localhost listened on %r" % demo.host)
        status, body = demo.get(demo.connect(), "/hello")
        check((status, body) == (200, "Hello, world!\n"), "/hello on localhost: %d %r" %
              (status, body))
    finally:
        demo.stop()


def health_through_drain():
    # A long announce period, so the checks below run inside it on any machine.
    demo = Demo("--drain-announce-ms", "5000")
    try:
        before = demo.connect()
        check(demo.get(before, "/healthz") == (200, "ok\n"), "/healthz before the drain")
        demo.process.send_signal(signal.SIGTERM)
        check(demo.process.stdout.readline() == "demo_server: draining\n", "no draining line")
        # The line comes just before the drain begins: ask until the answer
        # changes (a bound, not an expectation), then it must be the 503.
        give_up = time.monotonic() + 30
        while True:
            answer = demo.get(before, "/healthz")
            if answer != (200, "ok\n") or time.monotonic() > give_up:
                break
            time.sleep(0.01)
        check(answer == (503, "draining\n"),
              "/healthz on a connection opened before the drain: %r" % (answer,))
        after = demo.connect()
        check(demo.get(after, "/healthz") == (503, "draining\n"),
              "/healthz on a connection opened during the announce period")
        check(demo.get(after, "/hello") == (200, "Hello, world!\n"),
              "/hello during the announce period")
        check(demo.process.wait(timeout=60) == 0, "the demo did not drain and exit 0")
    finally:
        demo.stop()


def readme_python_client():
    heading = "## Calling from other languages"
    client = readme_blocks(README, heading, "python")[0]
    expected = readme_blocks(README, heading, "")[0]
    demo = Demo()
    try:
        with tempfile.TemporaryDirectory() as work:
            proto_dir = os.path.dirname(DEMO_PROTO)
            subprocess.run([PROTOC, "--python_out=" + work, "-I", proto_dir, DEMO_PROTO],
                           check=True)
            with open(os.path.join(work, "client.py"), "w") as f:
                f.write(client)
            # Debian's python3-protobuf belongs to the system interpreter.
            python = "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable
            run = subprocess.run([python, "client.py", str(demo.port)], cwd=work,
                                 capture_output=True, text=True, timeout=60)
            check(run.returncode == 0 and run.stdout == expected,
                  "the README's client: exit %d, printed %r (the README says %r), err %r" %
                  (run.returncode, run.stdout, expected, run.stderr[-400:]))
    finally:
        demo.stop()


command_line()
health_through_drain()
readme_python_client()
if failures:
    sys.exit(1)
print("newcomer_path: OK")
