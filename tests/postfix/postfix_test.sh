#!/bin/bash
# A private Postfix hands a message received by SMTP to the relocated
# program through the pipe transport of packaging/postfix/ (the lines the
# README shows), and the program's reply comes back through Postfix's own
# sendmail into a local mailbox. Then the README's qmail line
# (packaging/qmail/dot-qmail) runs the program the way qmail-local would, and
# that reply arrives too.
#
#   postfix_test.sh <sandbox root> <program> <test database dir> <packaging dir> <README>
#
# Runs as root only (Postfix's master starts as root; the program is
# installed set-user-ID root, as the package installs it) and needs the
# test database (tests/db/start_db.sh) and Debian's postfix package, whose
# system instance stays unconfigured and stopped: this instance has its own
# configuration, queue and data directories and mailboxes in a temporary
# directory and listens on one loopback port. Exit 77: skipped.
# OVK_KEEP=1 keeps the temporary directory (log, mailboxes) for inspection.
#
# What differs from a host, and why:
#   - the program is a copy of the relocated build's, so its sendmail is
#     <sandbox>/usr/sbin/sendmail: a script there runs /usr/sbin/sendmail
#     with MAIL_CONFIG naming this instance's configuration (allowed for
#     root, which the program is by then);
#   - the program connects to the database through the client library's
#     compiled-in socket and, being set-user-ID, ignores MYSQL_UNIX_PORT:
#     the Postfix processes run in a mount namespace of their own where a
#     private /run holds mysqld/mysqld.sock, a link to the test server's
#     socket. The machine's /run is not touched.
set -euo pipefail

