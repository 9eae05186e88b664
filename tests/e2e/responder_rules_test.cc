// The mailbox's rules on the real server: which rules reach the frequency
// check (seen in the statement log and in resp_freq), the defaults of NULL
// columns, exact comparisons of the switch and the key place, several rules
// in database order, a rule over its limit, a mailbox without rules, and a
// rule statement that fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string kSender = "alice@sender.example";
const std::string kRecipient = "info@example.com";
constexpr int kMailbox = 10;

class Rules : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::add_domain(1, "example.com");
    panel::add_mailbox(kMailbox, 1, "info");
  }

  static e2e::RunResult run(const std::string& subject = "Hello",
                            const std::string& body = "Hi there.\n") {
    const e2e::RunResult result =
        e2e::run_autoresponder(panel::message(kSender, kRecipient, subject, body), kRecipient);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(e2e::Sandbox::tmp_files(), IsEmpty());
    return result;
  }

  static std::vector<std::string> sendmail_recipients() {
    std::vector<std::string> last_arguments;
    for (const e2e::SendmailCall& call : e2e::Sandbox::sendmail_calls()) {
      last_arguments.push_back(call.argv.back());
    }
    return last_arguments;
  }
};

struct RuleCase {
  const char* name;
  panel::Value resp_on;
  panel::Value key_where;
  panel::Value keystr;
  std::string subject;
  std::string body;
  bool answers;
  friend void PrintTo(const RuleCase& c, std::ostream* os) { *os << c.name; }
};

class RuleSelection : public Rules, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(RuleSelection, OnlyRulesThatAreOnAndMatchReachTheLimit) {
  const RuleCase& c = GetParam();
  panel::Rule rule;
  rule.resp_on = c.resp_on;
  rule.key_where = c.key_where;
  rule.keystr = c.keystr;
  panel::add_rule(1, kMailbox, rule);

  const e2e::RunResult result = run(c.subject, c.body);

  EXPECT_EQ(result.err, "");
  if (c.answers) {
    EXPECT_THAT(panel::rules_checked(), ElementsAre("1"));
    EXPECT_EQ(panel::answer_count(1, kSender), "1");
    EXPECT_EQ(panel::sendmail_count(), 1);
  } else {
    EXPECT_THAT(panel::rules_checked(), IsEmpty());
    EXPECT_EQ(e2e::TestDb::scalar("SELECT COUNT(*) FROM resp_freq"), "0");
    EXPECT_EQ(panel::sendmail_count(), 0);
  }
}

const std::string kLetter = "Dear team,\nplease send the invoice\nfor order 42.\n";

