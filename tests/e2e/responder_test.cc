// The responder through the real program and the test database: mailbox resolution,
// rules, the daily answer limit (also for twenty simultaneous runs), and whole runs
// (replies, forwards, notices, size limit, failures) against tests/data/replies.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <optional>
#include <regex>
#include <string>
#include <thread>

#include "autoresponder/responder/composition.h"
#include "autoresponder/responder/delivery.h"
#include "autoresponder/responder/named_lock.h"
#include "lib/paths.h"
#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using panel::Sandbox;
using panel::statements_matching;
using panel::TestDb;

// example.com holds "info" (10) with the mail alias "sales", and "o'neil\x" (30);
// example.org is an alias of it that serves mail, example.net one that does not;
// other.net and bücher.example hold an "info" each (20, 40). The one rule
// belongs to no mailbox.
class Responder : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::exec_all(
        "INSERT INTO domains (id, name) VALUES (1, 'example.com'), (2, 'other.net'), "
        "(3, 'bücher.example');"
        "INSERT INTO mail (id, mail_name, dom_id) VALUES (10, 'info', 1), (20, 'info', 2), "
        "(30, 'o\\'neil\\\\x', 1), (40, 'info', 3);"
        "INSERT INTO mail_aliases (mn_id, alias) VALUES (10, 'sales');"
        "INSERT INTO domainaliases (dom_id, name, mail) VALUES (1, 'example.org', 'true'), "
        "(1, 'example.net', 'false')");
    panel::add_rule(99, 99);
  }

  // One message; the statement log then holds only this run. Its stderr.
  static std::string run(const std::string& to = "info@example.com",
                         const std::string& subject = "Hi", const std::string& sender = "a@x") {
    TestDb::clear_statement_log();
    const auto result =
        e2e::run_autoresponder("From: " + sender + "\nTo: " + to + "\nSubject: " + subject +
                                   "\n\nDear team,\nplease send the invoice\n",
                               to);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_TRUE(Sandbox::tmp_files().empty());
    return result.err;
  }

  // The rules whose answer limit was checked, a line each.
  static std::string rules_checked() {
    return std::regex_replace(statements_matching("^delete from resp_freq.*TO_DAYS"),
                              std::regex("delete from resp_freq where rn_id=(\\d+) .*"), "$1");
  }

  // resp_freq as "rule:sender=num", ordered.
  static std::string remembered() {
    return *TestDb::scalar(
        "SELECT IFNULL(GROUP_CONCAT(CONCAT(rn_id, ':', email, '=', IFNULL(num, 'NULL')) "
        "ORDER BY rn_id, email), '') FROM resp_freq");
  }
};

struct ResolutionCase {
  const char* name;
  std::string to;
  int mailbox;  // 0: not found
  int lookups;
};

class Resolution : public Responder, public ::testing::WithParamInterface<ResolutionCase> {};

// The lookups stop at the deciding one; a mailbox without rules ends the run
// quietly.
TEST_P(Resolution, FindsTheMailboxWithTheFewestLookups) {
  const ResolutionCase& c = GetParam();
  EXPECT_EQ(run(c.to), c.mailbox ? "" : "autoresponder: Mailname not found: " + c.to + "\n");
  const std::string lookups = statements_matching("^select m.id, m.mail_name, d.name from ");
  EXPECT_EQ(std::count(lookups.begin(), lookups.end(), '\n'), c.lookups);
  EXPECT_EQ(statements_matching("^select id, keystr"),
            c.mailbox
                ? "select id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, "
                  "reply_to, charset, content_type from mail_resp where mn_id=" +
                      std::to_string(c.mailbox) + "\n"
                : "");
  EXPECT_TRUE(Sandbox::sendmail_calls().empty());
}

