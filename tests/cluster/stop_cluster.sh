#!/bin/sh
# Stops every node that start_cluster.sh started in <dir> (a node already
# gone is skipped) and removes the socket directory.
#
#   stop_cluster.sh <dir>
set -eu

if [ $# -ne 1 ]; then
  echo "usage: $0 <dir>" >&2
  exit 2
fi
dir=$1
[ -d "$dir" ] || exit 0
dir=$(cd "$dir" && pwd)

# Only a process that really is that node's server is signalled: a stale pid
# file may name a pid reused by something else.
is_node() {
  [ -n "$2" ] && [ -r "/proc/$2/cmdline" ] &&
    tr '\0' ' ' <"/proc/$2/cmdline" | grep -q -- "--datadir=$dir/node$1/data"
}

for n in 1 2 3; do
  pid=""
  if [ -f "$dir/node$n/launched.pid" ]; then pid=$(cat "$dir/node$n/launched.pid"); fi
  if is_node "$n" "$pid"; then kill "$pid" 2>/dev/null || true; fi
done
for n in 1 2 3; do
  pid=""
  if [ -f "$dir/node$n/launched.pid" ]; then pid=$(cat "$dir/node$n/launched.pid"); fi
  waited=0
  while is_node "$n" "$pid"; do
    waited=$((waited + 1))
    if [ "$waited" -ge 60 ]; then
      kill -9 "$pid" 2>/dev/null || true
      sleep 0.5
      break
    fi
    sleep 0.5
  done
  rm -f "$dir/node$n/launched.pid" "$dir/node$n/socket"
done

if [ -f "$dir/sockdir" ]; then
  case "$(cat "$dir/sockdir")" in
    /tmp/ovkgc.*) rm -rf "$(cat "$dir/sockdir")" ;;
  esac
  rm -f "$dir/sockdir"
fi
