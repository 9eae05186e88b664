#!/usr/bin/env bash
# Intake of a large message: peak resident memory and wall time, compared in
# the same run with a plain copy of the message (cat msg > file).
#
# The message (about SIZE_MB megabytes) has a short text part and one large
# base64 attachment, the shape that must not cost memory: the intake stores
# the message and parses it from the file, reading only the text part.
# Measured: the intake alone in the driver process, and the sandboxed program
# as the mail system starts it (process start-up, configuration, the intake,
# then a failed database connection and the clean-up). Goals: peak RSS below
# 64 MiB for both, the intake's wall time within 2x of cat; the program's
# ratio is shown for information. Exits 1 when a goal is missed.
#
# Usage: bench/intake_bench.sh [BUILD_DIR] [SIZE_MB]
#   BUILD_DIR  a relocated build (ROOT_PREFIX set, so the program's /tmp is
#              the sandbox's); configured and built here when missing.
#              Default: build/bench-intake in the source tree.
#   SIZE_MB    default 200.
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$source_dir/build/bench-intake}
size_mb=${2:-200}
readonly runs=5
readonly rss_goal_kib=$((64 * 1024))
readonly time_goal_ratio=2

if [[ ! -f $build_dir/CMakeCache.txt ]]; then
  cmake -S "$source_dir" -B "$build_dir" -DROOT_PREFIX="$build_dir/sandbox" >/dev/null
fi
root_prefix=$(sed -n 's/^ROOT_PREFIX:STRING=//p' "$build_dir/CMakeCache.txt")
if [[ -z $root_prefix ]]; then
  echo "intake_bench: $build_dir is not a relocated build (ROOT_PREFIX is empty)" >&2
  exit 2
fi
cmake --build "$build_dir" -j2 --target autoresponder intake_driver >/dev/null

program=$build_dir/autoresponder/autoresponder
driver=$build_dir/bench/intake_driver
sandbox_tmp=$root_prefix/tmp
mkdir -p "$sandbox_tmp"

work=$(mktemp -d "$build_dir/intake-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
message=$work/message.eml

# A short text part, then random bytes in base64 lines of 76 characters.
{
  printf '%s\n' \
    'From: Bench Sender <sender@example.org>' \
    'To: info@example.com' \
    'Subject: Large attachment' \
    'Date: Tue, 14 May 2024 09:11:58 +0200' \
    'MIME-Version: 1.0' \
    'Content-Type: multipart/mixed; boundary="bench-boundary"' \
    '' \
    '--bench-boundary' \
    'Content-Type: text/plain; charset=utf-8' \
    '' \
    'Please find the archive attached.' \
    '' \
    '--bench-boundary' \
    'Content-Type: application/octet-stream; name="archive.bin"' \
    'Content-Transfer-Encoding: base64' \
    ''
  head -c $((size_mb * 1024 * 1024 * 3 / 4)) /dev/urandom | base64 -w 76
  printf '%s\n' '--bench-boundary--'
} >"$message"
message_bytes=$(stat -c %s "$message")

now() { date +%s.%N; }

# best_of COMMAND...: the shortest wall time of $runs runs, in seconds.
best_of() {
  local best="" start end elapsed
  for ((i = 0; i < runs; i++)); do
    start=$(now)
    "$@"
    end=$(now)
    elapsed=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f", e - s }')
    if [[ -z $best ]] || awk -v a="$elapsed" -v b="$best" 'BEGIN { exit !(a < b) }'; then
      best=$elapsed
    fi
  done
  echo "$best"
}

copy_with_cat() {
  cat "$message" >"$sandbox_tmp/bench-cat-copy"
  rm -f "$sandbox_tmp/bench-cat-copy"
}

# The program as the mail system starts it; no database server at that socket.
program_output=$work/program.out
run_program() {
  RESP_RECIPIENT=info@example.com MYSQL_UNIX_PORT=$work/no-server.sock \
    "$driver" --run "$program" <"$message" >"$program_output"
}

driver_output=$work/driver.out
run_driver() {
  RESP_RECIPIENT=info@example.com "$driver" <"$message" >"$driver_output"
}

# Warm the page cache so that every contestant reads from memory.
cat "$message" >/dev/null

cat_time=$(best_of copy_with_cat)
program_time=$(best_of run_program)
driver_time=$(best_of run_driver)

program_rss=$(sed -n 's/.*peak_rss_kib=\([0-9]*\).*/\1/p' "$program_output")
driver_rss=$(sed -n 's/.*peak_rss_kib=\([0-9]*\).*/\1/p' "$driver_output")
leftovers=$(find "$sandbox_tmp" -maxdepth 1 -name 'ovk-autoresponder-*' | wc -l)

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
program_ratio=$(ratio "$program_time" "$cat_time")
driver_ratio=$(ratio "$driver_time" "$cat_time")

printf 'message: %d bytes (%d MB requested)\n' "$message_bytes" "$size_mb"
printf 'cat msg > file:   %8.3f s\n' "$cat_time"
printf 'program:          %8.3f s  ratio %5s  peak RSS %6d KiB  (%s)\n' \
  "$program_time" "$program_ratio" "$program_rss" "$(cat "$program_output")"
printf 'intake (driver):  %8.3f s  ratio %5s  peak RSS %6d KiB  (%s)\n' \
  "$driver_time" "$driver_ratio" "$driver_rss" "$(cat "$driver_output")"
printf 'stored copies left in the sandbox: %d\n' "$leftovers"

missed=0
for rss in "$program_rss" "$driver_rss"; do
  if ((rss >= rss_goal_kib)); then
    echo "goal missed: peak RSS $rss KiB >= $rss_goal_kib KiB"
    missed=1
  fi
done
if awk -v r="$driver_ratio" -v g="$time_goal_ratio" 'BEGIN { exit !(r > g) }'; then
  echo "goal missed: intake time ratio $driver_ratio > $time_goal_ratio"
  missed=1
fi
if ((leftovers != 0)); then
  echo "goal missed: the program left its stored copy behind"
  missed=1
fi
((missed == 0)) && echo "goals met: peak RSS < 64 MiB, intake within ${time_goal_ratio}x of cat"
exit "$missed"
