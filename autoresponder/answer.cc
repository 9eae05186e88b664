// The chain of one answering rule after its frequency check: forward the
// incoming message, look up the rule's attachment files and notify the
// domain's owner about missing ones, compose the reply and deliver it.
//
// Owns: the reply's boundary and the descriptor of the response file from
// its creation to the end of composition.
//
// Failures: each stage reports its own; a failed database statement ends the
// run through correct_exit(), IDN failures, a reply that cannot be handed
// over and exhausted memory through the message log with status 1.
#include "autoresponder/answer.h"

#include <signal.h>

#include <utility>

#include "autoresponder/attachments.h"
#include "autoresponder/composition.h"
#include "autoresponder/delivery.h"
#include "autoresponder/forwarding.h"

namespace {

void ignore_write_signal(int) {}

// A sendmail that exits before reading all its input must not kill the run:
// a write into its pipe then fails with EPIPE and the stream goes bad. A
// handler that does nothing, rather than SIG_IGN, because an ignored signal
// stays ignored across execv and the sendmail children must get the default.
void survive_broken_pipes() {
  static const bool installed = [] {
    struct sigaction action = {};
    action.sa_handler = ignore_write_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return sigaction(SIGPIPE, &action, nullptr) == 0;
  }();
  (void)installed;
}

}  // namespace

void answer_rule(MYSQL* connection, const Mail_content& mail, const Mailbox_ref& mailbox,
                 const char* esc_domain, const Resp_rule& rule, const Run_seam& seam) {
  survive_broken_pipes();
  forward_incoming(connection, rule.id, mail, *seam.sink);

  const std::string resp_boundary = makeBoundaryStr();
  Response_file_fd response_fd = create_response_file();

  const Attachment_lookup attachments =
      collect_attachments(connection, rule.id, mailbox.attach_dir);
  seam.observer->attachments_looked_up(attachments.found_attachments,
                                       attachments.missing_attachments);
  if (!attachments.missing_attachments.empty()) {
    notify_missing_attachments(connection, esc_domain, rule.reply_to, mail,
                               attachments.missing_attachments, *seam.sink);
  }

  compose_response(mail, rule, mailbox.attach_dir, attachments.found_attachments, resp_boundary,
                   std::move(response_fd), seam.reply_fields);
  deliver_response(mail, rule, *seam.sink, *seam.observer);
}
