// Forwarding of the incoming message to a rule's addresses, through the real
// program: the sendmail command line, the forwarded bytes, the envelope, and
// the failures that must not keep the answer from going out.
#include "autoresponder/forwarding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lib/paths.h"
#include "tests/harness/harness.h"

namespace e2e {
namespace {

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kRecipient[] = "info@example.com";
constexpr char kSender[] = "jane@customer.example";

const std::string kMessage =
    "From: Jane Doe <jane@customer.example>\n"
    "To: info@example.com\n"
    "Subject: Question\n"
    "\n"
    "Hello.\n";

std::vector<std::string> forward_argv(const std::string& envelope_sender,
                                      const std::vector<std::string>& addresses) {
  std::vector<std::string> argv = {orvik::paths::kSendmail, "-f", envelope_sender};
  argv.insert(argv.end(), addresses.begin(), addresses.end());
  return argv;
}

std::vector<std::string> reply_argv(const std::string& recipient = kRecipient) {
  return {orvik::paths::kSendmail, "-f", recipient, kSender};
}

// Names the instances of a parameterised test after their cases.
template <class Case>
std::string case_name(const ::testing::TestParamInfo<Case>& param) {
  return param.param.name;
}

// One client, one domain, the mailbox info@example.com and rule 1 on it, which
// answers every message.
class ForwardingTest : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    TestDb::exec("insert into clients (id, email, pname, login) values (1, '', 'Owner', 'owner')");
    TestDb::exec("insert into domains (id, name, cl_id) values (1, 'example.com', 1)");
    TestDb::exec("insert into mail (id, mail_name, dom_id) values (1, 'info', 1)");
    TestDb::exec(
        "insert into mail_resp (id, mn_id, resp_on, text) values (1, 1, 'true', 'Thanks.')");
  }

  // `value` is an SQL expression: a quoted string or NULL.
  static void add_forward(int rule, const std::string& value) {
    TestDb::exec("insert into resp_forward (rn_id, address) values (" + std::to_string(rule) +
                 ", " + value + ")");
  }
};

TEST_F(ForwardingTest, ThreeAddressesGoToOneSendmailInRowOrder) {
  add_forward(1, "'zoe@one.example'");
  add_forward(1, "'adam@two.example'");
  add_forward(1, "'mia@three.example'");

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, "");
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].argv,
              ElementsAreArray(forward_argv(
                  kRecipient, {"zoe@one.example", "adam@two.example", "mia@three.example"})));
  EXPECT_EQ(calls[0].input, kMessage + "\n");
  EXPECT_THAT(calls[1].argv, ElementsAreArray(reply_argv()));
  // The forward's sendmail has ended before the reply's starts.
  EXPECT_LE(calls[0].ended, calls[1].started);
}

struct ListCase {
  const char* name;
  std::vector<std::string> rows;          // (rn_id, address) value lists
  std::vector<std::string> forwarded_to;  // empty: no forward at all
  friend void PrintTo(const ListCase& c, std::ostream* os) { *os << c.name; }
};

class ForwardingListTest : public ForwardingTest, public ::testing::WithParamInterface<ListCase> {};

TEST_P(ForwardingListTest, ForwardsToTheStoredNonNullAddresses) {
  for (const std::string& row : GetParam().rows) {
    TestDb::exec("insert into resp_forward (rn_id, address) values " + row);
  }

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  const auto calls = Sandbox::sendmail_calls();
  if (GetParam().forwarded_to.empty()) {
    ASSERT_EQ(calls.size(), 1u);
  } else {
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_THAT(calls[0].argv, ElementsAreArray(forward_argv(kRecipient, GetParam().forwarded_to)));
  }
  EXPECT_THAT(calls.back().argv, ElementsAreArray(reply_argv()));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ForwardingListTest,
    ::testing::Values(
        ListCase{"NoRows", {}, {}}, ListCase{"OnlyNullAddresses", {"(1, NULL)", "(1, NULL)"}, {}},
        ListCase{"OtherRulesAddresses", {"(2, 'other@example.org')"}, {}},
        ListCase{"NullRowsBetweenAddressesSkipped",
                 {"(1, NULL)", "(1, 'a@example.org')", "(1, NULL)", "(1, 'b@example.org')"},
                 {"a@example.org", "b@example.org"}},
        ListCase{"EmptyAndPaddedAddressesTakenAsStored",
                 {"(1, '')", "(1, ' c@example.org ')"},
                 {"", " c@example.org "}}),
    case_name<ListCase>);

