#!/usr/bin/env bash
# What hostile clients cost the demo server, default (--no-hardening) beside
# hardened: a client that pipelines 1M requests and never reads, a 16 MB
# query, a 64 MB path, a 100 MB header line, 1M headers and a 100 MB body.
# Prints the peak RSS growth, what is left after the connection closed, the
# answer, and the longest /hello round trip another client saw meanwhile.
#
# Usage: bench/attack.sh BUILD_DIR [attack name ...]
set -euo pipefail
build=${1:?usage: attack.sh BUILD_DIR}
shift
demo="$build/examples/demo_server"
[[ -x "$demo" ]] || { echo "attack: $demo not built" >&2; exit 1; }
echo "== Attacks: the demo server's memory and other clients' stalls, default vs hardened"
exec python3 "$(dirname "$0")/attack.py" "$demo" "$@"
