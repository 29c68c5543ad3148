#!/usr/bin/env python3
"""The demo's /metrics, end to end: start the demo, scrape, send known requests,
scrape again, and check with Prometheus's own text parser that every series
moved by exactly what was sent and nothing else moved.

Usage: metrics_scrape.py DEMO_SERVER
"""
import os
import re
import signal
import socket
import subprocess
import sys
import time

try:
    from prometheus_client.parser import text_string_to_metric_families
except ImportError:
    # Debian's python3-prometheus-client is the system interpreter's; another
    # python3 first on PATH (a pyenv, a venv) does not see it.
    if os.path.realpath(sys.executable) != os.path.realpath("/usr/bin/python3") and \
            os.path.exists("/usr/bin/python3"):
        os.execv("/usr/bin/python3", ["/usr/bin/python3"] + sys.argv)
    raise

SERVICE = "demo.EchoService"


def fail(text):
    print("metrics_scrape: FAIL: " + text)
    sys.exit(1)


class Demo:
    def __init__(self, binary):
        # The library's default options with a body limit: malformed input is
        # then a parse error and an oversized body a limit's refusal.
        self.process = subprocess.Popen(
            [binary, "--port", "0", "--no-hardening", "--max-body-bytes", "64"],
            stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.search(r"http://127\.0\.0\.1:(\d+)/", line)
        if not match:
            self.process.kill()
            fail("the demo did not start: %r" % line)
        self.port = int(match.group(1))
        self.received = 0  # bytes the server was sent
        self.sent = 0  # bytes the server answered with
        self.connections = 0

    def exchange(self, data):
        """Sends `data` on a connection of its own, ends it, and returns
        everything the server wrote until it closed."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=30) as s:
            self.connections += 1
            s.sendall(data)
            s.shutdown(socket.SHUT_WR)
            answer = b""
            while True:
                chunk = s.recv(65536)
                if not chunk:
                    break
                answer += chunk
        self.received += len(data)
        self.sent += len(answer)
        return answer

    def scrape(self):
        answer = self.exchange(b"GET /metrics HTTP/1.1\r\nHost: h\r\n\r\n")
        head, _, body = answer.partition(b"\r\n\r\n")
        if not head.startswith(b"HTTP/1.1 200 "):
            fail("scrape answered %r" % head)
        if b"\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8" not in head:
            fail("scrape content type: %r" % head)
        values = {}
        for family in text_string_to_metric_families(body.decode("utf-8")):
            for sample in family.samples:
                values[(sample.name, tuple(sorted(sample.labels.items())))] = sample.value
        return values, len(answer)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        if self.process.wait(timeout=30) != 0:
            fail("the demo exited with %d" % self.process.returncode)


def get(path):
    return ("GET %s HTTP/1.1\r\nHost: h\r\n\r\n" % path).encode()


def rpc(service, method, json_body):
    body = json_body.encode()
    return (("POST / HTTP/1.1\r\nHost: h\r\nContent-Type: application/json\r\n"
             "Content-Length: %d\r\nRpc-Service: %s\r\nRpc-Method: %s\r\n\r\n")
            % (len(body), service, method)).encode() + body


def key(name, **labels):
    return (name, tuple(sorted(labels.items())))


def main():
    demo = Demo(sys.argv[1])
    try:
        before, first_answer = demo.scrape()
        # Everything from here on is in the next scrape, and so is the answer
        # to the scrape above: it counts once written.
        demo.received = demo.sent = demo.connections = 0
        plain = demo.exchange(get("/hello") * 3 + get("/echo?a=1") + get("/nope"))
        if plain.count(b"HTTP/1.1 200 ") != 4 or plain.count(b"HTTP/1.1 404 ") != 1:
            fail("plain answers: %r" % plain)
        calls = demo.exchange(
            rpc(SERVICE, "Echo", '{"text":"a"}') + rpc(SERVICE, "Echo", '{"text":"b"}') +
            rpc(SERVICE, "Fail", '{"error":"no"}') +
            rpc(SERVICE, "Delay", '{"text":"d","delay_ms":20}') +
            rpc("nobody.Service", "Echo", "{}") + rpc(SERVICE, "Nope", "{}") +
            rpc(SERVICE, "Echo", "not json"))
        if calls.count(b"Rpc-Failed: 0") != 3 or calls.count(b"Rpc-Failed: 1") != 4:
            fail("RPC answers: %r" % calls)
        malformed = demo.exchange(b"GET /hello HTTP/1.1\r\nno colon here\r\n\r\n")
        if not malformed.startswith(b"HTTP/1.1 400 "):
            fail("malformed input answered %r" % malformed)
        too_large = demo.exchange(b"POST /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 65\r\n\r\n")
        if not too_large.startswith(b"HTTP/1.1 413 "):
            fail("oversized body answered %r" % too_large)
        sent_since = demo.sent
        # The second scrape sees its own request and connection, not its answer.
        after, _ = demo.scrape()

        expected = {
            key("relay_http_requests_total", handler="/hello", code="200"): 3,
            key("relay_http_requests_total", handler="/echo", code="200"): 1,
            key("relay_http_requests_total", handler="(none)", code="404"): 1,
            key("relay_http_requests_total", handler="/metrics", code="200"): 1,
            key("relay_http_handler_duration_seconds_count", handler="/hello"): 3,
            key("relay_http_handler_duration_seconds_count", handler="/echo"): 1,
            key("relay_http_handler_duration_seconds_count", handler="/metrics"): 1,
            key("relay_rpcs_total", service=SERVICE, method="Echo", outcome="ok"): 2,
            key("relay_rpcs_total", service=SERVICE, method="Fail", outcome="failed"): 1,
            key("relay_rpcs_total", service=SERVICE, method="Delay", outcome="ok"): 1,
            key("relay_rpcs_total", service="nobody.Service", method="Echo",
                outcome="service_not_found"): 1,
            key("relay_rpcs_total", service=SERVICE, method="Nope",
                outcome="method_not_found"): 1,
            key("relay_rpcs_total", service=SERVICE, method="Echo", outcome="bad_request"): 1,
            key("relay_rpc_duration_seconds_count", service=SERVICE, method="Echo"): 2,
            key("relay_rpc_duration_seconds_count", service=SERVICE, method="Fail"): 1,
            key("relay_rpc_duration_seconds_count", service=SERVICE, method="Delay"): 1,
            key("relay_http_parse_errors_total"): 1,
            key("relay_http_limit_rejections_total", code="413"): 1,
            key("relay_connections_accepted_total"): demo.connections,
            key("relay_received_bytes_total"): demo.received,
            key("relay_sent_bytes_total"): first_answer + sent_since,
        }
        moved = {}
        for k in set(before) | set(after):
            name = k[0]
            if name.endswith("_bucket") or name.endswith("_sum") or name.endswith("_created"):
                continue
            if name == "relay_connections_open":
                continue
            delta = after.get(k, 0) - before.get(k, 0)
            if delta != 0:
                moved[k] = delta
        for k, value in expected.items():
            if moved.get(k) != value:
                fail("%s moved by %s, expected %s" % (k, moved.get(k), value))
        for k in moved:
            if k not in expected:
                fail("%s moved by %s, expected nothing" % (k, moved[k]))

        # Delay is timed in the histogram's buckets (how long it took is the
        # C++ test's business: the demo's timer runs on libevent's clock).
        delay = dict(service=SERVICE, method="Delay")
        infinite = key("relay_rpc_duration_seconds_bucket", le="+Inf", **delay)
        if after.get(infinite, 0) - before.get(infinite, 0) != 1:
            fail("Delay not counted in the +Inf bucket")
        if after[key("relay_rpc_duration_seconds_sum", **delay)] <= \
                before.get(key("relay_rpc_duration_seconds_sum", **delay), 0):
            fail("Delay took no time by the histogram")

        # Every connection but the one scraping closes; wait for the server
        # to see that (a guard, not a timing).
        deadline = time.monotonic() + 30
        while demo.scrape()[0][key("relay_connections_open")] != 1:
            if time.monotonic() > deadline:
                fail("relay_connections_open never came back to 1")
            time.sleep(0.01)
        print("metrics_scrape: %d series moved exactly as sent" % len(expected))
    finally:
        if demo.process.poll() is None:
            demo.stop()


if __name__ == "__main__":
    main()
