// Checks of the test harness itself: the fake sendmail's record and modes,
// the runner's plumbing (input, output, status, environment), the sandbox
// reset, and the statement log of the test database. Every other end-to-end
// test trusts these.
#include "tests/harness/harness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "lib/mysql_handle.h"
#include "lib/paths.h"

namespace e2e {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HarnessTest : public EndToEndTest {};

RunResult shell(const std::string& script, const std::string& input = "",
                const std::optional<std::string>& recipient = std::nullopt,
                const std::map<std::string, std::string>& env = {}) {
  return run_program({"/bin/sh", "-c", script}, input, recipient, env);
}

TEST_F(HarnessTest, FakeSendmailRecordsArgumentsAndInputExactly) {
  const std::string input = "Subject: x\n\nline one\n\0binary\n";
  const RunResult run = run_program(
      {orvik::paths::kSendmail, "-f", "a b@example.com", "", "it's;$x"}, input, std::nullopt);
  EXPECT_EQ(run.exit_status, 0);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].argv,
              ElementsAre(orvik::paths::kSendmail, "-f", "a b@example.com", "", "it's;$x"));
  EXPECT_EQ(calls[0].input, input);
  EXPECT_GT(calls[0].started, 0);
  EXPECT_GE(calls[0].ended, calls[0].started);
}

struct ModeCase {
  const char* name;
  SendmailMode mode;
  int exit_status;
  const char* recorded_input;
  friend void PrintTo(const ModeCase& c, std::ostream* os) { *os << c.name; }
};

class SendmailModeTest : public EndToEndTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(SendmailModeTest, ExitsAndRecordsAsConfigured) {
  Sandbox::set_sendmail_mode(GetParam().mode);
  const RunResult run = run_program({orvik::paths::kSendmail, "x@example.com"}, "body\n", {});
  EXPECT_EQ(run.exit_status, GetParam().exit_status);
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].argv, ElementsAre(orvik::paths::kSendmail, "x@example.com"));
  EXPECT_EQ(calls[0].input, GetParam().recorded_input);
}

INSTANTIATE_TEST_SUITE_P(Modes, SendmailModeTest,
                         ::testing::Values(ModeCase{"Record", SendmailMode::kRecord, 0, "body\n"},
                                           ModeCase{"Fail", SendmailMode::kFail, 1, "body\n"},
                                           ModeCase{"ExitEarly", SendmailMode::kExitEarly, 0, ""}),
                         [](const auto& param_info) { return std::string(param_info.param.name); });

TEST_F(HarnessTest, ConcurrentSendmailCallsGetTheirOwnRecords) {
  const std::string sendmail = orvik::paths::kSendmail;
  const RunResult run =
      shell("for i in 1 2 3 4 5 6; do echo $i | " + sendmail + " $i & done; wait");
  EXPECT_EQ(run.exit_status, 0);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 6u);
  std::set<std::string> seen;
  for (const SendmailCall& call : calls) {
    ASSERT_EQ(call.argv.size(), 2u);
    EXPECT_EQ(call.input, call.argv[1] + "\n");
    seen.insert(call.argv[1]);
  }
  EXPECT_EQ(seen.size(), 6u);
}

TEST_F(HarnessTest, RunnerPassesInputAndCapturesOutputAndStatus) {
  const std::string big(3 << 20, 'x');  // larger than any pipe buffer
  const RunResult run = shell("wc -c; echo to-err >&2; exit 7", big);
  EXPECT_EQ(run.exit_status, 7);
  EXPECT_EQ(run.out, std::to_string(big.size()) + "\n");
  EXPECT_EQ(run.err, "to-err\n");

  EXPECT_EQ(shell("kill -TERM $$").exit_status, 128 + SIGTERM);
  TestDb::connection();  // an open socket the child must not inherit
  EXPECT_EQ(shell("ls /proc/$$/fd").out, "0\n1\n2\n");
}

TEST_F(HarnessTest, RunnerSetsTheEnvironment) {
  const std::string script = "echo \"${RESP_RECIPIENT-unset}|$MYSQL_UNIX_PORT|${EXTRA-}\"";
  EXPECT_EQ(shell(script, "", "info@example.com", {{"EXTRA", "e"}}).out,
            "info@example.com|" + TestDb::socket_path() + "|e\n");

  setenv("RESP_RECIPIENT", "inherited@example.com", 1);
  EXPECT_EQ(shell(script).out, "unset|" + TestDb::socket_path() + "|\n");
  unsetenv("RESP_RECIPIENT");

  EXPECT_EQ(shell(script, "", "", {{"MYSQL_UNIX_PORT", "/nowhere"}}).out, "|/nowhere|\n");
}

