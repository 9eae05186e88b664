// The message log: unconditional messages for the user of the tool, each
// prefixed with the program's name, written on standard error and then on
// standard output, optionally followed by an exit. A message gains a
// "System error N: text" line whenever errno was non-zero at the call.
#pragma once

#include <cstdarg>

// The path by which the program was started; only its last component is
// printed. Set by the program's entry before anything else. May be null.
extern const char* PROGNAME;

// Formats and writes one message; exits with `status` when it is non-zero.
// `mess_out` is accepted and has no effect.
void messlog2(int status, int mess_out, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void vmesslog2(int status, int mess_out, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Writes a finished text with the prefix on both streams; exits with `status`
// when it is non-zero, else returns 0.
int ex_messlog(const char* text, int status, int mess_out);

// What a non-zero status does once both streams are flushed: exit(status)
// unless a program has set another end, which must not return (a program
// that owns resources throws, so that they unwind); null restores exit().
using Fatal_message_end = void (*)(int status);
void set_fatal_message_end(Fatal_message_end end);
