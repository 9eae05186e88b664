#!/bin/sh
# Starts the private MariaDB server of one test run and loads the panel
# schema into a fresh database "ovk".
#
#   start_db.sh <dir> <admin password> <schema.sql>
#
# Everything lives under <dir>: the data directory, the pid file, the error
# log, and the file "socket" holding the socket path. The socket itself lies
# in a short directory under /tmp, because a unix socket path must stay below
# 108 bytes and build directories can be deep. The server listens on no TCP
# port. A server left running in <dir> by an earlier run is stopped first, so
# the script can be run again at any time. Works as root (the server then
# runs with --user=root) and as a normal user.
#
# Extra server options (for instance --version=4.0.27 to pose as an old
# server) may be given, separated by blanks, in OVK_TESTDB_SERVER_OPTS.
#
# Root reaches the server over the socket without a password; the panel's
# administrative user 'admin'@'localhost' gets <admin password> and every
# privilege on ovk.* and nothing else; or, when OVK_TESTDB_GRANTS names a
# file of GRANT statements (packaging/grants.sql: what the README tells
# operators), exactly those.
set -eu

if [ $# -ne 3 ]; then
  echo "usage: $0 <dir> <admin password> <schema.sql>" >&2
  exit 2
fi
dir=$1
password=$2
schema=$3
here=$(cd "$(dirname "$0")" && pwd)

[ -r "$schema" ] || { echo "start_db: cannot read schema $schema" >&2; exit 1; }
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)

"$here/stop_db.sh" "$dir"

user_opt=""
if [ "$(id -u)" -eq 0 ]; then user_opt="--user=root"; fi

# A data directory is initialised once and reused by later runs; the marker
# is written only after a complete initialisation.
if [ ! -f "$dir/data/.ovk-initialised" ]; then
  rm -rf "$dir/data"
  mkdir -p "$dir/data"
  if ! mariadb-install-db --no-defaults --auth-root-authentication-method=normal \
      --datadir="$dir/data" --skip-test-db $user_opt >"$dir/install.log" 2>&1; then
    echo "start_db: mariadb-install-db failed, see $dir/install.log:" >&2
    tail -n 20 "$dir/install.log" >&2
    exit 1
  fi
  touch "$dir/data/.ovk-initialised"
fi

sockdir=$(mktemp -d /tmp/ovkdb.XXXXXX)
chmod 755 "$sockdir"
sock=$sockdir/sock
printf '%s\n' "$sock" >"$dir/socket"

# The server is detached (own session, no inherited output) so that the test
# driver does not wait for it to close our standard streams.
# shellcheck disable=SC2086
setsid mariadbd --no-defaults --datadir="$dir/data" --skip-networking \
  --socket="$sock" --pid-file="$dir/mariadbd.pid" --log-error="$dir/mariadbd.err" \
  --general-log=1 --log-output=TABLE \
  --innodb-buffer-pool-size=32M --innodb-log-file-size=16M \
  --innodb-flush-log-at-trx-commit=0 --skip-innodb-doublewrite \
  --character-set-server=utf8mb4 --collation-server=utf8mb4_general_ci \
  $user_opt ${OVK_TESTDB_SERVER_OPTS:-} </dev/null >/dev/null 2>&1 &

client() { mariadb --no-defaults --socket="$sock" -uroot "$@"; }

tries=0
until mariadb-admin --no-defaults --socket="$sock" -uroot --connect-timeout=2 ping \
    >/dev/null 2>&1; do
  tries=$((tries + 1))
  if [ "$tries" -ge 120 ]; then
    echo "start_db: the server did not answer within 60 s; its log:" >&2
    tail -n 30 "$dir/mariadbd.err" >&2 || true
    exit 1
  fi
  sleep 0.5
done

client <<EOF
DROP USER IF EXISTS ''@'localhost';
DROP USER IF EXISTS ''@'$(hostname)';
DROP DATABASE IF EXISTS ovk;
CREATE DATABASE ovk CHARACTER SET utf8mb4 COLLATE utf8mb4_general_ci;
CREATE OR REPLACE USER 'admin'@'localhost' IDENTIFIED BY '$password';
EOF
client ovk <"$schema"
if [ -n "${OVK_TESTDB_GRANTS:-}" ]; then
  client <"$OVK_TESTDB_GRANTS"
else
  client -e "GRANT ALL PRIVILEGES ON ovk.* TO 'admin'@'localhost'"
fi
client -e "FLUSH PRIVILEGES"

echo "start_db: server up on $sock"
