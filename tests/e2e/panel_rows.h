// Helpers of the end-to-end tests: panel rows written through the test
// database's root connection, the statements the program sent, and whole runs
// compared with tests/data/replies/NAME.expected.
#pragma once

#include <gtest/gtest.h>
#include <mysql.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "tests/harness/harness.h"

namespace panel {

using e2e::Sandbox;
using e2e::TestDb;

inline constexpr auto kCaseName = [](const auto& test) { return std::string(test.param.name); };

// `text` escaped and quoted for a statement.
inline std::string sql(const std::string& text) {
  std::string escaped(2 * text.size() + 1, '\0');
  escaped.resize(
      mysql_real_escape_string(TestDb::connection(), escaped.data(), text.data(), text.size()));
  return "'" + escaped + "'";
}

// Each ";"-separated statement (so no value may hold ";").
inline void exec_all(const std::string& statements) {
  std::istringstream in(statements);
  for (std::string s; std::getline(in, s, ';');) {
    if (s.find_first_not_of(' ') != std::string::npos) TestDb::exec(s);
  }
}

inline void add_domain(int id, const std::string& name) {
  TestDb::exec("INSERT INTO domains (id, name) VALUES (" + std::to_string(id) + ", " + sql(name) +
               ")");
}

inline void add_mailbox(int id, int dom_id, const std::string& mail_name) {
  TestDb::exec("INSERT INTO mail (id, mail_name, dom_id) VALUES (" + std::to_string(id) + ", " +
               sql(mail_name) + ", " + std::to_string(dom_id) + ")");
}

// Rule `id` of mailbox `mn_id`, on for every message; `set` changes it.
inline void add_rule(int id, int mn_id, const std::string& set = "") {
  TestDb::exec("INSERT INTO mail_resp (id, mn_id, resp_on, text) VALUES (" + std::to_string(id) +
               ", " + std::to_string(mn_id) + ", 'true', 'Thank you for your message.')");
  if (!set.empty()) TestDb::exec("UPDATE mail_resp SET " + set + " WHERE id=" + std::to_string(id));
}

// The statements the program sent that match `pattern`, a line each.
inline std::string statements_matching(const std::string& pattern) {
  std::string found;
  for (const std::string& s : TestDb::statements_sent()) {
    if (std::regex_search(s, std::regex(pattern))) found += s + "\n";
  }
  return found;
}

// Renames a panel table away for one scope, so statements on it fail.
class HiddenTable {
 public:
  explicit HiddenTable(std::string name) : name_(std::move(name)) {
    TestDb::exec("RENAME TABLE " + name_ + " TO " + name_ + "_hidden");
  }
  ~HiddenTable() { TestDb::exec("RENAME TABLE " + name_ + "_hidden TO " + name_); }
  HiddenTable(const HiddenTable&) = delete;
  HiddenTable& operator=(const HiddenTable&) = delete;

 private:
  std::string name_;
};

// A run as text: exit status, files left in tmp, both streams, every sendmail
// call. The sandbox's root reads ROOT; boundaries read BOUNDARY1, BOUNDARY2...
// by first appearance, so replies that share one, or a reply that mixes two,
// show it.
inline std::string render(const e2e::RunResult& run) {
  std::string rest = "exit " + std::to_string(run.exit_status) +
                     ", files left in tmp: " + std::to_string(Sandbox::tmp_files().size()) +
                     "\nstdout:\n" + run.out + "stderr:\n" + run.err,
              out;
  for (const e2e::SendmailCall& call : Sandbox::sendmail_calls()) {
    rest += "sendmail";
    for (const std::string& arg : call.argv) rest += "\narg: " + arg;
    rest += "\nstdin:\n" + call.input;
  }
  for (std::size_t at; (at = rest.find(Sandbox::root())) != std::string::npos;) {
    rest.replace(at, Sandbox::root().size(), "ROOT");
  }
  static const std::regex kBoundary("--------=_[A-Za-z]{29}");
  std::map<std::string, std::string> names;
  for (std::smatch m; std::regex_search(rest, m, kBoundary);) {
    out += m.prefix().str() +
           names.emplace(m.str(), "BOUNDARY" + std::to_string(names.size() + 1)).first->second;
    rest = m.suffix();
  }
  return out + rest;
}

// Also checks that no sendmail started before the previous one had ended. A
// mismatch leaves the run in replies/NAME.actual beside the expected file.
inline void expect_run(const std::string& name, const e2e::RunResult& run) {
  const auto calls = Sandbox::sendmail_calls();
  for (std::size_t i = 1; i < calls.size(); ++i) EXPECT_GE(calls[i].started, calls[i - 1].ended);
  const std::string actual = render(run), expected = "replies/" + name + ".expected";
  if (std::ifstream(e2e::test_data_path(expected)) && actual == e2e::test_data(expected)) return;
  std::ofstream(e2e::test_data_path("replies/" + name + ".actual"), std::ios::binary) << actual;
  ADD_FAILURE() << "the run differs from tests/data/" << expected << ":\n" << actual;
}

}  // namespace panel
