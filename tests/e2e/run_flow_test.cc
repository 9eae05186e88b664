// The whole run as the mail system starts it: intake failures, the loop
// guards, a run that reaches the database, the exit status and the clean-up
// of the temporary files; and a set-user-ID start, which must not let the
// caller's environment point the program at another database server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using e2e::RunResult;
using e2e::Sandbox;
using testing::HasSubstr;

const char kRecipient[] = "info@example.com";
const char kAbnormal[] = "Abnormal exit.\n";
const char kNoSender[] = "Could not get sender's e-mail address from Reply-To: or From: headers.\n";
const char kSame[] = "Field From: equial field To:\n";
const char kDaemon[] = "Field From: contains MAILER-DAEMON\n";

std::string not_found(const std::string& address) {
  return "autoresponder: Mailname not found: " + address + "\n";
}

std::string message_from(const std::string& from, const std::string& extra_headers = "") {
  return "From: " + from + "\n" + extra_headers + "To: info@example.com\nSubject: Hello\n\nHi.\n";
}

struct Run_case {
  const char* name;
  std::string message;
  std::optional<std::string> recipient;
  std::string err;  // the whole standard error
};

// Test names and failure messages show the case name, not its bytes.
void PrintTo(const Run_case& value, std::ostream* out) {
  *out << value.name;
}

class RunFlowTest : public e2e::EndToEndTest, public testing::WithParamInterface<Run_case> {};

TEST_P(RunFlowTest, ReportsExitsZeroAndCleansUp) {
  const RunResult result = e2e::run_autoresponder(GetParam().message, GetParam().recipient);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, GetParam().err);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(Sandbox::tmp_files(), testing::IsEmpty());
  EXPECT_THAT(Sandbox::sendmail_calls(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Runs, RunFlowTest,
    testing::Values(
        Run_case{"EmptyInput", "", kRecipient, std::string(kNoSender) + kAbnormal},
        Run_case{"Garbage", e2e::test_data("garbage.eml"), kRecipient,
                 std::string(kNoSender) + kAbnormal},
        Run_case{"NoUsableSender", "From: <>\nSubject: x\n\nbody\n", kRecipient,
                 std::string(kNoSender) + kAbnormal},
        Run_case{"RecipientUnset", message_from("anna@example.org"), std::nullopt,
                 "Could not get recipient e-mail address from RESP_RECIPIENT environment "
                 "variable\n" +
                     std::string(kAbnormal)},
        Run_case{"SenderIsRecipient", message_from("info@example.com"), kRecipient, kSame},
        Run_case{"ReplyToIsRecipient",
                 message_from("anna@example.org", "Reply-To: info@example.com\n"), kRecipient,
                 kSame},
        Run_case{"SenderDiffersInCaseOnly", message_from("Info@example.com"), kRecipient,
                 not_found(kRecipient)},
        Run_case{"MailerDaemonUpperCase", e2e::test_data("mailer_daemon.eml"), kRecipient, kDaemon},
        Run_case{"MailerDaemonLowerCase", message_from("mailer-daemon@mx.example.net"), kRecipient,
                 kDaemon},
        Run_case{"DrWebDaemon", message_from("DrWEB-DAEMON@av.example.net"), kRecipient, kDaemon},
        Run_case{"DaemonInReplyToOnly",
                 message_from("anna@example.org", "Reply-To: MAILER-DAEMON@example.org\n"),
                 kRecipient, kDaemon},
        Run_case{"MixedCaseDaemonPasses", message_from("Mailer-Daemon@mx.example.net"), kRecipient,
                 not_found(kRecipient)},
        Run_case{"RecipientWithoutAt", message_from("anna@example.org"), "info",
                 not_found("info@info")},
        Run_case{"UnknownCharsetGoesOn", e2e::test_data("unknown_charset.eml"), kRecipient,
                 "Could not convert message body text from x-no-such-charset to UTF-8.\n" +
                     not_found(kRecipient)}),
    [](const testing::TestParamInfo<Run_case>& param) { return param.param.name; });

class RunFlowCleanTest : public e2e::EndToEndTest {};

TEST_F(RunFlowCleanTest, MailboxWithoutRulesEndsQuietly) {
  panel::add_domain(1, "example.com");
  panel::add_mailbox(1, 1, "info");
  const RunResult result =
      e2e::run_autoresponder(e2e::test_data("plain_no_content_type.eml"), kRecipient);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(Sandbox::tmp_files(), testing::IsEmpty());
}

TEST_F(RunFlowCleanTest, UncreatableCopyIsReportedAndNothingIsRead) {
  std::filesystem::remove_all(Sandbox::path("tmp"));
  const RunResult result =
      e2e::run_autoresponder(e2e::test_data("plain_no_content_type.eml"), kRecipient);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "Could not create a temporary file.\nAbnormal exit.\n");
  EXPECT_THAT(e2e::TestDb::statements_sent(), testing::IsEmpty());
}

// A set-user-ID copy of the program, owned by "nobody": started by root, the
// kernel flags the start as privileged. The copy then must ignore the
// MYSQL_UNIX_PORT the runner hands it (the test database) and try the
// library's default socket, where no server listens.
class SetUidStartTest : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make a set-user-ID copy";
    const passwd* nobody = getpwnam("nobody");
    if (nobody == nullptr) GTEST_SKIP() << "no user nobody";
    e2e::EndToEndTest::SetUp();
    panel::add_domain(1, "example.com");
    panel::add_mailbox(1, 1, "info");
    copy_ = Sandbox::path("autoresponder-copy");
    std::filesystem::copy_file(e2e::autoresponder_path(), copy_);
    nobody_uid_ = nobody->pw_uid;
  }

  RunResult run_copy() {
    return e2e::run_program({copy_}, e2e::test_data("plain_no_content_type.eml"), kRecipient, {});
  }

  std::string copy_;
  uid_t nobody_uid_ = 0;
};

TEST_F(SetUidStartTest, PlainCopyReachesTheTestDatabase) {
  ASSERT_EQ(chmod(copy_.c_str(), 0755), 0);
  const RunResult result = run_copy();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(e2e::TestDb::statements_sent(), testing::Not(testing::IsEmpty()));
}

TEST_F(SetUidStartTest, PrivilegedCopyIgnoresTheCallersSocket) {
  ASSERT_EQ(chown(copy_.c_str(), nobody_uid_, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(chmod(copy_.c_str(), 04755), 0);
  const RunResult result = run_copy();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("Unable to connect to Orvik Database"));
  EXPECT_THAT(result.err, HasSubstr("autoresponder: Unable to connect to the mysql database \n"));
  EXPECT_THAT(e2e::TestDb::statements_sent(), testing::IsEmpty());
  EXPECT_THAT(Sandbox::tmp_files(), testing::IsEmpty());
}

}  // namespace
