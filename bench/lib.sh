# Shell functions the load scripts in bench/ share; sourced, defines nothing
# else. The caller sets `set -euo pipefail`.

# Makes $work (a fresh temporary directory) and the pids array; on exit every
# process in pids is stopped and waited for, and $work removed.
bench_workspace() {
  work=$(mktemp -d)
  pids=()
  trap bench_cleanup EXIT
  trap 'exit 130' INT TERM
}
bench_cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}

# Prints N distinct free loopback ports: binds port 0 N times and reads back
# what the kernel chose.
free_ports() {
  python3 - "$1" <<'PY'
import socket, sys
socks = [socket.socket() for _ in range(int(sys.argv[1]))]
for s in socks:
    s.bind(("127.0.0.1", 0))
print(*(s.getsockname()[1] for s in socks))
PY
}

# CPU clock ticks (user + system, all threads) process $1 has used so far.
# Fields 14 and 15 of /proc/PID/stat, counted after the command name, which is
# in parentheses and may hold blanks.
cpu_ticks() {
  local stat
  stat=$(<"/proc/$1/stat")
  local -a fields
  read -ra fields <<<"${stat##*) }"
  echo $((fields[11] + fields[12]))
}

# Evaluates the Python expression $1 over a = the numbers that follow; prints
# "-" when a figure is missing ("-") or a divisor is 0.
calc() {
  python3 -c '
import sys
try:
    a = [float(x) for x in sys.argv[2:]]
    print(eval(sys.argv[1]))
except (ValueError, ZeroDivisionError):
    print("-")' "$@"
}

# Writes DIR/nginx.conf: one worker, in the foreground, no access log, its
# error log in DIR/error.log, serving the demo's "Hello, world!\n" at /hello on
# 127.0.0.1:PORT for up to CONNECTIONS connections kept alive for
# KEEPALIVE_TIMEOUT. Lines after that go into the server block (TLS).
nginx_hello_conf() {
  local dir=$1 port=$2 connections=$3 keepalive=$4 listen_suffix=""
  shift 4
  local server_lines=""
  for line in "$@"; do
    [[ $line == ssl ]] && { listen_suffix=" ssl"; continue; }
    server_lines+="    $line"$'\n'
  done
  mkdir -p "$dir"
  cat >"$dir/nginx.conf" <<CONF
worker_processes 1;
daemon off;
master_process off;
pid $dir/nginx.pid;
error_log $dir/error.log warn;
worker_rlimit_nofile $((connections + 500));
events {
  worker_connections $connections;
}
http {
  access_log off;
  client_body_temp_path $dir/body;
  proxy_temp_path $dir/proxy;
  fastcgi_temp_path $dir/fastcgi;
  uwsgi_temp_path $dir/uwsgi;
  scgi_temp_path $dir/scgi;
  keepalive_requests 1000000;
  keepalive_timeout $keepalive;
  server {
    listen 127.0.0.1:$port$listen_suffix;
$server_lines    location = /hello {
      default_type text/plain;
      return 200 "Hello, world!\n";
    }
  }
}
CONF
}