TEST_F(ForwardingTest, ShellCharactersReachSendmailAsOneArgument) {
  const std::string marker = Sandbox::path("shell-ran");
  const std::string address =
      "a b;touch " + marker + " |`touch " + marker + "` $(touch " + marker + ") 'q' \"d\" *";
  MYSQL* db = TestDb::connection();
  std::vector<char> escaped(2 * address.size() + 1);
  mysql_real_escape_string(db, escaped.data(), address.data(), address.size());
  add_forward(1, std::string("'") + escaped.data() + "'");

  run_autoresponder(kMessage, kRecipient);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].argv, ElementsAreArray(forward_argv(kRecipient, {address})));
  EXPECT_FALSE(Sandbox::exists("shell-ran"));
}

constexpr char kNulMessage[] = "From: jane@customer.example\n\nbefore\0after\n";

struct BytesCase {
  const char* name;
  std::string message;
  friend void PrintTo(const BytesCase& c, std::ostream* os) { *os << c.name; }
};

class ForwardedBytesTest : public ForwardingTest,
                           public ::testing::WithParamInterface<BytesCase> {};

// The forward carries the stored message: the input with one line feed
// added, headers and all other bytes untouched.
TEST_P(ForwardedBytesTest, ForwardIsTheStoredMessage) {
  add_forward(1, "'archive@example.org'");

  run_autoresponder(GetParam().message, kRecipient);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].input, GetParam().message + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Messages, ForwardedBytesTest,
    ::testing::Values(
        BytesCase{"EndsInLineFeed", kMessage},
        BytesCase{"NoFinalLineFeed",
                  "From: jane@customer.example\nSubject: x\n\nno line feed at the end"},
        BytesCase{"CarriageReturnsAndEightBitBytes",
                  "From: \"J\xC3\xA4ne\" <jane@customer.example>\r\n"
                  "Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?=\r\n"
                  "Received: from x\r\n\tby y\r\n"
                  "\r\n"
                  "caf\xE9 \xFF\xFE\r\n.\r\n"},
        BytesCase{"NulByteInBody", std::string(kNulMessage, sizeof kNulMessage - 1)},
        BytesCase{"LargeBody", "From: jane@customer.example\n\n" + std::string(300000, 'x') + "\n" +
                                   std::string(300000, 'y') + "\n"}),
    case_name<BytesCase>);

struct AliasCase {
  const char* name;
  const char* recipient;
  friend void PrintTo(const AliasCase& c, std::ostream* os) { *os << c.name; }
};

class ForwardingAliasTest : public ForwardingTest,
                            public ::testing::WithParamInterface<AliasCase> {};

// The envelope sender is the address the message was received at, not the
// mailbox's own address.
TEST_P(ForwardingAliasTest, ReceivingAddressIsTheEnvelopeSender) {
  TestDb::exec("insert into mail_aliases (mn_id, alias) values (1, 'sales')");
  TestDb::exec("insert into domainaliases (dom_id, name, mail) values (1, 'example.net', 'true')");
  add_forward(1, "'archive@example.org'");

  run_autoresponder(kMessage, std::string(GetParam().recipient));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].argv,
              ElementsAreArray(forward_argv(GetParam().recipient, {"archive@example.org"})));
  EXPECT_THAT(calls[1].argv, ElementsAreArray(reply_argv(GetParam().recipient)));
}

INSTANTIATE_TEST_SUITE_P(Recipients, ForwardingAliasTest,
                         ::testing::Values(AliasCase{"MailAlias", "sales@example.com"},
                                           AliasCase{"DomainAlias", "info@example.net"},
                                           AliasCase{"MailAliasInDomainAlias",
                                                     "sales@example.net"}),
                         case_name<AliasCase>);

TEST_F(ForwardingTest, TwoForwardingRulesEachForwardTheWholeMessage) {
  TestDb::exec("insert into mail_resp (id, mn_id, resp_on, text) values (2, 1, 'true', 'Also.')");
  add_forward(1, "'first@example.org'");
  add_forward(2, "'second@example.org'");

  run_autoresponder(kMessage, kRecipient);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_THAT(calls[0].argv, ElementsAreArray(forward_argv(kRecipient, {"first@example.org"})));
  EXPECT_EQ(calls[0].input, kMessage + "\n");
  EXPECT_THAT(calls[1].argv, ElementsAreArray(reply_argv()));
  EXPECT_THAT(calls[2].argv, ElementsAreArray(forward_argv(kRecipient, {"second@example.org"})));
  EXPECT_EQ(calls[2].input, kMessage + "\n");
  EXPECT_THAT(calls[3].argv, ElementsAreArray(reply_argv()));
}

