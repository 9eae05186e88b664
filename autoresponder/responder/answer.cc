// The chain of one answering rule after its frequency check: forward the
// incoming message, look up the rule's attachment files and notify the
// domain's owner about missing ones, compose the reply and deliver it.
//
// Owns: the reply's boundary and the response file from its creation to the
// end of its delivery.
//
// Failures: each stage reports its own; a failed database statement ends the
// run through correct_exit(), IDN failures, a reply that cannot be handed
// over and exhausted memory through the message log with status 1.
#include "autoresponder/responder/answer.h"

#include <cstdint>
#include <utility>

#include "autoresponder/responder/attachments.h"
#include "autoresponder/responder/composition.h"
#include "autoresponder/responder/delivery.h"
#include "autoresponder/responder/forwarding.h"

void answer_rule(MYSQL* connection, const Mail_content& mail, const Mailbox_ref& mailbox,
                 const char* esc_domain, const Resp_rule& rule, const Run_seam& seam) {
  forward_incoming(connection, rule.id, mail, *seam.sink);

  const std::string resp_boundary = makeBoundaryStr();
  Response_file response_file = create_response_file();

  const Attachment_lookup attachments =
      collect_attachments(connection, rule.id, mailbox.attach_dir);
  seam.observer->attachments_looked_up(attachments.found_attachments,
                                       attachments.missing_attachments);
  if (!attachments.missing_attachments.empty()) {
    notify_missing_attachments(connection, esc_domain, rule.reply_to, mail,
                               attachments.missing_attachments, *seam.sink);
  }

  const std::int32_t databytes_limit = read_databytes_limit();
  compose_response(mail, rule, mailbox.attach_dir, attachments.found_attachments, resp_boundary,
                   response_file, databytes_limit, seam.reply_fields);
  deliver_response(mail, rule, response_file, databytes_limit, *seam.sink, *seam.observer);
}
