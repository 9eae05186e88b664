// Starting a child program with chosen standard descriptors. The child gets
// `in`, `out` and `err` as its descriptors 0, 1 and 2 (-1 means /dev/null; the
// target's own number means "keep the inherited one"), every other descriptor
// closed, and runs `path` with execv (no PATH search, no shell). The parent
// gets the child's process id and waits for it itself. A failed fork ends the
// process through the message log with status 1; a child that cannot set up
// its descriptors or execute exits with status 255, and its failure is
// written as one line on the descriptor it was given as standard error. The
// child's environment is the program's own, or the one set below.
#pragma once

#include <sys/types.h>

pid_t fork_execv_pipes(int in, int out, int err, const char* path, const char* const args[]);
// The argument vector given one by one, ended by a null pointer.
pid_t fork_execl_pipes(int in, int out, int err, const char* path, ...) __attribute__((sentinel));

// From now on every child gets `environment` (a null-terminated "NAME=value"
// array that must outlive every later start) instead of the program's own;
// null goes back to the program's own.
void set_child_environment(const char* const* environment);
