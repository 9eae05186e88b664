// Load: 300 deliveries, 8 at a time, from eleven senders and a mailer daemon
// to two mailboxes whose rules have different daily limits, and to an unknown
// address. Every answer the limits allow is sent exactly once, resp_freq
// counts exactly those, every run exits 0 and no temporary file is left.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using panel::Sandbox;
using Answers = std::map<std::pair<int, std::string>, int>;  // (rule, sender): count
constexpr int kDeliveries = 300;
class Load : public e2e::EndToEndTest {};

TEST_F(Load, EveryAllowedAnswerIsSentOnce) {
  // info@example.org: rule 1 answers everything three times a day, rule 2
  // answers "urgent" subjects once and forwards them, rule 3 is off;
  // sales@example.net: rule 4 answers bodies with "order" twice.
  panel::exec_all(
      "INSERT INTO domains (id, name) VALUES (1, 'example.org'), (2, 'example.net');"
      "INSERT INTO mail (id, mail_name, dom_id) VALUES (1, 'info', 1), (2, 'sales', 2);"
      "INSERT INTO resp_forward (rn_id, address) VALUES (2, 'desk@example.org')");
  panel::add_rule(1, 1, "text='rule 1', ans_freq='3'");
  panel::add_rule(2, 1, "text='rule 2', ans_freq='1', key_where='subj', keystr='urgent'");
  panel::add_rule(3, 1, "text='rule 3', resp_on='false'");
  panel::add_rule(4, 2, "text='rule 4', ans_freq='2', key_where='body', keystr='order'");
  const std::map<int, int> daily_limit = {{1, 3}, {2, 1}, {4, 2}};
  const char* to[] = {"info@example.org", "sales@example.net", "nobody@example.org"};
  const auto sender = [](int i) {
    return i % 23 == 0 ? "MAILER-DAEMON@example.com"
                       : "s" + std::to_string(i % 11) + "@example.com";
  };

  std::vector<e2e::RunResult> runs(kDeliveries);
  std::atomic<int> next{0};
  std::vector<std::thread> workers(8);
  for (std::thread& worker : workers) {
    worker = std::thread([&] {
      for (int i; (i = next++) < kDeliveries;) {
        runs[i] = e2e::run_autoresponder("From: " + sender(i) +
                                             "\nSubject: " + (i % 4 ? "hello" : "urgent: call") +
                                             "\n\n" + (i % 5 ? "hi" : "order 7") + "\n",
                                         to[i % 3]);
      }
    });
  }
  for (std::thread& worker : workers) worker.join();

  Answers expected;
  for (int i = 0; i < kDeliveries; ++i) {
    const bool daemon = i % 23 == 0;
    EXPECT_EQ(runs[i].exit_status, 0) << i;
    EXPECT_EQ(runs[i].err, daemon       ? "Field From: contains MAILER-DAEMON\n"
                           : i % 3 == 2 ? "autoresponder: Mailname not found: nobody@example.org\n"
                                        : "")
        << i;
    std::vector<int> rules;
    if (!daemon && i % 3 == 0) rules = i % 4 ? std::vector{1} : std::vector{1, 2};
    if (!daemon && i % 3 == 1 && i % 5 == 0) rules = {4};
    for (int rule : rules) {
      int& answers = expected[{rule, sender(i)}];
      answers = std::min(answers + 1, daily_limit.at(rule));
    }
  }
  int forwards = 0;  // one per answer of rule 2
  for (const auto& [answered, count] : expected) forwards += answered.first == 2 ? count : 0;
  Answers replies, counted;
  int forwarded = 0;
  for (const e2e::SendmailCall& call : Sandbox::sendmail_calls()) {
    if (call.argv.back() == "desk@example.org") {
      ++forwarded;
    } else {
      ++replies[{call.input[call.input.find("rule ") + 5] - '0', call.argv.back()}];
    }
  }
  for (const auto& row : panel::TestDb::query("SELECT rn_id, email, num FROM resp_freq")) {
    counted[{std::stoi(*row[0]), *row[1]}] = std::stoi(*row[2]);
  }
  EXPECT_EQ(replies, expected);
  EXPECT_EQ(counted, expected);
  EXPECT_EQ(forwarded, forwards);
  EXPECT_TRUE(Sandbox::tmp_files().empty());
}

}  // namespace
