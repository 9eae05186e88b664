// Start of a run: environment scrub, intake of tests/data/NAME.eml (NAME.expected), addresses.
#include "autoresponder/intake/intake.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "autoresponder/intake/address_list.h"
#include "autoresponder/mail_content.h"
#include "autoresponder/secure_environment.h"
#include "lib/paths.h"
#include "tests/unit/read_all.h"
#include "tests/unit/text_case.h"

namespace {

using namespace std::string_literals;
using text_case::repeat;

// The status, the record, standard error and the stored copy.
using Intake = std::tuple<int, Mail_content, std::string, std::string>;

// parse_message with `input` on descriptor 0 and RESP_RECIPIENT `recipient`; the copy removed.
Intake take_in(const std::string& input, const char* recipient = "info@example.com") {
  setenv("RESP_RECIPIENT", recipient, 1);
  std::filesystem::create_directories(std::string(orvik::paths::kRootPrefix) + "/tmp");
  std::strcpy(mail_file_name, orvik::paths::kMailTemplate);
  FILE* file = std::tmpfile();
  std::fwrite(input.data(), 1, input.size(), file);
  std::rewind(file);
  dup2(fileno(file), STDIN_FILENO);  // the real standard input is not needed again
  Mail_content mail;
  testing::internal::CaptureStderr();
  const int status = parse_message(&mail);
  const std::string err = testing::internal::GetCapturedStderr();
  std::fclose(file);
  const std::string stored = read_file(mail_file_name);
  unlink(mail_file_name);
  return {status, mail, err, stored};
}

// `head`, then the value with CR, LF, NUL and the backslash escaped, so it stays on one line.
std::string line(std::string head, const std::string& value) {
  if (!value.empty()) head += " ";
  for (const char c : value) {
    const std::size_t at = std::string_view("\\\r\n\0", 4).find(c);
    head += at == std::string_view::npos ? std::string(1, c) : std::string{'\\', "\\rn0"[at]};
  }
  return head + "\n";
}

std::string render(const Intake& in) {
  const auto& [status, m, err, stored] = in;
  std::string text = line("status:", std::to_string(status)) + line("from:", m.from) +
                     line("to:", m.to) + line("to_mailname:", m.to_mailname) +
                     line("to_domain:", m.to_domain) + line("subject:", m.subject) +
                     line("date:", m.date) + line("charset:", m.charset);
  text += "body: " + std::to_string(m.body.size()) + " lines\n";
  for (const std::string& body_line : m.body) text += line("|", body_line);
  return text + "stderr:\n" + err;
}

std::vector<std::string> corpus() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(OVK_TEST_DATA_DIR)) {
    if (entry.path().extension() == ".eml") names.push_back(entry.path().stem());
  }
  return names;
}

class CorpusTest : public testing::TestWithParam<std::string> {};

// On a mismatch the record is written to NAME.actual beside NAME.expected, for review.
TEST_P(CorpusTest, MatchesGoldenRecord) {
  const std::string base = std::string(OVK_TEST_DATA_DIR) + "/" + GetParam();
  const std::string input = read_file(base + ".eml");
  const Intake result = take_in(input);
  EXPECT_EQ(std::get<3>(result), input + "\n");  // the last line ended, an empty one added
  const std::string actual = render(result);
  const std::string expected = read_file(base + ".expected");
  EXPECT_EQ(actual, expected);
  if (actual != expected) std::ofstream(base + ".actual", std::ios::binary) << actual;
}

INSTANTIATE_TEST_SUITE_P(Corpus, CorpusTest, testing::ValuesIn(corpus()),
                         [](const auto& p) { return p.param; });

std::string base64(const std::string& text) {
  gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(text.data()), text.size());
  std::string result(encoded);
  g_free(encoded);
  return result;
}

// The blank line before the base64 text puts its quartets across the decoder's read blocks.
TEST(IntakeTest, LargeBase64BodyCrossesReadBlocks) {
  const std::string text(300 * 1024, 'x');
  const std::string input = "From: a@b\nContent-Transfer-Encoding: base64\n\n\n" + base64(text);
  const auto [status, mail, err, stored] = take_in(input);
  EXPECT_EQ(stored, input + "\n");
  EXPECT_TRUE(mail.body == std::vector<std::string>{text});
}

