/* The sendmail of the end-to-end benchmark's sandbox, installed there as
 * <root>/usr/sbin/sendmail by bench/e2e_bench.sh.
 *
 * Reads its standard input to the end and appends one line to the log named
 * at build time (BENCH_SENDMAIL_LOG, under the build's ROOT_PREFIX): the
 * number of bytes read, a blank, the number of arguments after argv[0]. The
 * line is one write(2) on a descriptor opened with O_APPEND, so concurrent
 * instances never mix their lines; the benchmark counts the lines to check
 * that every run handed over what it should, and reads the byte counts to
 * give the floor program messages of the same size.
 *
 * It is a small, statically linked C program rather than the tests' shell
 * script because its start-up is part of every measured run, the
 * autoresponder's and the floor's alike: the steadier it is, the steadier
 * the ratios. Exits 0, or 1 when the log cannot be written. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#ifndef BENCH_SENDMAIL_LOG
#error "BENCH_SENDMAIL_LOG must be defined by the build"
#endif

int main(int argc, char** argv) {
  (void)argv;
  char block[64 * 1024];
  long long total = 0;
  for (;;) {
    ssize_t got = read(STDIN_FILENO, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    total += got;
  }

  char line[64];
  int length = snprintf(line, sizeof line, "%lld %d\n", total, argc - 1);
  int log = open(BENCH_SENDMAIL_LOG, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log < 0) return 1;
  int written = (int)write(log, line, (size_t)length);
  close(log);
  return written == length ? 0 : 1;
}
