// Starting a child program with chosen standard descriptors.
//
// The parent prepares everything (argument vector, descriptor table size)
// before vfork, so the child runs only descriptor system calls, one open,
// signal and execv; its failure messages are written with write(2) and it
// leaves with _exit(255), so stdio buffers it inherited from the parent are
// never flushed a second time. vfork rather than fork: the child borrows the
// parent's memory until execv instead of copying its page tables, which for
// this large, statically linked program was a noticeable part of each
// sendmail start. The borrowed memory is why the child must never return
// from fork_execv_pipes, allocate or touch stdio, and why the parent puts
// back its errno, which the child's failing calls would otherwise leave
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

#include "lib/paths.h"
#include "lib/put.h"

namespace {

constexpr int kChildFailureStatus = 255;

// Writes the pieces to `fd` whole, retrying short writes; errors are ignored
// since the child has nowhere else to report.
void write_all(int fd, std::initializer_list<const char*> pieces) {
  for (const char* piece : pieces) {
    std::size_t left = std::strlen(piece);
    while (left > 0) {
      const ssize_t written = ::write(fd, piece, left);
      if (written < 0) {
        if (errno == EINTR) continue;
        return;
      }
      piece += written;
      left -= static_cast<std::size_t>(written);
    }
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
                            int table_size) {
  if (!install_descriptor(in, 0) || !install_descriptor(out, 1) || !install_descriptor(err, 2)) {
    write_all(2, {"fork_execv: dup() failed: ", std::strerror(errno), "\n"});
    ::_exit(kChildFailureStatus);
  }
  close_inherited_descriptors(table_size);
  // A caller that ignores SIGPIPE for itself must not pass that on: an
  // ignored signal survives execv, and the child gets the default.
  ::signal(SIGPIPE, SIG_DFL);
  errno = 0;
  ::execv(path, args);
  write_all(2, {"fork_execv: execv(\"", path, "\") failed: ", std::strerror(errno), "\n"});
  ::_exit(kChildFailureStatus);
}

}  // namespace

pid_t fork_execv_pipes(int in, int out, int err, const char* path, const char* const args[]) {
  const int table_size = ::getdtablesize();
  // execv's vector is not const-qualified for historical reasons; it does not
  // modify the strings.
  char* const* exec_args = const_cast<char* const*>(args);
  const int saved_errno = errno;
  const pid_t pid = ::vfork();
  if (pid == 0) run_child(in, out, err, path, exec_args, table_size);
  if (pid < 0) messlog2(1, 0, "fork_execv_pipes: fork() failed");
  errno = saved_errno;
  return pid;
}

pid_t fork_execl_pipes(int in, int out, int err, const char* path, ...) {
  std::size_t count = 0;
  va_list args;
  va_start(args, path);
  while (va_arg(args, const char*) != nullptr) ++count;
  va_end(args);

  auto* vector = static_cast<const char**>(std::malloc((count + 1) * sizeof(const char*)));
  if (vector == nullptr) messlog2(1, 0, "malloc() failed: %s", std::strerror(errno));
  va_start(args, path);
  for (std::size_t i = 0; i < count; ++i) vector[i] = va_arg(args, const char*);
  va_end(args);
  vector[count] = nullptr;

  const pid_t pid = fork_execv_pipes(in, out, err, path, vector);
  std::free(vector);
  return pid;
}
