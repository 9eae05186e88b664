// Hardening of the start: the standard descriptors made safe, and on a
// privileged start the process state the invoking user chose replaced by the
// program's own.
//
// The program may be installed set-user-ID root and runs on behalf of mailbox
// owners. Everything such a caller sets survives into the privileged process
// and, after its setuid(0), into sendmail, which the kernel then starts as an
// ordinary root program (glibc cleans nothing for it): shell start-up files
// (BASH_ENV, ENV), the mail system's own variables (QMAILQUEUE, QMAILINJECT),
// interpreter options, PATH, the umask, resource limits, ignored or blocked
// signals and the working directory. The database client library reads its
// socket, host, password, option files and plugins from the environment as
// well. So a privileged start keeps nothing of the environment but
// RESP_RECIPIENT, gives children a fixed one, and sets the rest itself.
#include "autoresponder/secure_environment.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "lib/forkexec.h"
#include "lib/paths.h"

namespace {

// The only variable of the caller the program reads.
constexpr char kRecipientVariable[] = "RESP_RECIPIENT";

// The environment of every child of a privileged start.
constexpr const char* kChildEnvironment[] = {"PATH=/usr/bin:/bin", nullptr};

// Files the run creates are its own: the stored message and the replies.
constexpr mode_t kPrivilegedUmask = 077;

void keep_only_the_recipient() {
  const char* value = std::getenv(kRecipientVariable);
  const bool present = value != nullptr;
  const std::string recipient = present ? value : "";
  clearenv();
  if (present) setenv(kRecipientVariable, recipient.c_str(), 1);
}

// Every signal back to its default and none blocked: a caller's ignored
// SIGTERM or blocked SIGCHLD would otherwise shape the run and its children.
void default_signals() {
  for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
    if (signal_number == SIGKILL || signal_number == SIGSTOP) continue;
    ::signal(signal_number, SIG_DFL);  // fails harmlessly for numbers glibc reserves
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// No file-size limit, so a caller's `ulimit -f` cannot end the run midway
// (SIGXFSZ) with a root-owned copy of the message left behind; where the
// limit cannot be lifted (a set-group-ID start has no right to), SIGXFSZ is
// ignored, the write fails and the run reports it and cleans up. No core
// file: a root process holding other people's mail must not leave one.
void set_limits() {
  const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
  if (setrlimit(RLIMIT_FSIZE, &unlimited) != 0) ::signal(SIGXFSZ, SIG_IGN);
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

}  // namespace

void harden_privileged_start(bool secure) {
  if (!secure) return;
  keep_only_the_recipient();
  set_child_environment(kChildEnvironment);
  umask(kPrivilegedUmask);
  (void)!chdir("/");
  default_signals();
  set_limits();
}

void open_standard_descriptors() {
  // open() returns the lowest free number, so each /dev/null lands on the
  // closed descriptor it replaces.
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && open(orvik::paths::kDevNull, O_RDWR) != fd) return;
  }
}
