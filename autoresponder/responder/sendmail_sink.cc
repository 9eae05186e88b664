// The program's mail sink: every mail goes to the mail system's sendmail, one
// child at a time, each waited for before the stage goes on.
//
// Owns, for one mail: the child, and for a mail made in memory the two ends
// of the pipe to it (the read end until the child has it, the write end until
// the stream over it is gone). Failures of a mail made in memory are reported
// here on one line; the run goes on.
#include <unistd.h>

#include <cerrno>
#include <iostream>

#include "autoresponder/pipe_stream.h"
#include "autoresponder/responder/child_wait.h"
#include "autoresponder/responder/failure_report.h"
#include "autoresponder/run_seam.h"
#include "lib/forkexec.h"
#include "lib/paths.h"
#include "lib/unique_fd.h"

namespace {

std::vector<const char*> argv_of(const std::vector<std::string>& argv) {
  std::vector<const char*> pointers;
  pointers.reserve(argv.size() + 1);
  for (const std::string& word : argv) pointers.push_back(word.c_str());
  pointers.push_back(nullptr);
  return pointers;
}

class Sendmail_sink final : public Mail_sink {
 public:
  bool send_file(Outgoing kind, const std::vector<std::string>& argv, int message) override {
    const pid_t pid = fork_execv_pipes(message, STDOUT_FILENO, STDERR_FILENO,
                                       orvik::paths::kSendmail, argv_of(argv).data());
    if (pid < 0) return false;
    wait_for_sendmail(pid, outgoing_name(kind));
    return true;
  }

  void send_text(Outgoing kind, const std::vector<std::string>& argv,
                 const std::string& text) override {
    int ends[2];
    if (pipe(ends) != 0) {
      report_system_error(
          "autoresponder: Failed to create pipe to sendmail to notify about missing attachment "
          "files: ",
          errno);
      return;
    }
    Unique_fd read_end(ends[0]);
    Unique_fd write_end(ends[1]);

    const pid_t pid = fork_execv_pipes(read_end.get(), STDOUT_FILENO, STDERR_FILENO,
                                       orvik::paths::kSendmail, argv_of(argv).data());
    const int spawn_error = errno;
    read_end.reset();
    if (pid < 0) {
      report_system_error(
          "autoresponder: Failed to spawn sendmail to notify about missing attachment files: ",
          spawn_error);
      return;
    }
    {
      // The stream owns the write end from here on; its end closes the pipe,
      // which is sendmail's end of input.
      ofd_pipestream out(write_end.release());
      if (!out.good()) {
        std::cerr << "Unable to send mail with notify of not exist attachment.\n";
      } else {
        out << text;
      }
    }
    wait_for_sendmail(pid, outgoing_name(kind));
  }
};

}  // namespace

const char* outgoing_name(Outgoing kind) {
  switch (kind) {
    case Outgoing::kForward:
      return "forward";
    case Outgoing::kNotice:
      return "notice";
    case Outgoing::kReply:
      return "reply";
  }
  return "mail";
}

Mail_sink& sendmail_sink() {
  static Sendmail_sink sink;
  return sink;
}

Run_observer& no_observer() {
  static Run_observer observer;
  return observer;
}
