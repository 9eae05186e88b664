// Panel rows and incoming messages for the end-to-end tests of the
// responder's database stages: mailboxes, aliases, rules and answer counts
// written through the test database's root connection, and a way to see
// which rules reached the frequency check in the statement log.
#pragma once

#include <mysql.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/harness/harness.h"

namespace panel {

using Value = std::optional<std::string>;  // nullopt: SQL NULL

// A literal for a statement: NULL, or the text escaped and quoted.
inline std::string sql(const Value& value) {
  if (!value) return "NULL";
  std::string escaped(2 * value->size() + 1, '\0');
  escaped.resize(mysql_real_escape_string(e2e::TestDb::connection(), escaped.data(), value->data(),
                                          value->size()));
  return "'" + escaped + "'";
}

inline void add_domain(int id, const std::string& name) {
  e2e::TestDb::exec("INSERT INTO domains (id, name) VALUES (" + std::to_string(id) + ", " +
                    sql(name) + ")");
}

inline void add_mailbox(int id, int dom_id, const std::string& mail_name) {
  e2e::TestDb::exec("INSERT INTO mail (id, mail_name, dom_id) VALUES (" + std::to_string(id) +
                    ", " + sql(mail_name) + ", " + std::to_string(dom_id) + ")");
}

inline void add_mail_alias(int mn_id, const std::string& alias) {
  e2e::TestDb::exec("INSERT INTO mail_aliases (mn_id, alias) VALUES (" + std::to_string(mn_id) +
                    ", " + sql(alias) + ")");
}

inline void add_domain_alias(int dom_id, const std::string& name, const Value& mail) {
  e2e::TestDb::exec("INSERT INTO domainaliases (dom_id, name, mail) VALUES (" +
                    std::to_string(dom_id) + ", " + sql(name) + ", " + sql(mail) + ")");
}

// One mail_resp row; every column but the keys may be NULL. The defaults
// make a rule that is on and applies to every message.
struct Rule {
  Value keystr;
  Value key_where;
  Value text = "Thank you for your message.";
  Value resp_on = "true";
  Value ans_freq;
  Value mem_limit;
  Value subject;
  Value reply_to;
  Value charset;
  Value content_type;
};

inline void add_rule(int id, int mn_id, const Rule& r) {
  e2e::TestDb::exec(
      "INSERT INTO mail_resp (id, mn_id, keystr, key_where, text, resp_on, ans_freq, mem_limit, "
      "subject, reply_to, charset, content_type) VALUES (" +
      std::to_string(id) + ", " + std::to_string(mn_id) + ", " + sql(r.keystr) + ", " +
      sql(r.key_where) + ", " + sql(r.text) + ", " + sql(r.resp_on) + ", " + sql(r.ans_freq) +
      ", " + sql(r.mem_limit) + ", " + sql(r.subject) + ", " + sql(r.reply_to) + ", " +
      sql(r.charset) + ", " + sql(r.content_type) + ")");
}

// A remembered answer; `time_resp` is an SQL expression.
inline void add_answer_count(int rn_id, const std::string& email, const Value& num,
                             const std::string& time_resp = "NOW()") {
  e2e::TestDb::exec("INSERT INTO resp_freq (rn_id, email, time_resp, num) VALUES (" +
                    std::to_string(rn_id) + ", " + sql(email) + ", " + time_resp + ", " + sql(num) +
                    ")");
}

// The num of (rule, sender) in resp_freq: nullopt when there is no row,
// "NULL" when num is NULL.
inline std::optional<std::string> answer_count(int rn_id, const std::string& email) {
  const auto rows =
      e2e::TestDb::query("SELECT num FROM resp_freq WHERE rn_id=" + std::to_string(rn_id) +
                         " AND email=" + sql(email));
  if (rows.empty()) return std::nullopt;
  return rows.front().front().value_or("NULL");
}

// Renames a table away for one scope, so that the program's statements on
// it fail; the name comes back whatever the test does in between.
class Table_away {
 public:
  explicit Table_away(std::string table) : table_(std::move(table)) {
    e2e::TestDb::exec("RENAME TABLE " + table_ + " TO " + table_ + "_away");
  }
  ~Table_away() { e2e::TestDb::exec("RENAME TABLE " + table_ + "_away TO " + table_); }
  Table_away(const Table_away&) = delete;
  Table_away& operator=(const Table_away&) = delete;

 private:
  std::string table_;
};

inline std::string message(const std::string& from, const std::string& to,
                           const std::string& subject, const std::string& body) {
  return "From: " + from + "\nTo: " + to + "\nSubject: " + subject +
         "\nDate: Mon, 3 Jun 2024 10:00:00 +0200\nMessage-ID: <test@example.org>\n"
         "MIME-Version: 1.0\nContent-Type: text/plain; charset=us-ascii\n\n" +
         body;
}

// How many times sendmail was started (the calls themselves print poorly).
inline int sendmail_count() {
  return static_cast<int>(e2e::Sandbox::sendmail_calls().size());
}

inline bool starts_with(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The statements sent by the program whose text begins with `prefix`.
inline std::vector<std::string> statements_starting(const std::string& prefix) {
  std::vector<std::string> found;
  for (const std::string& s : e2e::TestDb::statements_sent()) {
    if (starts_with(s, prefix)) found.push_back(s);
  }
  return found;
}

// The ids of the rules whose frequency check started, in order: the check's
// first statement names the rule.
inline std::vector<std::string> rules_checked() {
  const std::string head = "delete from resp_freq where rn_id=";
  std::vector<std::string> ids;
  for (const std::string& s : statements_starting(head)) {
    const std::size_t end = s.find(' ', head.size());
    if (s.find("TO_DAYS") != std::string::npos)
      ids.push_back(s.substr(head.size(), end - head.size()));
  }
  return ids;
}

}  // namespace panel
