#!/usr/bin/env bash
# Builds the libFuzzer targets (clang; the system's libraries with
# AddressSanitizer and UndefinedBehaviorSanitizer) and runs them.
#
#   fuzz.sh replay                    every target once over its seed corpus
#                                     (tests/fuzz/corpus/<name>), as ctest tests
#   fuzz.sh run [SECONDS] [NAME...]   fuzz each target (or the named ones:
#                                     intake, rfc1522_decode, rfc1522_encode,
#                                     iconv_recode, templates, configuration,
#                                     address_list, header_block,
#                                     transfer_decoding)
#                                     for SECONDS (default 30); the readers of
#                                     header fields (address_list,
#                                     header_block) with -rss_limit_mb=64, as
#                                     their memory is bounded, the others 2048
#
# `run` works in a scratch corpus under the build directory, seeded from the
# repository's corpus and kept between runs, so the repository is never
# modified and longer runs build on earlier ones. Crashing inputs are written
# to <build>/artifacts/. Fails if any target finds a crash, a hang, a leak or a
# sanitizer report.
#   BUILD_DIR   build directory (default build/fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

mode=${1:-}
case "$mode" in
  replay | run) shift ;;
  *)
    echo "usage: $0 replay | run [seconds] [target...]" >&2
    exit 2
    ;;
esac

bash scripts/setup.sh

build_dir=${BUILD_DIR:-build/fuzz}
mkdir -p "$build_dir"
build_dir=$(cd "$build_dir" && pwd)

CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DROOT_PREFIX="$build_dir/sandbox" \
  -DOVK_FUZZ=ON -DOVK_BUILD_TESTS=OFF -DOVK_BUILD_BENCH=OFF >/dev/null
cmake --build "$build_dir" -j"$(nproc)" --target fuzz_targets

export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$repo/tests/fuzz/lsan.supp:print_suppressions=0

if [ "$mode" = replay ]; then
  ctest --test-dir "$build_dir/tests/fuzz" --output-on-failure
  exit 0
fi

seconds=30
if [ $# -gt 0 ] && [[ $1 =~ ^[0-9]+$ ]]; then
  seconds=$1
  shift
fi
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(intake rfc1522_decode rfc1522_encode iconv_recode templates configuration address_list
    header_block transfer_decoding)
fi

mkdir -p "$build_dir/artifacts" "$build_dir/logs"
failed=()
for name in "${targets[@]}"; do
  binary=$build_dir/tests/fuzz/${name}_fuzz
  seeds=$repo/tests/fuzz/corpus/$name
  if [ ! -x "$binary" ] || [ ! -d "$seeds" ]; then
    echo "fuzz: no target $name" >&2
    exit 2
  fi
  corpus=$build_dir/corpus/$name
  mkdir -p "$corpus"
  cp "$seeds"/* "$corpus"/
  log=$build_dir/logs/$name.log
  # The header field readers work in bounded memory, so they run with a
  # small limit; AddressSanitizer's quarantine of freed blocks (256 MB by
  # default) would fill it on its own and is kept small for them.
  rss_limit_mb=2048
  asan_options=$ASAN_OPTIONS
  case "$name" in
    address_list | header_block)
      rss_limit_mb=64
      asan_options+=:quarantine_size_mb=4
      ;;
  esac

  echo "fuzz: $name for ${seconds}s"
  # Standard output and error of the code under test are closed
  # (-close_fd_mask=3); libFuzzer and the sanitizers still report.
  if (cd "$build_dir" && ASAN_OPTIONS=$asan_options "$binary" -max_total_time="$seconds" \
        -timeout=10 -rss_limit_mb="$rss_limit_mb" -close_fd_mask=3 -print_final_stats=1 \
        -artifact_prefix="$build_dir/artifacts/$name-" "$corpus") >"$log" 2>&1; then
    grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" | tr '\n' ' '
    echo
  else
    tail -n 60 "$log"
    echo "fuzz: $name FAILED (log: $log); reproduce with:"
    echo "  $binary $build_dir/artifacts/$name-<crash file>"
    failed+=("$name")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failures in ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: no crash, hang, leak or sanitizer report"
