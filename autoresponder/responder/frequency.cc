// The per-rule, per-sender daily answer limit, kept in resp_freq: forget
// earlier days, then count the sender's answers of today and record this one,
// making room by forgetting the oldest senders when the rule's memory is full.
//
// Owns the escaped sender, every result (each released before the check
// returns) and, around the lookup and the write of the sender's count, a
// named lock on the connection. Fails by ending the run through correct_exit()
// after "autoresponder: Unable to exec query :" and the server's text.
//
// On a single server the statements run without a transaction: statements
// that ran before a failure stay in effect. Concurrent runs for one rule and
// one sender are serialised by the lock, so two messages arriving together
// cannot both read the same num and both be answered over the limit.
//
// On a node of a cluster the lock serialises only the runs of that node, so
// each attempt runs in a transaction at READ COMMITTED, with the sender's row
// locked before its lookup and the transaction committed before the lock is
// released. A check on another node that changed the same row first makes
// this one fail (at its commit, or when the other change is applied here);
// two inserts of one new sender collide on the table's unique key. The loser
// is rolled back and run again from its first statement.
//
// Runs for different senders are not serialised anywhere: the memory limit
// of a rule may be overshot by the number of new senders arriving at the
// same moment, which only delays their eviction.
#include "autoresponder/responder/frequency.h"

#include <mysqld_error.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <thread>

#include "autoresponder/responder/db_statement.h"
#include "autoresponder/responder/named_lock.h"
#include "lib/ascii.h"
#include "lib/libcommon.h"
#include "lib/mysql_handle.h"

namespace {

// Longest pause, in milliseconds, before an attempt is run again; the pause
// is random up to it, doubling from 2 ms, so that two losers do not meet again.
constexpr int kLongestRetryPauseMs = 64;

// Decimal text read as strtol does: leading blanks and a sign accepted,
// reading stops at the first non-digit, no digits reads as 0.
long number_of(const std::string& text) {
  return std::strtol(text.c_str(), nullptr, 10);
}

// A statement of an attempt lost to another transaction.
struct Count_conflict {};

bool is_conflict(unsigned error) {
  return error == ER_LOCK_DEADLOCK || error == ER_LOCK_WAIT_TIMEOUT || error == ER_DUP_ENTRY;
}

// The statements of one attempt. A failure ends the run, except a conflict
// when `retry_conflicts`, which is thrown as Count_conflict.
class Attempt_statements {
 public:
  Attempt_statements(MYSQL* connection, bool retry_conflicts)
      : connection_(connection), retry_conflicts_(retry_conflicts) {}

  void exec(const std::string& statement) {
    if (mysql_real_query(connection_, statement.data(), statement.size()) != 0) fail();
  }

  // Column 0 of the first row: nullopt when there is no row, `null_text` for NULL.
  std::optional<std::string> first_value(const std::string& statement, const char* null_text) {
    exec(statement);
    MysqlResult result(mysql_store_result(connection_));
    if (!result) fail();
    MYSQL_ROW row = mysql_fetch_row(result.get());
    if (row == nullptr) return std::nullopt;
    return std::string(row[0] != nullptr ? row[0] : null_text);
  }

  bool lost_a_conflict() const { return retry_conflicts_ && is_conflict(mysql_errno(connection_)); }

 private:
  [[noreturn]] void fail() {
    if (lost_a_conflict()) throw Count_conflict{};
    fail_with_mysql_error(connection_, kExecQueryFailed);
  }

