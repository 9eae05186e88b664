// The per-rule, per-sender daily answer limit kept in resp_freq.
#pragma once

#include <mysql.h>

#include <string>

#include "autoresponder/mail_content.h"
#include "autoresponder/run_seam.h"

// Times a check that lost a conflict with a check on another node of a
// cluster is run again from its first statement before it gives up.
inline constexpr int kCountConflictRetries = 8;

// How each attempt's transaction ends: kRollback leaves the table as it was
// (a check that only tells what it would do).
enum class Count_ending { kCommit, kRollback };

// How one check sends its statements. The default is a single server's: every
// statement commits on its own and a failure ends the run.
struct Count_policy {
  // Each attempt runs in a transaction of its own, ended as `ending` says. A
  // conflict (deadlock, a write set that lost its certification, a row
  // another node inserted in between) runs the check again from its first
  // statement, at most kCountConflictRetries times.
  bool in_transaction = false;
  // Before the sender's lookup, "... FOR UPDATE" locks the sender's row: a
  // change of it applied from another node then aborts this check (and it
  // is retried) instead of being overwritten by it.
  bool lock_sender_row = false;
  Count_ending ending = Count_ending::kCommit;
};

// The statement that ends an attempt's transaction.
const char* ending_statement(Count_ending ending);

// The policy for the run's connection, found out once per connection by
// reading the server variable wsrep_on: a cluster node gets transactions and
// the row lock, committed, with its session set to READ COMMITTED (each read
// sees what others committed before it); any other server, or one without
// the variable, gets the single server's. On a cluster node whose resp_freq
// has no unique key over rn_id and email it reports that once.
Count_policy count_policy_for(MYSQL* connection);

// `policy` changing nothing: every attempt in a transaction, rolled back.
Count_policy trial_of(Count_policy policy);

// 1 when the answer may be sent (and has been counted), 0 when not. A failed
// statement ends the process through correct_exit(). Checks of one rule for
// one sender running at the same time are serialised by a named lock on the
// server (autoresponder/responder/named_lock.h); without it they go on unserialised.
// The check's figures go to `observer`. The first form uses
// count_policy_for(connection).
int can_response_freq(MYSQL* connection, Mail_content* mail, std::string id, std::string ans_freq,
                      std::string mem_limit, Run_observer& observer = no_observer());
int can_response_freq(MYSQL* connection, Mail_content* mail, std::string id, std::string ans_freq,
                      std::string mem_limit, const Count_policy& policy,
                      Run_observer& observer = no_observer());