struct SilentRuleCase {
  const char* name;
  const char* rule_change;
  friend void PrintTo(const SilentRuleCase& c, std::ostream* os) { *os << c.name; }
};

class SilentRuleTest : public ForwardingTest,
                       public ::testing::WithParamInterface<SilentRuleCase> {};

TEST_P(SilentRuleTest, RuleThatDoesNotAnswerDoesNotForward) {
  TestDb::exec(std::string("update mail_resp set ") + GetParam().rule_change + " where id=1");
  add_forward(1, "'archive@example.org'");

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_THAT(Sandbox::sendmail_calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Rules, SilentRuleTest,
                         ::testing::Values(SilentRuleCase{"SwitchedOff", "resp_on='false'"},
                                           SilentRuleCase{"KeyNotInSubject",
                                                          "key_where='subj', keystr='invoice'"},
                                           SilentRuleCase{"NoAnswersAllowed", "ans_freq='0'"}),
                         case_name<SilentRuleCase>);

TEST_F(ForwardingTest, RefusedForwardStillLetsTheAnswerGoOut) {
  add_forward(1, "'archive@example.org'");
  Sandbox::set_sendmail_mode(SendmailMode::kFail);

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_THAT(run.err, HasSubstr("autoresponder: sendmail for the forward exited with status 1\n"));
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[1].argv, ElementsAreArray(reply_argv()));
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
}

TEST_F(ForwardingTest, SendmailThatCannotRunIsReportedAndTheRunGoesOn) {
  add_forward(1, "'archive@example.org'");
  Sandbox::remove_file("usr/sbin/sendmail");

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_THAT(run.err, HasSubstr(std::string("fork_execv: execv(\"") + orvik::paths::kSendmail +
                                 "\") failed: No such file or directory\n"));
  EXPECT_THAT(run.err,
              HasSubstr("autoresponder: sendmail for the forward exited with status 255\n"));
  // The reply's hand-over is tried as well, and fails the same way.
  EXPECT_THAT(run.err, HasSubstr("autoresponder: sendmail for the reply exited with status 255\n"));
}

// Renames a panel table for the length of a test, so statements on it fail.
class HiddenTable {
 public:
  explicit HiddenTable(std::string name) : name_(std::move(name)) {
    TestDb::exec("rename table " + name_ + " to " + name_ + "_hidden");
  }
  ~HiddenTable() {
    try {
      TestDb::exec("rename table " + name_ + "_hidden to " + name_);
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
  }
  HiddenTable(const HiddenTable&) = delete;
  HiddenTable& operator=(const HiddenTable&) = delete;

 private:
  std::string name_;
};

TEST_F(ForwardingTest, FailedForwardingStatementEndsTheRunAfterCounting) {
  const HiddenTable hidden("resp_forward");

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_THAT(run.err, HasSubstr("autoresponder: Unable to exec query :Table 'ovk.resp_forward' "
                                 "doesn't exist\n"));
  EXPECT_THAT(Sandbox::sendmail_calls(), IsEmpty());
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
  // The answer was counted before forwarding failed, and the count stands.
  EXPECT_EQ(TestDb::scalar("select num from resp_freq where rn_id=1"), "1");
}

// The stored message is gone by the time forwarding opens it. The program
// itself never removes it before the end of the run, so this is driven
// in-process: the report names the file and the error, nothing is sent.
TEST_F(ForwardingTest, MissingStoredMessageIsReportedAndNothingIsSent) {
  add_forward(1, "'archive@example.org'");
  const std::string saved(mail_file_name);
  const std::string missing = Sandbox::path("tmp/ovk-autoresponder-GONE00");
  ASSERT_EQ(missing.size(), saved.size());
  std::memcpy(mail_file_name, missing.c_str(), missing.size() + 1);
  Mail_content mail;
  mail.to = kRecipient;

  ::testing::internal::CaptureStderr();
  forward_incoming(TestDb::connection(), "1", mail);
  const std::string err = ::testing::internal::GetCapturedStderr();
  std::memcpy(mail_file_name, saved.c_str(), saved.size() + 1);

  EXPECT_EQ(err, "autoresponder: Failed to open temporary file with forward mail contents '" +
                     missing + "': No such file or directory (2)\n");
  EXPECT_THAT(Sandbox::sendmail_calls(), IsEmpty());
}

}  // namespace
}  // namespace e2e
