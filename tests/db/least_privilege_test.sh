#!/bin/sh
# Runs the end-to-end test programs once with the panel's 'admin' user
# holding exactly the grants the README tells operators to give
# (packaging/grants.sql), not every privilege on ovk.*: the test server is
# started again with OVK_TESTDB_GRANTS, and afterwards, also on failure,
# again with the usual grants for the other tests.
#
#   least_privilege_test.sh <dir> <admin password> <schema.sql> <grants.sql> <README> <test program>...
set -eu

if [ $# -lt 6 ]; then
  echo "usage: $0 <dir> <admin password> <schema.sql> <grants.sql> <README> <test program>..." >&2
  exit 2
fi
dir=$1 password=$2 schema=$3 grants=$4 readme=$5
shift 5
here=$(cd "$(dirname "$0")" && pwd)

# The README shows these very statements.
while IFS= read -r line; do
  sed 's/^ *//' "$readme" | grep -qxF "$line" || { echo "least_privilege_test: README lacks: $line" >&2; exit 1; }
done <"$grants"

restore() {
  status=$?
  "$here/start_db.sh" "$dir" "$password" "$schema" >/dev/null ||
    { echo "least_privilege_test: could not restart the test server with the usual grants" >&2; status=1; }
  exit "$status"
}
trap restore EXIT
trap 'exit 1' INT TERM HUP

OVK_TESTDB_GRANTS=$grants "$here/start_db.sh" "$dir" "$password" "$schema" >/dev/null
sock=$(cat "$dir/socket")
granted=$(mariadb --no-defaults --socket="$sock" -uroot -N -e "SHOW GRANTS FOR 'admin'@'localhost'" |
  grep -c '^GRANT .* ON `ovk`\.')
expected=$(grep -c '^GRANT' "$grants")
[ "$granted" -eq "$expected" ] ||
  { echo "least_privilege_test: admin holds $granted grants on ovk, expected $expected" >&2; exit 1; }

failed=0
for program in "$@"; do
  if ! "$program" --gtest_brief=1 >"$dir/least_privilege.$(basename "$program").log" 2>&1; then
    echo "least_privilege_test: $(basename "$program") failed with the README's grants:" >&2
    grep -E '^\[  FAILED  \]|Failure|error' "$dir/least_privilege.$(basename "$program").log" | head -n 40 >&2
    failed=1
  fi
done
[ "$failed" -eq 0 ] && echo "least_privilege_test: $# test programs passed with the README's grants"
exit "$failed"
