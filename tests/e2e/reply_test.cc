// The reply as sendmail receives it: headers, subject, charset conversion,
// MIME layout and attachments, through the real program and the test
// database. Whole replies are compared with golden files; the many small
// behaviours (subjects, charsets, attachment kinds) by the lines concerned.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "autoresponder/composition.h"
#include "tests/e2e/panel_rows.h"
#include "tests/e2e/reply_golden.h"
#include "tests/harness/harness.h"

namespace e2e {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kDomain[] = "example.org";
constexpr char kMailName[] = "info";
constexpr char kRecipient[] = "info@example.org";
constexpr char kSender[] = "sender@example.com";
constexpr int kMailbox = 1;

// The bytes 0 to 99: three base64 lines of 60, 60 and 16 characters.
std::string hundred_bytes() {
  std::string bytes;
  for (int i = 0; i < 100; ++i) bytes += static_cast<char>(i);
  return bytes;
}

std::string attachment_path(const std::string& name) {
  return Sandbox::path(std::string("var/qmail/mailnames/") + kDomain + "/" + kMailName +
                       "/@attachments/" + name);
}

void add_attachment_row(int rule_id, const std::string& name) {
  TestDb::exec("INSERT INTO resp_attach (rn_id, filename) VALUES (" + std::to_string(rule_id) +
               ", " + panel::sql(name) + ")");
}

// The header block of a mail (up to its first empty line) and the rest.
std::string header_of(const std::string& mail) {
  return mail.substr(0, mail.find("\n\n") + 1);
}
std::string body_of(const std::string& mail) {
  return mail.substr(mail.find("\n\n") + 2);
}

// The header line that begins with `name`, without its line feed.
std::string header_line(const std::string& mail, const std::string& name) {
  const std::string header = "\n" + header_of(mail);
  const std::size_t at = header.find("\n" + name);
  if (at == std::string::npos) return "";
  return header.substr(at + 1, header.find('\n', at + 1) - at - 1);
}

class ReplyTest : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::add_domain(1, kDomain);
    panel::add_mailbox(kMailbox, 1, kMailName);
  }

  // Runs the program; it must end normally.
  RunResult run(const std::string& message, const std::string& recipient = kRecipient) {
    const RunResult result = run_autoresponder(message, recipient);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result;
  }

  // The one reply of a run with a single answering rule.
  std::string only_reply(const std::string& message) {
    run(message);
    const auto calls = Sandbox::sendmail_calls();
    if (calls.size() != 1) {
      ADD_FAILURE() << "expected one sendmail call, got " << calls.size();
      return "";
    }
    return calls[0].input;
  }
};

