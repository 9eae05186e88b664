// A rule's attachment files and the notice about missing ones, through the
// real program: which stored names are attached, which are reported, the
// notice's sender, recipient and exact text, and the failures after which the
// reply must still go out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "lib/paths.h"
#include "tests/harness/harness.h"

namespace e2e {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kRecipient[] = "info@example.com";
constexpr char kSender[] = "jane@customer.example";
constexpr char kOwnerEmail[] = "owner@client.example";

const std::string kMessage =
    "From: Jane Doe <jane@customer.example>\n"
    "To: info@example.com\n"
    "Subject: Prices\n"
    "\n"
    "Please send the price list.\n";

template <class Case>
std::string case_name(const ::testing::TestParamInfo<Case>& param) {
  return param.param.name;
}

// The notice as the domain's owner receives it.
std::string expected_notice(const std::string& sender, const std::string& missing_lines,
                            const std::string& client_name = "Ada Owner",
                            const std::string& mailname = "info",
                            const std::string& reply_to_line = "") {
  return reply_to_line + "From: " + sender +
         "\n"
         "To: owner@client.example\n"
         "CC: \n"
         "Subject: ovk notification (files missing in attachments repository). \n"
         "Content-Type: text/plain; charset=utf-8\n"
         "Content-Disposition: inline\n"
         "Content-Transfer-Encoding: 8bit\n"
         "\n"
         "\n"
         "Notification for ovk client '" +
         client_name +
         "'.\n"
         "\n"
         "The following files are missing in the attachment repository\n"
         "for the mailname '" +
         mailname + "' on domain 'example.com':\n" + missing_lines + "\n";
}

std::vector<std::string> notice_argv(const std::string& sender) {
  return {orvik::paths::kSendmail, "-f", sender, kOwnerEmail};
}

std::vector<std::string> reply_argv(const std::string& recipient = kRecipient) {
  return {orvik::paths::kSendmail, "-f", recipient, kSender};
}

// The attachment names of a reply, in the order of their parts.
std::vector<std::string> attached_names(const std::string& reply) {
  static const std::regex kFilename("\n\tfilename=\"([^\"]*)\"\n");
  std::vector<std::string> names;
  for (std::sregex_iterator it(reply.begin(), reply.end(), kFilename), end; it != end; ++it) {
    names.push_back((*it)[1]);
  }
  return names;
}

// The client "Ada Owner" owns example.com; its mailbox info has rule 1, which
// answers every message; the panel's administrator address is set.
class AttachmentsTest : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    TestDb::exec(
        "insert into clients (id, email, pname, login) values "
        "(1, 'owner@client.example', 'Ada Owner', 'ada')");
    TestDb::exec("insert into domains (id, name, cl_id) values (1, 'example.com', 1)");
    TestDb::exec("insert into mail (id, mail_name, dom_id) values (1, 'info', 1)");
    TestDb::exec("insert into mail_resp (id, mn_id, resp_on, text) values (1, 1, 'true', 'Here.')");
    TestDb::exec(
        "insert into misc (param, val) values ('admin_email', 'hostmaster@panel.example'), "
        "('FullHostName', 'panel.example')");
  }

  // `value` is an SQL expression: a quoted string or NULL.
  static void add_attachment(int rule, const std::string& value) {
    TestDb::exec("insert into resp_attach (rn_id, filename) values (" + std::to_string(rule) +
                 ", " + value + ")");
  }
  static void write_file(const std::string& name, const std::string& content = "content\n") {
    Sandbox::write_attachment("example.com", "info", name, content);
  }
};

struct LookupCase {
  const char* name;
  std::vector<std::string> rows;   // (rn_id, filename) value lists
  std::vector<std::string> files;  // present in the repository
  std::vector<std::string> attached;
  std::string missing_lines;  // the notice's list; empty: no notice
  friend void PrintTo(const LookupCase& c, std::ostream* os) { *os << c.name; }
};

class AttachmentLookupTest : public AttachmentsTest,
                             public ::testing::WithParamInterface<LookupCase> {};

