#!/usr/bin/env bash
# Composing a reply with a 100 MB attachment, against base64 -w 60 on the same
# file in the same run.
#
# The measured program is bench/compose_driver: it calls the composition of
# the reply directly (no database, no sendmail), so the figure is the cost of
# writing the reply and its base64 lines, not of the rest of the run. Each
# side runs REPEAT times, alternating, with the page cache flushed to disk
# before every run; the best time of each counts. The attachment file is read
# from the page cache in both.
#
# Goals: composition within 1.5 times the time of base64 -w 60, and a peak
# resident memory below 32 MiB (the attachment is streamed, never held).
#
# Usage: bench/compose_bench.sh [BUILD_DIR]   (default build/bench; it is
# configured and built when the driver is missing)
# Environment: SIZE_BYTES (default 100000000), REPEAT (default 5).
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build/bench}
size=${SIZE_BYTES:-100000000}
repeat=${REPEAT:-5}
driver=$build/bench/compose_driver

if [[ ! -x $driver ]]; then
  cmake -S "$top" -B "$build" -DROOT_PREFIX="$build/sandbox" -DOVK_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build" -j2 --target compose_driver >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/compose-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
head -c "$size" /dev/urandom >"$work/attachment.bin"

now_ns() { date +%s%N; }

best_base64=
best_compose=
peak_rss_kib=0
for ((i = 1; i <= repeat; i++)); do
  sync
  t0=$(now_ns)
  base64 -w 60 "$work/attachment.bin" >"$work/base64.out"
  t1=$(now_ns)
  base64_ns=$((t1 - t0))

  sync
  t0=$(now_ns)
  report=$("$driver" "$work" attachment.bin)
  t1=$(now_ns)
  compose_ns=$((t1 - t0))

  reply=${report##*reply=}
  rss=${report#*peak_rss_kib=}
  rss=${rss%% *}
  if ((i == 1)); then
    # The reply's base64 lines must be exactly those of base64 -w 60.
    awk '/^Content-Transfer-Encoding: base64$/ {part = 1; next}
         part == 1 && /^$/ {part = 2; next}
         part == 2 && /^$/ {exit}
         part == 2 {print}' "$reply" | cmp -s - "$work/base64.out" ||
      { echo "FAIL: the reply's base64 lines differ from base64 -w 60" >&2; exit 1; }
  fi
  rm -f "$reply" "$work/base64.out"

  ((rss > peak_rss_kib)) && peak_rss_kib=$rss
  [[ -z $best_base64 ]] || ((base64_ns < best_base64)) && best_base64=$base64_ns
  [[ -z $best_compose ]] || ((compose_ns < best_compose)) && best_compose=$compose_ns
done

awk -v c="$best_compose" -v b="$best_base64" -v r="$peak_rss_kib" -v n="$repeat" -v s="$size" '
BEGIN {
  time_ratio = c / b
  rss_ratio = r / (32 * 1024)
  printf "attachment: %d bytes, best of %d runs each\n", s, n
  printf "time ratio, composition / base64 -w 60: %.2f (goal <= 1.50)\n", time_ratio
  printf "peak RSS ratio, composition / 32 MiB:  %.3f (goal < 1)\n", rss_ratio
  ok = time_ratio <= 1.5 && rss_ratio < 1
  print ok ? "PASS" : "FAIL"
  exit ok ? 0 : 1
}'
