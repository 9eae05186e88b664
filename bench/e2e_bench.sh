#!/usr/bin/env bash
# End-to-end cost of a run, against a floor measured in the same run, and
# the start-up cost of each way of linking the program. Writes BENCHMARKS.md.
#
# Figures (each the median of many runs, taken in turn with its floor):
#   (a) a small message answered by one rule;
#   (b) the same message to a mailbox with 200 rules of which 5 answer;
#   (c) 500 messages from 50 senders, 4 runs at a time (total wall time);
#   (d) the floor of (a): bench/floor_main, linked like the program, reads
#       the message, connects, sends the very statements the program sent in
#       (a) (taken from the server's query log) and starts the sendmail once
#       with a message of the reply's size, where the program started it.
#       (b) and (c) have floors made the same way: the statements of (b)
#       with five sendmail starts; the floor of (a) 500 times, 4 at a time,
#       each with its own sender's statements.
#   peers, in the loop of (a): vacation(1) (Debian's package, installed here
#       when missing), answering the same message with its own database in a
#       temporary home; bench/minimal_responder (reads the message, starts
#       one sendmail, waits); /bin/true. vacation(1) calls the machine's
#       /usr/sbin/sendmail, so that loop runs in a private mount namespace in
#       which the sandbox's sendmail and a passwd file naming the temporary
#       home are mounted over /usr/sbin/sendmail and /etc/passwd.
#   the cuts of the client library's set-up (lib/dbconnect.cc), undone:
#       bench/library_init_before.cc.
#   the decomposition of one run of (a) by phase: strace -T, callgrind and
#       the server's own timing (its slow log with long_query_time=0).
# Goal: (a) within 1.15 times its floor. Exits 1 when it is missed.
# Absolute times depend on the other work on the machine; the ratios, taken
# in one interleaved loop, and the instruction counts are what to compare.
#
# Everything runs against a private MariaDB server (tests/db/start_db.sh)
# in the build directory and a sandbox whose sendmail is bench_sendmail, in
# BUILD_DIR/sandbox (the build's ROOT_PREFIX, emptied at every run).
#
# Usage: bench/e2e_bench.sh [BUILD_DIR]   (default build/bench-e2e)
# Environment: ROUNDS (default 300) runs of each contestant for (a), (b) and
# the start-up table; BATCHES (default 5) rounds of 500 for (c);
# NO_CALLGRIND=1 skips the instruction counts; NO_DECOMPOSITION=1 the
# decomposition; KEEP_DB=1 leaves the
# database server running at the end (stop it with tests/db/stop_db.sh
# BUILD_DIR/benchdb); OUTPUT (default
# BENCHMARKS.md in the source tree) is the report written.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build/bench-e2e}
rounds=${ROUNDS:-300}
batches=${BATCHES:-5}
output=${OUTPUT:-$top/BENCHMARKS.md}
readonly goal_a=1.15
readonly senders=50
readonly messages_c=500
readonly jobs_c=4
readonly db_password=bench-admin-pw
started_at=$(date +%s)

say() { printf 'e2e_bench: %s\n' "$*" >&2; }
fail() { say "$*"; exit 1; }
trap 'say "failed at line $LINENO: $BASH_COMMAND"' ERR

# ------------------------------------------------------------------ build
mkdir -p "$build"
build=$(cd "$build" && pwd)
root=$build/sandbox
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
say "building (Release, OVK_STATIC_LINK=ON) in $build"
cmake -S "$top" -B "$build" -DROOT_PREFIX="$root" -DCMAKE_BUILD_TYPE=Release \
  -DOVK_BUILD_TESTS=OFF -DOVK_BUILD_BENCH=ON -DOVK_SANITIZE=OFF -DOVK_STATIC_LINK=ON >/dev/null
variants=(autoresponder_dynamic floor_dynamic autoresponder_static_libs floor_static_libs
  autoresponder_bind_now autoresponder_no_pie autoresponder_uncut floor_uncut autoresponder_port_cut
  autoresponder_relr floor_relr autoresponder_no_connect_sleep floor_no_connect_sleep autoresponder_before)
cmake --build "$build" -j2 --target autoresponder floor_main run_many bench_sendmail truncation_cost \
  minimal_responder \
  "${variants[@]}" >/dev/null
bin=$build/bench
program=$build/autoresponder/autoresponder
floor=$bin/floor_main
run_many=$bin/run_many

# ---------------------------------------------------------------- sandbox
work=$build/e2e-work
dbdir=$build/benchdb
rm -rf "$work"
mkdir -p "$work"
cleanup() {
  trap - ERR
  if [[ -n ${KEEP_DB:-} ]]; then
    say "the server still runs (KEEP_DB): MYSQL_UNIX_PORT=$(cat "$dbdir/socket" 2>/dev/null)"
    return
  fi
  "$top/tests/db/stop_db.sh" "$dbdir" >/dev/null 2>&1 || true
}
trap cleanup EXIT

rm -rf "$root"
mkdir -p "$root/etc/ovk" "$root/usr/sbin" "$root/tmp" "$root/var/qmail/control" \
  "$root/var/qmail/mailnames"
printf 'ORVIK_MAILNAMES_D %s\n' "$root/var/qmail/mailnames" >"$root/etc/ovk/ovk.conf"
printf '%s\n' "$db_password" >"$root/etc/ovk/.ovk.shadow"
cp "$bin/bench_sendmail" "$root/usr/sbin/sendmail"
sendmail_log=$root/bench-sendmail.log
: >"$sendmail_log"

# --------------------------------------------------------------- database
say "starting the private database server in $dbdir"
# The query log is switched on only while the statements are taken.
OVK_TESTDB_SERVER_OPTS="--general-log=0" \
  "$top/tests/db/start_db.sh" "$dbdir" "$db_password" "$top/tests/db/schema.sql" >/dev/null
MYSQL_UNIX_PORT=$(cat "$dbdir/socket")
export MYSQL_UNIX_PORT
sql() { mariadb --no-defaults -uroot -N -B -r ovk "$@"; }

# Mailbox info@example.com (a, c): one rule answering every message.
# Mailbox sales@example.com (b): 200 rules; rules 1, 50, 100, 150 and 200
# answer, the others are switched off or look for a key the subject lacks.
# The daily limit and the sender memory are far above what a run reaches,
# so every run answers.
rule_text='Thank you for your message. We have received it and will answer within one working day.\n\nKind regards,\nThe example.com team'
{
  cat <<EOF
INSERT INTO misc (param, val) VALUES ('mysql41_compatible', 'true');
INSERT INTO clients (id, email, pname, login) VALUES (1, 'owner@example.com', 'Owner', 'owner');
INSERT INTO domains (id, name, cl_id) VALUES (1, 'example.com', 1);
INSERT INTO mail (id, mail_name, dom_id) VALUES (1, 'info', 1), (2, 'sales', 1);
INSERT INTO mail_resp (mn_id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject,
  reply_to, charset, content_type) VALUES
  (1, '', 'no', '$rule_text', 'true', '1000000000', '1000000',
   'Re: <request_subject>', '', 'UTF-8', 'text/plain');
EOF
  echo "INSERT INTO mail_resp (mn_id, keystr, key_where, text, resp_on, ans_freq, mem_limit,"
  echo "  subject, reply_to, charset, content_type) VALUES"
  for ((i = 1; i <= 200; i++)); do
    if ((i == 1 || i % 50 == 0)); then
      row="(2, '', 'no', '$rule_text', 'true', '1000000000', '1000000', 'Re: <request_subject>', '', 'UTF-8', 'text/plain')"
    elif ((i % 2 == 0)); then
      row="(2, 'order $i', 'subj', '$rule_text', 'false', '10', '1000', 'Order $i', '', 'UTF-8', 'text/plain')"
    else
      row="(2, 'order $i', 'subj', '$rule_text', 'true', '10', '1000', 'Order $i', '', 'UTF-8', 'text/plain')"
    fi
    if ((i < 200)); then row+=","; fi
    echo "  $row"
  done
  echo ";"
} | sql

