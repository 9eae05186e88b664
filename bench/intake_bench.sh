#!/usr/bin/env bash
# Intake of large messages: peak resident memory and wall time, compared in
# the same run with a plain copy of the message (cat msg > file).
#
# Shapes (sizes for SCALE=100):
#   attachment    a short text part and one base64 attachment of SIZE_MB
#   short-lines   a text body of 200 MB in lines of 70 characters
#   empty-lines   a text body of 50 MB of empty lines
#   one-line      a text body that is one line of 100 MB
#   base64        a base64 text part of 100 MB
#   qp            a quoted-printable text part of 100 MB, soft line breaks
#   latin1        a text body of 100 MB in ISO-8859-1 (converted to UTF-8)
# Every text shape has the key "key-word" near its end, so the search reads
# the whole body. Measured per shape: the intake and the body search in the
# driver process (the stored copy, its read-back, decoding, conversion, the
# body file and the search), and the sandboxed program as the mail system
# starts it (process start-up, configuration, the intake, then a failed
# database connection and the clean-up). The processor time (user and
# system) of the driver and of cat is shown too, since the wall time of a
# loaded machine says little. Goals: peak RSS below 32 MiB for
# both; the driver within 2x of cat for the attachment, 4x for the text
# shapes. The program's ratio is shown for information. Exits 1 when a goal
# is missed.
#
# Usage: bench/intake_bench.sh [BUILD_DIR] [SIZE_MB] [SCALE]
#   BUILD_DIR  a relocated build (ROOT_PREFIX set, so the program's /tmp is
#              the sandbox's); configured and built here when missing.
#              Default: build/bench-intake in the source tree.
#   SIZE_MB    the attachment shape's size; default 200.
#   SCALE      the text shapes' sizes in percent; default 100.
#   SHAPES     (environment) the shapes to run, space-separated; default all.
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$source_dir/build/bench-intake}
size_mb=${2:-200}
scale=${3:-100}
shapes=${SHAPES:-attachment short-lines empty-lines one-line base64 qp latin1}
readonly runs=${RUNS:-3}
readonly rss_goal_kib=$((32 * 1024))
readonly key=key-word

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

mib() { echo $(($1 * 1024 * 1024 * scale / 100)); }
# lines TEXT BYTES: TEXT as whole lines, about BYTES in all.
lines() { { yes -- "$1" || true; } | head -n $(($2 / (${#1} + 1))); }
head_fields() {
  printf '%s\n' 'From: Bench Sender <sender@example.org>' 'To: info@example.com' \
    'Subject: Large message' 'Date: Tue, 14 May 2024 09:11:58 +0200' 'MIME-Version: 1.0' "$@"
}
key_tail() { printf 'some text, %s, more text\nbye\n' "$key"; }

generate() {
  case $1 in
    attachment)
      head_fields 'Content-Type: multipart/mixed; boundary="bench-boundary"' '' \
        '--bench-boundary' 'Content-Type: text/plain; charset=utf-8' '' \
        "Please find the archive attached, $key." '' '--bench-boundary' \
        'Content-Type: application/octet-stream; name="archive.bin"' \
        'Content-Transfer-Encoding: base64' ''
      head -c $((size_mb * 1024 * 1024 * 3 / 4)) /dev/urandom | base64 -w 76
      printf '%s\n' '--bench-boundary--'
      ;;
    short-lines)
      head_fields ''
      lines 'The quick brown fox jumps over the lazy dog, 0123456789 abcdefghijklm' "$(mib 200)"
      key_tail
      ;;
    empty-lines)
      head_fields ''
      lines '' "$(mib 50)"
      key_tail
      ;;
    one-line)
      head_fields ''
      head -c "$(mib 100)" /dev/zero | tr '\0' x
      printf '%s\n' "$key"
      ;;
    base64)
      head_fields 'Content-Type: multipart/mixed; boundary=B' '' '--B' \
        'Content-Type: text/plain; charset=utf-8' 'Content-Transfer-Encoding: base64' ''
      {
        lines 'The quick brown fox jumps over the lazy dog, 0123456789.' "$(($(mib 100) * 3 / 4))"
        key_tail
      } | base64 -w 76
      printf '%s\n' '--B--'
      ;;
    qp)
      head_fields 'Content-Type: text/plain; charset=utf-8' \
        'Content-Transfer-Encoding: quoted-printable' ''
      lines '0123456789abcdef=3D0123456789abcdef=20=C3=A9=C3=A9xyz0123456789abcdef=' "$(mib 100)"
      key_tail
      ;;
    latin1)
      head_fields 'Content-Type: text/plain; charset=ISO-8859-1' ''
      lines $'caf\xe9 cr\xe8me br\xfbl\xe9e, na\xefve fa\xe7ade, \xa9 \xbd and more text here' \
        "$(mib 100)"
      key_tail
      ;;
  esac
}

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
  RESP_RECIPIENT=info@example.com "$driver" "$key" <"$message" >"$driver_output"
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / (b > 0 ? b : 1) }'; }
rss_of() { sed -n 's/.*peak_rss_kib=\([0-9]*\).*/\1/p' "$1"; }
cpu_of() { sed -n 's/.*cpu_ms=\([0-9]*\).*/\1/p' "$1"; }
# The processor time of cat msg > file, through the driver.
cat_output=$work/cat.out
cat_cpu() {
  "$driver" --run /bin/sh -c 'cat "$0" >"$1"' "$message" "$sandbox_tmp/bench-cat-copy" \
    >"$cat_output"
  rm -f "$sandbox_tmp/bench-cat-copy"
  cpu_of "$cat_output"
}
temporary_files() { find "$sandbox_tmp" -maxdepth 1 -name 'ovk-*' | wc -l; }
files_before=$(temporary_files)

