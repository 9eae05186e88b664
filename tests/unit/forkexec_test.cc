// Starting children with chosen descriptors: what they read and write, which
// descriptors they keep, their argument vector, and how a failed start shows.
#include "lib/forkexec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <set>
#include <sstream>
#include <string>

#include "lib/paths.h"

namespace {

const char kShell[] = "/bin/sh";
constexpr int kPatienceMs = 10000;

// A pipe whose ends the test closes as it hands them over.
struct Pipe {
  Pipe() { EXPECT_EQ(::pipe(fds), 0); }
  ~Pipe() {
    close_read();
    close_write();
  }
  int read_end() const { return fds[0]; }
  int write_end() const { return fds[1]; }
  void close_read() {
    if (fds[0] >= 0) ::close(fds[0]);
    fds[0] = -1;
  }
  void close_write() {
    if (fds[1] >= 0) ::close(fds[1]);
    fds[1] = -1;
  }
  // Everything until end of file; closes the parent's write end first. A
  // child that keeps a copy of the write end would block this for ever, so
  // it gives up after kPatience.
  std::string drain() {
    close_write();
    std::string text;
    char chunk[4096];
    pollfd ready{fds[0], POLLIN, 0};
    while (::poll(&ready, 1, kPatienceMs) > 0) {
      const ssize_t n = ::read(fds[0], chunk, sizeof chunk);
      if (n <= 0) return text;
      text.append(chunk, static_cast<std::size_t>(n));
    }
    ADD_FAILURE() << "no end of file: a copy of the write end survives somewhere";
    return text;
  }
  int fds[2] = {-1, -1};
};

// The exit status of a child that exited, or -1; a child still running
// after kPatience is killed.
int exit_status_of(pid_t pid) {
  int status = 0;
  for (int waited_ms = 0; ::waitpid(pid, &status, WNOHANG) == 0; waited_ms += 10) {
    if (waited_ms >= kPatienceMs) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      ADD_FAILURE() << "child " << pid << " did not end";
      return -1;
    }
    ::usleep(10000);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ForkExec, ChildReadsThePipeUntilEndOfFile) {
  Pipe input;
  Pipe output;
  const char* const args[] = {"cat", nullptr};
  const pid_t pid = fork_execv_pipes(input.read_end(), output.write_end(), 2, "/bin/cat", args);
  ASSERT_GT(pid, 0);
  input.close_read();
  ASSERT_EQ(::write(input.write_end(), "hello\n", 6), 6);
  input.close_write();  // cat ends only if no other copy of this end survives
  EXPECT_EQ(output.drain(), "hello\n");
  EXPECT_EQ(exit_status_of(pid), 0);
}

TEST(ForkExec, MinusOneInputReadsEmpty) {
  Pipe output;
  const pid_t pid =
      fork_execl_pipes(-1, output.write_end(), 2, kShell, "sh", "-c", "wc -c", nullptr);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(output.drain(), "0\n");
  EXPECT_EQ(exit_status_of(pid), 0);
}

TEST(ForkExec, MinusOneMeansNullDevice) {
  const pid_t pid = fork_execl_pipes(-1, -1, -1, kShell, "sh", "-c",
                                     "for fd in 0 1 2; do"
                                     "  test \"$(readlink /proc/$$/fd/$fd)\" = /dev/null || exit 1;"
                                     "done",
                                     nullptr);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(exit_status_of(pid), 0);
}

TEST(ForkExec, OnlyStandardDescriptorsSurvive) {
  // Descriptors the child must not inherit, far above any it opens itself.
  const int opened = ::open(orvik::paths::kDevNull, O_RDONLY);
  ASSERT_GE(opened, 3);
  ASSERT_EQ(::dup2(opened, 100), 100);
  ASSERT_EQ(::dup2(opened, 200), 200);
  ::close(opened);
  Pipe output;
  const char* const args[] = {"ls", "/proc/self/fd", nullptr};
  const pid_t pid = fork_execv_pipes(-1, output.write_end(), 2, "/bin/ls", args);
  ASSERT_GT(pid, 0);
  std::istringstream listing(output.drain());
  EXPECT_EQ(exit_status_of(pid), 0);
  ::close(100);
  ::close(200);

  std::set<int> seen;
  for (int fd; listing >> fd;) seen.insert(fd);
  // 3 is the descriptor ls opens for the directory it lists; a leaked pipe
  // end would push it higher.
  EXPECT_TRUE(seen == std::set<int>({0, 1, 2}) || seen == std::set<int>({0, 1, 2, 3}))
      << ::testing::PrintToString(seen);
}

TEST(ForkExec, ExeclPassesExactlyTheGivenArguments) {
  Pipe output;
  // The shell prints its own argument vector, NUL-separated.
  const pid_t pid = fork_execl_pipes(-1, output.write_end(), 2, kShell, "/usr/sbin/sendmail", "-c",
                                     "cat /proc/$$/cmdline", nullptr);
  ASSERT_GT(pid, 0);
  using namespace std::string_literals;
  EXPECT_EQ(output.drain(), "/usr/sbin/sendmail\0-c\0cat /proc/$$/cmdline\0"s);
  EXPECT_EQ(exit_status_of(pid), 0);
}

TEST(ForkExec, MissingProgramExitsWith255AndNamesThePath) {
  Pipe errors;
  const char* const args[] = {"prog", nullptr};
  const pid_t pid = fork_execv_pipes(-1, -1, errors.write_end(), "/nonexistent/prog", args);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(errors.drain(), std::string("fork_execv: execv(\"/nonexistent/prog\") failed: ") +
                                std::strerror(ENOENT) + "\n");
  EXPECT_EQ(exit_status_of(pid), 255);
}

TEST(ForkExec, BadDescriptorExitsWith255) {
  // The failed dup2 is reported on the child's descriptor 2 as it is at
  // that moment: the error pipe, installed last, is not there yet when the
  // output descriptor fails, so the report goes to the inherited one.
  Pipe errors;
  const int saved_err = ::dup(2);
  ::dup2(errors.write_end(), 2);
  const char* const args[] = {"true", nullptr};
  const pid_t pid = fork_execv_pipes(-1, 250, 2, "/bin/true", args);
  ::dup2(saved_err, 2);
  ::close(saved_err);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(errors.drain(),
            std::string("fork_execv: dup() failed: ") + std::strerror(EBADF) + "\n");
  EXPECT_EQ(exit_status_of(pid), 255);
}

TEST(ForkExec, InheritedStandardDescriptorsAreKept) {
  // out 1 and err 2 keep the parent's own descriptors.
  Pipe output;
  const int saved_out = ::dup(1);
  ::dup2(output.write_end(), 1);
  const pid_t pid = fork_execl_pipes(-1, 1, 2, kShell, "sh", "-c", "echo kept", nullptr);
  ::dup2(saved_out, 1);
  ::close(saved_out);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(output.drain(), "kept\n");
  EXPECT_EQ(exit_status_of(pid), 0);
}

}  // namespace
