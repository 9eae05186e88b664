#!/bin/sh
# Stops the private MariaDB server started by start_db.sh in <dir> and removes
# its socket directory. Does nothing when no server runs there.
#
#   stop_db.sh <dir>
set -eu

if [ $# -ne 1 ]; then
  echo "usage: $0 <dir>" >&2
  exit 2
fi
dir=$1
[ -d "$dir" ] || exit 0
dir=$(cd "$dir" && pwd)

sock=""
if [ -f "$dir/socket" ]; then sock=$(cat "$dir/socket"); fi
pid=""
if [ -f "$dir/mariadbd.pid" ]; then pid=$(cat "$dir/mariadbd.pid"); fi

# Only a process that is really this data directory's server is signalled:
# a stale pid file may name a pid reused by something else.
is_our_server() {
  [ -n "$pid" ] && [ -r "/proc/$pid/cmdline" ] &&
    tr '\0' ' ' <"/proc/$pid/cmdline" | grep -q -- "--datadir=$dir/data"
}

if [ -n "$sock" ] && [ -S "$sock" ]; then
  mariadb-admin --no-defaults --socket="$sock" -uroot --connect-timeout=5 shutdown \
    >/dev/null 2>&1 || true
fi
if is_our_server; then
  kill "$pid" 2>/dev/null || true
fi

waited=0
while is_our_server; do
  waited=$((waited + 1))
  if [ "$waited" -ge 60 ]; then
    kill -9 "$pid" 2>/dev/null || true
    sleep 0.5
    break
  fi
  sleep 0.5
done

if [ -n "$sock" ]; then
  case "$sock" in
    /tmp/ovkdb.*/sock) rm -rf "$(dirname "$sock")" ;;
  esac
fi
rm -f "$dir/socket" "$dir/mariadbd.pid"
