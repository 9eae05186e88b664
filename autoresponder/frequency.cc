// The per-rule, per-sender daily answer limit, kept in resp_freq: forget
// earlier days, then count the sender's answers of today and record this one,
// making room by forgetting the oldest senders when the rule's memory is full.
//
// Owns the escaped sender, every result (each released before the check
// returns) and, around the lookup and the write of the sender's count, a
// named lock on the connection. Fails by ending the run through correct_exit()
// after "autoresponder: Unable to exec query :" and the server's text;
// statements that ran before stay in effect (there is no transaction).
//
// Concurrent runs for one rule and one sender are serialised by the lock, so
// two messages arriving together cannot both read the same num and both be
// answered over the limit. Runs for different senders are not serialised:
// the memory limit of a rule may be overshot by the number of new senders
// arriving at the same moment, which only delays their eviction.
#include "autoresponder/frequency.h"

#include <cstdlib>
#include <iostream>

#include "autoresponder/db_statement.h"
#include "autoresponder/named_lock.h"
#include "lib/libcommon.h"

namespace {

// Decimal text read as strtol does: leading blanks and a sign accepted,
// reading stops at the first non-digit, no digits reads as 0.
long number_of(const std::string& text) {
  return std::strtol(text.c_str(), nullptr, 10);
}

}  // namespace

int can_response_freq(MYSQL* connection, Mail_content* mail, std::string id, std::string ans_freq,
                      std::string mem_limit, Run_observer& observer) {
  exec_or_exit(
      connection,
      "delete from resp_freq where rn_id=" + id + " and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0",
      kExecQueryFailed);

  const long max_answers = number_of(ans_freq);
  Answer_count count;
  count.rule_id = id;
  count.limit = max_answers;
  if (max_answers <= 0) {
    observer.answer_counted(count);
    return 0;
  }

  const std::string remembered =
      first_value_or_exit(connection, "select COUNT(*) from resp_freq where rn_id=" + id,
                          kExecQueryFailed, "0")
          .value_or("0");

  MallocChars escaped_sender(escape_mysql_param(connection, mail->from.c_str()));
  const std::string sender_key = " where rn_id=" + id + " and email='" + escaped_sender.get() + "'";

  Named_lock lock(connection, answer_count_lock_name(id, mail->from), kAnswerCountLockTimeout);
  if (!lock.held()) {
    std::cerr << "autoresponder: Unable to lock the answer count of rule " << id
              << "; counting unserialised" << std::endl;
  }

  const auto answered = first_value_or_exit(connection, "select num from resp_freq" + sender_key,
                                            kExecQueryFailed, "0");
  count.remembered = number_of(remembered);
  count.memory = number_of(mem_limit);
  if (answered) {
    count.today = number_of(*answered);
    count.answers = *count.today < max_answers;
    observer.answer_counted(count);
    if (!count.answers) return 0;
    // The stored text is pasted back as read; the server adds the one.
    exec_or_exit(connection, "update resp_freq set num=" + *answered + "+1" + sender_key,
                 kExecQueryFailed);
    return 1;
  }

  count.evicts = count.remembered >= count.memory;
  count.answers = true;
  observer.answer_counted(count);
  if (count.evicts) {
    const std::string oldest =
        first_value_or_exit(connection, "select MIN(time_resp) from resp_freq where rn_id=" + id,
                            kExecQueryFailed, "0")
            .value_or("0");
    exec_or_exit(connection,
                 "delete from resp_freq where rn_id=" + id + " and time_resp='" + oldest + "'",
                 kExecQueryFailed);
  }
  exec_or_exit(
      connection,
      "insert into resp_freq set rn_id=" + id + ", email='" + escaped_sender.get() + "', num=1",
      kExecQueryFailed);
  return 1;
}
