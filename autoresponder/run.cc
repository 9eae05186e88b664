// The program's run: entry, loop guards and clean-up.
//
// Prepares the process (message-log name, privileged-start hardening, the
// broken-pipe handler and the database client library, panel configuration,
// superuser ids), has the message taken in, refuses messages
// that would start a mail loop, hands the rest to the responder and removes
// the temporary files. Every path through here ends with exit status 0,
// except a fatal message of the answer stages, which ends it with status 1.
//
// The run ends here and nowhere else: a stage that must end it throws
// Run_end (autoresponder/run_end.h), and every owner between the stage and
// this entry (named lock, results, connection, message record) is released
// on the way out before correct_exit() or exit(status).
//
// Exceptions: the intake and the responder report their own failures and
// return, or end the process themselves. An exception that still escapes
// them (exhausted memory, a failed system call the library throws for) is
// reported here as one "autoresponder: " line on standard error, and the
// run then cleans up and exits 0 like every other refused message, so the
// mail system neither retries nor bounces the delivery because of us and no
// temporary file is left behind.
#include "autoresponder/run.h"

#include <signal.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "autoresponder/intake/intake.h"
#include "autoresponder/responder/responder.h"
#include "autoresponder/robot_guards.h"
#include "autoresponder/run_end.h"
#include "autoresponder/run_files.h"
#include "autoresponder/secure_environment.h"
#include "lib/autoprepend.h"
#include "lib/dbconnect.h"
#include "lib/paths.h"
#include "lib/put.h"

namespace {

constexpr const char* kDaemonNames[] = {"MAILER-DAEMON", "mailer-daemon", "DrWEB-DAEMON"};

void ignore_write_signal(int) {}

// A sendmail that exits before reading all its input must not kill the run:
// a write into its pipe then fails with EPIPE and the stream goes bad. A
// handler that does nothing, rather than SIG_IGN, because an ignored signal
// stays ignored across execv and the sendmail children must get the default.
void survive_broken_pipes() {
  struct sigaction action = {};
  action.sa_handler = ignore_write_signal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  (void)sigaction(SIGPIPE, &action, nullptr);
}

void refuse(const std::string& line, const Run_seam& seam) {
  seam.observer->refused(line);
  std::cerr << line << std::endl;
}

// The run proper; returns the status of a fatal end, 0 otherwise.
int run_to_its_end(Mail_content& mail) {
  try {
    Run_seam seam;
    take_in_and_answer(mail, seam);
  } catch (const Run_end& end) {
    return end.status;
  } catch (const std::bad_alloc&) {
    std::cerr << "autoresponder: out of memory" << std::endl;
  } catch (const std::exception& failure) {
    std::cerr << "autoresponder: " << failure.what() << std::endl;
  } catch (...) {
    std::cerr << "autoresponder: unexpected failure" << std::endl;
  }
  return 0;
}

}  // namespace

Run_outcome take_in_and_answer(Mail_content& mail, Run_seam& seam) {
  if (parse_message(&mail) != 0) {
    std::cerr << "Abnormal exit." << std::endl;
    return Run_outcome::kUnreadable;
  }
  if (const char* refusal = loop_guard_refusal(mail)) {
    refuse(refusal, seam);
    return Run_outcome::kRefused;
  }
  const bool guards_on = robot_guards_on();
  if (guards_on) {
    const Entity_headers fields = robot_fields(stored_message_fd()).value_or(Entity_headers{});
    if (const auto refusal = robot_refusal(mail, fields)) {
      refuse(*refusal, seam);
      return Run_outcome::kRefused;
    }
    seam.reply_fields = auto_reply_fields(fields);
  }
  seam.observer->reply_fields(guards_on, seam.reply_fields);
  db_mail_act(&mail, seam);
  return Run_outcome::kAnswered;
}

void remove_temporary_files() {
  // Either name may still be the template (never created): unlink then
  // fails harmlessly.
  if (mail_file_name[0] != '\0') unlink(mail_file_name);
  if (resp_uu_file_name[0] != '\0') unlink(resp_uu_file_name);
}

void correct_exit() {
  remove_temporary_files();
  std::exit(0);
}

const char* loop_guard_refusal(const Mail_content& mail) {
  if (mail.from == mail.to) return "Field From: equial field To:";
  // sendmail would read such an address as an option, not as the recipient.
  if (mail.from.starts_with('-')) return "Field From: begins with '-'";
  for (const char* daemon : kDaemonNames) {
    if (mail.from.find(daemon) != std::string::npos) return "Field From: contains MAILER-DAEMON";
  }
  return nullptr;
}

void run_autoresponder(int /*argc*/, char** argv) {
  PROGNAME = argv[0];
  open_standard_descriptors();
  // Before any library can read the environment.
  harden_privileged_start(getauxval(AT_SECURE) != 0);
  // Process-wide set-up, once, before the stages that rely on it. The
  // client library's set-up ignores SIGPIPE; the handler replaces that.
  if (db_library_init() != 0) {
    std::cerr << "autoresponder: Unable to initialize the MySQL client library" << std::endl;
    correct_exit();
  }
  survive_broken_pipes();
  autoprepend();
  unwind_fatal_messages();
  // Without the privilege the run goes on with the ids it has.
  (void)!setuid(0);
  (void)!setgid(0);
  int status;
  {
    // Outlives every stage: the responder keeps pointers into it.
    Mail_content mail;
    status = run_to_its_end(mail);
  }
  // A fatal end leaves the temporary files, as the message log always has.
  if (status != 0) std::exit(status);
  correct_exit();
}