TEST_P(AttachmentLookupTest, AttachesWhatExistsAndReportsTheRest) {
  for (const std::string& row : GetParam().rows) {
    TestDb::exec("insert into resp_attach (rn_id, filename) values " + row);
  }
  for (const std::string& file : GetParam().files) write_file(file);

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, "");
  const auto calls = Sandbox::sendmail_calls();
  if (GetParam().missing_lines.empty()) {
    ASSERT_EQ(calls.size(), 1u);
  } else {
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_THAT(calls[0].argv, ElementsAreArray(notice_argv("hostmaster@panel.example")));
    EXPECT_EQ(calls[0].input,
              expected_notice("hostmaster@panel.example", GetParam().missing_lines));
    // The notice's sendmail has ended before the reply's starts.
    EXPECT_LE(calls[0].ended, calls[1].started);
  }
  const SendmailCall& reply = calls.back();
  EXPECT_THAT(reply.argv, ElementsAreArray(reply_argv()));
  EXPECT_THAT(attached_names(reply.input), ElementsAreArray(GetParam().attached));
  if (GetParam().attached.empty()) {
    EXPECT_THAT(reply.input, Not(HasSubstr("multipart")));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Names, AttachmentLookupTest,
    ::testing::Values(
        LookupCase{"NoRows", {}, {"price.pdf"}, {}, ""},
        LookupCase{
            "BlanksAroundTheNameTrimmed", {"(1, ' price.pdf ')"}, {"price.pdf"}, {"price.pdf"}, ""},
        LookupCase{"TabsAndLineEndsTrimmed",
                   {"(1, '\\tprice.pdf\\r\\n')"},
                   {"price.pdf"},
                   {"price.pdf"},
                   ""},
        LookupCase{"OneOfTwoExists",
                   {"(1, 'price.pdf')", "(1, 'catalogue.pdf')"},
                   {"price.pdf"},
                   {"price.pdf"},
                   "catalogue.pdf\n"},
        LookupCase{"AllMissing",
                   {"(1, 'price.pdf')", "(1, ' catalogue.pdf ')"},
                   {},
                   {},
                   "price.pdf\ncatalogue.pdf\n"},
        LookupCase{"NullAndEmptyNamesIgnored",
                   {"(1, NULL)", "(1, '')", "(1, 'price.pdf')"},
                   {"price.pdf"},
                   {"price.pdf"},
                   ""},
        LookupCase{"RowOrderAndDuplicatesKept",
                   {"(1, 'b.txt')", "(1, 'a.txt')", "(1, 'b.txt')"},
                   {"a.txt", "b.txt"},
                   {"b.txt", "a.txt", "b.txt"},
                   ""},
        LookupCase{"OtherRulesNamesIgnored",
                   {"(2, 'price.pdf')", "(2, 'gone.pdf')"},
                   {"price.pdf"},
                   {},
                   ""},
        // The part names the file as stored; "/" makes it an encoded word.
        LookupCase{"NameWithDirectoryUsedAsStored",
                   {"(1, 'sub/inner.txt')", "(1, 'sub/no.txt')"},
                   {"sub/inner.txt"},
                   {"=?utf-8?Q?sub=2Finner.txt?="},
                   "sub/no.txt\n"}),
    case_name<LookupCase>);

struct SenderCase {
  const char* name;
  const char* admin_email;    // SQL expression, or null for no row
  const char* full_hostname;  // likewise
  const char* sender;
  friend void PrintTo(const SenderCase& c, std::ostream* os) { *os << c.name; }
};

class NoticeSenderTest : public AttachmentsTest,
                         public ::testing::WithParamInterface<SenderCase> {};

