// The library's levelled logger: a replaceable function pointer, filtered by
// a level threshold. The configuration reader reports through it.
#pragma once

#include <cstdarg>

using orvik_log_function = void (*)(int level, const char* format, ...);

// The logger in use; initially _orvik_utility_log.
extern orvik_log_function orvik_log;

// Threshold of the default logger: a message is written when its level is at
// most LogLevel. Initially 6.
extern int LogLevel;

// The default logger: the formatted message and a line feed on standard
// error, then on standard output, when LogLevel >= level. No prefix.
void _orvik_utility_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void _orvik_utility_logv(int level, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
