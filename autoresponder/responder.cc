// The responder routine: escapes the recipient, opens the run's database
// connection, resolves the mailbox, then walks its rules in database order and
// runs the chain of every rule that is on, matches and passes its frequency
// limit.
//
// Owns, for the whole routine, the two escaped recipient halves, the
// connection and the rule result; on the normal path they are released in
// that documented order: result, esc_domain, esc_mailname, connection. Fails
// by ending the run (Run_end) after one report line, which unwinds through
// the same owners; the stages it calls end the run the same way.
#include "autoresponder/responder.h"

#include <cstdlib>
#include <iostream>

#include "autoresponder/answer.h"
#include "autoresponder/db_statement.h"
#include "autoresponder/frequency.h"
#include "autoresponder/mailbox_resolution.h"
#include "autoresponder/rules.h"
#include "autoresponder/run_end.h"
#include "lib/dbconnect.h"
#include "lib/libcommon.h"
#include "lib/mysql_handle.h"

namespace {

// A buffer for the connection-less escaping of `text`: the worst case doubles
// every byte, plus the terminating NUL.
MallocChars escape_buffer_for(const std::string& text) {
  return MallocChars(static_cast<char*>(std::malloc(2 * text.size() + 1)));
}

}  // namespace

int db_mail_act(Mail_content* mail, const Run_seam& seam) {
  MallocChars esc_domain = escape_buffer_for(mail->to_domain);
  MallocChars esc_mailname = escape_buffer_for(mail->to_mailname);
  if (!esc_domain || !esc_mailname) {
    std::cerr << "autoresponder: Unable to alloc memory" << std::endl;
    end_run();
  }
  // No connection exists yet, hence the connection-less form. This client
  // library escapes by its default character set, which is set up only by
  // the library's initialisation (otherwise first done by mysql_init).
  if (mysql_library_init(0, nullptr, nullptr) != 0) {
    std::cerr << "autoresponder: Unable to initialize the MySQL client library" << std::endl;
    end_run();
  }
  mysql_escape_string(esc_domain.get(), mail->to_domain.data(), mail->to_domain.size());
  mysql_escape_string(esc_mailname.get(), mail->to_mailname.data(), mail->to_mailname.size());

  MysqlConnection connection(db_connect());
  if (!connection) {
    std::cerr << "autoresponder: Unable to connect to the mysql database " << std::endl;
    end_run();
  }

  if (seam.roll_back) exec_or_exit(connection.get(), "START TRANSACTION", kExecQueryFailed);

  const char* route = nullptr;
  const std::optional<Mailbox_ref> found =
      resolve_mailbox(connection.get(), esc_domain.get(), esc_mailname.get(), &route);
  if (!found) {
    seam.observer->mailbox_not_found();
    std::cerr << "autoresponder: Mailname not found: " << mail->to_mailname << "@"
              << mail->to_domain << std::endl;
    end_run();
  }
  const Mailbox_ref& mailbox = *found;
  seam.observer->mailbox_found(mailbox, route);

  MysqlResult rules = select_or_exit(
      connection.get(),
      std::string("select ") + kRuleColumns + " from mail_resp where mn_id=" + mailbox.id,
      kExecQueryFailed);
  while (MYSQL_ROW row = mysql_fetch_row(rules.get())) {
    const Resp_rule rule = rule_from_row(row);
    const bool on = rule_is_on(rule);
    const bool matches = on && rule_matches(rule, *mail);
    seam.observer->rule_seen(rule, on, matches);
    if (!matches) continue;
    if (can_response_freq(connection.get(), mail, rule.id, rule.ans_freq, rule.mem_limit,
                          *seam.observer) == 0) {
      continue;
    }
    answer_rule(connection.get(), *mail, mailbox, esc_domain.get(), rule, seam);
  }

  rules.reset();
  // Closing without a commit would discard the changes too; the statement
  // says so in the server's log.
  if (seam.roll_back) exec_or_exit(connection.get(), "ROLLBACK", kExecQueryFailed);
  esc_domain.reset();
  esc_mailname.reset();
  connection.reset();
  return 0;
}