  MYSQL* connection_;
  bool retry_conflicts_;
};

struct Check {
  MYSQL* connection;
  const std::string& id;
  const std::string& sender;  // unescaped, for the lock's name
  const std::string& escaped_sender;
  long max_answers;
  const std::string& mem_limit;
  bool& lock_reported;  // a check run again reports a lock it cannot have once
};

// One run of the check's statements under `policy`; its figures in `count`.
int attempt(const Check& check, const Count_policy& policy, bool retry_conflicts, bool take_lock,
            Answer_count& count) {
  Attempt_statements db(check.connection, retry_conflicts);
  const auto end = [&](int answer) {
    if (policy.in_transaction) db.exec(ending_statement(policy.ending));
    return answer;
  };
  if (policy.in_transaction) db.exec("START TRANSACTION");
  count = Answer_count{};
  count.rule_id = check.id;
  count.limit = check.max_answers;

  db.exec("delete from resp_freq where rn_id=" + check.id +
          " and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0");
  if (check.max_answers <= 0) return end(0);

  const std::string remembered =
      db.first_value("select COUNT(*) from resp_freq where rn_id=" + check.id, "0").value_or("0");
  const std::string sender_key =
      " where rn_id=" + check.id + " and email='" + check.escaped_sender + "'";

  // Released after the transaction has ended: the next run of this node
  // that gets it reads what this one committed.
  std::optional<Named_lock> lock;
  if (take_lock) {
    lock.emplace(check.connection, answer_count_lock_name(check.id, check.sender),
                 kAnswerCountLockTimeout);
    if (!lock->held()) {
      if (db.lost_a_conflict()) throw Count_conflict{};
      if (!check.lock_reported) {
        check.lock_reported = true;
        std::cerr << "autoresponder: Unable to lock the answer count of rule " << check.id
                  << "; counting unserialised" << std::endl;
      }
    }
  }
  if (policy.lock_sender_row) {
    db.first_value("select num from resp_freq" + sender_key + " FOR UPDATE", "0");
  }

  const auto answered = db.first_value("select num from resp_freq" + sender_key, "0");
  count.remembered = number_of(remembered);
  count.memory = number_of(check.mem_limit);
  if (answered) {
    count.today = number_of(*answered);
    count.answers = *count.today < check.max_answers;
    if (!count.answers) return end(0);
    // The stored text is pasted back as read; the server adds the one.
    db.exec("update resp_freq set num=" + *answered + "+1" + sender_key);
    return end(1);
  }

  count.evicts = count.remembered >= count.memory;
  count.answers = true;
  if (count.evicts) {
    const std::string oldest =
        db.first_value("select MIN(time_resp) from resp_freq where rn_id=" + check.id, "0")
            .value_or("0");
    db.exec("delete from resp_freq where rn_id=" + check.id + " and time_resp='" + oldest + "'");
  }
  db.exec("insert into resp_freq set rn_id=" + check.id + ", email='" + check.escaped_sender +
          "', num=1");
  return end(1);
}

void pause_before_retry(int retry) {
  static std::minstd_rand random(
      static_cast<unsigned>(getpid()) ^
      static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
  const int longest = std::min(kLongestRetryPauseMs, 2 << std::min(retry, 10));
  std::this_thread::sleep_for(std::chrono::milliseconds(1 + random() % longest));
}

bool is_cluster_node(MYSQL* connection) {
  static const std::string statement = "SELECT @@wsrep_on";
  if (mysql_real_query(connection, statement.data(), statement.size()) != 0) return false;
  MysqlResult result(mysql_store_result(connection));
  if (!result) return false;
  MYSQL_ROW row = mysql_fetch_row(result.get());
  return row != nullptr && row[0] != nullptr && std::string(row[0]) == "1";
}

bool is_rule_sender_column(const char* name) {
  return EqualsIgnoringCase(name, "rn_id") || EqualsIgnoringCase(name, "email");
}

// Whether resp_freq has a unique key whose columns are all among rn_id and email.
bool has_rule_sender_key(MYSQL* connection) {
  MysqlResult keys =
      select_or_exit(connection, "SHOW INDEX FROM resp_freq WHERE Non_unique=0", kExecQueryFailed);
  std::map<std::string, bool> within;  // key name: all its columns are rn_id or email
  while (MYSQL_ROW row = mysql_fetch_row(keys.get())) {
    if (row[2] == nullptr || row[4] == nullptr) continue;
    auto [entry, added] = within.emplace(row[2], true);
    entry->second = entry->second && is_rule_sender_column(row[4]);
  }
  for (const auto& [name, covered] : within) {
    if (covered) return true;
  }
  return false;
}

}  // namespace

const char* ending_statement(Count_ending ending) {
  return ending == Count_ending::kCommit ? "COMMIT" : "ROLLBACK";
}

Count_policy trial_of(Count_policy policy) {
  policy.in_transaction = true;
  policy.ending = Count_ending::kRollback;
  return policy;
}

Count_policy count_policy_for(MYSQL* connection) {
  static MYSQL* known_for = nullptr;
  static unsigned long known_thread = 0;
  static Count_policy known;
  if (known_for == connection && known_thread == mysql_thread_id(connection)) return known;

  Count_policy policy;
  if (is_cluster_node(connection)) {
    policy.in_transaction = true;
    policy.lock_sender_row = true;
    exec_or_exit(connection, "SET SESSION TRANSACTION ISOLATION LEVEL READ COMMITTED",
                 kExecQueryFailed);
    if (!has_rule_sender_key(connection)) {
      std::cerr << "autoresponder: resp_freq has no unique key over rn_id and email; a new "
                   "sender answered on two hosts at once may be counted twice"
                << std::endl;
    }
  }
  known_for = connection;
  known_thread = mysql_thread_id(connection);
  known = policy;
  return policy;
}

int can_response_freq(MYSQL* connection, Mail_content* mail, std::string id, std::string ans_freq,
                      std::string mem_limit, Run_observer& observer) {
  return can_response_freq(connection, mail, std::move(id), std::move(ans_freq),
                           std::move(mem_limit), count_policy_for(connection), observer);
}

int can_response_freq(MYSQL* connection, Mail_content* mail, std::string id, std::string ans_freq,
                      std::string mem_limit, const Count_policy& policy, Run_observer& observer) {
  Answer_count count;
  const auto reported = [&](int answer) {
    observer.answer_counted(count);
    return answer;
  };
  MallocChars escaped_sender(escape_mysql_param(connection, mail->from.c_str()));
  const std::string escaped(escaped_sender ? escaped_sender.get() : "");
  bool lock_reported = false;
  const Check check{connection,          id,        mail->from,   escaped,
                    number_of(ans_freq), mem_limit, lock_reported};
  if (!policy.in_transaction) return reported(attempt(check, policy, false, true, count));

  for (int retry = 0; retry <= kCountConflictRetries; ++retry) {
    if (retry > 0) pause_before_retry(retry);
    try {
      return reported(attempt(check, policy, true, true, count));
    } catch (const Count_conflict&) {
      // Already rolled back after a deadlock; not after a duplicate key.
      mysql_real_query(connection, "ROLLBACK", 8);
    }
  }
  // What a run does when its lock cannot be had: count without serialising,
  // each statement on its own (a check that must change nothing stays in its
  // transaction), and a conflict now ends the run.
  std::cerr << "autoresponder: Unable to count the answers of rule " << id
            << " exactly; counting unserialised" << std::endl;
  Count_policy last = policy;
  last.lock_sender_row = false;
  if (policy.ending == Count_ending::kCommit) last.in_transaction = false;
  return reported(attempt(check, last, false, false, count));
}