INSTANTIATE_TEST_SUITE_P(
    , Resolution,
    ::testing::Values(ResolutionCase{"OwnName", "info@example.com", 10, 1},
                      ResolutionCase{"SameNameInAnotherDomain", "info@other.net", 20, 1},
                      ResolutionCase{"MailAlias", "sales@example.com", 10, 2},
                      ResolutionCase{"DomainAliasServingMail", "info@example.org", 10, 3},
                      ResolutionCase{"MailAliasInDomainAlias", "sales@example.org", 10, 4},
                      ResolutionCase{"DomainAliasNotServingMail", "info@example.net", 0, 4},
                      ResolutionCase{"UnknownName", "nobody@example.com", 0, 4},
                      ResolutionCase{"AliasOfAnotherDomain", "sales@other.net", 0, 4},
                      ResolutionCase{"QuoteAndBackslashInName", "o'neil\\x@example.com", 30, 1},
                      ResolutionCase{"QuoteCannotInject", "x' or '1'='1@example.com", 0, 4},
                      ResolutionCase{"BackslashCannotUnquote", "i\\@example.com' or 'a'='a", 0, 4},
                      ResolutionCase{"NonAsciiDomainAsReceived", "info@bücher.example", 40, 1},
                      ResolutionCase{"NoIdnConversion", "info@xn--bcher-kva.example", 0, 4}),
    panel::kCaseName);

TEST_F(Responder, SendsTheFourLookupsWithTheEscapedHalves) {
  run("it's@exa\\mple.org");
  EXPECT_EQ(statements_matching("^select m.id"), e2e::test_data("responder/lookups"));
}

struct RuleCase {
  const char* name;
  std::string set;  // assignments to the rule
  std::string subject;
  bool answers;
};

