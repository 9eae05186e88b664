#!/bin/sh
# The sendmail of the test sandbox. Installed by the harness as
# <root>/usr/sbin/sendmail; records every invocation under <root>/sendmail-log:
#   <seq>.args   the arguments, each followed by a NUL byte ($0 first: the
#                path that was executed, since the kernel's script start
#                replaces the caller's argv[0] by it)
#   <seq>.stdin  everything read on standard input
#   <seq>.env    the environment it was started with, each entry followed by
#                a NUL byte (its own /proc environ, before the shell adds any)
#   <seq>.context  "<mode of stdin> <stdin's file> umask=<umask> cwd=<dir>"
#   <seq>.times  "<start> <end>\n", seconds since the epoch with nanoseconds
# <seq> is a six-digit number, claimed atomically with mkdir, so concurrent
# invocations never share one; the numbers follow the order of the starts.
#
# Its behaviour comes from <root>/sendmail-mode:
#   record      read everything, record, exit 0 (also when the file is missing)
#   fail        read everything, record, exit 1
#   exit-early  record the arguments, exit 0 without reading the input
started=$(date +%s.%N)
# A file-size limit set for the program (a full /tmp) is not the mail
# system's: lift it for the recording.
ulimit -S -f unlimited 2>/dev/null || true
root=$(cd "$(dirname "$0")/../.." && pwd)
log=$root/sendmail-log
mkdir -p "$log"

seq=1
while :; do
  id=$(printf '%06d' "$seq")
  if mkdir "$log/$id.claim" 2>/dev/null; then break; fi
  seq=$((seq + 1))
done

printf '%s\0' "$0" "$@" >"$log/$id.args"
cat /proc/$$/environ >"$log/$id.env"
printf '%s %s umask=%s cwd=%s\n' "$(stat -L -c %a /proc/$$/fd/0)" "$(readlink /proc/$$/fd/0)" \
  "$(umask)" "$(pwd)" >"$log/$id.context"

mode=record
if [ -f "$root/sendmail-mode" ]; then mode=$(cat "$root/sendmail-mode"); fi

status=0
case "$mode" in
  exit-early)
    : >"$log/$id.stdin"
    ;;
  fail)
    cat >"$log/$id.stdin"
    status=1
    ;;
  *)
    cat >"$log/$id.stdin"
    ;;
esac

printf '%s %s\n' "$started" "$(date +%s.%N)" >"$log/$id.times"
exit "$status"
