#!/usr/bin/env bash
# Shows the autoresponder doing its whole job on this machine, without
# touching the machine's own mail system, panel files or database:
#
#   1. installs what is missing (scripts/setup.sh) and builds the program
#      relocated into a sandbox (build/demo/sandbox), so every path it uses
#      (panel configuration, password file, sendmail, mailbox tree, /tmp)
#      lies in that directory;
#   2. starts a private database server (tests/db/start_db.sh) and loads the
#      panel schema and the demo data (scripts/demo/data.sql);
#   3. writes the sandbox files: the panel configuration, the database
#      password, a sendmail that only records what it is given, and one of
#      the two attachment files the demo rule names;
#   4. pipes scripts/demo/message.eml through the program, as the mail system
#      would for a message to sales@example.com (a mail alias of
#      info@example.com);
#   5. prints every sendmail call: its arguments and the mail it received
#      (the forward, the notice about the missing attachment, two replies),
#      and the answer counts the program stored.
#
# The server is stopped when the script ends, however it ends. Running the
# script again starts from scratch (fresh sandbox and database) and reuses the
# build.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

demo_dir=$repo/build/demo
sandbox=$demo_dir/sandbox
db_dir=$demo_dir/db
db_password=demo-admin-pw
recipient=sales@example.com

section() { printf '\n==== %s\n' "$*"; }

section "Installing what is missing"
bash scripts/setup.sh

section "Building the program (sandbox: $sandbox)"
mkdir -p "$demo_dir"
cmake -S . -B "$demo_dir" -DROOT_PREFIX="$sandbox" -DOVK_BUILD_TESTS=OFF \
  -DOVK_BUILD_BENCH=OFF >"$demo_dir/configure.log" 2>&1 ||
  { cat "$demo_dir/configure.log" >&2; exit 1; }
cmake --build "$demo_dir" --target autoresponder -j2 >"$demo_dir/build.log" 2>&1 ||
  { tail -n 40 "$demo_dir/build.log" >&2; exit 1; }
echo "built $demo_dir/autoresponder/autoresponder"

section "Starting a private database server"
stop_db() { sh "$repo/tests/db/stop_db.sh" "$db_dir" || true; }
trap stop_db EXIT
sh tests/db/start_db.sh "$db_dir" "$db_password" tests/db/schema.sql
socket=$(cat "$db_dir/socket")
mariadb --no-defaults --socket="$socket" -uroot ovk <scripts/demo/data.sql
echo "loaded scripts/demo/data.sql"

section "Writing the sandbox files"
rm -rf "$sandbox"
mkdir -p "$sandbox/etc/ovk" "$sandbox/usr/sbin" "$sandbox/var/qmail/control" \
  "$sandbox/tmp"
mailnames=$sandbox/var/qmail/mailnames
repository=$mailnames/example.com/info/@attachments
mkdir -p "$repository"
printf 'ORVIK_MAILNAMES_D %s\n' "$mailnames" >"$sandbox/etc/ovk/ovk.conf"
printf '%s\n' "$db_password" >"$sandbox/etc/ovk/.ovk.shadow"
chmod 600 "$sandbox/etc/ovk/.ovk.shadow"
install -m 755 tests/harness/fake_sendmail.sh "$sandbox/usr/sbin/sendmail"
cat >"$repository/prices.txt" <<'EOF'
Price list, valid from 1 March
  Widget, small ....  4.50
  Widget, large ....  7.90
  Gadget ........... 12.00
EOF
echo "panel configuration, password file, recording sendmail, $repository/prices.txt"
echo "(catalogue.pdf, the rule's second attachment, is left missing on purpose)"

section "The incoming message (RESP_RECIPIENT=$recipient)"
cat scripts/demo/message.eml

section "Running the autoresponder"
set +e
RESP_RECIPIENT=$recipient MYSQL_UNIX_PORT=$socket \
  "$demo_dir/autoresponder/autoresponder" <scripts/demo/message.eml
status=$?
set -e
echo "exit status: $status"

section "What sendmail received (paths shown without the sandbox prefix)"
log=$sandbox/sendmail-log
calls=0
for args in "$log"/*.args; do
  [ -e "$args" ] || continue
  calls=$((calls + 1))
  printf '\n---- call %d: ' "$calls"
  first=1
  while IFS= read -r -d '' arg; do
    if [ "$first" -eq 1 ]; then arg=${arg#"$sandbox"}; first=0; fi
    printf '%q ' "$arg"
  done <"$args"
  printf '\n'
  cat "${args%.args}.stdin"
done
[ "$calls" -gt 0 ] || echo "(sendmail was not called)"

section "Answer counts stored by the program (resp_freq)"
mariadb --no-defaults --socket="$socket" -uroot ovk --table \
  -e 'select rn_id, email, num from resp_freq order by rn_id'

leftover=$(find "$sandbox/tmp" -mindepth 1 | wc -l)
echo
echo "temporary files left in the sandbox's /tmp: $leftover"
