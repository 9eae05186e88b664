// Measurement driver for intake_bench.sh (a plain program, not a Google
// Benchmark one).
//
//   intake_driver [KEY]             runs the intake on standard input in this
//                                   process, then searches the body lines for
//                                   KEY as a body rule does (when given),
//                                   removes the stored copy,
//                                   prints the status, whether the key was
//                                   found and the peak resident memory;
//   intake_driver --run PROGRAM...  runs PROGRAM with the inherited standard
//                                   input and environment (its output goes
//                                   to /dev/null), prints its exit status
//                                   and its peak resident memory.
//
// Peak memory and processor time (user and system) come from getrusage/wait4,
// so the script needs no GNU time.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "autoresponder/intake/intake.h"
#include "autoresponder/mail_content.h"
#include "lib/paths.h"

namespace {

// User and system time together.
long cpu_ms(const rusage& usage) {
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

int run_program(char** argv) {
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("intake_driver: fork");
    return 1;
  }
  if (pid == 0) {
    // The program's own reports would mix with the figures.
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
      dup2(null_fd, STDOUT_FILENO);
      dup2(null_fd, STDERR_FILENO);
    }
    execv(argv[0], argv);
    std::perror("intake_driver: execv");
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) < 0) {
    std::perror("intake_driver: wait4");
    return 1;
  }
  std::printf("exit_status=%d peak_rss_kib=%ld cpu_ms=%ld\n",
              WIFEXITED(status) ? WEXITSTATUS(status) : -1, usage.ru_maxrss, cpu_ms(usage));
  return 0;
}

int run_intake(const char* key) {
  int status = 0;
  bool found = false;
  {
    Mail_content mail;
    status = parse_message(&mail);
    if (key != nullptr) found = mail.body.line_contains(key);
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  if (std::strcmp(mail_file_name, orvik::paths::kMailTemplate) != 0) unlink(mail_file_name);
  std::printf("status=%d key_found=%d peak_rss_kib=%ld cpu_ms=%ld\n", status, found ? 1 : 0,
              usage.ru_maxrss, cpu_ms(usage));
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--run") == 0) return run_program(argv + 2);
  return run_intake(argc >= 2 ? argv[1] : nullptr);
}