TEST_P(NoticeSenderTest, EnvelopeAndFromLineNameTheSameSender) {
  TestDb::exec("delete from misc where param in ('admin_email', 'FullHostName')");
  if (GetParam().admin_email != nullptr) {
    TestDb::exec(std::string("insert into misc (param, val) values ('admin_email', ") +
                 GetParam().admin_email + ")");
  }
  if (GetParam().full_hostname != nullptr) {
    TestDb::exec(std::string("insert into misc (param, val) values ('FullHostName', ") +
                 GetParam().full_hostname + ")");
  }
  add_attachment(1, "'gone.pdf'");

  run_autoresponder(kMessage, kRecipient);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].argv, ElementsAreArray(notice_argv(GetParam().sender)));
  EXPECT_EQ(calls[0].input, expected_notice(GetParam().sender, "gone.pdf\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Parameters, NoticeSenderTest,
    ::testing::Values(
        SenderCase{"AdminEmail", "'hostmaster@panel.example'", "'panel.example'",
                   "hostmaster@panel.example"},
        SenderCase{"EmptyAdminEmailFullHostName", "''", "'panel.example'", "root@panel.example"},
        SenderCase{"NullAdminEmailFullHostName", "NULL", "'panel.example'", "root@panel.example"},
        SenderCase{"NoAdminEmailRowFullHostName", nullptr, "'panel.example'", "root@panel.example"},
        SenderCase{"BothEmpty", "''", "''", "root@localhost"},
        SenderCase{"NoRows", nullptr, nullptr, "root@localhost"}),
    case_name<SenderCase>);

TEST_F(AttachmentsTest, RulesReplyToComesFirstInTheNotice) {
  TestDb::exec("update mail_resp set reply_to='orders@example.com' where id=1");
  add_attachment(1, "'gone.pdf'");

  run_autoresponder(kMessage, kRecipient);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].input, expected_notice("hostmaster@panel.example", "gone.pdf\n", "Ada Owner",
                                            "info", "Reply-To: orders@example.com\n"));
}

struct ClientNameCase {
  const char* name;
  const char* pname;  // SQL expression
  const char* login;
  const char* named;
  friend void PrintTo(const ClientNameCase& c, std::ostream* os) { *os << c.name; }
};

class ClientNameTest : public AttachmentsTest,
                       public ::testing::WithParamInterface<ClientNameCase> {};

TEST_P(ClientNameTest, NoticeNamesTheClient) {
  TestDb::exec(std::string("update clients set pname=") + GetParam().pname +
               ", login=" + GetParam().login + " where id=1");
  add_attachment(1, "'gone.pdf'");

  run_autoresponder(kMessage, kRecipient);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].input,
            expected_notice("hostmaster@panel.example", "gone.pdf\n", GetParam().named));
}

INSTANTIATE_TEST_SUITE_P(
    Clients, ClientNameTest,
    ::testing::Values(ClientNameCase{"PersonalName", "'Ada Owner'", "'ada'", "Ada Owner"},
                      ClientNameCase{"EmptyPersonalNameGivesLogin", "''", "'ada'", "ada"},
                      ClientNameCase{"NullPersonalNameGivesLogin", "NULL", "'ada'", "ada"},
                      ClientNameCase{"NoNameAtAll", "NULL", "NULL", ""}),
    case_name<ClientNameCase>);

// The notice names the recipient address as the message reached the mailbox.
TEST_F(AttachmentsTest, NoticeNamesTheAddressAsReceived) {
  TestDb::exec("insert into mail_aliases (mn_id, alias) values (1, 'sales')");
  add_attachment(1, "'gone.pdf'");

  run_autoresponder(kMessage, std::string("sales@example.com"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].input,
            expected_notice("hostmaster@panel.example", "gone.pdf\n", "Ada Owner", "sales"));
  EXPECT_THAT(calls[1].argv, ElementsAreArray(reply_argv("sales@example.com")));
}

// The owner is looked up by the domain as received; a domain alias is not in
// domains, so nobody is notified, but the reply goes out with what exists.
TEST_F(AttachmentsTest, DomainAliasFindsNoClientAndTheReplyStillGoesOut) {
  TestDb::exec("insert into domainaliases (dom_id, name, mail) values (1, 'example.net', 'true')");
  add_attachment(1, "'price.pdf'");
  add_attachment(1, "'gone.pdf'");
  write_file("price.pdf");

  const RunResult run = run_autoresponder(kMessage, std::string("info@example.net"));

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, "This client does not exist :\n");
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].argv, ElementsAreArray(reply_argv("info@example.net")));
  EXPECT_THAT(attached_names(calls[0].input), ElementsAre("price.pdf"));
}

