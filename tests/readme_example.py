#!/usr/bin/env python3
"""The README's example, as printed: its .proto and C++ blocks are compiled
against the build tree, and the program runs where nothing listens on the
port its client calls (a network namespace of its own, so that its fixed
ports meet nobody else's): it must say so and go on serving, not crash.

Usage: readme_example.py README CXX PROTOC SOURCE_DIR GENERATED_DIR LIBRARY
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile

README, CXX, PROTOC, SOURCE_DIR, GENERATED_DIR, LIBRARY = sys.argv[1:7]
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from readme_blocks import readme_blocks  # noqa: E402


def fail(text):
    print("readme_example: FAIL: " + text)
    sys.exit(1)


proto = readme_blocks(README, "## Example", "proto")[0]
source = readme_blocks(README, "## Example", "cpp")[0]
work = tempfile.mkdtemp(prefix="readme_example.")
try:
    os.makedirs(os.path.join(work, "my"))
    with open(os.path.join(work, "my", "service.proto"), "w") as f:
        f.write(proto)
    with open(os.path.join(work, "example.cc"), "w") as f:
        f.write(source)
    subprocess.run([PROTOC, "--cpp_out=.", "my/service.proto"], cwd=work, check=True)
    protobuf = subprocess.run(["pkg-config", "--cflags", "--libs", "protobuf"],
                              capture_output=True, text=True, check=True).stdout.split()
    library_dir = os.path.dirname(LIBRARY)
    compiled = subprocess.run(
        [CXX, "-std=c++17", "-Wall", "-Wextra", "-Werror", "-I.", "-I" + SOURCE_DIR,
         "-I" + GENERATED_DIR, "example.cc", "my/service.pb.cc", "-o", "example",
         "-L" + library_dir, "-lhttp_server_lib", "-Wl,-rpath," + library_dir, "-pthread"]
        + protobuf, cwd=work, capture_output=True, text=True)
    if compiled.returncode != 0:
        fail("the README's example does not compile:\n" + compiled.stderr[-3000:])

    # Its own network: loopback only, no listener but its own.
    probe = subprocess.run(["unshare", "-rn", "true"], capture_output=True)
    if probe.returncode != 0:
        print("readme_example: compiled; not run: this machine gives no network namespace "
              "(unshare -rn: %s)" % probe.stderr.decode().strip())
        sys.exit(0)
    script = r"""
ip link set lo up 2>/dev/null || true
./example 2>err &
pid=$!
for _ in $(seq 600); do
  # -f: a 404 (the handler not registered yet) is asked again
  body=$(curl -sf --max-time 5 http://127.0.0.1:8080/hello?name=reader 2>/dev/null) && break
  kill -0 $pid 2>/dev/null || break
  sleep 0.05
done
echo "body: $body"
kill -0 $pid 2>/dev/null && echo alive
kill -TERM $pid
wait $pid
echo "status: $?"
cat err
"""
    run = subprocess.run(["unshare", "-rn", "sh", "-c", script], cwd=work, capture_output=True,
                         text=True, timeout=120)
    # Served, still alive when told to stop (so not crashed), ended by that
    # signal, and said why its call was not made (after the library's own
    # note of the refused connection).
    expected = "body: Hello, reader!\nalive\nstatus: %d\n" % (128 + signal.SIGTERM)
    if not run.stdout.startswith(expected) or \
            not run.stdout.endswith("\nnothing listens on 127.0.0.1:9090\n"):
        fail("the example printed %r, expected %r and its note (stderr %r)" %
             (run.stdout, expected, run.stderr))
    print("readme_example: OK")
finally:
    shutil.rmtree(work, ignore_errors=True)