# ---------------------------------------------------------------- messages
message() {  # message SENDER FILE
  cat >"$2" <<EOF
From: Bench Sender <$1>
To: info@example.com
Subject: Question about my order
Date: Tue, 14 May 2024 09:11:58 +0200
Message-ID: <$RANDOM.$1>
MIME-Version: 1.0
Content-Type: text/plain; charset=utf-8
Content-Transfer-Encoding: 8bit

Hello,

could you tell me when my order will be shipped?
It was placed last week.

Thanks,
Bench Sender
EOF
}
message sender@example.org "$work/a.eml"
# vacation(1) takes the sender from Return-Path (or a "From " line), which the
# mail system adds on delivery; the rest of its message is (a)'s.
{ printf 'Return-Path: <sender@example.org>\n'; cat "$work/a.eml"; } >"$work/a-vacation.eml"
mkdir -p "$work/c"
inputs_c=()
for ((s = 1; s <= senders; s++)); do
  file=$work/c/$(printf 'msg-%02d.eml' "$s")
  message "$(printf 'sender%02d@example.org' "$s")" "$file"
  inputs_c+=(--in "$file")
done

runs_out=$work/runs.out
: >"$runs_out"

# ---------------------------------------------------------- vacation(1)
# The peer and the tools of the decomposition, from Debian, when missing.
tools=()
for tool in vacation strace valgrind; do command -v "$tool" >/dev/null || tools+=("$tool"); done
if ((${#tools[@]} > 0)); then
  say "installing ${tools[*]} (Debian packages)"
  apt-get install -y "${tools[@]}" >/dev/null 2>&1 ||
    { apt-get update >/dev/null && apt-get install -y "${tools[@]}" >/dev/null; } ||
    fail "cannot install ${tools[*]}"
fi
# Its home, the home of root and of the login "info" in the namespace, is a
# file system in memory: vacation(1) syncs its database to the disk three
# times a run (fdatasync), while the private server of the benchmark, like
# the tests', does not flush its log at a commit. The contestant vacation_disk
# keeps its database on the disk (beside the server's), with the syncs.
vacation_home=$work/vacation-home
mkdir -p "$vacation_home"
printf 'root:x:0:0:root:%s:/bin/sh\ninfo:x:0:0:info:%s:/bin/sh\n' "$vacation_home" \
  "$vacation_home" >"$work/passwd"
printf 'From: info@example.com\nSubject: Re: $SUBJECT\nPrecedence: bulk\n\n%b\n' "$rule_text" \
  >"$work/vacation.msg"
# Runs a command with the sandbox's sendmail at /usr/sbin/sendmail and the
# home in memory set up (the reply, the database answering every message:
# interval 0, like the rules' limit far above what a run reaches), for this
# command and its children only; the database on the disk is made once.
in_peer_namespace() {
  (cd "$vacation_home" && unshare -m --propagation private sh -c 'set -e
    mount --bind "$1" /usr/sbin/sendmail
    mount --bind "$2" /etc/passwd
    mount -t tmpfs -o size=16m,mode=0700 ovk-bench "$3"
    cd "$3"
    cp "$4" .vacation.msg
    vacation -i -r 0
    [ -e "$5" ] || vacation -i -r 0 -f "$5"
    shift 5
    exec "$@"' sh "$root/usr/sbin/sendmail" "$work/passwd" "$vacation_home" "$work/vacation.msg" \
    "$work/vacation-disk.db" "$@")
}
vacation_args=(/usr/bin/vacation -a info@example.com info)
vacation_disk_args=(/usr/bin/vacation -a info@example.com -f "$work/vacation-disk.db" info)
check_quiet() {  # the runs wrote nothing: no failure was reported
  if [[ -s $runs_out ]]; then
    say "the measured runs reported:"
    head -n 20 "$runs_out" >&2
    exit 1
  fi
}
sendmail_calls() { wc -l <"$sendmail_log"; }
expect_calls() {  # expect_calls BEFORE ADDED WHAT
  local now
  now=$(sendmail_calls)
  ((now - $1 == $2)) || fail "$3: $((now - $1)) sendmail starts, expected $2"
}

run_program() {  # run_program PROGRAM RECIPIENT MESSAGE
  RESP_RECIPIENT=$2 "$1" <"$3" >>"$runs_out" 2>&1
}

# ------------------------------------------- statements, from the query log
# The statements of the connections of user admin since the log was cleared,
# one line each, for the n-th such connection (1-based, in connection order).
log_on() { sql -e "TRUNCATE TABLE mysql.general_log; SET GLOBAL general_log = 1;"; }
log_off() { sql -e "SET GLOBAL general_log = 0;"; }
statements_of_connection() {
  sql -e "SELECT argument FROM mysql.general_log WHERE command_type = 'Query'
          AND user_host LIKE 'admin[%' AND thread_id = (
            SELECT thread_id FROM (SELECT DISTINCT thread_id FROM mysql.general_log
              WHERE user_host LIKE 'admin[%' ORDER BY thread_id LIMIT 1 OFFSET $(($1 - 1))) t)"
}
# The floor's connection sends the set-up statements itself (db_connect);
# its file holds the ones after them, and "@sendmail" where the program
# handed a reply over: after each rule's attachment lookup (the rules of the
# benchmark forward nothing and lack no attachment, so nothing else starts a
# sendmail).
readonly setup_statements=4
floor_script() {
  tail -n +$((setup_statements + 1)) | awk '{ print } /^select filename from resp_attach / { print "@sendmail" }'
}

say "warming up and taking the statements of (a), (b) and (c)"
# Warm-up: every sender has its answer count row, so all later runs take
# the same path (count updated, not inserted).
run_program "$program" info@example.com "$work/a.eml"
run_program "$program" sales@example.com "$work/a.eml"
for file in "$work"/c/msg-*.eml; do run_program "$program" info@example.com "$file"; done
check_quiet

log_on
before=$(sendmail_calls)
run_program "$program" info@example.com "$work/a.eml"
expect_calls "$before" 1 "(a)"
reply_size_a=$(tail -n 1 "$sendmail_log" | cut -d' ' -f1)
before=$(sendmail_calls)
run_program "$program" sales@example.com "$work/a.eml"
expect_calls "$before" 5 "(b)"
reply_size_b=$(tail -n 5 "$sendmail_log" | awk '{ s += $1 } END { printf "%d", s / NR }')
for file in "$work"/c/msg-*.eml; do run_program "$program" info@example.com "$file"; done
log_off
check_quiet
[[ $(sql -e "SELECT COUNT(*) FROM mysql.general_log WHERE argument LIKE '%\n%'") == 0 ]] ||
  fail "a statement spans lines; the floor's statement files cannot hold it"

statements_of_connection 1 >"$work/a.all"
statements_of_connection 2 >"$work/b.all"
floor_script <"$work/a.all" >"$work/a.statements"
floor_script <"$work/b.all" >"$work/b.statements"
for ((s = 1; s <= senders; s++)); do
  statements_of_connection $((s + 2)) | floor_script >"$work/c/$(printf 'msg-%02d.eml' "$s").statements"
done
[[ $(grep -c '^@sendmail$' "$work/a.statements") == 1 && $(grep -c '^@sendmail$' "$work/b.statements") == 5 ]] ||
  fail "the statement logs do not show the expected attachment lookups" 
statements_a=$(wc -l <"$work/a.all")
statements_b=$(wc -l <"$work/b.all")
# Messages of the replies' sizes, in lines of 72 bytes.
filler() {
  awk -v n="$1" 'BEGIN {
    line = sprintf("%71s\n", ""); gsub(/ /, "x", line)
    for (; n >= 72; n -= 72) printf "%s", line
    printf "%s", substr(line, 1, n) }'
}
filler "$reply_size_a" >"$work/reply-a.txt"
filler "$reply_size_b" >"$work/reply-b.txt"

# The floor must send exactly what the program sent: checked once, from the
# query log of a floor run.
log_on
"$floor" "$work/a.statements" "$work/reply-a.txt" <"$work/a.eml" >>"$runs_out" 2>&1
log_off
check_quiet
statements_of_connection 1 | cmp -s - "$work/a.all" ||
  fail "the floor's statements differ from the program's"


# ------------------------------------------------------------ measurements
export RESP_RECIPIENT=info@example.com
field() {  # field CONTESTANT KEY RESULT-FILE
  grep "^$1 " "$3" | tr ' ' '\n' | sed -n "s/^$2=//p"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
ms() { awk -v us="$1" 'BEGIN { printf "%.2f", us / 1000 }'; }

# (a): the program and its floor, and every variant of both.
a_contestants=(
  a_static "$program"
  floor_static "$floor"
  a_dynamic "$bin/autoresponder_dynamic"
  floor_dynamic "$bin/floor_dynamic"
  a_static_libs "$bin/autoresponder_static_libs"
  floor_static_libs "$bin/floor_static_libs"
  a_bind_now "$bin/autoresponder_bind_now"
  a_no_pie "$bin/autoresponder_no_pie"
  a_before "$bin/autoresponder_before"
  a_uncut "$bin/autoresponder_uncut"
  floor_uncut "$bin/floor_uncut"
  a_port_cut "$bin/autoresponder_port_cut"
  a_relr "$bin/autoresponder_relr"
  floor_relr "$bin/floor_relr"
  a_no_connect_sleep "$bin/autoresponder_no_connect_sleep"
  floor_no_connect_sleep "$bin/floor_no_connect_sleep"
  minimal "$bin/minimal_responder"
  vacation "${vacation_args[0]}"
  vacation_disk "${vacation_args[0]}"
  true /bin/true
)
a_args=()
for ((k = 0; k < ${#a_contestants[@]}; k += 2)); do
  name=${a_contestants[k]}
  case $name in
    vacation) a_args+=(-c "$name" --in "$work/a-vacation.eml" -- "${vacation_args[@]}") ;;
    vacation_disk) a_args+=(-c "$name" --in "$work/a-vacation.eml" -- "${vacation_disk_args[@]}") ;;
    minimal) a_args+=(-c "$name" --in "$work/a.eml" -- "${a_contestants[k + 1]}"
      "$work/reply-a.txt" sender@example.org) ;;
    *) a_args+=(-c "$name" --in "$work/a.eml" -- "${a_contestants[k + 1]}") ;;
  esac
  [[ $name == floor_* ]] && a_args+=("$work/a.statements" "$work/reply-a.txt")
  a_args+=(";")
done
say "(a) and its floor, with every variant and the peers: $rounds rounds"
before=$(sendmail_calls)
in_peer_namespace "$run_many" --rounds "$rounds" --warmup 10 --out "$runs_out" "${a_args[@]}" \
  >"$work/a.result"
check_quiet
# One reply per run, but none from /bin/true.
expect_calls "$before" $(((${#a_contestants[@]} / 2 - 1) * (rounds + 10))) "(a) runs"

say "start-up alone (a message without a sender: intake only, no database): $rounds rounds"
printf '\n' >"$work/no-sender.eml"
"$run_many" --rounds "$rounds" --warmup 10 \
  -c s_dynamic --in "$work/no-sender.eml" -- "$bin/autoresponder_dynamic" \; \
  -c s_static_libs --in "$work/no-sender.eml" -- "$bin/autoresponder_static_libs" \; \
  -c s_static --in "$work/no-sender.eml" -- "$program" \; \
  -c s_before --in "$work/no-sender.eml" -- "$bin/autoresponder_before" \; \
  -c s_bind_now --in "$work/no-sender.eml" -- "$bin/autoresponder_bind_now" \; \
  -c s_no_pie --in "$work/no-sender.eml" -- "$bin/autoresponder_no_pie" \; \
  -c s_true -- /bin/true \; \
  >"$work/s.result"

# (b): the program and its floor, as built and with the proposed changes.
b_contestants=(
  b_static "$program" floor_b "$floor"
  b_uncut "$bin/autoresponder_uncut"
  b_before "$bin/autoresponder_before"
)
b_args=()
for ((k = 0; k < ${#b_contestants[@]}; k += 2)); do
  name=${b_contestants[k]}
  if [[ $name == floor_* ]]; then
    b_args+=(-c "$name" --in "$work/a.eml" -- "${b_contestants[k + 1]}" "$work/b.statements"
      "$work/reply-b.txt" ";")
  else
    b_args+=(-c "$name" --in "$work/a.eml" --env RESP_RECIPIENT=sales@example.com --
      "${b_contestants[k + 1]}" ";")
  fi
done
say "(b) and its floor: $rounds rounds"
before=$(sendmail_calls)
"$run_many" --rounds "$rounds" --warmup 10 --out "$runs_out" "${b_args[@]}" >"$work/b.result"
check_quiet
expect_calls "$before" $((${#b_contestants[@]} * 5 * (rounds + 10) / 2)) "(b) runs"

say "(c) and its floor: $batches rounds of $messages_c runs, $jobs_c at a time"
before=$(sendmail_calls)
"$run_many" --rounds "$batches" --warmup 1 --batch "$messages_c" --jobs "$jobs_c" \
  --out "$runs_out" \
  -c c_static "${inputs_c[@]}" -- "$program" \; \
  -c floor_c "${inputs_c[@]}" -- "$floor" "{}.statements" "$work/reply-a.txt" \; \
  >"$work/c.result"
check_quiet
expect_calls "$before" $((2 * messages_c * (batches + 1))) "(c) runs"

say "truncating a fresh file and not truncating it, in the sandbox's tmp: $rounds rounds"
"$bin/truncation_cost" "$root/tmp" "$rounds" >"$work/t.result"

# ------------------------------------------- instruction counts (callgrind)
declare -A instructions=() loader=() gobject_init=() openssl=() iconv=() intake=() composition=()
declare -A servname=() library_init=()
callgrind_variants=(autoresponder autoresponder_dynamic autoresponder_static_libs
  autoresponder_bind_now autoresponder_no_pie autoresponder_uncut autoresponder_port_cut
  autoresponder_relr autoresponder_no_connect_sleep autoresponder_before floor_main floor_dynamic floor_static_libs floor_uncut)
inclusive() {  # inclusive FILE FUNCTION...: the sum of their inclusive counts
  local file=$1
  shift
  callgrind_annotate --inclusive=yes --threshold=100 "$file" 2>/dev/null |
    awk -v names="$*" '
      BEGIN { n = split(names, want, " ") }
      { for (i = 1; i <= n; i++)
          if ((index($0, ":" want[i] " ") || index($0, ":" want[i] "(")) && !seen[want[i]]++) {
          gsub(",", "", $1); sum += $1 } }
      END { printf "%d", sum }'
}
# The arrays are read through name references (share, millions below).
# shellcheck disable=SC2034
if [[ -z ${NO_CALLGRIND:-} ]] && command -v valgrind >/dev/null; then
  say "instruction counts of one run of (a) per variant (callgrind)"
  for variant in "${callgrind_variants[@]}"; do
    if [[ $variant == autoresponder ]]; then exe=$program; else exe=$bin/$variant; fi
    args=()
    [[ $variant == floor_* ]] && args=("$work/a.statements" "$work/reply-a.txt")
    out=$work/callgrind.$variant
    valgrind --tool=callgrind --callgrind-out-file="$out" "$exe" "${args[@]}" \
      <"$work/a.eml" >/dev/null 2>"$out.log" || fail "callgrind run of $variant failed"
    instructions[$variant]=$(sed -n 's/^summary: *//p; s/^totals: *//p' "$out" | head -n 1)
    loader[$variant]=$(inclusive "$out" _dl_start)
    gobject_init[$variant]=$(inclusive "$out" gobject_init_ctor)
    intake[$variant]=$(inclusive "$out" parse_message)
    composition[$variant]=$(inclusive "$out" create_response_file compose_response)
    openssl[$variant]=$(inclusive "$out" OPENSSL_init_ssl OPENSSL_cleanup)
    servname[$variant]=$(inclusive "$out" getservbyname)
    library_init[$variant]=$(inclusive "$out" "db_library_init()")
    iconv[$variant]=$(inclusive "$out" iconv_open)
  done
fi

# ------------------------------------------------------------------ report
wall() { field "$1" median "$2"; }
cpu() { field "$1" cpu_median "$2"; }
A=$work/a.result
a_wall=$(wall a_static "$A")
fa_wall=$(wall floor_static "$A")
a_cpu=$(cpu a_static "$A")
fa_cpu=$(cpu floor_static "$A")
ad_wall=$(wall a_dynamic "$A")
ad_cpu=$(cpu a_dynamic "$A")
fd_wall=$(wall floor_dynamic "$A")
fd_cpu=$(cpu floor_dynamic "$A")
b_wall=$(wall b_static "$work/b.result")
fb_wall=$(wall floor_b "$work/b.result")
b_cpu=$(cpu b_static "$work/b.result")
fb_cpu=$(cpu floor_b "$work/b.result")
c_wall=$(wall c_static "$work/c.result")
fc_wall=$(wall floor_c "$work/c.result")
c_cpu=$(cpu c_static "$work/c.result")
fc_cpu=$(cpu floor_c "$work/c.result")
ratio_a=$(ratio "$a_wall" "$fa_wall")
per_message() { awk -v t="$1" -v n="$messages_c" 'BEGIN { printf "%.2f", t / n / 1000 }'; }

# -------------------------------------------- decomposition of one run of (a)
# Time by phase from strace -f -ttt -T (each system call stamped; the phases
# run between marker calls), instructions by phase from callgrind, the
# server's own time per statement from its slow log (long_query_time=0), and
# the round-trip time of one statement on the local socket from the floor
# sending 1000 trivial statements against none.
decompose_runs=${DECOMPOSE_RUNS:-31}
decomposition=$work/decomposition.md
median_of() { sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) print 0; else print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }
strace_phases() {  # strace_phases FILE: one line "phase microseconds" each
  awk '
    function ts(line) { split(line, f, " "); return f[2] * 1e6 }
    function dur(line) { if (match(line, /<[0-9.]+>$/)) return substr(line, RSTART + 1, RLENGTH - 2) * 1e6; return 0 }
    BEGIN { B = "(\\\\[0-7]+|\\\\[a-z]|[^\\\\\"])" }
    NR == 1 { main = $1; start = ts($0) }
    $1 != main { next }
    !t_main && /fcntl\(0, F_GETFD\)/ { t_main = ts($0) }
    !t_conf && /openat\(.*ovk\.conf"/ { t_conf = ts($0) }
    !t_shadow && /openat\(.*\.ovk\.shadow"/ { t_shadow = ts($0) }
    /clock_nanosleep|nanosleep\(/ { sleep += dur($0) }
    # A statement: a packet with sequence number 0 and the command byte 3.
    $0 ~ "sendto\\([0-9]+, \"" B B B "\\\\0\\\\3" { if (!t_q1) t_q1 = ts($0); sent = ts($0); waiting = 1 }
    waiting && /recvfrom\(/ && / = [0-9]+ </ {
      statements++; trip[statements] = ts($0) + dur($0) - sent; rt += trip[statements]; waiting = 0 }
    !t_vfork && /vfork\(/ { t_vfork = ts($0) }
    t_vfork && !t_waited && /wait4 resumed>/ { t_waited = ts($0) }
    /exit_group\(/ { t_exit = ts($0) }
    /\+\+\+ exited/ { t_end = ts($0) }
    END {
      printf "start %.0f\n", t_main - start
      printf "setup %.0f\n", t_conf - t_main
      printf "intake %.0f\n", t_shadow - t_conf
      printf "connect %.0f\n", t_q1 - t_shadow
      printf "sleep %.0f\n", sleep
      printf "statements %.0f\n", rt
      printf "count %d\n", statements
      printf "between %.0f\n", t_vfork - t_q1 - rt
      printf "sendmail %.0f\n", t_waited - t_vfork
      printf "cleanup %.0f\n", t_exit - t_waited
      printf "exit %.0f\n", t_end - t_exit
      printf "total %.0f\n", t_end - start
      for (i = 1; i <= statements; i++) printf "trip%d %.0f\n", i, trip[i]
    }' "$1"
}
if [[ -z ${NO_DECOMPOSITION:-} ]] && command -v strace >/dev/null && command -v valgrind >/dev/null; then
  say "decomposition of one run of (a): $decompose_runs runs under strace, the server's slow log, round trips"
  : >"$work/phases"
  for ((k = 0; k < decompose_runs; k++)); do
    strace -f -ttt -T -o "$work/strace.$k" "$program" <"$work/a.eml" >>"$runs_out" 2>&1
    strace_phases "$work/strace.$k" >>"$work/phases"
  done
  check_quiet
  phase() { awk -v p="$1" '$1 == p { print $2 }' "$work/phases" | median_of; }

  # The server's own time per statement.
  sql -e "SET GLOBAL log_output = 'TABLE'; SET GLOBAL long_query_time = 0;
          TRUNCATE TABLE mysql.slow_log; SET GLOBAL slow_query_log = 1;"
  for ((k = 0; k < decompose_runs; k++)); do run_program "$program" info@example.com "$work/a.eml"; done
  sql -e "SET GLOBAL slow_query_log = 0; SET GLOBAL long_query_time = 10;"
  check_quiet
  # The answer count, which changes from run to run, written as N.
  sql -e "SELECT REPLACE(LEFT(REGEXP_REPLACE(sql_text, 'num=[0-9]+', 'num=N'), 70), '|', '/'),
            ROUND(TIME_TO_SEC(query_time) * 1000000)
          FROM mysql.slow_log WHERE user_host LIKE 'admin[%'" >"$work/slow"
  # Statement (in the order of a run) and its median server time, µs.
  awk -F'\t' '!($1 in n) { order[++k] = $1 } { n[$1]++; v[$1, n[$1]] = $2 }
    END { for (i = 1; i <= k; i++) { s = order[i]; c = n[s]
            for (a = 1; a <= c; a++) w[a] = v[s, a]
            for (a = 1; a <= c; a++) for (b = a + 1; b <= c; b++) if (w[b] < w[a]) { t = w[a]; w[a] = w[b]; w[b] = t }
            printf "%s\t%s\n", s, (c % 2 ? w[(c + 1) / 2] : (w[c / 2] + w[c / 2 + 1]) / 2) } }' \
    "$work/slow" >"$work/server-times"
  server_total=$(awk -F'\t' '{ s += $2 } END { printf "%d", s }' "$work/server-times")
  server_count=$(wc -l <"$work/server-times")
  server_rows=$(
    k=0
    while IFS=$'\t' read -r statement server; do
      k=$((k + 1))
      printf '| `%s` | %s µs | %s µs |\n' "$statement" "$server" "$(phase "trip$k")"
    done <"$work/server-times"
  )

  # One round trip on the local socket: the floor with 1000 statements "DO 0"
  # against the floor with none, interleaved.
  : >"$work/none.statements"
  for ((k = 0; k < 1000; k++)); do echo "DO 0"; done >"$work/do1000.statements"
  "$run_many" --rounds 31 --warmup 3 --out "$runs_out" \
    -c rt_none --in "$work/a.eml" -- "$floor" "$work/none.statements" "$work/reply-a.txt" \; \
    -c rt_1000 --in "$work/a.eml" -- "$floor" "$work/do1000.statements" "$work/reply-a.txt" \; \
    >"$work/rt.result"
  check_quiet
  round_trip=$(awk -v a="$(wall rt_1000 "$work/rt.result")" -v b="$(wall rt_none "$work/rt.result")" \
    'BEGIN { printf "%.1f", (a - b) / 1000 }')

  # Instructions by phase (callgrind, one run).
  cg=$work/callgrind.autoresponder
  [[ -s $cg ]] || valgrind --tool=callgrind --callgrind-out-file="$cg" "$program" \
    <"$work/a.eml" >/dev/null 2>"$cg.log"
  cg_total=$(sed -n 's/^summary: *//p; s/^totals: *//p' "$cg" | head -n 1)
  cgi() { inclusive "$cg" "$@"; }
  kinstr() { awk -v n="$1" -v t="$cg_total" 'BEGIN { printf "%.0f k (%.0f %%)", n / 1000, 100 * n / t }'; }
  cg_loader=$(cgi _dl_start)
  cg_reloc=$(cgi _dl_relocate_object)
  cg_libc_start=$(cgi __libc_start_main@@GLIBC_2.34)
  cg_main=$(cgi main)
  cg_ctors=$((cg_libc_start - cg_main))
  cg_libinit=$(cgi "db_library_init()")
  cg_conf=$(cgi "autoprepend()")
  cg_intake=$(cgi parse_message)
  cg_connect=$(cgi mysql_real_connect)
  cg_queries=$(cgi mysql_real_query mysql_store_result)
  cg_compose=$(cgi create_response_file compose_response)
  cg_deliver=$(cgi deliver_response)
  cg_exit=$(cgi exit)
  cg_other=$((cg_main - cg_libinit - cg_conf - cg_intake - cg_connect - cg_queries - cg_compose - cg_deliver - cg_exit))
  ms_of() { ms "$(phase "$1")"; }
  minimal_wall=$(wall minimal "$A")
  statements_count=$(phase count)
  # The handshake: the server's greeting and the answer to the login.
  limit=$(awk -v m="$minimal_wall" -v n="$statements_count" -v r="$round_trip" -v s="$server_total" \
    'BEGIN { printf "%.0f", m + (n + 2) * r + s }')
  cat >"$decomposition" <<EOF
## Decomposition of one run of (a)

Time by phase from \`strace -f -ttt -T\` of $decompose_runs runs of (a) (medians;
every system call stopped by the tracer, so each phase is longer than in a
plain run: the whole run takes $(ms_of total) ms under strace against
$(ms "$a_wall") ms without), instructions by phase from callgrind (one run,
the sendmail child not counted), and the server's own time of each
statement from its slow log (\`long_query_time=0\`, $decompose_runs runs, medians).
The phases run between marker calls: the first \`fcntl\` of
\`open_standard_descriptors()\` (main has begun), the opening of the
configuration file, of the password file, the first statement, the
\`vfork\` of the sendmail, the end of its \`wait4\`, \`exit_group\`.

| Phase | Time under strace | Instructions |
|---|---|---|
| execve to main: loading, relocation (PIE), C run-time and static constructors (iostreams, locale) | $(ms_of start) ms | $(kinstr "$cg_loader") in the loader, of which $(kinstr "$cg_reloc") relocation; $(kinstr "$cg_ctors") C run-time start and static constructors |
| process set-up: SIGPIPE handler, client library and OpenSSL set-up (\`db_library_init\`) | $(ms_of setup) ms | $(kinstr "$cg_libinit") |
| configuration and intake: message stored in its temporary file and parsed | $(ms_of intake) ms | $(kinstr "$((cg_conf + cg_intake))") |
| connect and authentication: password file, socket, the library's sleep after \`connect\` ($(ms_of sleep) ms), greeting and login | $(ms_of connect) ms | $(kinstr "$cg_connect") |
| the $statements_count statements, from each send to its whole answer (client, socket, server) | $(ms_of statements) ms | $(kinstr "$cg_queries") in the client library |
| the program's work between statements: rules, response file created and composed | $(ms_of between) ms | $(kinstr "$cg_compose") composing; $(kinstr "$cg_other") the rest of main |
| sendmail: started (vfork, execve), fed, waited for | $(ms_of sendmail) ms | $(kinstr "$cg_deliver") (the child not counted) |
| clean-up: files removed, connection closed | $(ms_of cleanup) ms | |
| exit: handlers, teardown, reaped | $(ms_of exit) ms | $(kinstr "$cg_exit") |
| whole run | $(ms_of total) ms | $(kinstr "$cg_total") |

The server's own time per statement (medians, µs; $server_count statements, $server_total µs together),
beside the statement's round trip under strace (from its send to the end of
the read that completes its answer, medians; the tracer stops the program at
both ends, so these are longer than plain round trips, see below):

| Statement | Server time | Round trip under strace |
|---|---|---|
$server_rows

One round trip on the local socket (a statement \`DO 0\` sent and its
answer read, by the floor, 1000 against none, 31 interleaved rounds):
**$round_trip µs**.

## The physical limit

What a run of (a) cannot avoid on this machine: the minimal responder (start
a process, read the message, start one sendmail, wait), plus the round trips
of the $statements_count statements and of the login's two (greeting, answer) at $round_trip µs
each, plus the server's own time for the statements:
$(ms "$minimal_wall") ms + $((statements_count + 2)) × $round_trip µs + $(ms "$server_total") ms =
**$(ms "$limit") ms**. It is $(ratio "$limit" "$(wall vacation "$A")") times vacation(1) of the same loop; the
program is $(ratio "$a_wall" "$limit") times the limit, its floor $(ratio "$fa_wall" "$limit") times. What
lies between the floor and the limit is the cost of a program that links the
client library at all: its image (relocated at every start, since the
program stays position independent), its set-up, the connect.
EOF
fi


millions() {  # millions VARIANT ARRAY-NAME
  local -n values=$2
  [[ -n ${values[$1]:-} ]] || { printf 'n/a'; return; }
  awk -v n="${values[$1]}" 'BEGIN { printf "%.2f M", n / 1e6 }'
}
share() {  # share VARIANT ARRAY-NAME: "count (percent of the run)"; "-" when not seen
  local -n values=$2
  local total=${instructions[$1]:-}
  [[ -n $total && -n ${values[$1]:-} ]] || { printf 'n/a'; return; }
  [[ ${values[$1]} != 0 ]] || { printf -- '-'; return; }
  awk -v n="${values[$1]}" -v t="$total" 'BEGIN { printf "%.2f M (%.0f %%)", n / 1e6, 100 * n / t }'
}
shared_objects() { ldd "$1" | grep -c '=>'; }
link_row() {  # link_row LABEL CONTESTANT VARIANT NOTE
  local w c
  w=$(wall "$2" "$A")
  c=$(cpu "$2" "$A")
  printf '| %s | %s ms | %s | %s | %s ms | %s | %s |\n' "$1" "$(ms "$w")" "$(ratio "$w" "$fa_wall")" \
    "$(ratio "$w" "$ad_wall")" "$(ms "$c")" "$(millions "$3" instructions)" "$4"
}
startup_row() {  # startup_row LABEL CONTESTANT
  printf '| %s | %s ms | %s ms | %s ms |\n' "$1" "$(ms "$(wall "$2" "$work/s.result")")" \
    "$(ms "$(field "$2" p90 "$work/s.result")")" "$(ms "$(cpu "$2" "$work/s.result")")"
}
distance_row() {  # distance_row LABEL ARRAY-NAME: program, floor, difference, its share
  local -n values=$2
  local p=${values[autoresponder]:-} f=${values[floor_main]:-}
  [[ -n $p && -n $f ]] || { printf '| %s | n/a | n/a | n/a | n/a |\n' "$1"; return; }
  local gap=$((instructions[autoresponder] - instructions[floor_main]))
  awk -v l="$1" -v p="$p" -v f="$f" -v g="$gap" 'BEGIN {
    printf "| %s | %.2f M | %s | %.2f M | %.0f %% |\n", l, p / 1e6,
      (f == 0 ? "-" : sprintf("%.2f M", f / 1e6)), (p - f) / 1e6, 100 * (p - f) / g }'
}
setup_row() {  # setup_row LABEL ARRAY-NAME
  printf '| %s | %s | %s | %s | %s |\n' "$1" "$(share autoresponder_dynamic "$2")" \
    "$(share autoresponder "$2")" "$(share floor_main "$2")" "$(share autoresponder_uncut "$2")"
}

link_rows=$(
  link_row "dynamic: the shared libraries pkg-config names (Debian's defaults: PIE, --as-needed, lazy binding)" \
    a_dynamic autoresponder_dynamic "$(shared_objects "$bin/autoresponder_dynamic") shared libraries loaded"
  link_row "+ the archives Debian ships: GMime, GLib, libidn, the MariaDB client, OpenSSL, zlib" \
    a_static_libs autoresponder_static_libs \
    "$(shared_objects "$bin/autoresponder_static_libs") left: libstdc++, libgcc, libm, libc"
  link_row "+ static libstdc++ and libgcc: **adopted** (OVK_STATIC_LINK=ON)" a_static autoresponder \
    "$(shared_objects "$program") shared libraries loaded"
  link_row "+ -Wl,-z,now (every symbol bound at start)" a_bind_now autoresponder_bind_now \
    "not adopted: lazy binding resolves only the functions a run calls"
  link_row "+ -no-pie (the program's own pointers need no relocation)" a_no_pie autoresponder_no_pie \
    "not adopted: it gives up address randomisation in a program that runs as root on untrusted input"
)
startup_rows=$(
  startup_row "dynamic" s_dynamic
  startup_row "archives, shared libstdc++" s_static_libs
  startup_row "static (adopted)" s_static
  startup_row "static, Content-Type parameters read by GMime (before the last round)" s_before
  startup_row "static + -z now" s_bind_now
  startup_row "static + -no-pie" s_no_pie
  startup_row "/bin/true" s_true
)
# The rest of a run: what the named parts leave of it.
declare -A rest=()
for variant in "${!instructions[@]}"; do
  rest[$variant]=$((instructions[$variant] - ${loader[$variant]:-0} - ${intake[$variant]:-0} -
    ${composition[$variant]:-0}))
done
distance_rows=$(
  distance_row "whole run" instructions
  distance_row "dynamic loader: loading and relocating the program, binding" loader
  distance_row "the intake: the message stored and parsed (\`parse_message\`)" intake
  distance_row "the reply composed into its file (\`create_response_file\`, \`compose_response\`)" composition
  distance_row "the rest: configuration, statements, rules, sendmail, clean-up, exit" rest
)
setup_rows=$(
  setup_row "whole run" instructions
  setup_row "dynamic loader: loading, relocating, binding" loader
  setup_row "OpenSSL set-up by the MariaDB client, and its clean-up at exit" openssl
  setup_row "the service look-up of the TCP port (getservbyname)" servname
  setup_row "iconv_open (every call)" iconv
)
# Sets the caller's a, fa, ac, fac (wall and processor times of (a) and its
# floor) and b, fb (wall times of (b) and its floor) for contestants A FLOOR-A
# B FLOOR-B.
pair_times() {
  a=$(wall "$1" "$A")
  fa=$(wall "$2" "$A")
  ac=$(cpu "$1" "$A")
  fac=$(cpu "$2" "$A")
  b=$(wall "$3" "$work/b.result")
  fb=$(wall "$4" "$work/b.result")
}
# The peers, in the loop of (a): the program's ratio to each.
peer_row() {  # peer_row LABEL CONTESTANT
  local w c
  w=$(wall "$2" "$A")
  c=$(cpu "$2" "$A")
  printf '| %s | %s ms | %s ms | %s ms | %s ms | **%s** | %s |\n' "$1" "$(ms "$w")" \
    "$(ms "$(field "$2" p10 "$A")")" "$(ms "$(field "$2" p90 "$A")")" "$(ms "$c")" \
    "$(ratio "$a_wall" "$w")" "$(ratio "$a_cpu" "$c")"
}
peer_rows=$(
  peer_row "the program (as built)" a_static
  peer_row "its floor (\`bench/floor_main\`)" floor_static
  peer_row "vacation(1), its home in memory" vacation
  peer_row "vacation(1), its database on the disk (three fdatasync a run)" vacation_disk
  peer_row "minimal responder (\`bench/minimal_responder\`)" minimal
  peer_row "\`/bin/true\`" true
)
# The cuts of the client library's set-up, each step in the loop of (a).
cut_row() {  # cut_row LABEL CONTESTANT FLOOR-CONTESTANT|- VARIANT
  local w c to_floor="-"
  w=$(wall "$2" "$A")
  c=$(cpu "$2" "$A")
  [[ $3 == - ]] || to_floor=$(ratio "$w" "$(wall "$3" "$A")")
  printf '| %s | %s ms | %s ms | %s | %s | **%s** | **%s** | %s | %s |\n' "$1" "$(ms "$w")" \
    "$(ms "$c")" "$(ratio "$w" "$(wall a_uncut "$A")")" "$to_floor" \
    "$(ratio "$w" "$(wall vacation "$A")")" "$(ratio "$w" "$(wall minimal "$A")")" \
    "$(ratio "$w" "$(wall true "$A")")" "$(millions "$4" instructions)"
}
instr_of() { printf '%s' "${instructions[$1]:-0}"; }
# The candidates for the next cuts, against the program as built.
next_row() {  # next_row LABEL CONTESTANT FLOOR-CONTESTANT VARIANT NOTE
  local w c
  w=$(wall "$2" "$A")
  c=$(cpu "$2" "$A")
  printf '| %s | %s ms | %s ms | **%s** | %s | %s | %s | %s | %s |\n' "$1" "$(ms "$w")" "$(ms "$c")" \
    "$(ratio "$w" "$a_wall")" "$(ratio "$c" "$a_cpu")" "$(ratio "$w" "$(wall "$3" "$A")")" \
    "$(ratio "$w" "$(wall vacation "$A")")" "$(millions "$4" instructions)" "$5"
}
next_rows=$(
  next_row "as built" a_static floor_static autoresponder ""
  next_row "+ relative relocations packed (\`-Wl,-z,pack-relative-relocs\`, DT_RELR)" a_relr floor_relr \
    autoresponder_relr "their list $(readelf -S "$bin/autoresponder_relr" | awk '/\.relr\.dyn/ { getline; print strtonum("0x" $1) }') bytes instead of $(readelf -S "$program" | awk '/\.rela\.dyn/ { getline; print strtonum("0x" $1) }'); the image $(stat -c %s "$bin/autoresponder_relr") bytes instead of $(stat -c %s "$program")"
  next_row "+ no sleep after \`connect\` (\`bench/connect_without_sleep.cc\`)" a_no_connect_sleep \
    floor_no_connect_sleep autoresponder_no_connect_sleep ""
)
cut_rows=$(
  cut_row "before: the client library's own set-up" a_uncut floor_uncut autoresponder_uncut
  cut_row "+ the TCP port given before it (no service look-up)" a_port_cut - autoresponder_port_cut
  cut_row "+ OpenSSL set up without configuration, texts, tables or clean-up: **as built**" \
    a_static floor_static autoresponder
)
round_row() {  # round_row LABEL A FLOOR-A B FLOOR-B VARIANT
  local a fa b fb ac fac exe
  pair_times "$2" "$3" "$4" "$5"
  if [[ $6 == autoresponder ]]; then exe=$program; else exe=$bin/$6; fi
  printf '| %s | %s ms | %s ms | **%s** | %s | %s ms | %s ms | %s | %s | %s |\n' "$1" \
    "$(ms "$a")" "$(ms "$fa")" "$(ratio "$a" "$fa")" "$(ratio "$ac" "$fac")" "$(ms "$b")" \
    "$(ms "$fb")" "$(ratio "$b" "$fb")" "$(millions "$6" instructions)" "$(shared_objects "$exe")"
}
round_rows=$(
  round_row "before: Content-Type parameters read by GMime" \
    a_before floor_static b_before floor_b autoresponder_before
  round_row "+ read by the program itself: **as built**" \
    a_static floor_static b_static floor_b autoresponder
)
elapsed=$(($(date +%s) - started_at))
cpu_model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
memory=$(awk '/^MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo)
{
  printf '\n%-38s %10s %10s %6s   %s\n' "figure (medians)" "program" "floor" "ratio" "ratio of CPU times"
  printf '%-38s %7s ms %7s ms %6s   %s\n' "(a) one rule" "$(ms "$a_wall")" "$(ms "$fa_wall")" \
    "$ratio_a" "$(ratio "$a_cpu" "$fa_cpu")"
  printf '%-38s %7s ms %7s ms %6s   %s\n' "(b) 200 rules, 5 answer" "$(ms "$b_wall")" "$(ms "$fb_wall")" \
    "$(ratio "$b_wall" "$fb_wall")" "$(ratio "$b_cpu" "$fb_cpu")"
  printf '%-38s %7s ms %7s ms %6s   %s\n' "(c) per message, 500 x 4 at a time" "$(per_message "$c_wall")" \
    "$(per_message "$fc_wall")" "$(ratio "$c_wall" "$fc_wall")" "$(ratio "$c_cpu" "$fc_cpu")"
  printf '%-38s %7s ms %7s ms %6s   %s\n' "(a) both linked dynamically" "$(ms "$ad_wall")" \
    "$(ms "$fd_wall")" "$(ratio "$ad_wall" "$fd_wall")" "$(ratio "$ad_cpu" "$fd_cpu")"
  printf 'goal: (a) within %s times its floor\n' "$goal_a"
  printf '\nsame-run ratios of medians, (a):\n'
  for peer in vacation vacation_disk minimal true; do
    printf '  program / %-10s %s   (before the cuts: %s)\n' "$peer" "$(ratio "$a_wall" "$(wall "$peer" "$A")")" \
      "$(ratio "$(wall a_uncut "$A")" "$(wall "$peer" "$A")")"
  done
  printf '  program / before the cuts: %s\n' "$(ratio "$a_wall" "$(wall a_uncut "$A")")"
} >&2

# The sections that other benchmarks write (intake, header fields, ...)
# stand after this line in the report and are kept as they are.
kept_marker='<!-- The sections below come from the other benchmarks; bench/e2e_bench.sh keeps them. -->'
kept=""
if [ -f "$output" ] && grep -qxF "$kept_marker" "$output"; then
  kept=$(awk -v marker="$kept_marker" '$0 == marker { found = 1 } found' "$output")
fi

cat >"$work/report.md" <<EOF
# Benchmarks

The cost of one run of the autoresponder, measured end to end against a
floor: a program that does only what a run cannot avoid. Written by
\`bench/e2e_bench.sh\` (ROUNDS=$rounds, BATCHES=$batches), which took ${elapsed} s,
on $(date -u '+%Y-%m-%d %H:%M UTC'). To reproduce all of it, as root (it installs
vacation(1) when missing and mounts in a private namespace):
\`bash bench/e2e_bench.sh\`; it prints the ratios at its end.

Absolute times on this machine are noisy: other builds and test runs share
its 2 cores while the benchmark runs. Compare the same-run ratios (medians
of interleaved rounds, every contestant in the same loop) and the
instruction counts (callgrind), not the milliseconds across runs.

- Machine: $(nproc) cores, ${cpu_model:-unknown CPU}, ${memory} of memory. Load
  average (1, 5, 15 minutes) before the run, that is other work on the
  machine: $load_before; after it: $(cut -d' ' -f1-3 /proc/loadavg). Other work slows the contestants
  down; the interleaving (below) spreads it over all of them, and the processor
  times are given beside the wall times because other work inflates them less.
- Build: Release, \`OVK_STATIC_LINK=ON\`, relocated to a sandbox (\`ROOT_PREFIX\`); the
  private MariaDB server of \`tests/db/start_db.sh\` on a local socket; as the
  sandbox's sendmail \`bench/bench_sendmail\`, a static C program that reads its
  input and logs its size.

## Method

Times are taken by \`bench/run_many\`: wall time from posix_spawn to the exit
reported by wait4 (monotonic clock), and the processor time (user and system)
of the run and of the sendmail children it waited for, from wait4. The
processor time leaves out the database server. The contestants of a table take
their turns in one loop, ABBA (one round in the given order, the next in
reverse), so a slow phase of the machine weighs on all of them alike; each
figure is the median of $rounds rounds, after 10 that are not counted.

The floor, \`bench/floor_main\`, is linked like the program: the same libraries
through the same CMake targets, with the same options (\`--as-needed\`, which
Debian's compiler passes, keeps what it uses). It reads the message on its
standard input, connects with \`db_connect()\` (which sends the $setup_statements
set-up statements of the connection), sends the statements the program sent
for the same case, taken from the server's query log, reading each result
whole as the program does, and starts the sendmail once per reply, between
the same statements as the program, with a message of the reply's size. The script checks, from the query log of one
floor run, that the floor sent exactly the program's statements. The floor
reads no configuration, parses no MIME, writes no temporary file and composes
nothing.

Every run answers: the rules' daily limit is far above what the benchmark
reaches, and each sender's answer count exists before the first measured run,
so every run takes the same path (count read under the lock, then updated).

## Results

| Figure | Program | Floor | Ratio | Processor time: program, floor, ratio | Goal |
|---|---|---|---|---|---|
| (a) small message, one rule answers | $(ms "$a_wall") ms | $(ms "$fa_wall") ms | **$ratio_a** | $(ms "$a_cpu") ms, $(ms "$fa_cpu") ms, $(ratio "$a_cpu" "$fa_cpu") | ≤ $goal_a |
| (b) 200 rules, 5 of them answer | $(ms "$b_wall") ms | $(ms "$fb_wall") ms | **$(ratio "$b_wall" "$fb_wall")** | $(ms "$b_cpu") ms, $(ms "$fb_cpu") ms, $(ratio "$b_cpu" "$fb_cpu") | |
| (c) 500 messages, $senders senders, $jobs_c at a time: per message | $(per_message "$c_wall") ms | $(per_message "$fc_wall") ms | **$(ratio "$c_wall" "$fc_wall")** | $(per_message "$c_cpu") ms, $(per_message "$fc_cpu") ms, $(ratio "$c_cpu" "$fc_cpu") | |
| (c) the 500 together (median of $batches) | $(ms "$c_wall") ms | $(ms "$fc_wall") ms | | | |
| (d) the floor of (a) | | $(ms "$fa_wall") ms | 1.00 | $(ms "$fa_cpu") ms | |

- (a): a message of $(wc -c <"$work/a.eml") bytes to info@example.com, answered by the
  mailbox's one rule; the reply is $reply_size_a bytes. $statements_a statements: the
  $setup_statements of the connection set-up, the mailbox lookup, the rule list, six for
  the daily answer limit (old rows removed, senders counted, lock taken, count
  read, count updated, lock released), the forwarding list and the attachment
  list; one sendmail.
- (b): the same message to sales@example.com, whose 200 rules arrive in one
  result; 5 of them answer (the others are off or look for a key the subject
  lacks). $statements_b statements and five sendmails; the floor of (b) sends
  the same statements and starts the sendmail five times, each at the point
  where the program did.
- (c): throughput, 500 runs of (a)'s shape from $senders senders, $jobs_c at a time
  on $(nproc) cores; the floor of (a) run the same way, each run with the statements
  of its own sender. The table gives the wall time of the 500 divided by 500.

Both linked dynamically, the program takes $(ms "$ad_wall") ms and its floor
$(ms "$fd_wall") ms: **$(ratio "$ad_wall" "$fd_wall")**. Static linking shortens the
floor too, but less, since the floor loads only the MariaDB client (with
OpenSSL and zlib) and libstdc++.

## The round before: Content-Type parameters

The program as built, against itself with the round undone:
\`bench/autoresponder_before\` takes the Content-Type parameters from GMime
(\`bench/gmime_media_type_parameters.cc\`, linked ahead of the program's own
reader, which it replaces), run in the same loops as (a) and (b) above.

| Step | (a) program | (a) floor | (a) ratio | (a) ratio of processor times | (b) program | (b) floor | (b) ratio | Instructions of (a) (callgrind) | Shared libraries loaded |
|---|---|---|---|---|---|---|---|---|---|
$round_rows

- Content-Type parameters read by the program's own reader
  (\`autoresponder/intake/media_type.cc\`) instead of
  \`g_mime_content_type_parse()\`: the intake takes only the charset and the
  boundary from them. GMime now gives only the transfer decoders, which need
  neither GObject nor any set-up, so the program no longer links GObject,
  whose type system is set up before main in every run
  ($(share autoresponder_before gobject_init) of the instructions of the
  variant before), nor GMime's parser and charset map, GLib's regular
  expressions (pcre2, a shared library), libidn2 and libunistring (a shared
  library without an archive). The static program loads no shared library
  but the C library. Start-up alone (below): $(ms "$(wall s_before "$work/s.result")") ms
  before, $(ms "$(wall s_static "$work/s.result")") ms now.
- The response file opened for writing without truncating it when it is
  empty, as it always is after its creation (\`autoresponder/responder/composition.cc\`;
  a file that holds something is still truncated): on ext4 a truncation
  marks the file to be written out at its close, and its removal after the
  delivery then waits for that write. \`bench/truncation_cost\` on the file
  system of the sandbox's tmp, medians of $rounds rounds: the close
  $(field truncated close "$work/t.result") µs with the truncation against
  $(field not_truncated close "$work/t.result") µs without, the removal
  $(field truncated unlink "$work/t.result") µs against
  $(field not_truncated unlink "$work/t.result") µs, per reply. Both lines
  of the table above have this change.
- The rounds before, measured the same way on the same machine (2026-11-23
  02:11 UTC, 300 rounds): \`g_mime_init()\` no longer called at every start
  took (a) from 1.59 to 1.37 times its floor, and children started with vfork
  instead of fork (in the program and the floor) to 1.34.

## Where the distance of (a) from its floor goes

Instructions of one run of (a) (callgrind: deterministic, unlike the times;
the sendmail child is not counted), the program against its floor; "-" where
the floor has no such part:

| Part of the run | Program | Floor | Program − floor | Share of the distance |
|---|---|---|---|---|
$distance_rows

The loader's part is the program's size: it links more of GLib, GMime's
decoders, libidn and its own code, whose pointers are relocated at every
start (position independence, see the -no-pie line below). The rest of the
difference is the program's own work, which the floor does not do: the
configuration read, the message stored in its temporary file and parsed,
the reply composed into its own file, both files removed.

In time the distance is larger than in instructions, since callgrind counts
none of the kernel's work: the two temporary files (created, written, read
back, removed: see the truncation above), the configuration file, the
conversion modules' cache that the first \`iconv_open()\` maps, and the
larger image, with more pages to map in, cost the program system time that
the floor does not spend (the processor times of the Results table include
it).

## Linking

Each line is the program linked another way from the same objects, measured in
the same loop as (a) above; the ratios are to the floor of the adopted static
link and to the dynamically linked program.

| Link | (a) median | Ratio to static floor | Ratio to dynamic | Processor time | Instructions (callgrind) | Notes |
|---|---|---|---|---|---|---|
$link_rows

The floor linked the same ways: dynamic $(ms "$fd_wall") ms, archives with the shared
libstdc++ $(ms "$(wall floor_static_libs "$A")") ms, static $(ms "$fa_wall") ms.

Static linking has a price that no table shows: the program carries its own
copies of GMime's decoders, GLib, OpenSSL, the MariaDB client and libidn, so
a security update of one of those packages reaches it only when it is
rebuilt (a Debian package of it would name them in Built-Using and be rebuilt
with them). \`-DOVK_STATIC_LINK=OFF\` gives the dynamic build; the sanitizer
build (\`OVK_SANITIZE\`) always links dynamically.

Start-up alone: the same programs given a message without a sender (the intake
ends with "Abnormal exit.": no database, no sendmail), beside \`/bin/true\`:

| Link | median | p90 | processor time |
|---|---|---|---|
$startup_rows

## Set-up costs

Instructions of one run of (a) (callgrind: deterministic, unlike the times;
the sendmail child is not counted), by what they set up; "-" where the
function does not occur or, in a shared library without its local symbols,
cannot be named:

| | dynamic | static (adopted) | floor, static | static, before the cuts of this round |
|---|---|---|---|---|
$setup_rows

\`iconv_open\` costs next to nothing: the conversions of (a) are built into
the C library; a charset that needs a conversion module loads it once.
In the program before the last round, the dynamic loader took
$(share autoresponder_before loader) of a run's instructions.

## Peers

The responders a user could pick instead, in the loop of (a) (the same
rounds, the same machine moments): vacation(1), Debian's package, with its
database (interval 0: every message answered, the sender's time written)
and its reply in a temporary home, in memory (its three \`fdatasync\` a run
then cost nothing, as the benchmark's server flushes nothing at a commit;
this is the figure compared) and, as a second contestant, its database on
the disk; the minimal responder, which reads the
message, starts one sendmail with a reply of (a)'s size through a pipe and
waits; \`/bin/true\`. All hand their replies to the sandbox's sendmail.
vacation(1) does not wait for its sendmail; \`bench/run_many\` adopts the
orphan and ends the round when it has ended, so every contestant is measured
with its reply delivered.

Goal of this round: program / vacation(1) at most 1.55; the aim is the
physical limit (below). Ratios to such short runs depend on what the
harness adds to every run: \`bench/run_many\` starts each run with
posix_spawn and waits for it, so \`/bin/true\` takes $(ms "$(wall true "$A")") ms here; a
harness that adds more to every contestant (a shell, a pipeline, a
tracer) brings all the ratios closer to 1. On a loaded machine the
program also suffers most from waiting for the processor, as it hands it
over at each of its round trips to the server: compare the ratios of the
processor times beside those of the wall times.

| Contestant | median | p10 | p90 | processor time | program / it | processor times: program / it |
|---|---|---|---|---|---|---|
$peer_rows

## Cuts of this round

The client library's set-up (\`db_library_init()\` in \`lib/dbconnect.cc\`,
called once at the program's start, and by the floor), measured step by step
in the loop of (a): \`bench/library_init_before.cc\` undoes the cuts.
"Program / before" and the peer ratios are ratios of medians of the same
rounds; the ratio to the floor compares each step with a floor linked and
set up the same way.

| Step | (a) median | processor time | program / before | program / floor | program / vacation(1) | program / minimal | program / \`/bin/true\` | Instructions (callgrind) |
|---|---|---|---|---|---|---|---|---|
$cut_rows

- The TCP port given before the set-up: the client library otherwise looks
  the service "mysql" up through the name service switch (reading
  nsswitch.conf and the services file) at every start, for a port that a
  connection to the local socket never uses
  ($(share autoresponder_uncut servname) of the instructions before).
- OpenSSL set up without its configuration file, its error texts and its
  tables of every cipher and digest, and without its clean-up at exit: the
  client library asks for all of them, though TLS is never used on the local
  socket (\`OPENSSL_init_ssl\` and \`OPENSSL_cleanup\`:
  $(share autoresponder_uncut openssl) of the instructions before). The
  client library's whole set-up (\`db_library_init\`, the clean-up at exit
  not counted): $(share autoresponder_uncut library_init) before,
  $(share autoresponder library_init) now.

The ratio to the floor: both cuts apply to the floor too (it sets the
client library up as the program does), so they leave the distance between
the two where it was, $(awk -v p="$(instr_of autoresponder_uncut)" -v f="$(instr_of floor_uncut)" 'BEGIN { printf "%.2f M", (p - f) / 1e6 }') instructions before and
$(awk -v p="$(instr_of autoresponder)" -v f="$(instr_of floor_main)" 'BEGIN { printf "%.2f M", (p - f) / 1e6 }') now, $(ms "$(( $(cpu a_uncut "$A") - $(cpu floor_uncut "$A") ))") ms of processor time before and
$(ms "$(( a_cpu - fa_cpu ))") ms now, while the floor itself shrinks: the
ratio of processor times goes from $(ratio "$(cpu a_uncut "$A")" "$(cpu floor_uncut "$A")") to $(ratio "$a_cpu" "$fa_cpu"). The
distance is the program's own work (configuration, the message stored and
parsed, the reply composed, both temporary files), which these cuts do not
touch.

Candidates for the next cuts, in the same loop, against the program as
built (each with a floor linked the same way), adopted only when they pay in
both the program and its floor: the relative relocations packed (DT_RELR,
glibc 2.36: position independence stays, the list of the some 24,000
pointers relocated at every start shrinks), and the client library's
\`usleep(1)\` after every \`connect\` skipped (\`-Wl,--wrap=usleep\`,
\`bench/connect_without_sleep.cc\`, which would replace a C library
function for the whole program).

| Step | (a) median | processor time | / as built | processor time / as built | program / its floor | program / vacation(1) | Instructions (callgrind) | Notes |
|---|---|---|---|---|---|---|---|---|
$next_rows

$(cat "$work/decomposition.md" 2>/dev/null)

## Raw output of run_many (microseconds)

\`\`\`
$(cat "$work/a.result" "$work/s.result" "$work/b.result" "$work/c.result" "$work/t.result")
\`\`\`
EOF
{
  cat "$work/report.md"
  if [ -n "$kept" ]; then
    echo
    printf '%s\n' "$kept"
  fi
} >"$output"
say "wrote $output"

trap - ERR
if awk -v r="$ratio_a" -v g="$goal_a" 'BEGIN { exit !(r > g) }'; then
  say "goal missed: (a) is $ratio_a times its floor (goal $goal_a)"
  exit 1
fi
say "goal met: (a) is $ratio_a times its floor (goal $goal_a)"
