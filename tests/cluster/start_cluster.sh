#!/bin/sh
# Starts a private three-node cluster of the panel database on the loopback
# address and loads the panel schema once, for the tests of several mail hosts.
#
#   start_cluster.sh <dir> <admin password> <schema.sql>
#
# Everything lives under <dir>: node N has the data directory nodeN/data, its
# pid file nodeN/mariadbd.pid, its error log nodeN/mariadbd.err and the file
# nodeN/socket holding its socket path (the sockets themselves lie in a short
# directory under /tmp). The servers listen on no TCP port for clients; the
# cluster's own traffic uses free loopback ports chosen at start.
#
# The schema is loaded into one bootstrapped data directory, which is then
# copied for the other two nodes, so they join with the same state and no
# state transfer is needed. As root the servers run as the user mysql (the
# state transfer scripts refuse root) in directories owned by it.
#
# resp_freq gets the unique key over rn_id and email that the README asks of
# a cluster's schema; OVK_CLUSTER_NO_UNIQUE_KEY=1 leaves it out.
#
# On any failure every node started so far is stopped (stop_cluster.sh).
set -eu

if [ $# -ne 3 ]; then
  echo "usage: $0 <dir> <admin password> <schema.sql>" >&2
  exit 2
fi
dir=$1
password=$2
schema=$3
here=$(cd "$(dirname "$0")" && pwd)
[ -r "$schema" ] || { echo "start_cluster: cannot read schema $schema" >&2; exit 1; }
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)

"$here/stop_cluster.sh" "$dir"
trap '"$here/stop_cluster.sh" "$dir"' EXIT

run_as=""
if [ "$(id -u)" -eq 0 ]; then run_as=mysql; fi
own() { if [ -n "$run_as" ]; then chown -R "$run_as:" "$@"; fi; }
user_opt() { if [ -n "$run_as" ]; then echo "--user=$run_as"; fi; }

# Nine free loopback ports: group traffic, incremental and full state
# transfer of each node.
ports=$(python3 - <<'PY'
import socket
held = []
for _ in range(9):
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    held.append(s)
print(" ".join(str(s.getsockname()[1]) for s in held))
PY
)
set -- $ports
g1=$1 g2=$2 g3=$3 i1=$4 i2=$5 i3=$6 s1=$7 s2=$8 s3=$9
members="127.0.0.1:$g1,127.0.0.1:$g2,127.0.0.1:$g3"

sockdir=$(mktemp -d /tmp/ovkgc.XXXXXX)
chmod 755 "$sockdir"
own "$sockdir"
printf '%s\n' "$sockdir" >"$dir/sockdir"

# start_node <n> <group port> <ist port> <sst port> <cluster address>
start_node() {
  n=$1
  nd=$dir/node$n
  sock=$sockdir/n$n
  printf '%s\n' "$sock" >"$nd/socket"
  # shellcheck disable=SC2046
  setsid mariadbd --no-defaults --datadir="$nd/data" --skip-networking \
    --socket="$sock" --pid-file="$nd/mariadbd.pid" --log-error="$nd/mariadbd.err" \
    --innodb-buffer-pool-size=32M --innodb-log-file-size=16M \
    --innodb-flush-log-at-trx-commit=0 --skip-innodb-doublewrite \
    --character-set-server=utf8mb4 --collation-server=utf8mb4_general_ci \
    --binlog-format=ROW --innodb-autoinc-lock-mode=2 \
    --wsrep-on=ON --wsrep-provider=/usr/lib/galera/libgalera_smm.so \
    --wsrep-cluster-name=ovk-test --wsrep-node-name="node$n" \
    --wsrep-cluster-address="$5" --wsrep-node-address="127.0.0.1:$2" \
    --wsrep-sst-method=rsync --wsrep-sst-receive-address="127.0.0.1:$4" \
    --wsrep-provider-options="gmcast.listen_addr=tcp://127.0.0.1:$2;ist.recv_addr=127.0.0.1:$3;gcache.size=16M;evs.keepalive_period=PT1S;evs.inactive_check_period=PT1S;evs.suspect_timeout=PT3S;evs.inactive_timeout=PT5S;evs.install_timeout=PT5S" \
    $(user_opt) </dev/null >/dev/null 2>&1 &
  # The server writes its pid file only after a state transfer: this one is
  # known at once, for stop_cluster.sh and for noticing a server that died.
  echo $! >"$nd/launched.pid"
}

# wait_node <n>: until the node answers and is synced with the cluster.
wait_node() {
  sock=$(cat "$dir/node$1/socket")
  tries=0
  until [ "$(mariadb --no-defaults --socket="$sock" -uroot -N -B \
      -e "SELECT VARIABLE_VALUE FROM information_schema.GLOBAL_STATUS WHERE VARIABLE_NAME='WSREP_LOCAL_STATE_COMMENT'" 2>/dev/null)" = Synced ]; do
    tries=$((tries + 1))
    if [ "$tries" -ge 240 ] || ! kill -0 "$(cat "$dir/node$1/launched.pid")" 2>/dev/null; then
      echo "start_cluster: node $1 did not join within 120 s; its log:" >&2
      tail -n 30 "$dir/node$1/mariadbd.err" >&2 || true
      exit 1
    fi
    sleep 0.5
  done
}

rm -rf "$dir/node1" "$dir/node2" "$dir/node3"
mkdir -p "$dir/node1/data" "$dir/node2" "$dir/node3"
own "$dir/node1"
if ! mariadb-install-db --no-defaults --auth-root-authentication-method=normal \
    --datadir="$dir/node1/data" --skip-test-db $(user_opt) >"$dir/install.log" 2>&1; then
  echo "start_cluster: mariadb-install-db failed, see $dir/install.log:" >&2
  tail -n 20 "$dir/install.log" >&2
  exit 1
fi

# The schema, loaded once into a cluster of one.
start_node 1 "$g1" "$i1" "$s1" gcomm://
wait_node 1
sock1=$(cat "$dir/node1/socket")
client() { mariadb --no-defaults --socket="$sock1" -uroot "$@"; }
client <<SQL
DROP USER IF EXISTS ''@'localhost';
DROP USER IF EXISTS ''@'$(hostname)';
CREATE DATABASE ovk CHARACTER SET utf8mb4 COLLATE utf8mb4_general_ci;
CREATE USER 'admin'@'localhost' IDENTIFIED BY '$password';
GRANT ALL PRIVILEGES ON ovk.* TO 'admin'@'localhost';
FLUSH PRIVILEGES;
SQL
client ovk <"$schema"
if [ "${OVK_CLUSTER_NO_UNIQUE_KEY:-0}" != 1 ]; then
  client ovk -e "ALTER TABLE resp_freq ADD UNIQUE KEY rule_sender (rn_id, email)"
fi
mariadb-admin --no-defaults --socket="$sock1" -uroot shutdown
while kill -0 "$(cat "$dir/node1/launched.pid")" 2>/dev/null; do sleep 0.2; done

# The same state for every node; the first starts the cluster anew.
for n in 2 3; do
  cp -a "$dir/node1/data" "$dir/node$n/data"
  sed -i 's/^safe_to_bootstrap:.*/safe_to_bootstrap: 0/' "$dir/node$n/data/grastate.dat"
  own "$dir/node$n"
done
start_node 1 "$g1" "$i1" "$s1" gcomm://
wait_node 1
start_node 2 "$g2" "$i2" "$s2" "gcomm://$members"
wait_node 2
start_node 3 "$g3" "$i3" "$s3" "gcomm://$members"
wait_node 3
trap - EXIT
echo "start_cluster: three nodes up in $dir"
