// The daily answer limit on the real server: resp_freq rows and the exact
// statements of the check, the limit read as strtol reads it, earlier days
// forgotten, the oldest senders evicted when the rule's memory is full (ties
// included), NULL counts, hostile sender addresses, a failing statement, and
// the fallback when the count cannot be locked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "autoresponder/named_lock.h"
#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kSender = "alice@sender.example";
const std::string kRecipient = "info@example.com";
constexpr int kRule = 1;

class Frequency : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::add_domain(1, "example.com");
    panel::add_mailbox(10, 1, "info");
  }

  static void add_rule(const panel::Value& ans_freq, const panel::Value& mem_limit = "1000") {
    panel::Rule rule;
    rule.ans_freq = ans_freq;
    rule.mem_limit = mem_limit;
    panel::add_rule(kRule, 10, rule);
  }

  // One message from `sender`; the statement log then holds only this run.
  static e2e::RunResult run_from(const std::string& sender) {
    e2e::TestDb::clear_statement_log();
    const e2e::RunResult result =
        e2e::run_autoresponder(panel::message(sender, kRecipient, "Hi", "x\n"), kRecipient);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(e2e::Sandbox::tmp_files(), IsEmpty());
    return result;
  }

  // The statements of the check: those on resp_freq and the lock's.
  static std::vector<std::string> check_statements() {
    std::vector<std::string> found;
    for (const std::string& s : e2e::TestDb::statements_sent()) {
      if (s.find("resp_freq") != std::string::npos || s.find("_LOCK(") != std::string::npos) {
        found.push_back(s);
      }
    }
    return found;
  }

  static std::string lock_name(const std::string& sender) {
    return answer_count_lock_name(std::to_string(kRule), sender);
  }

  static std::string remembered() {
    return e2e::TestDb::scalar(
               "SELECT IFNULL(GROUP_CONCAT(CONCAT(email, '=', IFNULL(num, 'NULL')) ORDER BY "
               "email), '') FROM resp_freq WHERE rn_id=1")
        .value_or("");
  }

  // "YYYY-MM-DD hh:mm:ss" of today at midnight plus `seconds`.
  static std::string today_at(int seconds) {
    return *e2e::TestDb::scalar("SELECT CAST(CURDATE() + INTERVAL " + std::to_string(seconds) +
                                " SECOND AS CHAR)");
  }
  static std::string today_at_sql(int seconds) {
    return "CURDATE() + INTERVAL " + std::to_string(seconds) + " SECOND";
  }
};

const std::string kForgetEarlierDays =
    "delete from resp_freq where rn_id=1 and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0";
const std::string kCount = "select COUNT(*) from resp_freq where rn_id=1";
const std::string kLookUpAlice =
    "select num from resp_freq where rn_id=1 and email='alice@sender.example'";

TEST_F(Frequency, SendsTheCheckStatementsInOrder) {
  add_rule("3");
  const std::string get_lock = "SELECT GET_LOCK('" + lock_name(kSender) + "', 5)";
  const std::string release_lock = "SELECT RELEASE_LOCK('" + lock_name(kSender) + "')";

  run_from(kSender);
  EXPECT_THAT(check_statements(),
              ElementsAre(kForgetEarlierDays, kCount, get_lock, kLookUpAlice,
                          "insert into resp_freq set rn_id=1, email='alice@sender.example', num=1",
                          release_lock));
  run_from(kSender);
  EXPECT_THAT(check_statements(), ElementsAre(kForgetEarlierDays, kCount, get_lock, kLookUpAlice,
                                              "update resp_freq set num=1+1 where rn_id=1 and "
                                              "email='alice@sender.example'",
                                              release_lock));
  run_from(kSender);
  run_from(kSender);  // over the limit: looked up, nothing written
  EXPECT_THAT(check_statements(),
              ElementsAre(kForgetEarlierDays, kCount, get_lock, kLookUpAlice, release_lock));
  EXPECT_EQ(panel::answer_count(kRule, kSender), "3");
}

