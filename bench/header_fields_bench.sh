#!/usr/bin/env bash
# Header fields of megabytes: peak resident memory of the intake and of the
# program, against a message of ordinary fields measured in the same run.
#
# Messages: a From list, Reply-To groups and a Subject of SIZE_MB megabytes
# each (one long field per message), and the baseline, the same message with
# short fields. Measured: the intake alone in the driver process, and the
# sandboxed program as the mail system starts it (start-up, configuration,
# the intake, then a failed database connection and the clean-up); for a
# megabyte of bad encoded words in the Subject (one word, and many) also the
# program's wall time and the bytes of its reports. Goals: peak RSS below
# 32 MiB for every message, at most 4096 bytes of reports. Exits 1 when one
# is missed.
#
# Usage: bench/header_fields_bench.sh [BUILD_DIR] [SIZE_MB]
#   BUILD_DIR  a relocated build (ROOT_PREFIX set); configured and built here
#              when missing. Default: build/bench-intake in the source tree.
#   SIZE_MB    default 16.
# Environment: BEFORE_BUILD, a relocated build of an earlier version, whose
# program is measured in the same run for comparison (informational column).
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$source_dir/build/bench-intake}
size_mb=${2:-16}
readonly rss_goal_kib=$((32 * 1024))

if [[ ! -f $build_dir/CMakeCache.txt ]]; then
  cmake -S "$source_dir" -B "$build_dir" -DROOT_PREFIX="$build_dir/sandbox" >/dev/null
fi
root_prefix=$(sed -n 's/^ROOT_PREFIX:STRING=//p' "$build_dir/CMakeCache.txt")
if [[ -z $root_prefix ]]; then
  echo "header_fields_bench: $build_dir is not a relocated build (ROOT_PREFIX is empty)" >&2
  exit 2
fi
cmake --build "$build_dir" -j2 --target autoresponder intake_driver >/dev/null

program=$build_dir/autoresponder/autoresponder
driver=$build_dir/bench/intake_driver
mkdir -p "$root_prefix/tmp"

work=$(mktemp -d "$build_dir/header-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# repeat PIECE: whole copies of PIECE up to at least SIZE_MB megabytes.
repeat() {
  awk -v piece="$1" -v size=$((size_mb * 1024 * 1024)) 'BEGIN {
    block = piece
    while (length(block) < 65536) block = block block
    for (written = 0; written < size; written += length(block)) printf "%s", block
  }'
}
body=$'\n\nThe text.\n'
{ printf 'From: s@example.com, x@example.com\nReply-To: g: a@example.com;, s@example.com\nSubject: Hello there%s' "$body"; } >"$work/baseline.eml"
{ printf 'From: s@example.com, '; repeat 'x@example.com, '; printf '%s' "$body"; } >"$work/from_list.eml"
{ printf 'Reply-To: '; repeat 'g: a@example.com;, '; printf '\nFrom: s@example.com%s' "$body"; } >"$work/reply_to_groups.eml"
{ printf 'From: s@example.com\nSubject: '; repeat '=?utf-8?q?caf=C3=A9?= au lait '; printf '%s' "$body"; } >"$work/subject.eml"

# A megabyte of bad base64 symbols, in one encoded word and in many.
bad_mb=1048576
{ printf 'From: s@example.com\nSubject: =?utf-8?B?'; size_mb=1 repeat '!' | head -c $bad_mb
  printf '?=%s' "$body"; } >"$work/bad_word.eml"
{ printf 'From: s@example.com\nSubject: '; size_mb=1 repeat '=?utf-8?B?!!!!?= '; printf '%s' "$body"; } \
  >"$work/bad_words.eml"

now() { date +%s.%N; }
# run PROGRAM MESSAGE: "<peak RSS KiB> <seconds> <bytes on standard error>" of one run
# (the memory from a run through the driver, the time and reports from a plain one).
run() {
  local rss start end
  rss=$(RESP_RECIPIENT=info@example.com MYSQL_UNIX_PORT=$work/no-server.sock \
    "$driver" --run "$1" <"$2" | sed -n 's/.*peak_rss_kib=\([0-9]*\).*/\1/p')
  start=$(now)
  RESP_RECIPIENT=info@example.com MYSQL_UNIX_PORT=$work/no-server.sock "$1" <"$2" \
    >/dev/null 2>"$work/err" || true
  end=$(now)
  echo "$rss $(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.3f", e - s }') $(stat -c %s "$work/err")"
}

missed=0
before=${BEFORE_BUILD:+$BEFORE_BUILD/autoresponder/autoresponder}
if [[ -n $before ]]; then
  mkdir -p "$(sed -n 's/^ROOT_PREFIX:STRING=//p' "$BEFORE_BUILD/CMakeCache.txt")/tmp"
fi
printf '%-16s %9s %15s %15s %8s %10s %s\n' message bytes 'intake KiB' 'program KiB' seconds \
  'report B' "${before:+| before: KiB, seconds, report B}"
for name in baseline from_list reply_to_groups subject bad_word bad_words; do
  message=$work/$name.eml
  driver_out=$(RESP_RECIPIENT=info@example.com "$driver" <"$message" 2>/dev/null)
  driver_rss=$(sed -n 's/.*peak_rss_kib=\([0-9]*\).*/\1/p' <<<"$driver_out")
  read -r program_rss program_s program_err < <(run "$program" "$message")
  before_figures=
  [[ -n $before ]] && before_figures="| $(run "$before" "$message")"
  [[ $name == baseline ]] && base_driver=$driver_rss base_program=$program_rss
  printf '%-16s %9d %8d (%4s) %8d (%4s) %8s %10d %s\n' "$name" "$(stat -c %s "$message")" \
    "$driver_rss" "$(awk -v a="$driver_rss" -v b="$base_driver" 'BEGIN { printf "%.2f", a / b }')" \
    "$program_rss" "$(awk -v a="$program_rss" -v b="$base_program" 'BEGIN { printf "%.2f", a / b }')" \
    "$program_s" "$program_err" "$before_figures"
  for rss in "$driver_rss" "$program_rss"; do
    if ((rss >= rss_goal_kib)); then
      echo "goal missed: $name peak RSS $rss KiB >= $rss_goal_kib KiB"
      missed=1
    fi
  done
  if ((program_err > 4096)); then
    echo "goal missed: $name wrote $program_err bytes of reports (goal: at most 4096)"
    missed=1
  fi
done
echo "(in parentheses: the ratio to the baseline's peak RSS)"
((missed == 0)) && echo "goals met: peak RSS < 32 MiB for header fields of $size_mb MB," \
  "at most 4096 bytes of reports for a megabyte of bad encoded words"
exit "$missed"
