/* The least an autoresponder can do, a peer in the end-to-end benchmark:
 *
 *   minimal_responder REPLY SENDER
 *
 * Reads the incoming message on its standard input to the end, starts the
 * sandbox's sendmail (MINIMAL_SENDMAIL, set by the build) with the argument
 * vector of a reply to SENDER, writes the file REPLY into its standard input
 * through a pipe and waits for it. No database, no parsing, no state: what
 * is left of a run is process start-up, the two reads, one child and the
 * wait. Exits 0, or 1 when a step fails. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef MINIMAL_SENDMAIL
#error "MINIMAL_SENDMAIL must be defined by the build"
#endif

static char block[64 * 1024];

static int write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t put = write(fd, data, size);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return -1;
    data += put;
    size -= (size_t)put;
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  for (;;) {
    ssize_t got = read(STDIN_FILENO, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
  }
  int reply = open(argv[1], O_RDONLY | O_CLOEXEC);
  if (reply < 0) return 1;
  ssize_t size = read(reply, block, sizeof block);
  close(reply);
  if (size < 0) return 1;

  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return 1;
  pid_t pid = vfork();
  if (pid == 0) {
    char* const args[] = {MINIMAL_SENDMAIL, "-f", "info@example.com", argv[2], 0};
    if (dup2(pipe_fds[0], STDIN_FILENO) < 0) _exit(127);
    execv(args[0], args);
    _exit(127);
  }
  close(pipe_fds[0]);
  if (pid < 0) return 1;
  int failed = write_all(pipe_fds[1], block, (size_t)size);
  close(pipe_fds[1]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return 1;
  }
  return failed == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
