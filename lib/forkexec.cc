// Starting a child program with chosen standard descriptors.
//
// The parent prepares everything (argument vector, environment, descriptor
// table size) before vfork, so the child runs only async-signal-safe calls:
// descriptor system calls, one open, signal and execve. vfork rather than
// fork: the child borrows the parent's memory until execve instead of
// copying its page tables, which for this large, statically linked program
// was a noticeable part of each sendmail start. The borrowed memory is why
// the child must never return from fork_execv_pipes, allocate, touch stdio
// or call strerror (which may load locale data): a child that fails records
// the failed step and its errno in the parent's frame and leaves with
// _exit(255); the parent, which vfork holds until then, writes the message on
// the descriptor the child had chosen as its standard error. The parent also
// puts back its errno, which the child's failing calls would otherwise leave
// changed. A failed vfork or argument-vector allocation ends the parent
// through the message log with status 1. Owns nothing after returning: the
// caller closes its copies of the child's descriptors and reaps the child.
#include "lib/forkexec.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "lib/c_owners.h"
#include "lib/paths.h"
#include "lib/put.h"
#include "lib/write_all.h"

extern char** environ;

namespace {

constexpr int kChildFailureStatus = 255;

// The environment of every child; null: the program's own.
const char* const* child_environment = nullptr;

// What a child that could not start left for the parent to report. Written
// by the child into the memory it shares with the parent, which the compiler
// cannot know: hence static storage (a local, even a volatile one, may be
// optimised away on the child's path to _exit) and volatile.
enum class Child_failure { kNone, kDescriptors, kExec };
struct Child_outcome {
  Child_failure failure = Child_failure::kNone;
  int error = 0;
};
volatile Child_outcome child_outcome;

// Writes the pieces to `fd` whole; errors are ignored, as the child's own
// report had nowhere else to go.
void write_pieces(int fd, std::initializer_list<const char*> pieces) {
  for (const char* piece : pieces) {
    if (!write_all(fd, piece, std::strlen(piece))) return;
  }
}

// Makes `source` the child's descriptor `target` (-1: /dev/null; equal to
// the target: keep the inherited one). False with errno set on failure.
bool install_descriptor(int source, int target) {
  if (source == target) return true;
  int fd = source;
  if (fd == -1) {
    fd = ::open(orvik::paths::kDevNull, O_RDWR);
    if (fd < 0) return false;
    if (fd == target) return true;  // the target was closed, so open filled it
  }
  if (::dup2(fd, target) < 0) return false;
  ::close(fd);
  return true;
}

void close_inherited_descriptors(int table_size) {
  if (table_size <= 3) return;
  // close_range does the whole range in one call; older kernels lack it.
  if (::close_range(3, static_cast<unsigned>(table_size - 1), 0) == 0) return;
  for (int fd = 3; fd < table_size; ++fd) ::close(fd);
}

[[noreturn]] void run_child(int in, int out, int err, const char* path, char* const args[],
                            char* const env[], int table_size, volatile Child_outcome* outcome) {
  if (!install_descriptor(in, 0) || !install_descriptor(out, 1) || !install_descriptor(err, 2)) {
    outcome->error = errno;
    outcome->failure = Child_failure::kDescriptors;
    ::_exit(kChildFailureStatus);
  }
  close_inherited_descriptors(table_size);
  // A caller that ignores SIGPIPE or SIGXFSZ for itself must not pass that
  // on: an ignored signal survives execve, and the child gets the default.
  ::signal(SIGPIPE, SIG_DFL);
  ::signal(SIGXFSZ, SIG_DFL);
  errno = 0;
  ::execve(path, args, env);
  outcome->error = errno;
  outcome->failure = Child_failure::kExec;
  ::_exit(kChildFailureStatus);
}

// The child's failure message, written where the child's standard error
// went: `err`, or nowhere for /dev/null.
void report_child_failure(const volatile Child_outcome& outcome, int err, const char* path) {
  if (outcome.failure == Child_failure::kNone || err == -1) return;
  const char* text = std::strerror(outcome.error);
  if (outcome.failure == Child_failure::kDescriptors) {
    write_pieces(err, {"fork_execv: dup() failed: ", text, "\n"});
  } else {
    write_pieces(err, {"fork_execv: execv(\"", path, "\") failed: ", text, "\n"});
  }
}

}  // namespace

pid_t fork_execv_pipes(int in, int out, int err, const char* path, const char* const args[]) {
  const int table_size = ::getdtablesize();
  // execv's vector is not const-qualified for historical reasons; it does not
  // modify the strings.
  char* const* exec_args = const_cast<char* const*>(args);
  char* const* exec_env =
      const_cast<char* const*>(child_environment != nullptr ? child_environment : environ);
  const int saved_errno = errno;
  child_outcome.failure = Child_failure::kNone;
  const pid_t pid = ::vfork();
  if (pid == 0) run_child(in, out, err, path, exec_args, exec_env, table_size, &child_outcome);
  if (pid < 0) messlog2(1, 0, "fork_execv_pipes: fork() failed");
  report_child_failure(child_outcome, err, path);
  errno = saved_errno;
  return pid;
}

void set_child_environment(const char* const* environment) {
  child_environment = environment;
}

pid_t fork_execl_pipes(int in, int out, int err, const char* path, ...) {
  std::size_t count = 0;
  va_list args;
  va_start(args, path);
  while (va_arg(args, const char*) != nullptr) ++count;
  va_end(args);

  // Freed also when a failed fork ends the run by unwinding.
  const std::unique_ptr<const char*[], FreeDeleter> vector(
      static_cast<const char**>(std::malloc((count + 1) * sizeof(const char*))));
  if (!vector) messlog2(1, 0, "malloc() failed: %s", std::strerror(errno));
  va_start(args, path);
  for (std::size_t i = 0; i < count; ++i) vector[i] = va_arg(args, const char*);
  va_end(args);
  vector[count] = nullptr;

  return fork_execv_pipes(in, out, err, path, vector.get());
}