// Fields past the kept length (kMaxKeptFieldBody): name, message, sender ("" when none), subject.
using Long_field_case = std::tuple<const char*, std::string, std::string, std::string>;
const std::string kX(100000, 'x');
const Long_field_case kLongFields[] = {
    {"FromCutKeepsCompleteAddresses",
     "From: " + repeat("<>,", 21000) + "ok@example.com,late" + kX + "@example.com\n\n",
     "ok@example.com", ""},
    {"FromCutAddressNotTaken", "From: " + repeat("<>,", 21840) + "late" + kX + "@example.com\n\n",
     "", ""},
    {"ReplyToCutFallsBackToFrom",
     "Reply-To: " + repeat("g: a@example.com;, ", 4000) + "\nFrom: f@example.com\n\n",
     "f@example.com", ""},
    {"SubjectCutAtItsLastBlank",
     "From: a@example.com\nSubject: " + repeat("=?utf-8?q?ab?= ", 5000) + "\n\n", "a@example.com",
     repeat("ab", 4369)},
    {"SubjectWithoutBlankCutAtTheLength", "From: a@example.com\nSubject:\t" + kX + "\n\n",
     "a@example.com", std::string(65535, 'x')},
};

class LongFieldTest : public testing::TestWithParam<Long_field_case> {};

TEST_P(LongFieldTest, KeepsTheBeginning) {
  const auto& [name, input, sender, subject] = GetParam();
  const auto [status, mail, err, stored] = take_in(input);
  EXPECT_EQ(status, sender.empty() ? 1 : 0);
  EXPECT_EQ(mail.from, sender);
  EXPECT_EQ(mail.subject, subject);
  EXPECT_EQ(err, sender.empty() ? "Could not get sender's e-mail address from Reply-To: or From: "
                                  "headers.\n"
                                : "");
}

INSTANTIATE_TEST_SUITE_P(LongFields, LongFieldTest, testing::ValuesIn(kLongFields),
                         [](const auto& p) { return std::string(std::get<0>(p.param)); });

// name, message after "From: a@b\n", body lines, report
using Body_case = std::tuple<const char*, std::string, std::vector<std::string>, std::string>;
class BodyFileTest : public testing::TestWithParam<Body_case> {};

// Texts larger than a write block of the body file, so that what was written
// before the end decides nothing.
TEST_P(BodyFileTest, HoldsTheDecodedConvertedText) {
  const auto& [name, message, lines, report] = GetParam();
  const auto [status, mail, err, stored] = take_in("From: a@b\n" + message);
  EXPECT_TRUE(mail.body == lines);
  EXPECT_EQ(err, report);
}

const std::string kLong(300 * 1024, 'x');
INSTANTIATE_TEST_SUITE_P(
    , BodyFileTest,
    testing::Values(
        // The conversion fails at the very end: the text as decoded instead.
        Body_case{"EndsInsideACharacter",
                  "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\n" +
                      base64(kLong + "\xc3") + "\n",
                  {kLong + "\xc3"},
                  "Could not convert message body text from utf-8 to UTF-8.\n"},
        Body_case{
            "NulAfterMegabytes", "\n" + kLong + "\nab"s + '\0' + "cd\nef\n", {kLong, "ab"}, ""},
        Body_case{"NulMadeByTheConversion",
                  "Content-Type: text/plain; charset=utf-7\n\n" + kLong + "+AAA-cd\n",
                  {kLong},
                  ""}),
    [](const auto& p) { return std::get<0>(p.param); });

TEST(IntakeTest, RecipientSplitsAtItsFirstAt) {
  for (const auto& [recipient, halves] : {std::pair{"info", "info info"}, {"a@b@c", "a b@c"}}) {
    const Mail_content mail = std::get<1>(take_in("From: a@example.com\n\nx\n", recipient));
    EXPECT_EQ(mail.to_mailname + " " + mail.to_domain, halves);
  }
}