class RuleSelection : public Responder, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(RuleSelection, OnlyRulesThatAreOnAndMatchReachTheLimit) {
  panel::add_rule(1, 10, GetParam().set);
  EXPECT_EQ(run("info@example.com", GetParam().subject), "");
  EXPECT_EQ(rules_checked(), GetParam().answers ? "1\n" : "");
  EXPECT_EQ(Sandbox::sendmail_calls().size(), GetParam().answers ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    , RuleSelection,
    ::testing::Values(
        RuleCase{"SwitchNullIsOff", "resp_on=NULL", "Hi", false},
        RuleCase{"SwitchFalseIsOff", "resp_on='false'", "Hi", false},
        RuleCase{"SwitchCapitalisedFalseIsOn", "resp_on='False'", "Hi", true},
        RuleCase{"PlaceUpperCaseSubjIgnoresKey", "key_where='SUBJ', keystr='absent'", "Hi", true},
        RuleCase{"SubjKeyInSubject", "key_where='subj', keystr='Invoice'", "Your Invoice", true},
        RuleCase{"SubjIsCaseSensitive", "key_where='subj', keystr='Invoice'", "invoice", false},
        RuleCase{"SubjIsDecodedFirst", "key_where='subj', keystr='Größe'",
                 "=?UTF-8?Q?Gr=C3=B6=C3=9Fe?= 4", true},
        RuleCase{"BodyKeyInALine", "key_where='body', keystr='the invoice'", "Hi", true},
        RuleCase{"BodyIsCaseSensitive", "key_where='body', keystr='Please'", "Hi", false},
        RuleCase{"BodyNeverAcrossLines", "key_where='body', keystr='team,\\nplease'", "Hi", false}),
    panel::kCaseName);

// Database order is key order here, whatever the order of insertion.
TEST_F(Responder, EveryAnsweringRuleRunsInDatabaseOrder) {
  for (int id : {7, 5, 9, 6}) panel::add_rule(id, 10, id == 6 ? "resp_on='false'" : "");
  run();
  EXPECT_EQ(rules_checked(), "5\n7\n9\n");
  EXPECT_EQ(remembered(), "5:a@x=1,7:a@x=1,9:a@x=1");
  EXPECT_EQ(Sandbox::sendmail_calls().size(), 3u);
}

struct LimitCase {
  const char* name;
  std::string rule;  // assignments to ans_freq and mem_limit
  std::string rows;  // resp_freq (rn_id, email, time_resp, num) before the runs
  int runs;
  std::size_t answered;
  std::string after;  // remembered() after the runs
  std::string sender = "a@x";
};

class DailyLimit : public Responder, public ::testing::WithParamInterface<LimitCase> {};

TEST_P(DailyLimit, AnswersTheFirstMessagesOfTheDayOnly) {
  const LimitCase& c = GetParam();
  panel::add_rule(1, 10, c.rule);
  if (!c.rows.empty()) TestDb::exec("INSERT INTO resp_freq VALUES " + c.rows);
  for (int i = 0; i < c.runs; ++i) EXPECT_EQ(run("info@example.com", "Hi", c.sender), "");
  EXPECT_EQ(Sandbox::sendmail_calls().size(), c.answered);
  EXPECT_EQ(remembered(), c.after);
}

INSTANTIATE_TEST_SUITE_P(
    , DailyLimit,
    ::testing::Values(
        LimitCase{"TwoADay", "ans_freq='2'", "", 3, 2, "1:a@x=2"},
        LimitCase{"NullLimitIsTen", "ans_freq=NULL", "(1, 'a@x', NOW(), 9)", 2, 1, "1:a@x=10"},
        LimitCase{"Zero", "ans_freq='0'", "", 2, 0, ""},
        LimitCase{"Negative", "ans_freq='-2'", "", 2, 0, ""},
        LimitCase{"Letters", "ans_freq='abc'", "", 2, 0, ""},
        LimitCase{"EmptyIsNotTheNullDefault", "ans_freq=''", "", 2, 0, ""},
        LimitCase{"LeadingBlanksSignAndTrailingText", "ans_freq=' +2 a day'", "", 3, 2, "1:a@x=2"},
        LimitCase{"NullCountIsZero", "ans_freq='1'", "(1, 'a@x', NOW(), NULL)", 2, 1, "1:a@x=1"},
        LimitCase{"QuoteInSender", "ans_freq='1'", "", 2, 1, "1:o'b@x=1", "o'b@x"},
        LimitCase{"YesterdayForgottenForTheRuleOnly", "ans_freq='1'",
                  "(1, 'a@x', SUBDATE(NOW(), 1), 1), (2, 'a@x', SUBDATE(NOW(), 1), 5)", 2, 1,
                  "1:a@x=1,2:a@x=5"},
        LimitCase{"FullMemoryEvictsTheOldest", "ans_freq='5', mem_limit='2'",
                  "(1, 'b@x', CURDATE(), 2), (1, 'c@x', NOW(), 1), (2, 'd@x', CURDATE(), 1)", 1, 1,
                  "1:a@x=1,1:c@x=1,2:d@x=1"},
        LimitCase{"EvictionTakesEveryTie", "ans_freq='5', mem_limit='3'",
                  "(1, 'b@x', CURDATE(), 1), (1, 'c@x', CURDATE(), 1), (1, 'd@x', NOW(), 1)", 1, 1,
                  "1:a@x=1,1:d@x=1"},
        LimitCase{"KnownSenderNeedsNoRoom", "ans_freq='5', mem_limit='2'",
                  "(1, 'b@x', CURDATE(), 1), (1, 'a@x', NOW(), 1)", 1, 1, "1:a@x=2,1:b@x=1"}),
    panel::kCaseName);

// The memory is full, so the oldest sender goes before the new one counts.
TEST_F(Responder, SendsTheCheckStatementsInOrder) {
  panel::add_rule(1, 10, "ans_freq='5', mem_limit='1'");
  TestDb::exec("INSERT INTO resp_freq VALUES (1, 'b@x', CURDATE(), 1)");
  run();
  const std::string today = *TestDb::scalar("SELECT CAST(CURDATE() AS DATETIME)");
  EXPECT_EQ(statements_matching("resp_freq|_LOCK\\("),
            std::regex_replace(e2e::test_data("responder/check"), std::regex("TODAY"), today));
}

TEST_F(Responder, ACountThatCannotBeLockedIsKeptUnserialised) {
  panel::add_rule(1, 10, "ans_freq='1'");
  const std::string lock = "'" + answer_count_lock_name("1", "a@x") + "'";
  TestDb::exec("SELECT GET_LOCK(" + lock + ", 0)");
  EXPECT_EQ(run(),
            "autoresponder: Unable to lock the answer count of rule 1; counting unserialised\n");
  TestDb::exec("SELECT RELEASE_LOCK(" + lock + ")");
  EXPECT_EQ(remembered(), "1:a@x=1");
  EXPECT_EQ(statements_matching("RELEASE_LOCK"), "");
}

// Twenty runs of one message, held at their first resp_freq statement by a
// table lock of the test's own until all wait there, then let go together;
// rule 2 of the mailbox, with a limit of its own, counts apart.
class Concurrency : public Responder, public ::testing::WithParamInterface<int> {};

TEST_P(Concurrency, SimultaneousRunsCountEveryAnswerOnce) {
  panel::add_rule(1, 10, "ans_freq='" + std::to_string(GetParam()) + "'");
  panel::add_rule(2, 10, "ans_freq='3'");
  Sandbox::write_file("message", "From: a@x\nTo: info@example.com\n\nHi\n");
  TestDb::exec("LOCK TABLES resp_freq WRITE");
  e2e::RunResult runs;
  std::thread start([&] {
    runs = e2e::run_program(
        {"/bin/sh", "-c", "for i in $(seq 20); do (\"$0\" <\"$1\"; printf $?) & done; wait",
         e2e::autoresponder_path(), Sandbox::path("message")},
        "", "info@example.com");
  });
  const std::string waiting =
      "SELECT COUNT(*) FROM information_schema.processlist WHERE info LIKE 'delete%resp_freq%'";
  for (int i = 0; i < 1500 && TestDb::scalar(waiting) != "20"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(TestDb::scalar(waiting), "20") << "not every run reached the check";
  TestDb::exec("UNLOCK TABLES");
  start.join();
  EXPECT_EQ(runs.out + runs.err, std::string(20, '0'));  // every exit status
  EXPECT_EQ(remembered(), "1:a@x=" + std::to_string(GetParam()) + ",2:a@x=3");
  EXPECT_EQ(Sandbox::sendmail_calls().size(), GetParam() + 3u);
  EXPECT_TRUE(Sandbox::tmp_files().empty());
}

INSTANTIATE_TEST_SUITE_P(, Concurrency, ::testing::Values(1, 5),
                         [](const auto& test) { return "Limit" + std::to_string(test.param); });

const auto rule = [](const std::string& set) { return "UPDATE mail_resp SET " + set + ";"; };
const auto attach = [](const std::string& rows) {
  return "INSERT INTO resp_attach (rn_id, filename) VALUES " + rows + ";";
};
const std::string kSecondRule =
    "INSERT INTO mail_resp (id, mn_id, resp_on, text) VALUES (2, 1, 'true', 'Second rule.');";
const std::string kForwardAndNotice =
    "INSERT INTO resp_forward (rn_id, address) VALUES (1, 'archive@example.org');" +
    attach("(1, 'a.txt'), (1, 'gone.pdf')");

// The rule text that makes the reply to hello.eml `size` bytes long.
const auto text_for = [](int size) {
  return rule("text=REPEAT('x', " + std::to_string(size - 189) + ")");
};

// Ada Owner's example.org holds "info" (rule 1, alias "sales") and a name too long
// for IDN (rule 9), bücher.example "info" (rule 8); example.net is an alias that
// serves mail. info's repository: 100 bytes, an empty file, a non-ASCII name,
// a.txt and a socket, which exists but is no regular file, so counts as missing.
class Answers : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::exec_all(
        "INSERT INTO clients VALUES (1, 'owner@client.example', 'Ada Owner', 'ada');"
        "INSERT INTO domains VALUES (1, 'example.org', 1), (2, 'bücher.example', 1);"
        "INSERT INTO domainaliases (dom_id, name, mail) VALUES (1, 'example.net', 'true');"
        "INSERT INTO mail VALUES (1, 'info', 1), (2, 'info', 2), (3, REPEAT('l', 60), 1);"
        "INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'sales')");
    panel::add_rule(1, 1);
    panel::add_rule(8, 2);
    panel::add_rule(9, 3);
    std::string hundred(100, '\0');
    std::iota(hundred.begin(), hundred.end(), 0);
    Sandbox::write_attachment("example.org", "info", "preise.bin", hundred);
    Sandbox::write_attachment("example.org", "info", "leer.txt", "");
    Sandbox::write_attachment("example.org", "info", "Preisliste für Köln.txt", "Preise\n");
    Sandbox::write_attachment("example.org", "info", "a.txt", "a\n");
    const std::string socket =
        Sandbox::path("var/qmail/mailnames/example.org/info/@attachments/socket");
    ASSERT_EQ(mknod(socket.c_str(), S_IFSOCK | 0600, 0), 0) << std::strerror(errno);
  }
};