TEST_F(ReplyTest, SinglePart) {
  panel::Rule rule;
  rule.text = "Thank you for your message.\nWe will answer soon.";
  panel::add_rule(1, kMailbox, rule);
  run(test_data("replies/hello.eml"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  reply_golden::expect_matches("single_part", calls[0]);
}

// Reply-To, a subject template, a UTF-8 text, and three attachments: 100
// bytes, an empty file, and a name with non-ASCII letters.
TEST_F(ReplyTest, MultipartWithAttachments) {
  panel::Rule rule;
  rule.text = "Die Preisliste liegt bei.\nMit freundlichen Grüßen";
  rule.subject = "Auto: <request_subject> from <request_from>";
  rule.reply_to = "office@example.org";
  panel::add_rule(1, kMailbox, rule);
  Sandbox::write_attachment(kDomain, kMailName, "preise.bin", hundred_bytes());
  Sandbox::write_attachment(kDomain, kMailName, "leer.txt", "");
  Sandbox::write_attachment(kDomain, kMailName, "Preisliste für Köln.txt", "Preise\n");
  add_attachment_row(1, "preise.bin");
  add_attachment_row(1, "leer.txt");
  add_attachment_row(1, "Preisliste für Köln.txt");
  run(test_data("replies/price_request.eml"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  reply_golden::expect_matches("multipart", calls[0]);
}

// The mailbox's address goes out in ASCII, as the From line and as the
// envelope sender; the recipient is the sender as received.
TEST_F(ReplyTest, InternationalMailboxAddressInAscii) {
  panel::add_domain(2, "bücher.example");
  panel::add_mailbox(2, 2, "info");
  panel::add_rule(1, 2, panel::Rule{});
  run(test_data("replies/hello.eml"), "info@bücher.example");

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  reply_golden::expect_matches("idn_mailbox", calls[0]);
}

// Each rule composes its own reply with a boundary of its own, written
// under the same file name one after the other.
TEST_F(ReplyTest, TwoRulesTwoReplies) {
  panel::Rule first;
  first.text = "First rule.";
  panel::add_rule(1, kMailbox, first);
  panel::Rule second;
  second.text = "Second rule.";
  second.subject = "Rule two: <request_subject>";
  panel::add_rule(2, kMailbox, second);
  Sandbox::write_attachment(kDomain, kMailName, "a.txt", "a\n");
  add_attachment_row(1, "a.txt");
  add_attachment_row(2, "a.txt");
  run(test_data("replies/hello.eml"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  reply_golden::expect_matches("two_rules_1", calls[0]);
  reply_golden::expect_matches("two_rules_2", calls[1]);
  EXPECT_NE(reply_golden::boundary_of(calls[0].input), reply_golden::boundary_of(calls[1].input));
}

// ------------------------------------------------------------------ subjects

struct SubjectCase {
  const char* name;
  std::optional<std::string> incoming;  // the message's Subject; nullopt: no such header
  panel::Value rule_subject;
  std::string expected;  // the reply's Subject line
  friend void PrintTo(const SubjectCase& c, std::ostream* os) { *os << c.name; }
};

class ReplySubjectTest : public ReplyTest, public ::testing::WithParamInterface<SubjectCase> {};

TEST_P(ReplySubjectTest, SubjectLine) {
  panel::Rule rule;
  rule.subject = GetParam().rule_subject;
  panel::add_rule(1, kMailbox, rule);
  std::string message = "From: " + std::string(kSender) + "\nTo: " + kRecipient + "\n";
  if (GetParam().incoming) message += "Subject: " + *GetParam().incoming + "\n";
  message += "\nHello.\n";

  EXPECT_EQ(header_line(only_reply(message), "Subject: "), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Subjects, ReplySubjectTest,
    ::testing::Values(SubjectCase{"ReAndIncoming", "Hello", std::nullopt, "Subject: Re: Hello"},
                      SubjectCase{"NoIncomingSubject", std::nullopt, std::nullopt, "Subject: Re: "},
                      SubjectCase{"IncomingEncodedWord",
                                  "=?utf-8?Q?Gr=C3=BC=C3=9Fe_aus_K=C3=B6ln?=", std::nullopt,
                                  "Subject: Re: =?utf-8?Q?Gr=C3=BC=C3=9Fe_aus_K=C3=B6ln?="},
                      SubjectCase{"KnownPlaceholders", "Hi",
                                  "Auto: <request_subject> from <request_from>",
                                  "Subject: Auto: Hi from sender@example.com"},
                      SubjectCase{"KeptPlaceholderEncodedLikeAnyText", "Hi", "About <order_number>",
                                  "Subject: About =?utf-8?Q?<order=5Fnumber>?="},
                      SubjectCase{"NonAsciiRuleSubject", "Hi", "Abwesenheit: Grüße",
                                  "Subject: Abwesenheit: =?utf-8?Q?Gr=C3=BC=C3=9Fe?="},
                      // Cut to 999 bytes first (the two bytes of the umlaut and 997 letters),
                      // then encoded.
                      SubjectCase{"CutBeforeEncoding", "Hi", "ü" + std::string(1100, 'a'),
                                  "Subject: =?utf-8?Q?=C3=BC" + std::string(997, 'a') + "?="}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

// ------------------------------------------------------------------ charsets

struct CharsetCase {
  const char* name;
  panel::Value charset;
  panel::Value content_type;
  std::string text;
  std::string content_type_line;
  std::string body;  // everything after the header
  friend void PrintTo(const CharsetCase& c, std::ostream* os) { *os << c.name; }
};

class ReplyCharsetTest : public ReplyTest, public ::testing::WithParamInterface<CharsetCase> {};

TEST_P(ReplyCharsetTest, TextConvertedAndDeclared) {
  panel::Rule rule;
  rule.text = GetParam().text;
  rule.charset = GetParam().charset;
  rule.content_type = GetParam().content_type;
  panel::add_rule(1, kMailbox, rule);
  const std::string reply = only_reply(test_data("replies/hello.eml"));

  EXPECT_EQ(header_line(reply, "Content-Type: "), GetParam().content_type_line);
  EXPECT_EQ(body_of(reply), GetParam().body);
}

INSTANTIATE_TEST_SUITE_P(
    Charsets, ReplyCharsetTest,
    ::testing::Values(
        CharsetCase{"DefaultUtf8", std::nullopt, std::nullopt, "café",
                    "Content-Type: text/plain; charset=\"UTF-8\"", "café\n\n\n"},
        CharsetCase{"Latin1", "ISO-8859-1", std::nullopt, "café",
                    "Content-Type: text/plain; charset=\"ISO-8859-1\"", "caf\xE9\n\n\n"},
        CharsetCase{"UnknownCharsetSendsUtf8", "x-no-such-charset", std::nullopt, "café",
                    "Content-Type: text/plain; charset=\"UTF-8\"", "café\n\n\n"},
        CharsetCase{"NotRepresentableBecomesQuestionMarks", "ISO-8859-1", std::nullopt, "5 €",
                    "Content-Type: text/plain; charset=\"ISO-8859-1\"", "5 ???\n\n\n"},
        CharsetCase{"ContentTypeAsStored", std::nullopt, "text/html", "<p>Hi</p>",
                    "Content-Type: text/html; charset=\"UTF-8\"", "<p>Hi</p>\n\n\n"},
        CharsetCase{"LineBreaksKept", std::nullopt, std::nullopt, "one\n\ntwo\n",
                    "Content-Type: text/plain; charset=\"UTF-8\"", "one\n\ntwo\n\n\n\n"}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

// The database cannot hold invalid UTF-8 in a rule's text, so these cases
// call the composition directly, in the sandbox of this test process.
std::string compose_text(const std::string& text) {
  Mail_content mail;
  mail.from = kSender;
  mail.to = kRecipient;
  Resp_rule rule;
  rule.text = text;
  compose_response(mail, rule, "", {}, makeBoundaryStr(), create_response_file());
  std::ifstream file(resp_uu_file_name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST_F(ReplyTest, InvalidUtf8TextBytesBecomeQuestionMarks) {
  const std::string reply = compose_text(
      "a\xFF"
      "b\xFE\xFF"
      "c");
  EXPECT_EQ(header_line(reply, "Content-Type: "), "Content-Type: text/plain; charset=\"UTF-8\"");
  EXPECT_EQ(body_of(reply), "a?b??c\n\n\n");
}

// A text that ends inside a character cannot be converted at all: it goes
// out as stored.
TEST_F(ReplyTest, TextEndingInsideACharacterSentUnchanged) {
  EXPECT_EQ(body_of(compose_text("ab\xC3")), "ab\xC3\n\n\n");
}

// ------------------------------------------------------------- attachments

// A socket in the repository: stat finds it, opening it fails (ENXIO).
void make_socket(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof(address.sun_path)) << path;
  std::strcpy(address.sun_path, path.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0)
      << std::strerror(errno);
  close(fd);  // the socket file stays
}

TEST_F(ReplyTest, UnopenableAttachmentReportedAndLeftEmpty) {
  panel::add_rule(1, kMailbox, panel::Rule{});
  Sandbox::write_attachment(kDomain, kMailName, "before.txt", "x");
  make_socket(attachment_path("socket"));
  add_attachment_row(1, "socket");
  add_attachment_row(1, "before.txt");
  const RunResult result = run(test_data("replies/hello.eml"));

  EXPECT_THAT(result.err,
              HasSubstr("autoresponder: Failed to read attachement file '" +
                        attachment_path("socket") + "': No such device or address (6)\n"));
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  // The part keeps its headers and is empty; the next part follows.
  EXPECT_THAT(reply_golden::render(calls[0]),
              HasSubstr("\tfilename=\"socket\"\n\n\n--BOUNDARY\n"
                        "Content-Type: application/octet-stream\n"
                        "Content-Transfer-Encoding: base64\n"
                        "Content-Disposition: attachment;\n"
                        "\tfilename=\"before.txt\"\n\neA==\n\n--BOUNDARY--\n"));
}

// A directory of the attachment's name exists, so it counts as found; it
// opens but yields no bytes: an empty part, no report.
TEST_F(ReplyTest, DirectoryAttachmentGivesEmptyPart) {
  panel::add_rule(1, kMailbox, panel::Rule{});
  Sandbox::write_attachment(kDomain, kMailName, "folder/inside.txt", "x");
  add_attachment_row(1, "folder");
  const RunResult result = run(test_data("replies/hello.eml"));

  EXPECT_THAT(result.err, Not(HasSubstr("attachement")));
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(reply_golden::render(calls[0]),
              HasSubstr("\tfilename=\"folder\"\n\n\n--BOUNDARY--\n"));
}

// ---------------------------------------------------------------- failures

// The mailbox address fails IDN conversion (local part, "@" and first label
// form one label of more than 63 characters): no reply, exit status 1, the
// message on both streams, the temporary files left.
TEST_F(ReplyTest, IdnFailureEndsTheRunWithStatus1) {
  const std::string mail_name(60, 'l');
  panel::add_mailbox(2, 1, mail_name);
  panel::add_rule(1, 2, panel::Rule{});
  const RunResult result =
      run_autoresponder(test_data("replies/hello.eml"), mail_name + "@" + kDomain);

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("autoresponder: IDN conversion error: Invalid length\n"));
  EXPECT_THAT(result.out, HasSubstr("autoresponder: IDN conversion error: Invalid length\n"));
  EXPECT_THAT(Sandbox::sendmail_calls(), IsEmpty());
  EXPECT_EQ(Sandbox::tmp_files().size(), 2u);
}

}  // namespace
}  // namespace e2e