if [ $# -ne 5 ]; then
  echo "usage: $0 <sandbox root> <program> <test database dir> <packaging dir> <README>" >&2
  exit 2
fi
sandbox=$1
program=$2
testdb=$3
packaging=$4
readme=$5

skip() { echo "postfix_test: skipped: $*"; exit 77; }
fail() { echo "postfix_test: $*" >&2; exit 1; }

[ "$(id -u)" -eq 0 ] || skip "needs root"
[ -x /usr/sbin/postfix ] && [ -x /usr/lib/postfix/sbin/master ] || skip "postfix not installed"
command -v unshare >/dev/null || skip "unshare missing"
[ -f "$testdb/socket" ] || fail "no test database in $testdb"
dbsock=$(cat "$testdb/socket")
nobody_uid=$(id -u nobody)
nobody_gid=$(id -g nobody)

# The README shows exactly the lines this instance uses, and the qmail line.
for f in postfix/master.cf postfix/main.cf postfix/autoresponder_transport \
  postfix/autoresponder_virtual qmail/dot-qmail; do
  while IFS= read -r line; do
    sed "s/^ *//" "$readme" | grep -xF "${line#"${line%%[! ]*}"}" >/dev/null ||
      fail "README does not show the line of $f: $line"
  done <"$packaging/$f"
done

work=$(mktemp -d /tmp/ovk-postfix.XXXXXX)
chmod 755 "$work"
conf=$work/etc
created_in_sandbox=()

stop_postfix() {
  if [ -f "$work/queue/pid/master.pid" ]; then
    /usr/sbin/postfix -c "$conf" stop >/dev/null 2>&1 || true
    local pid
    pid=$(tr -d ' ' <"$work/queue/pid/master.pid" 2>/dev/null || true)
    for _ in $(seq 100); do
      [ -n "$pid" ] && [ -d "/proc/$pid" ] || break
      sleep 0.1
    done
    [ -n "$pid" ] && kill -9 "$pid" 2>/dev/null || true
  fi
  # Every Postfix daemon works in its queue directory: none may stay.
  local p
  for p in /proc/[0-9]*; do
    if [ "$(readlink "$p/cwd" 2>/dev/null)" = "$work/queue" ]; then
      kill -9 "${p#/proc/}" 2>/dev/null || true
    fi
  done
}
cleanup() {
  local status=$?
  if [ "$status" -ne 0 ] && [ -f "$work/maillog" ]; then
    echo "postfix_test: the instance's log:" >&2
    tail -n 40 "$work/maillog" >&2
  fi
  stop_postfix
  [ -n "${OVK_KEEP:-}" ] || rm -rf "$work"
  local f
  for f in "${created_in_sandbox[@]}"; do rm -rf "$f"; done
  mariadb --no-defaults --socket="$dbsock" -uroot ovk -e \
    "DELETE FROM resp_freq; DELETE FROM resp_forward; DELETE FROM resp_attach; DELETE FROM mail_resp; DELETE FROM mail_aliases; DELETE FROM domainaliases; DELETE FROM mail; DELETE FROM domains; DELETE FROM clients; DELETE FROM misc;" \
    >/dev/null 2>&1 || true
  exit "$status"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

# A free loopback port, taken by the instance a moment later.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

# The program, installed as the package installs it.
mkdir -p "$work/sbin"
install -o root -g root -m 4755 "$program" "$work/sbin/autoresponder"

# The sandbox: the panel's password file and sendmail.
for d in etc/ovk usr/sbin tmp; do
  [ -d "$sandbox/$d" ] || { mkdir -p "$sandbox/$d"; created_in_sandbox+=("$sandbox/${d%%/*}"); }
done
for f in etc/ovk/.ovk.shadow etc/ovk/ovk.conf usr/sbin/sendmail; do
  created_in_sandbox+=("$sandbox/$f")
done
mariadb --no-defaults --socket="$dbsock" -uroot -e "SELECT 1" >/dev/null ||
  fail "cannot reach the test database through $dbsock"
printf '%s\n' "$OVK_TESTDB_PASSWORD" >"$sandbox/etc/ovk/.ovk.shadow"
chmod 600 "$sandbox/etc/ovk/.ovk.shadow"
printf 'ORVIK_MAILNAMES_D %s\n' "$sandbox/var/qmail/mailnames" >"$sandbox/etc/ovk/ovk.conf"
cat >"$sandbox/usr/sbin/sendmail" <<SCRIPT
#!/bin/sh
# The private Postfix instance's sendmail (tests/postfix/postfix_test.sh).
MAIL_CONFIG=$conf
export MAIL_CONFIG
exec /usr/sbin/sendmail "\$@"
SCRIPT
chmod 755 "$sandbox/usr/sbin/sendmail"

# The panel's data: the mailbox info@example.com with one rule answering
# every message, in tables emptied of what earlier tests left.
mariadb --no-defaults --socket="$dbsock" -uroot ovk <<'SQL'
DELETE FROM resp_freq; DELETE FROM resp_forward; DELETE FROM resp_attach; DELETE FROM mail_resp;
DELETE FROM mail_aliases; DELETE FROM domainaliases; DELETE FROM mail; DELETE FROM domains;
DELETE FROM clients; DELETE FROM misc;
INSERT INTO misc (param, val) VALUES ('mysql41_compatible', 'true');
INSERT INTO clients (id, email, pname, login) VALUES (1, 'owner@example.com', 'Owner', 'owner');
INSERT INTO domains (id, name, cl_id) VALUES (1, 'example.com', 1);
INSERT INTO mail (id, mail_name, dom_id) VALUES (1, 'info', 1);
INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'sales');
INSERT INTO mail_resp (id, mn_id, text, resp_on, ans_freq) VALUES
  (1, 1, 'Closed until Monday.', 'true', '5');
SQL

# The instance: the README's lines, the program's path replaced by the
# installed copy's; mailboxes for info@example.com and the sender.
mkdir -p "$conf" "$work/queue" "$work/data" "$work/mail/example.com" "$work/mail/client.test"
chown postfix "$work/data"
chown -R nobody:"$nobody_gid" "$work/mail"
sed "s|/usr/sbin/autoresponder|$work/sbin/autoresponder|" "$packaging/postfix/master.cf" \
  >"$work/autoresponder.master.cf"
cp "$packaging/postfix/autoresponder_transport" "$packaging/postfix/autoresponder_virtual" "$conf/"
# An address routed to the program that no panel mailbox has.
printf 'nobox@example.com       nobox=example.com@autoresponder.invalid\n' >>"$conf/autoresponder_virtual"
cat >"$conf/vmailbox" <<'EOF2'
info@example.com        example.com/info
sender@client.test      client.test/sender
EOF2
cat >"$conf/main.cf" <<EOF2
compatibility_level = 3.6
queue_directory = $work/queue
data_directory = $work/data
command_directory = /usr/sbin
daemon_directory = /usr/lib/postfix/sbin
meta_directory = /etc/postfix
shlib_directory = /usr/lib/postfix
mail_owner = postfix
setgid_group = postdrop
maillog_file = $work/maillog
maillog_file_prefixes = $work
myhostname = mx.example.test
mydomain = example.test
myorigin = \$myhostname
mydestination =
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
mynetworks = 127.0.0.0/8
smtpd_relay_restrictions = permit_mynetworks, reject
alias_maps =
alias_database =
default_transport = error:no mail leaves the test
relay_transport = error:no mail leaves the test
virtual_mailbox_domains = example.com, client.test
virtual_mailbox_base = $work/mail
virtual_mailbox_maps = texthash:$conf/vmailbox
virtual_uid_maps = static:$nobody_uid
virtual_gid_maps = static:$nobody_gid
$(sed "s|/etc/postfix/|$conf/|" "$packaging/postfix/main.cf")
EOF2
cat >"$conf/master.cf" <<EOF2
127.0.0.1:$port inet n -       n       -       -       smtpd
pickup    unix  n       -       n       60      1       pickup
cleanup   unix  n       -       n       -       0       cleanup
qmgr      unix  n       -       n       300     1       qmgr
rewrite   unix  -       -       n       -       -       trivial-rewrite
bounce    unix  -       -       n       -       0       bounce
defer     unix  -       -       n       -       0       bounce
trace     unix  -       -       n       -       0       bounce
verify    unix  -       -       n       -       1       verify
flush     unix  n       -       n       1000?   0       flush
proxymap  unix  -       -       n       -       -       proxymap
showq     unix  n       -       n       -       -       showq
error     unix  -       -       n       -       -       error
retry     unix  -       -       n       -       -       error
discard   unix  -       -       n       -       -       discard
virtual   unix  -       n       n       -       -       virtual
anvil     unix  -       -       n       -       1       anvil
scache    unix  -       -       n       -       1       scache
postlog   unix-dgram n  -       n       -       1       postlogd
$(cat "$work/autoresponder.master.cf")
EOF2

unshare --mount --propagation private /bin/sh -c '
  set -e
  mount -t tmpfs -o mode=755 ovk-postfix-test /run
  mkdir /run/mysqld
  ln -s "$1" /run/mysqld/mysqld.sock
  exec /usr/sbin/postfix -c "$2" start' sh "$dbsock" "$conf" >"$work/start.log" 2>&1 ||
  { cat "$work/start.log" >&2; fail "postfix did not start"; }

python3 - "$port" <<'PY'
import smtplib, sys, time
for attempt in range(50):
    try:
        s = smtplib.SMTP("127.0.0.1", int(sys.argv[1]), timeout=10)
        break
    except OSError:
        time.sleep(0.2)
else:
    sys.exit("postfix_test: no SMTP server on the port")
s.sendmail("sender@client.test", ["info@example.com"],
           b"From: Sender <sender@client.test>\nTo: info@example.com\n"
           b"Subject: opening hours\n\nAre you open on Saturday?\n")
s.sendmail("sender@client.test", ["nobox@example.com"],
           b"From: sender@client.test\nTo: nobox@example.com\nSubject: hello\n\nHello.\n")
s.quit()
PY

reply=$work/mail/client.test/sender
for _ in $(seq 300); do
  [ -s "$reply" ] && grep -q 'Closed until Monday' "$reply" && break
  sleep 0.2
done
[ -s "$reply" ] || fail "no reply in the sender's mailbox"
grep -q '^Subject: Re: opening hours$' "$reply" || { cat "$reply" >&2; fail "the reply's subject is wrong"; }
grep -q '^To: .*sender@client.test' "$reply" || { cat "$reply" >&2; fail "the reply is not to the sender"; }
grep -q 'Are you open on Saturday' "$work/mail/example.com/info" ||
  fail "the message was not delivered into the mailbox too"
grep -q 'relay=autoresponder, .*status=sent (delivered via autoresponder service)' "$work/maillog" ||
  fail "the pipe transport's delivery is not logged as sent"
# The program's report reaches the log with the original recipient, which is
# what RESP_RECIPIENT carried.
for _ in $(seq 100); do
  grep -q 'orig_to=<nobox@example.com>, relay=autoresponder, .*status=sent (delivered via autoresponder service (autoresponder: Mailname not found: nobox@example.com))' "$work/maillog" && break
  sleep 0.2
done
grep -q 'Mailname not found: nobox@example.com' "$work/maillog" ||
  fail "the program's report for an address without a mailbox is not in the log"
# The qmail line, run as qmail-local runs it: by /bin/sh, as the mailbox's
# delivery user (here nobody), with EXT and HOST of the address (here the
# mail alias sales@example.com). The reply goes out through the same
# sendmail.
qmail_line=$(sed "s|/usr/sbin/autoresponder|$work/sbin/autoresponder|" "$packaging/qmail/dot-qmail")
printf 'From: sender@client.test\nTo: sales@example.com\nSubject: by qmail\n\nHello.\n' |
  unshare --mount --propagation private /bin/sh -c '
    set -e
    mount -t tmpfs -o mode=755 ovk-postfix-test /run
    mkdir /run/mysqld
    ln -s "$1" /run/mysqld/mysqld.sock
    cd /
    exec setpriv --reuid=nobody --regid="$2" --clear-groups \
      env -i PATH=/usr/bin:/bin EXT=sales HOST=example.com /bin/sh -c "$3"' \
    sh "$dbsock" "$nobody_gid" "${qmail_line#|}" >"$work/qmail.out" 2>&1 ||
  { cat "$work/qmail.out" >&2; fail "the qmail line failed"; }
for _ in $(seq 150); do
  grep -q '^Subject: Re: by qmail$' "$reply" && break
  sleep 0.2
done
grep -q '^Subject: Re: by qmail$' "$reply" ||
  { cat "$work/qmail.out" >&2; fail "no reply to the message run through the qmail line"; }
echo "postfix_test: reply delivered to sender@client.test through the pipe transport and sendmail"
