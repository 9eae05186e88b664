// Waiting for a sendmail child.
//
// Every sendmail the responder starts is waited for before the run goes on,
// so at most one child exists at a time. The mail system's verdict does not
// change the run, but a refused or crashed hand-over is worth one line on
// standard error. A failed waitpid (no such child) is not reported: there is
// nothing to wait for.
#include "autoresponder/responder/child_wait.h"

#include <sys/wait.h>

#include <iostream>

void wait_for_sendmail(pid_t pid, const char* what) {
  int status = 0;
  if (waitpid(pid, &status, WUNTRACED) != pid) return;
  if (WIFEXITED(status)) {
    if (WEXITSTATUS(status) != 0) {
      std::cerr << "autoresponder: sendmail for the " << what << " exited with status "
                << WEXITSTATUS(status) << std::endl;
    }
  } else if (WIFSIGNALED(status)) {
    std::cerr << "autoresponder: sendmail for the " << what << " was killed by signal "
              << WTERMSIG(status) << std::endl;
  } else if (WIFSTOPPED(status)) {
    std::cerr << "autoresponder: sendmail for the " << what << " was stopped by signal "
              << WSTOPSIG(status) << std::endl;
  }
}
