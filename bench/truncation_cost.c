/* What truncating a freshly created file costs, as the response file was
 * before the program stopped truncating an empty one: run by
 * bench/e2e_bench.sh in the sandbox's tmp directory, on the file system the
 * program's temporary files live on.
 *
 * Usage: truncation_cost DIRECTORY ROUNDS. For each of the two ways, ROUNDS
 * times: a file created with mkstemp, opened again by its name for writing
 * (with O_TRUNC, or without it), a reply's worth of bytes (330) written,
 * both descriptors closed, the file read back and removed. Prints one line
 * per way: its name, then the median microseconds of the close and of the
 * removal. The two ways take turns, so other work on the machine weighs on
 * both. Exits 1 when a file operation fails, 2 on bad usage. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static double now_us(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1e6 + (double)t.tv_nsec / 1e3;
}

static int by_value(const void* a, const void* b) {
  const double x = *(const double*)a, y = *(const double*)b;
  return (x > y) - (x < y);
}

static double median(double* values, int n) {
  qsort(values, (size_t)n, sizeof *values, by_value);
  return values[n / 2];
}

/* One round; 0 on success. */
static int round_trip(const char* dir, int truncate, double* close_us, double* unlink_us) {
  char name[4096], reply[330], back[512];
  memset(reply, 'x', sizeof reply);
  if (snprintf(name, sizeof name, "%s/truncation-cost-XXXXXX", dir) >= (int)sizeof name) return -1;
  const int created = mkstemp(name);
  if (created == -1) return -1;
  const int fd = open(name, O_WRONLY | O_CREAT | (truncate ? O_TRUNC : 0), 0600);
  if (fd == -1 || write(fd, reply, sizeof reply) != (ssize_t)sizeof reply) return -1;
  const double start = now_us();
  close(fd);
  close(created);
  *close_us = now_us() - start;
  const int again = open(name, O_RDONLY);
  if (again == -1 || read(again, back, sizeof back) != (ssize_t)sizeof reply) return -1;
  close(again);
  const double removal = now_us();
  if (unlink(name) != 0) return -1;
  *unlink_us = now_us() - removal;
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3 || atoi(argv[2]) <= 0) {
    fprintf(stderr, "usage: %s DIRECTORY ROUNDS\n", argv[0]);
    return 2;
  }
  const int rounds = atoi(argv[2]);
  double* samples = malloc(4 * (size_t)rounds * sizeof *samples);
  if (samples == NULL) return 1;
  for (int i = 0; i < rounds; ++i) {
    for (int way = 0; way < 2; ++way) {
      double* at = samples + (size_t)way * 2 * (size_t)rounds;
      if (round_trip(argv[1], way == 0, &at[i], &at[rounds + i]) != 0) {
        perror("truncation_cost");
        return 1;
      }
    }
  }
  for (int way = 0; way < 2; ++way) {
    double* at = samples + (size_t)way * 2 * (size_t)rounds;
    printf("%s close=%.1f unlink=%.1f\n", way == 0 ? "truncated" : "not_truncated",
           median(at, rounds), median(at + rounds, rounds));
  }
  free(samples);
  return 0;
}
