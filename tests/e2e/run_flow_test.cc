// The whole run: intake failures, loop guards, exit status and clean-up; a set-user-ID start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using e2e::Sandbox;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kTo = "info@example.com";
const std::string kAbnormal = "Abnormal exit.\n";
const std::string kNoSender =
    "Could not get sender's e-mail address from Reply-To: or From: headers.\n" + kAbnormal;
const std::string kNoRecipient =
    "Could not get recipient e-mail address from RESP_RECIPIENT environment variable\n" + kAbnormal;
const std::string kSame = "Field From: equial field To:\n";
const std::string kDaemon = "Field From: contains MAILER-DAEMON\n";

std::string msg(const std::string& from, const std::string& reply_to = "") {
  return "From: " + from + "\n" + (reply_to.empty() ? "" : "Reply-To: " + reply_to + "\n") +
         "Subject: Hello\n\nHi.\n";
}

// name, message, RESP_RECIPIENT (nullopt: unset), the whole standard error
using Run_case = std::tuple<const char*, std::string, std::optional<std::string>, std::string>;

// info@example.com exists and has no rules: a message the guards let pass ends quietly.
const Run_case kRuns[] = {
    {"EmptyInput", "", kTo, kNoSender},
    {"RecipientUnset", msg("anna@example.org"), std::nullopt, kNoRecipient},
    {"SenderBeforeRecipient", "Subject: x\n\n", std::nullopt, kNoSender},
    {"SenderIsRecipient", msg(kTo), kTo, kSame},
    {"ReplyToIsRecipient", msg("anna@example.org", kTo), kTo, kSame},
    {"SenderDiffersInCase", msg("Info@example.com"), kTo, ""},
    {"MailerDaemon", msg("MAILER-DAEMON@mx.example.net"), kTo, kDaemon},
    {"LowerCaseDaemon", msg("mailer-daemon@mx.example.net"), kTo, kDaemon},
    {"DrWebDaemon", msg("DrWEB-DAEMON@av.example.net"), kTo, kDaemon},
    {"DaemonInsideAddress", msg("xmailer-daemonx@example.net"), kTo, kDaemon},
    {"DaemonInReplyTo", msg("anna@example.org", "MAILER-DAEMON@example.org"), kTo, kDaemon},
    {"MixedCaseDaemonPasses", msg("Mailer-Daemon@mx.example.net"), kTo, ""},
    {"RecipientWithoutAt", msg("anna@example.org"), "info",
     "autoresponder: Mailname not found: info@info\n"},
};

class RunFlowTest : public e2e::EndToEndTest, public testing::WithParamInterface<Run_case> {};

TEST_P(RunFlowTest, ReportsExitsZeroAndCleansUp) {
  const auto& [name, message, recipient, err] = GetParam();
  panel::add_domain(1, "example.com");
  panel::add_mailbox(1, 1, "info");
  const e2e::RunResult result = e2e::run_autoresponder(message, recipient);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, err);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
  EXPECT_THAT(Sandbox::sendmail_calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Runs, RunFlowTest, testing::ValuesIn(kRuns),
                         [](const auto& p) { return std::string(std::get<0>(p.param)); });

TEST_F(RunFlowTest, UncreatableCopyIsReportedAndNothingIsRead) {
  std::filesystem::remove_all(Sandbox::path("tmp"));
  const e2e::RunResult result = e2e::run_autoresponder(msg("anna@example.org"), kTo);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "Could not create a temporary file.\n" + kAbnormal);
  EXPECT_THAT(e2e::TestDb::statements_sent(), IsEmpty());
}

// Started by root, a set-user-ID copy owned by "nobody" is a privileged start: it must ignore the
// runner's MYSQL_UNIX_PORT (the test database) and find no server at the library's default.
TEST_F(RunFlowTest, SetUserIdCopyIgnoresTheCallersSocket) {
  const passwd* nobody = getpwnam("nobody");
  if (geteuid() != 0 || nobody == nullptr) GTEST_SKIP() << "needs root and a user nobody";
  const std::string copy = Sandbox::path("autoresponder-copy");
  std::filesystem::copy_file(e2e::autoresponder_path(), copy);
  ASSERT_EQ(chmod(copy.c_str(), 0755), 0);
  e2e::run_program({copy}, msg("anna@example.org"), kTo);
  EXPECT_THAT(e2e::TestDb::statements_sent(), testing::Not(IsEmpty()));  // plain: reaches it
  e2e::TestDb::clear_statement_log();
  ASSERT_EQ(chown(copy.c_str(), nobody->pw_uid, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(chmod(copy.c_str(), 04755), 0);
  const e2e::RunResult result = e2e::run_program({copy}, msg("anna@example.org"), kTo);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("Unable to connect to Orvik Database"));
  EXPECT_THAT(result.err, HasSubstr("autoresponder: Unable to connect to the mysql database \n"));
  EXPECT_THAT(e2e::TestDb::statements_sent(), IsEmpty());
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
}

}  // namespace
