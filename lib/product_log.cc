// The library's levelled logger.
//
// `orvik_log` is a replaceable function pointer; the default writes messages
// at or below the threshold `LogLevel` on standard error and then standard
// output, each followed by a line feed, without prefix or errno suffix. Owns
// nothing; write errors are ignored.
#include "lib/product_log.h"

#include <cstdio>

orvik_log_function orvik_log = _orvik_utility_log;
int LogLevel = 6;

void _orvik_utility_logv(int level, const char* format, va_list args) {
  if (LogLevel < level) return;
  va_list copy;
  va_copy(copy, args);
  std::vfprintf(stderr, format, copy);
  va_end(copy);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::vfprintf(stdout, format, args);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void _orvik_utility_log(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  _orvik_utility_logv(level, format, args);
  va_end(args);
}