TEST_F(AttachmentsTest, ClientWithoutAddressIsNotNotifiedSilently) {
  for (const char* email : {"''", "NULL"}) {
    SCOPED_TRACE(email);
    Sandbox::reset();
    TestDb::exec(std::string("update clients set email=") + email + " where id=1");
    add_attachment(1, "'gone.pdf'");

    const RunResult run = run_autoresponder(kMessage, kRecipient);

    EXPECT_EQ(run.err, "");
    const auto calls = Sandbox::sendmail_calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_THAT(calls[0].argv, ElementsAreArray(reply_argv()));
  }
}

TEST_F(AttachmentsTest, EachAnsweringRuleSendsItsOwnNotice) {
  TestDb::exec("insert into mail_resp (id, mn_id, resp_on, text) values (2, 1, 'true', 'Too.')");
  add_attachment(1, "'gone.pdf'");
  add_attachment(2, "'gone.pdf'");

  run_autoresponder(kMessage, kRecipient);

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 4u);
  for (int notice : {0, 2}) {
    EXPECT_THAT(calls[notice].argv, ElementsAreArray(notice_argv("hostmaster@panel.example")));
    EXPECT_EQ(calls[notice].input, expected_notice("hostmaster@panel.example", "gone.pdf\n"));
    EXPECT_THAT(calls[notice + 1].argv, ElementsAreArray(reply_argv()));
  }
}

TEST_F(AttachmentsTest, RefusedNoticeIsReportedAndTheReplyStillGoesOut) {
  Sandbox::set_sendmail_mode(SendmailMode::kFail);
  add_attachment(1, "'gone.pdf'");

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_THAT(run.err, HasSubstr("autoresponder: sendmail for the notice exited with status 1\n"));
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].input, expected_notice("hostmaster@panel.example", "gone.pdf\n"));
  EXPECT_THAT(calls[1].argv, ElementsAreArray(reply_argv()));
}

// A sendmail that exits without reading leaves the notice's writes with no
// reader. The list is longer than a pipe holds, so the writes must fail
// rather than wait; the run goes on to the reply.
TEST_F(AttachmentsTest, NoticeReaderLeavingEarlyDoesNotStopTheRun) {
  Sandbox::set_sendmail_mode(SendmailMode::kExitEarly);
  std::string rows;
  for (int i = 0; i < 400; ++i) {
    if (!rows.empty()) rows += ", ";
    rows += "(1, '" + std::to_string(i) + std::string(240, 'x') + "')";
  }
  TestDb::exec("insert into resp_attach (rn_id, filename) values " + rows);

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].argv, ElementsAreArray(notice_argv("hostmaster@panel.example")));
  EXPECT_THAT(calls[1].argv, ElementsAreArray(reply_argv()));
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
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

TEST_F(AttachmentsTest, FailedAttachmentStatementEndsTheRunWithoutReply) {
  TestDb::exec("insert into resp_forward (rn_id, address) values (1, 'archive@example.org')");
  const HiddenTable hidden("resp_attach");

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err,
            "autoresponder: Unable to exec query :Table 'ovk.resp_attach' doesn't exist\n");
  // Forwarding came first and stands; no reply follows.
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].argv,
              ElementsAre(orvik::paths::kSendmail, "-f", kRecipient, "archive@example.org"));
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
}

TEST_F(AttachmentsTest, FailedClientStatementSkipsTheNoticeOnly) {
  add_attachment(1, "'gone.pdf'");
  const HiddenTable hidden("clients");

  const RunResult run = run_autoresponder(kMessage, kRecipient);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err,
            "Unable to define client email and personal name :Table 'ovk.clients' doesn't "
            "exist\n");
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].argv, ElementsAreArray(reply_argv()));
}

}  // namespace
}  // namespace e2e