struct LimitCase {
  const char* name;
  panel::Value ans_freq;
  int answered;  // of kRuns messages from one sender
  friend void PrintTo(const LimitCase& c, std::ostream* os) { *os << c.name; }
};
constexpr int kRuns = 4;

class DailyLimit : public Frequency, public ::testing::WithParamInterface<LimitCase> {};

TEST_P(DailyLimit, AnswersTheFirstMessagesOfTheDayOnly) {
  add_rule(GetParam().ans_freq);
  for (int i = 0; i < kRuns; ++i) run_from(kSender);

  const int answered = GetParam().answered;
  EXPECT_EQ(panel::answer_count(kRule, kSender),
            answered == 0 ? std::nullopt : std::optional<std::string>(std::to_string(answered)));
  EXPECT_EQ(panel::sendmail_count(), answered);
  if (answered == 0) {
    EXPECT_THAT(check_statements(), ElementsAre(kForgetEarlierDays));
  }
}

INSTANTIATE_TEST_SUITE_P(
    , DailyLimit,
    ::testing::Values(LimitCase{"One", "1", 1}, LimitCase{"Three", "3", 3},
                      LimitCase{"Null", std::nullopt, 4}, LimitCase{"Zero", "0", 0},
                      LimitCase{"Negative", "-2", 0}, LimitCase{"NoDigits", "abc", 0},
                      LimitCase{"Empty", "", 0}, LimitCase{"LeadingBlanksAndSign", "  +2", 2},
                      LimitCase{"TrailingText", "2 a day", 2}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(Frequency, ForgetsEarlierDaysOfTheRuleOnly) {
  add_rule("1");
  panel::add_answer_count(2, kSender, "5", "NOW() - INTERVAL 1 DAY");  // another rule's
  run_from(kSender);
  run_from(kSender);
  EXPECT_EQ(panel::sendmail_count(), 1);

  e2e::TestDb::exec("UPDATE resp_freq SET time_resp = time_resp - INTERVAL 1 DAY WHERE rn_id=1");
  run_from(kSender);
  EXPECT_EQ(panel::sendmail_count(), 2);
  EXPECT_EQ(panel::answer_count(kRule, kSender), "1");
  EXPECT_EQ(e2e::TestDb::scalar("SELECT COUNT(*) FROM resp_freq WHERE rn_id=1"), "1");
  EXPECT_EQ(panel::answer_count(2, kSender), "5");
}

TEST_F(Frequency, ANeverAnsweringRuleStillForgetsEarlierDays) {
  add_rule("0");
  panel::add_answer_count(kRule, kSender, "1", "NOW() - INTERVAL 1 DAY");
  panel::add_answer_count(kRule, "today@sender.example", "1");
  run_from(kSender);
  EXPECT_EQ(remembered(), "today@sender.example=1");
}

TEST_F(Frequency, AFullMemoryForgetsItsOldestSenders) {
  add_rule("5", "2");
  panel::add_answer_count(kRule, "old@example.net", "2", today_at_sql(0));
  panel::add_answer_count(kRule, "newer@example.net", "1", today_at_sql(1));
  panel::add_answer_count(2, "oldest@example.net", "1", today_at_sql(0));  // another rule's

  run_from(kSender);

  EXPECT_EQ(remembered(), "alice@sender.example=1,newer@example.net=1");
  EXPECT_EQ(panel::answer_count(2, "oldest@example.net"), "1");
  EXPECT_THAT(check_statements(),
              ElementsAre(kForgetEarlierDays, kCount, testing::StartsWith("SELECT GET_LOCK("),
                          kLookUpAlice, "select MIN(time_resp) from resp_freq where rn_id=1",
                          "delete from resp_freq where rn_id=1 and time_resp='" + today_at(0) + "'",
                          "insert into resp_freq set rn_id=1, email='alice@sender.example', num=1",
                          testing::StartsWith("SELECT RELEASE_LOCK(")));
}

TEST_F(Frequency, EvictionTakesEverySenderOfTheOldestTime) {
  add_rule("5", "3");
  panel::add_answer_count(kRule, "first@example.net", "1", today_at_sql(0));
  panel::add_answer_count(kRule, "second@example.net", "1", today_at_sql(0));
  panel::add_answer_count(kRule, "third@example.net", "1", today_at_sql(1));
  run_from(kSender);
  EXPECT_EQ(remembered(), "alice@sender.example=1,third@example.net=1");
}

TEST_F(Frequency, AKnownSenderNeedsNoRoom) {
  add_rule("5", "2");
  panel::add_answer_count(kRule, "old@example.net", "1", today_at_sql(0));
  panel::add_answer_count(kRule, kSender, "1", today_at_sql(1));
  run_from(kSender);
  EXPECT_EQ(remembered(), "alice@sender.example=2,old@example.net=1");
}

TEST_F(Frequency, WithoutMemoryEveryNewSenderEvictsFirst) {
  add_rule("5", "0");
  run_from(kSender);  // empty memory: the minimum is NULL and nothing goes
  EXPECT_THAT(check_statements(),
              testing::Contains("delete from resp_freq where rn_id=1 and time_resp='0'"));
  EXPECT_EQ(remembered(), "alice@sender.example=1");

  e2e::TestDb::exec("UPDATE resp_freq SET time_resp=" + today_at_sql(0));
  run_from("bob@sender.example");
  EXPECT_EQ(remembered(), "bob@sender.example=1");
}

TEST_F(Frequency, ANullCountReadsAsZero) {
  add_rule("1");
  panel::add_answer_count(kRule, kSender, std::nullopt);
  run_from(kSender);
  EXPECT_THAT(check_statements(),
              testing::Contains("update resp_freq set num=0+1 where rn_id=1 and "
                                "email='alice@sender.example'"));
  EXPECT_EQ(panel::answer_count(kRule, kSender), "1");
  EXPECT_EQ(panel::sendmail_count(), 1);
}

TEST_F(Frequency, AQuoteInTheSenderIsEscaped) {
  add_rule("2");
  const std::string sender = "o'brien@sender.example";
  run_from(sender);
  run_from(sender);
  run_from(sender);
  EXPECT_EQ(remembered(), "o'brien@sender.example=2");
  EXPECT_THAT(check_statements(), testing::Contains("select num from resp_freq where rn_id=1 and "
                                                    "email='o\\'brien@sender.example'"));
  EXPECT_EQ(panel::sendmail_count(), 2);
}

TEST_F(Frequency, AFailingStatementEndsTheRun) {
  add_rule("1");
  e2e::RunResult result;
  {
    const panel::Table_away away("resp_freq");
    result = run_from(kSender);
  }
  EXPECT_EQ(result.err,
            "autoresponder: Unable to exec query :Table 'ovk.resp_freq' doesn't exist\n");
  EXPECT_EQ(panel::sendmail_count(), 0);
}

TEST_F(Frequency, ACountThatCannotBeLockedIsKeptUnserialised) {
  add_rule("1");
  e2e::TestDb::exec("SELECT GET_LOCK('" + lock_name(kSender) + "', 0)");
  const e2e::RunResult result = run_from(kSender);
  e2e::TestDb::exec("SELECT RELEASE_LOCK('" + lock_name(kSender) + "')");

  EXPECT_EQ(result.err,
            "autoresponder: Unable to lock the answer count of rule 1; counting unserialised\n");
  EXPECT_EQ(panel::answer_count(kRule, kSender), "1");
  EXPECT_EQ(panel::sendmail_count(), 1);
  for (const std::string& s : check_statements()) {
    EXPECT_EQ(s.find("RELEASE_LOCK"), std::string::npos) << "released a lock it did not hold";
  }
}

}  // namespace