// The privileged case changes the whole process (umask, directory, signals),
// so it runs in a child of its own.
TEST(SecureEnvironmentTest, PrivilegedStartKeepsOnlyTheRecipient) {
  const char* client[] = {"MYSQL_UNIX_PORT",    "MARIADB_UNIX_PORT",
                          "MYSQL_HOST",         "MYSQL_TCP_PORT",
                          "MYSQL_PWD",          "LIBMYSQL_PLUGINS",
                          "MYSQL_HOME",         "MARIADB_HOME",
                          "MARIADB_PLUGIN_DIR", "HOME",
                          "BASH_ENV",           "PATH"};
  for (const char* name : client) setenv(name, "/elsewhere", 1);
  setenv("RESP_RECIPIENT", "info@example.com", 1);
  harden_privileged_start(false);
  for (const char* name : client) EXPECT_STREQ(std::getenv(name), "/elsewhere") << name;
  EXPECT_EXIT(
      {
        harden_privileged_start(true);
        const bool only_recipient = environ[0] != nullptr && environ[1] == nullptr &&
                                    std::string(environ[0]) == "RESP_RECIPIENT=info@example.com";
        char cwd[2] = {};
        const bool at_root = getcwd(cwd, sizeof cwd) != nullptr && std::string(cwd) == "/";
        std::_Exit(only_recipient && at_root && umask(0) == 077 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// kOne: ParseMailbox; kReplyTo: GetMailboxFromAddressList; kFrom: GetMailboxFromMailboxList;
// kFromCut: the latter on the beginning of a longer field body.
enum Reader { kOne, kReplyTo, kFrom, kFromCut };
// name, reader, input, local part "@" domain ("" when no mailbox is usable)
using Address_case = std::tuple<const char*, Reader, std::string, std::string>;

const Address_case kCases[] = {
    {"NameAddr", kOne, "John <j@x.y>", "j@x.y"},
    {"CommentInsideLocalPart", kOne, "john(the one)@example.com (John)", "john@example.com"},
    {"BlanksAroundDots", kOne, "john . doe @ example . com", "john.doe@example.com"},
    {"QuotedLocalPartKeepsQuotes", kOne, "Doe <\"j d\"@x.y>", "\"j d\"@x.y"},
    {"DomainLiteralKeepsBrackets", kOne, "root@[192.0.2.1]", "root@[192.0.2.1]"},
    {"CaseAnd8BitKept", kOne, "J <J\xc3\xbc@M\xc3\xbcller.DE>", "J\xc3\xbc@M\xc3\xbcller.DE"},
    {"PhraseWithoutAnglesIsLocalPart", kOne, "John Smith", "JohnSmith@"},
    {"FoldedWithCrLf", kOne, "John\r\n <john@example.com>", "john@example.com"},
    {"EmptyAngles", kOne, "John <>", ""},
    {"NoLocalPart", kOne, "@example.com", ""},
    {"UnterminatedQuote", kOne, "\"john@example.com", ""},
    {"NulInComment", kOne, "john@example.com (a\0b)"s, ""},
    {"LineBreakInQuotedLocalPart", kOne, "\"john\r\n doe\"@example.com", ""},
    {"LineFeedInDomainLiteral", kOne, "john@[192.0.2.1\n]", ""},
    {"CommaInQuotedName", kReplyTo, "\"Doe, J\" <j@example.com>, b@example.com", "j@example.com"},
    {"CommaInRoute", kReplyTo, "<@r1.example,@r2.example:a@x.y>, b@example.com", "a@x.y"},
    {"InvalidEntriesSkipped", kReplyTo, "<>, @example.com, , c@example.com", "c@example.com"},
    {"GroupMembersNotTaken", kReplyTo, "team: a@example.com; , e@example.com", "e@example.com"},
    {"UnclosedGroupSwallowsRest", kReplyTo, "team: a@example.com, b@example.com", ""},
    {"NulSpoilsOnlyItsAddress", kReplyTo, "a\0b@example.com, c@example.com"s, "c@example.com"},
    {"FromSecondWhenFirstInvalid", kFrom, "<>, b@example.com", "b@example.com"},
    {"FromHasNoGroups", kFrom, "team: a@example.com, b@example.com;", "teama@example.com"},
    {"CutLastAddressNotTaken", kFromCut, "<>, b@example.com", ""},
    {"CutAfterComma", kFromCut, "<>, b@example.com,", "b@example.com"},
    {"CutInsideQuotedComma", kFromCut, "<>, \"b, c@example.com", ""},
};

class AddressTest : public testing::TestWithParam<Address_case> {};

TEST_P(AddressTest, ChoosesTheMailbox) {
  const auto& [name, reader, input, expected] = GetParam();
  const auto mailbox = reader == kOne       ? ParseMailbox(input)
                       : reader == kReplyTo ? GetMailboxFromAddressList(input)
                                            : GetMailboxFromMailboxList(input, reader == kFromCut);
  EXPECT_EQ(mailbox ? mailbox->local_part + "@" + mailbox->domain : "", expected);
}

INSTANTIATE_TEST_SUITE_P(Addresses, AddressTest, testing::ValuesIn(kCases),
                         [](const auto& p) { return std::string(std::get<0>(p.param)); });

}  // namespace