INSTANTIATE_TEST_SUITE_P(
    , RuleSelection,
    ::testing::Values(
        // The switch: only exactly "false" (or NULL, which reads as "false") is off.
        RuleCase{"SwitchNullIsOff", std::nullopt, std::nullopt, std::nullopt, "Hi", "x\n", false},
        RuleCase{"SwitchFalseIsOff", "false", std::nullopt, std::nullopt, "Hi", "x\n", false},
        RuleCase{"SwitchEmptyIsOn", "", std::nullopt, std::nullopt, "Hi", "x\n", true},
        RuleCase{"SwitchCapitalisedFalseIsOn", "False", std::nullopt, std::nullopt, "Hi", "x\n",
                 true},
        // No key place: every message, whatever the key.
        RuleCase{"PlaceNullIgnoresKey", "true", std::nullopt, "absent", "Hi", "x\n", true},
        RuleCase{"PlaceUpperCaseSubjIgnoresKey", "true", "SUBJ", "absent", "Hi", "x\n", true},
        // The subject.
        RuleCase{"SubjKeyInSubject", "true", "subj", "Invoice", "Your Invoice 42", kLetter, true},
        RuleCase{"SubjIsCaseSensitive", "true", "subj", "Invoice", "your invoice 42", kLetter,
                 false},
        RuleCase{"SubjIsDecodedFirst", "true", "subj", "Größe", "=?UTF-8?Q?Gr=C3=B6=C3=9Fe?= 4",
                 "x\n", true},
        // The body, line by line.
        RuleCase{"BodyKeyInALine", "true", "body", "the invoice", "Hello", kLetter, true},
        RuleCase{"BodyKeyOnlyInSubject", "true", "body", "Hello", "Hello", kLetter, false},
        RuleCase{"BodyNeverAcrossLines", "true", "body", "invoice\nfor", "Hello", kLetter, false}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(Rules, NullCountsReadAsTenAnswersAndAThousandSenders) {
  panel::add_rule(1, kMailbox, {});  // ans_freq and mem_limit NULL
  panel::add_answer_count(1, kSender, "9");
  run();
  EXPECT_EQ(panel::answer_count(1, kSender), "10");
  run();
  EXPECT_EQ(panel::answer_count(1, kSender), "10");

  // 998 more senders remembered at midnight: 999 rows, room for one more.
  std::string rows;
  for (int i = 0; i < 998; ++i) {
    rows += std::string(i == 0 ? "" : ", ") + "(1, 'other" + std::to_string(i) +
            "@example.net', CURDATE(), 1)";
  }
  e2e::TestDb::exec("INSERT INTO resp_freq (rn_id, email, time_resp, num) VALUES " + rows);
  e2e::TestDb::exec("UPDATE resp_freq SET time_resp=CURDATE() + INTERVAL 1 SECOND WHERE email=" +
                    panel::sql(kSender));
  const auto run_as = [](const std::string& sender) {
    e2e::TestDb::clear_statement_log();
    e2e::run_autoresponder(panel::message(sender, kRecipient, "Hi", "x\n"), kRecipient);
  };

  run_as("bob@sender.example");
  EXPECT_THAT(panel::statements_starting("select MIN(time_resp)"), IsEmpty());
  EXPECT_EQ(e2e::TestDb::scalar("SELECT COUNT(*) FROM resp_freq"), "1000");

  run_as("carol@sender.example");  // the memory is full: the midnight rows go
  EXPECT_THAT(panel::statements_starting("select MIN(time_resp)"), SizeIs(1));
  EXPECT_EQ(e2e::TestDb::scalar("SELECT COUNT(*) FROM resp_freq"), "3");
}

TEST_F(Rules, EveryAnsweringRuleRunsInDatabaseOrder) {
  panel::add_rule(7, kMailbox, {});
  panel::add_rule(5, kMailbox, {});
  panel::Rule off;
  off.resp_on = "false";
  panel::add_rule(6, kMailbox, off);
  panel::add_rule(9, kMailbox, {});
  panel::add_rule(8, 99, {});  // another mailbox's rule

  run();

  std::vector<std::string> database_order;
  for (const auto& row : e2e::TestDb::query("SELECT id FROM mail_resp WHERE mn_id=10")) {
    if (*row[0] != "6") database_order.push_back(*row[0]);
  }
  EXPECT_THAT(panel::rules_checked(), ElementsAreArray(database_order));
  EXPECT_EQ(e2e::TestDb::scalar("SELECT GROUP_CONCAT(rn_id ORDER BY rn_id) FROM resp_freq"),
            "5,7,9");
  EXPECT_EQ(panel::sendmail_count(), 3);
}

TEST_F(Rules, ARuleOverItsLimitNeitherForwardsNorAnswersButOthersDo) {
  panel::Rule once;
  once.ans_freq = "1";
  panel::add_rule(1, kMailbox, once);
  panel::add_rule(2, kMailbox, {});
  e2e::TestDb::exec(
      "INSERT INTO resp_forward (rn_id, address) VALUES (1, 'first@example.net'), "
      "(2, 'second@example.net')");
  panel::add_answer_count(1, kSender, "1");

  run();

  EXPECT_EQ(panel::answer_count(1, kSender), "1");
  EXPECT_EQ(panel::answer_count(2, kSender), "1");
  EXPECT_THAT(panel::statements_starting("select address from resp_forward"),
              ElementsAre("select address from resp_forward where rn_id=2"));
  // The forward to rule 2's address, then rule 2's reply to the sender.
  EXPECT_THAT(sendmail_recipients(), ElementsAre("second@example.net", kSender));
}

TEST_F(Rules, AMailboxWithoutRulesEndsQuietly) {
  panel::add_rule(1, 99, {});
  const e2e::RunResult result = run();

  EXPECT_EQ(result.err, "");
  const std::vector<std::string> sent = e2e::TestDb::statements_sent();
  ASSERT_FALSE(sent.empty());
  EXPECT_EQ(sent.back(),
            "select id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, reply_to, "
            "charset, content_type from mail_resp where mn_id=10");
  EXPECT_EQ(panel::sendmail_count(), 0);
}

TEST_F(Rules, AFailingRuleStatementEndsTheRun) {
  panel::add_rule(1, kMailbox, {});
  e2e::RunResult result;
  {
    const panel::Table_away away("mail_resp");
    result = run();
  }
  EXPECT_EQ(result.err,
            "autoresponder: Unable to exec query :Table 'ovk.mail_resp' doesn't exist\n");
  EXPECT_THAT(panel::rules_checked(), IsEmpty());
  EXPECT_EQ(panel::sendmail_count(), 0);
}

}  // namespace