struct Answer {
  const char* name;        // the expected run: tests/data/replies/NAME.expected
  std::string setup = "";  // statements, see panel::exec_all
  std::string to = "info@example.org";
  const char* message = "hello";  // tests/data/replies/MESSAGE.eml
  const char* databytes = nullptr;
  const char* hidden = nullptr;  // a table renamed away for the run
  e2e::SendmailMode sendmail = e2e::SendmailMode::kRecord;
};

class AnswerRun : public Answers, public ::testing::WithParamInterface<Answer> {};

TEST_P(AnswerRun, IsTheExpectedOne) {
  const Answer& c = GetParam();
  panel::exec_all(c.setup);
  if (c.databytes) Sandbox::write_file("var/qmail/control/databytes", c.databytes);
  Sandbox::set_sendmail_mode(c.sendmail);
  std::optional<panel::HiddenTable> hidden;
  if (c.hidden) hidden.emplace(c.hidden);
  const auto result =
      e2e::run_autoresponder(e2e::test_data("replies/" + std::string(c.message) + ".eml"), c.to);
  hidden.reset();
  panel::expect_run(c.name, result);
}

INSTANTIATE_TEST_SUITE_P(
    , AnswerRun,
    ::testing::Values(
        // Replies; no forward rows, no forward.
        Answer{.name = "SinglePart"},
        Answer{
            .name = "Multipart",
            .setup = rule("text='Die Preisliste liegt bei.\\nMit freundlichen Grüßen', "
                          "subject='Auto: <request_subject> from <request_from>', "
                          "reply_to='office@example.org'") +
                     attach("(1, 'preise.bin'), (1, 'leer.txt'), (1, 'Preisliste für Köln.txt')"),
            .message = "price_request"},
        Answer{.name = "TwoRulesTwoBoundaries",
               .setup = kSecondRule + rule("subject='Rule two: <request_subject>' WHERE id=2") +
                        attach("(1, 'a.txt'), (2, 'a.txt')")},
        Answer{.name = "UnknownPlaceholderKept", .setup = rule("subject='About <x_y>'")},
        Answer{.name = "SubjectCutAt999BeforeEncoding",
               .setup = rule("subject=CONCAT('ü', REPEAT('a', 1100))")},
        Answer{.name = "NoIncomingSubject", .message = "no_subject"},
        // The incoming encoded subject is answered as received.
        Answer{.name = "Latin1Html",
               .setup = rule("text='café 5 €', charset='ISO-8859-1', content_type='text/html'"),
               .message = "price_request"},
        Answer{.name = "UnknownCharsetSendsUtf8", .setup = rule("text='café', charset='x-y'")},
        Answer{.name = "UnopenableAttachment", .setup = attach("(1, 'socket'), (1, 'a.txt')")},
        Answer{.name = "IdnMailbox", .to = "info@bücher.example"},
        Answer{.name = "IdnFailure", .to = std::string(60, 'l') + "@example.org"},
        Answer{.name = "SendmailFails",
               .setup = kSecondRule + kForwardAndNotice,
               .sendmail = e2e::SendmailMode::kFail},
        // The size limit.
        Answer{.name = "SizeNotice",
               .setup = rule("subject='Auto: <request_subject>', reply_to='office@example.org'"),
               .message = "price_request",
               .databytes = "100"},
        Answer{.name = "SizeNoticeIdn", .to = "info@bücher.example", .databytes = "100"},
        Answer{.name = "Reply1000Databytes1000", .setup = text_for(1000), .databytes = "1000\n"},
        Answer{.name = "Reply1001Databytes1000", .setup = text_for(1001), .databytes = " 1000kB"},
        Answer{.name = "Reply1001Databytes0", .setup = text_for(1001), .databytes = "0\n"},
        Answer{.name = "Reply1001DatabytesNegative", .setup = text_for(1001), .databytes = "-1"},
        Answer{.name = "Reply1001DatabytesLetters", .setup = text_for(1001), .databytes = "abc"},
        Answer{.name = "Reply1001Databytes4G", .setup = text_for(1001), .databytes = "4294968296"},
        Answer{.name = "Reply1001NoDatabytes", .setup = text_for(1001)},
        // Forwarding, not for a rule that does not answer.
        Answer{.name = "ThreeForwards",
               .setup = kSecondRule + rule("ans_freq='0' WHERE id=2") +
                        "INSERT INTO resp_forward (rn_id, address) VALUES (1, 'zoe@one.example'), "
                        "(1, 'adam@two.example'), (1, 'mia@three.example'), (2, 'no@x')"},
        // The notice about missing attachments; blank, NULL and empty names.
        Answer{.name = "NoticeFromAdminEmail",
               .setup = "INSERT INTO misc VALUES ('admin_email', 'hostmaster@panel.example'), "
                        "('FullHostName', 'panel.example');" +
                        attach("(1, NULL), (1, ''), (1, ' a.txt\\t'), (1, 'gone.pdf'), (2, 'b')")},
        Answer{
            .name = "NoticeFromFullHostName",
            .setup = "INSERT INTO misc VALUES ('admin_email', ''), ('FullHostName', 'h.example');"
                     "UPDATE clients SET pname='';" +
                     rule("reply_to='orders@example.org'") + attach("(1, 'gone.pdf')")},
        Answer{.name = "NoticeFromLocalhostForAlias",
               .setup = attach("(1, 'gone.pdf')"),
               .to = "sales@example.org"},
        Answer{.name = "DomainAliasNotifiesNobody",
               .setup = kForwardAndNotice,
               .to = "info@example.net"},
        Answer{
            .name = "NoticeReaderLeavesEarly",
            .setup = "INSERT INTO resp_attach (rn_id, filename) WITH RECURSIVE n(i) AS (SELECT 1 "
                     "UNION SELECT i + 1 FROM n WHERE i < 400) SELECT 1, LPAD(i, 240, 'x') FROM n",
            .sendmail = e2e::SendmailMode::kExitEarly},
        // Failed statements.
        Answer{.name = "HiddenMailAliases", .to = "sales@example.org", .hidden = "mail_aliases"},
        Answer{.name = "HiddenMailResp", .hidden = "mail_resp"},
        Answer{.name = "HiddenRespFreq", .hidden = "resp_freq"},
        Answer{.name = "HiddenRespForward", .setup = kForwardAndNotice, .hidden = "resp_forward"},
        Answer{.name = "HiddenRespAttach", .setup = kForwardAndNotice, .hidden = "resp_attach"},
        Answer{.name = "HiddenClients", .setup = kForwardAndNotice, .hidden = "clients"}),
    panel::kCaseName);

