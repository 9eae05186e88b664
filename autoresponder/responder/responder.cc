// The responder routine: opens the run's database connection, escapes the
// recipient on it, resolves the mailbox, then walks its rules in database order and
// runs the chain of every rule that is on, matches and passes its frequency
// limit.
//
// Owns, for the whole routine, the two escaped recipient halves, the
// connection and the rule result; on the normal path they are released in
// that documented order: result, esc_domain, esc_mailname, connection. Fails
// by ending the run (Run_end) after one report line, which unwinds through
// the same owners; the stages it calls end the run the same way.
#include "autoresponder/responder/responder.h"

#include <iostream>

#include "autoresponder/responder/answer.h"
#include "autoresponder/responder/db_statement.h"
#include "autoresponder/responder/frequency.h"
#include "autoresponder/responder/mailbox_resolution.h"
#include "autoresponder/responder/rules.h"
#include "autoresponder/run_end.h"
#include "lib/dbconnect.h"
#include "lib/libcommon.h"
#include "lib/mysql_handle.h"

int db_mail_act(Mail_content* mail, const Run_seam& seam) {
  MysqlConnection connection(db_connect());
  if (!connection) {
    std::cerr << "autoresponder: Unable to connect to the mysql database " << std::endl;
    end_run();
  }
  // Escaped by the open connection, so by its character set and sql_mode: a
  // server that runs NO_BACKSLASH_ESCAPES reads a quote escaped as two
  // quotes, where a backslash would end the string for it. Under the
  // default mode the result is the same as the connection-less escaping.
  MallocChars esc_domain(escape_mysql_param(connection.get(), mail->to_domain.c_str()));
  MallocChars esc_mailname(escape_mysql_param(connection.get(), mail->to_mailname.c_str()));

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
    // A run that must change nothing counts in a transaction that is rolled
    // back (on a cluster node the check's own transaction ends the outer one).
    const Count_policy count_policy = seam.roll_back ? trial_of(count_policy_for(connection.get()))
                                                     : count_policy_for(connection.get());
    if (can_response_freq(connection.get(), mail, rule.id, rule.ans_freq, rule.mem_limit,
                          count_policy, *seam.observer) == 0) {
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