missed=0
printf '%-12s %6s %7s | %7s %6s %8s %6s %8s | %7s %6s %8s\n' shape MB cat_s \
  intake_s ratio cpu_ms ratio rss_KiB program ratio rss_KiB
for shape in $shapes; do
  generate "$shape" >"$message"
  message_mb=$(awk -v b="$(stat -c %s "$message")" 'BEGIN { printf "%.1f", b / 1048576 }')
  # Warm the page cache so that every contestant reads from memory.
  cat "$message" >/dev/null
  cat_time=$(best_of copy_with_cat)
  driver_time=$(best_of run_driver)
  program_time=$(best_of run_program)
  driver_rss=$(rss_of "$driver_output")
  program_rss=$(rss_of "$program_output")
  driver_ratio=$(ratio "$driver_time" "$cat_time")
  driver_cpu=$(cpu_of "$driver_output")
  printf '%-12s %6s %7.3f | %7.3f %6s %8d %6s %8d | %7.3f %6s %8d\n' "$shape" "$message_mb" \
    "$cat_time" "$driver_time" "$driver_ratio" "$driver_cpu" \
    "$(ratio "$driver_cpu" "$(cat_cpu)")" "$driver_rss" "$program_time" \
    "$(ratio "$program_time" "$cat_time")" "$program_rss"

  goal=4
  [[ $shape == attachment ]] && goal=2
  for rss in "$driver_rss" "$program_rss"; do
    if ((rss >= rss_goal_kib)); then
      echo "  goal missed: peak RSS $rss KiB >= $rss_goal_kib KiB"
      missed=1
    fi
  done
  if awk -v r="$driver_ratio" -v g="$goal" 'BEGIN { exit !(r > g) }'; then
    echo "  goal missed: intake and search time ratio $driver_ratio > $goal"
    missed=1
  fi
  if ! grep -q 'key_found=1' "$driver_output"; then
    echo "  goal missed: the key was not found ($(cat "$driver_output"))"
    missed=1
  fi
  leftovers=$(($(temporary_files) - files_before))
  if ((leftovers != 0)); then
    echo "  goal missed: $leftovers temporary files left behind"
    missed=1
  fi
done
rm -f "$message"

((missed == 0)) && echo "goals met: peak RSS < 32 MiB; intake and search within 2x of cat" \
  "(attachment), 4x (text shapes)"
exit "$missed"