struct Connection {
  const char* name;
  const char* password_file;  // nullptr: none
  bool server_down;
};

class NoConnection : public Answers, public ::testing::WithParamInterface<Connection> {};

TEST_P(NoConnection, EndsTheRunCleanly) {
  Sandbox::remove_file("etc/ovk/.ovk.shadow");
  if (auto file = GetParam().password_file) Sandbox::write_file("etc/ovk/.ovk.shadow", file);
  std::map<std::string, std::string> env;
  if (GetParam().server_down) env["MYSQL_UNIX_PORT"] = Sandbox::path("no-server.sock");
  panel::expect_run(GetParam().name, e2e::run_autoresponder(e2e::test_data("replies/hello.eml"),
                                                            "info@example.org", env));
}

INSTANTIATE_TEST_SUITE_P(, NoConnection,
                         ::testing::Values(Connection{"PasswordFileMissing", nullptr, false},
                                           Connection{"PasswordFileEmpty", "", false},
                                           Connection{"ServerDown", "any\n", true}),
                         panel::kCaseName);

// The database holds no invalid UTF-8, so the composition is called here: bad
// bytes become "?", a text that ends inside a character goes out as stored.
TEST_F(Answers, InvalidUtf8InTheText) {
  for (const auto& [text, body] :
       std::map<std::string, std::string>{{"a\377b\376\377c", "a?b??c"}, {"ab\303", "ab\303"}}) {
    Mail_content mail;
    mail.from = "s@example.com";
    Resp_rule resp_rule;
    resp_rule.text = text;
    compose_response(mail, resp_rule, "", {}, makeBoundaryStr(), create_response_file());
    std::ifstream file(resp_uu_file_name, std::ios::binary);
    EXPECT_THAT(std::string(std::istreambuf_iterator<char>(file), {}),
                ::testing::EndsWith("UTF-8\"\nContent-Transfer-Encoding: 8bit\n"
                                    "Content-Disposition: inline\n\n" +
                                    body + "\n\n\n"));
    std::strcpy(resp_uu_file_name, orvik::paths::kResponseTemplate);
  }
}

// A response file that could not be created (no temporary directory; the
// name still holds its template): two reports, status 1.
TEST_F(Answers, UncreatableResponseFileEndsTheRunWithStatus1) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child must not close our connection
  std::filesystem::remove_all(Sandbox::path("tmp"));
  EXPECT_EXIT(
      {
        Response_file file = create_response_file();
        deliver_response(Mail_content{}, Resp_rule{}, file, 0);
      },
      ::testing::ExitedWithCode(1),
      "autoresponder: Failed to open temporary file with response mail contents '.*"
      "/tmp/ovk-response-uu-XXXXXX': No such file or directory \\(2\\)\n"
      "Send error: Failed to generate response mail contents\n");
  EXPECT_TRUE(Sandbox::sendmail_calls().empty());
}

}  // namespace