TEST_F(HarnessTest, ResetLeavesOnlyTheDefaults) {
  Sandbox::write_file("tmp/leftover", "x");
  Sandbox::write_file("var/qmail/control/databytes", "100\n");
  Sandbox::set_sendmail_mode(SendmailMode::kFail);
  run_program({orvik::paths::kSendmail}, "", {});

  Sandbox::reset();
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
  EXPECT_FALSE(Sandbox::exists("var/qmail/control/databytes"));
  EXPECT_TRUE(std::filesystem::is_directory(Sandbox::path("var/qmail/mailnames")));
  EXPECT_THAT(Sandbox::sendmail_calls(), IsEmpty());
  EXPECT_EQ(Sandbox::read_file("etc/ovk/ovk.conf"),
            "ORVIK_MAILNAMES_D " + Sandbox::root() + "/var/qmail/mailnames\n");
  EXPECT_EQ(Sandbox::read_file("etc/ovk/.ovk.shadow"), TestDb::admin_password() + "\n");
  EXPECT_EQ(run_program({orvik::paths::kSendmail}, "", {}).exit_status, 0);
}

TEST_F(HarnessTest, StatementLogHoldsOtherConnectionsStatementsOnly) {
  TestDb::exec("INSERT INTO misc (param, val) VALUES ('from_harness', 'x')");
  MysqlConnection admin(mysql_init(nullptr));
  ASSERT_NE(mysql_real_connect(admin.get(), "localhost", "admin", TestDb::admin_password().c_str(),
                               "ovk", 0, TestDb::socket_path().c_str(), 0),
            nullptr)
      << mysql_error(admin.get());
  for (const char* statement : {"select val from misc where param='it''s'", "select  1"}) {
    ASSERT_EQ(mysql_query(admin.get(), statement), 0) << mysql_error(admin.get());
    MysqlResult drained(mysql_store_result(admin.get()));
  }
  EXPECT_THAT(TestDb::statements_sent(),
              ElementsAre("select val from misc where param='it''s'", "select  1"));

  TestDb::clear_statement_log();
  EXPECT_THAT(TestDb::statements_sent(), IsEmpty());
}

TEST_F(HarnessTest, DatabaseResetEmptiesTablesAndRestoresDefaults) {
  TestDb::exec("INSERT INTO mail (mail_name, dom_id) VALUES ('a', 1), ('b', 1)");
  TestDb::exec("DELETE FROM misc");
  TestDb::reset();
  EXPECT_EQ(TestDb::scalar("SELECT COUNT(*) FROM mail"), "0");
  EXPECT_EQ(TestDb::scalar("SELECT val FROM misc WHERE param='mysql41_compatible'"), "true");

  // Keys start at 1 again, and value columns keep NULL rather than a default.
  TestDb::exec("INSERT INTO mail_resp (mn_id) VALUES (1)");
  EXPECT_EQ(TestDb::query("SELECT id, keystr, resp_on, ans_freq, charset FROM mail_resp"),
            (std::vector<std::vector<std::optional<std::string>>>{
                {"1", std::nullopt, std::nullopt, std::nullopt, std::nullopt}}));
}

TEST_F(HarnessTest, AnswerTimeIsSetOnInsertAndKeptOnUpdate) {
  TestDb::exec(
      "INSERT INTO resp_freq (rn_id, email, time_resp, num) "
      "VALUES (1, 'old@example.com', '2001-02-03 04:05:06', 1)");
  TestDb::exec("INSERT INTO resp_freq (rn_id, email, num) VALUES (1, 'new@example.com', 1)");
  TestDb::exec("UPDATE resp_freq SET num=num+1");
  EXPECT_EQ(TestDb::scalar("SELECT time_resp FROM resp_freq WHERE email='old@example.com'"),
            "2001-02-03 04:05:06");
  EXPECT_EQ(TestDb::scalar("SELECT TO_DAYS(NOW())-TO_DAYS(time_resp) FROM resp_freq "
                           "WHERE email='new@example.com'"),
            "0");
}

}  // namespace
}  // namespace e2e
