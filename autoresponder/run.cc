// The program's run: entry, loop guards and clean-up.
//
// Prepares the process (message-log name, privileged-start hardening, panel
// configuration, superuser ids), has the message taken in, refuses messages
// that would start a mail loop, hands the rest to the responder and removes
// the temporary files. Every path through here ends with exit status 0; only
// the responder's answer stages end the process with status 1 themselves.
//
// Exceptions: the intake and the responder report their own failures and
// return, or end the process themselves. An exception that still escapes
// them (exhausted memory, a failed system call the library throws for) is
// reported here as one "autoresponder: " line on standard error, and the
// run then cleans up and exits 0 like every other refused message, so the
// mail system neither retries nor bounces the delivery because of us and no
// temporary file is left behind.
#include "autoresponder/run.h"

#include <sys/auxv.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "autoresponder/intake.h"
#include "autoresponder/responder.h"
#include "autoresponder/secure_environment.h"
#include "lib/autoprepend.h"
#include "lib/paths.h"
#include "lib/put.h"

namespace {

constexpr const char* kDaemonNames[] = {"MAILER-DAEMON", "mailer-daemon", "DrWEB-DAEMON"};

// Intake, loop guards and responder; returns when the run is over.
void take_in_and_answer(Mail_content& mail) {
  if (parse_message(&mail) != 0) {
    std::cerr << "Abnormal exit." << std::endl;
    return;
  }
  if (const char* refusal = loop_guard_refusal(mail)) {
    std::cerr << refusal << std::endl;
    return;
  }
  db_mail_act(&mail);
}

}  // namespace

void correct_exit() {
  // Either name may still be the template (never created): unlink then
  // fails harmlessly.
  if (mail_file_name[0] != '\0') unlink(mail_file_name);
  if (resp_uu_file_name[0] != '\0') unlink(resp_uu_file_name);
  std::exit(0);
}

const char* loop_guard_refusal(const Mail_content& mail) {
  if (mail.from == mail.to) return "Field From: equial field To:";
  for (const char* daemon : kDaemonNames) {
    if (mail.from.find(daemon) != std::string::npos) return "Field From: contains MAILER-DAEMON";
  }
  return nullptr;
}

void run_autoresponder(int /*argc*/, char** argv) {
  PROGNAME = argv[0];
  open_standard_descriptors();
  // Before any library can read the environment.
  drop_privileged_environment(getauxval(AT_SECURE) != 0);
  autoprepend();
  // Lives until exit(): the responder keeps pointers into it.
  Mail_content mail;
  // Without the privilege the run goes on with the ids it has.
  (void)!setuid(0);
  (void)!setgid(0);
  try {
    take_in_and_answer(mail);
  } catch (const std::bad_alloc&) {
    std::cerr << "autoresponder: out of memory" << std::endl;
  } catch (const std::exception& failure) {
    std::cerr << "autoresponder: " << failure.what() << std::endl;
  } catch (...) {
    std::cerr << "autoresponder: unexpected failure" << std::endl;
  }
  correct_exit();
}
