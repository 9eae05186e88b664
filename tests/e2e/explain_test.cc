// autoresponder-explain against the test database: what it tells, that it
// changes nothing (no write that stays, no mail, no file), that its mails are
// the program's own; and the opt-in robot guards of both programs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "autoresponder/robot_guards.h"
#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using panel::Sandbox;
using panel::TestDb;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kHello = "From: a@x\nTo: info@example.org\nSubject: Hello\n\nHi there\n";

// example.org (client Ada) holds "info" (1) with rule 1; example.net is an
// alias of it that serves mail; info's repository holds a.txt.
class Explain : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::exec_all(
        "INSERT INTO clients VALUES (1, 'owner@client.example', 'Ada Owner', 'ada');"
        "INSERT INTO domains VALUES (1, 'example.org', 1);"
        "INSERT INTO domainaliases (dom_id, name, mail) VALUES (1, 'example.net', 'true');"
        "INSERT INTO mail VALUES (1, 'info', 1)");
    panel::add_rule(1, 1);
    Sandbox::write_attachment("example.org", "info", "a.txt", "a\n");
  }

  static e2e::RunResult explain(const std::string& message, const std::string& to,
                                std::vector<std::string> options = {},
                                const std::map<std::string, std::string>& env = {}) {
    options.insert(options.begin(), OVK_EXPLAIN_BIN);
    options.push_back(to);
    return e2e::run_program(options, message, std::nullopt, env);
  }

  static std::string resp_freq() {
    return *TestDb::scalar(
        "SELECT IFNULL(GROUP_CONCAT(CONCAT(rn_id, ':', email, '=', num, '@', time_resp) "
        "ORDER BY rn_id, email), '') FROM resp_freq");
  }

  // Every write the explanation sent lies inside its transaction, which is
  // rolled back (or dropped with the connection) and never committed.
  static void expect_no_write_stayed() {
    bool inside = false;
    for (const std::string& s : TestDb::statements_sent()) {
      if (s == "START TRANSACTION") inside = true;
      if (s == "ROLLBACK") inside = false;
      EXPECT_FALSE(std::regex_search(s, std::regex("^commit", std::regex::icase))) << s;
      if (std::regex_search(s, std::regex("^(insert|update|delete|replace) ", std::regex::icase))) {
        EXPECT_TRUE(inside) << s;
      }
    }
    EXPECT_TRUE(Sandbox::sendmail_calls().empty());
    EXPECT_TRUE(Sandbox::tmp_files().empty());
  }
};

struct Scenario {
  const char* name;
  std::string setup = "";
  std::vector<std::string> told = {};  // lines the explanation must hold
  std::string to = "info@example.org";
  int status = 0;
  const char* databytes = nullptr;
  const char* hidden = nullptr;  // a table renamed away for the run
};

class Scenarios : public Explain, public ::testing::WithParamInterface<Scenario> {};

TEST_P(Scenarios, TellsAndChangesNothing) {
  const Scenario& c = GetParam();
  panel::exec_all(c.setup);
  if (c.databytes) Sandbox::write_file("var/qmail/control/databytes", c.databytes);
  const std::string before = resp_freq();
  TestDb::clear_statement_log();
  std::optional<panel::HiddenTable> hidden;
  if (c.hidden) hidden.emplace(c.hidden);
  const auto result = explain(kHello, c.to);
  hidden.reset();
  EXPECT_EQ(result.exit_status, c.status) << result.err;
  for (const std::string& line : c.told) EXPECT_THAT(result.out, HasSubstr(line));
  EXPECT_EQ(resp_freq(), before);
  expect_no_write_stayed();
  if (c.status != 0) return;
  // The mails it names are those the program then sends for the same message
  // and data: same kinds and order, same argv, same sizes.
  const std::regex mail_line("\n  [a-z]+ \\(rule [0-9]+\\): ([^\n]*)");
  std::string named, sent;
  for (std::sregex_iterator it(result.out.begin(), result.out.end(), mail_line), end; it != end;
       ++it) {
    named += (*it)[1].str() + "\n";
  }
  e2e::run_autoresponder(kHello, c.to);
  for (const auto& call : Sandbox::sendmail_calls()) {
    std::string argv;
    for (const std::string& word : call.argv) argv += (argv.empty() ? "" : " ") + word;
    sent += argv + "; " + std::to_string(call.input.size()) + " bytes\n";
  }
  EXPECT_EQ(named, sent);
}

const std::string kSecondRule =
    "INSERT INTO mail_resp (id, mn_id, resp_on, key_where, keystr, text) VALUES "
    "(2, 1, 'true', 'body', 'invoice', 'x');";

INSTANTIATE_TEST_SUITE_P(
    , Scenarios,
    ::testing::Values(
        Scenario{.name = "OneRuleAnswersAnotherDoesNot",
                 .setup = kSecondRule +
                          "UPDATE mail_resp SET key_where='subj', keystr='Hell' WHERE id=1",
                 .told = {"mailbox: \"info@example.org\" (id 1), found by its own name\n",
                          "rule 1: on; key \"Hell\" searched in the subject: found\n",
                          "sender answered 0 (not remembered) times today; 0 senders remembered, "
                          "mem_limit 1000: answers\n",
                          "rule 2: on; key \"invoice\" searched in the body lines: not found\n",
                          "mails: 1\n  reply (rule 1): ",
                          "/usr/sbin/sendmail -f info@example.org a@x; 201 bytes\n"}},
        Scenario{.name = "SenderAtTheDailyLimit",
                 .setup = "UPDATE mail_resp SET ans_freq='2';"
                          "INSERT INTO resp_freq VALUES (1, 'a@x', NOW(), 2)",
                 .told = {"ans_freq 2, sender answered 2 times today; 1 senders remembered, "
                          "mem_limit 1000: does not answer\n",
                          "mails: none\n"}},
        Scenario{.name = "MemoryFullEvictsTheOldest",
                 .setup = "UPDATE mail_resp SET mem_limit='1';"
                          "INSERT INTO resp_freq VALUES (1, 'b@x', NOW(), 1)",
                 .told = {"1 senders remembered, mem_limit 1, the oldest would be forgotten: "
                          "answers\n"}},
        Scenario{.name = "TwoRulesAnswer",
                 .setup = kSecondRule + "UPDATE mail_resp SET key_where='' WHERE id=2",
                 .told = {"mails: 2\n"}},
        Scenario{.name = "ThroughADomainAlias",
                 .told = {"(id 1), found by its domain alias\n", "mails: 1\n"},
                 .to = "info@example.net"},
        Scenario{.name = "ForwardAndNotice",
                 .setup = "INSERT INTO resp_forward (rn_id, address) VALUES (1, "
                          "'archive@example.org'), (1, 'b@y');"
                          "INSERT INTO resp_attach (rn_id, filename) VALUES (1, 'a.txt'), (1, "
                          "'gone.pdf')",
                 .told = {"attachments: found [\"a.txt\"], missing [\"gone.pdf\"]\n", "mails: 3\n",
                          "  forward (rule 1): ",
                          " -f info@example.org archive@example.org b@y; 57 bytes\n",
                          "  notice (rule 1): ", " owner@client.example; "}},
        Scenario{.name = "UnknownRecipient",
                 .told = {"mailbox: not found by own name, mail alias, domain alias or mail "
                          "alias in a domain alias\nmails: none\n"},
                 .to = "nobody@example.org"},
        Scenario{.name = "LoopGuard",
                 .told = {"guards: refused: Field From: equial field To:\nmails: none\n"},
                 .to = "a@x"},
        Scenario{.name = "ReplyOverTheSizeLimit",
                 .told = {"reply size: 201 bytes, databytes limit 100: over, replaced by the "
                          "size notice\n",
                          " -f info@example.org a@x; 155 bytes\n"},
                 .databytes = "100"},
        Scenario{.name = "FailedStatementEndsWithStatus1",
                 .told = {"the run ended early"},
                 .status = 1,
                 .hidden = "resp_attach"}),
    panel::kCaseName);

TEST_F(Explain, CannotTellWithoutDatabaseOrConfiguration) {
  auto result =
      explain(kHello, "info@example.org", {}, {{"MYSQL_UNIX_PORT", Sandbox::path("none.sock")}});
  EXPECT_EQ(result.exit_status, 2);
  EXPECT_THAT(result.err, ContainsRegex("^autoresponder-explain: cannot connect to the panel "
                                        "database: [^\n]*none.sock[^\n]*\n$"));
  Sandbox::remove_file("etc/ovk/ovk.conf");
  result = explain(kHello, "info@example.org");
  EXPECT_EQ(result.exit_status, 2);
  EXPECT_THAT(result.err, ContainsRegex("^autoresponder-explain: cannot read the panel "
                                        "configuration .*/etc/ovk/ovk.conf\n$"));
  EXPECT_TRUE(Sandbox::tmp_files().empty());
}

// Texts from the message reach the document escaped and as valid UTF-8.
TEST_F(Explain, JsonAndShow) {
  auto result =
      explain("From: a@x\nSubject: \"x\"\n\nHi\n", "info@example.org", {"--json", "--show"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.out, HasSubstr("\"subject\": \"\\\"x\\\"\""));
  EXPECT_THAT(result.out, HasSubstr("\"route\": \"own name\""));
  EXPECT_THAT(result.out, HasSubstr("\"content\": \"From: info@example.org\\nTo: a@x\\n"));
  EXPECT_THAT(result.out, HasSubstr("\"complete\": true"));
  result = explain(kHello, "\xc3\xbc\x80\xed\xa0\x80\x01@x", {"--json"});
  EXPECT_THAT(result.err, HasSubstr("autoresponder: Unable to query: "));  // as the program
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.out,
              HasSubstr("{\"recipient\": \"\xc3\xbc\\ufffd\\ufffd\\ufffd\\ufffd\\u0001@x\""));
}

// The robot guards, off and on: with them off every message is answered as
// before; with them on the robots are refused with one line and the replies
// carry the automatic-reply fields.
struct Robot {
  const char* name;
  std::string fields;   // header lines of the message
  std::string refusal;  // the line when on, "" when answered
  std::string from = "a@x";
};

class RobotGuards : public Explain, public ::testing::WithParamInterface<Robot> {};

TEST_P(RobotGuards, RefuseRobotsOnlyWhenOn) {
  const Robot& c = GetParam();
  const std::string message = "From: " + c.from + "\nTo: info@example.org\nSubject: S\n" +
                              c.fields + "Message-ID: <m1@x>\n\nHi\n";
  const std::string conf = Sandbox::read_file("etc/ovk/ovk.conf");
  std::string unset_reply;  // the reply without the variable: "false" must give the same
  for (const char* value : {"", "false", "TRUE"}) {
    SCOPED_TRACE(value);
    TestDb::exec("DELETE FROM resp_freq");
    Sandbox::write_file(
        "etc/ovk/ovk.conf",
        conf + (*value ? std::string(kRobotGuardsVariable) + " " + value + "\n" : ""));
    const std::size_t earlier = Sandbox::sendmail_calls().size();
    const auto run = e2e::run_autoresponder(message, "info@example.org");
    const bool on = std::string(value) == "TRUE";
    const bool refused = on && !c.refusal.empty();
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.err, refused ? c.refusal + "\n" : "");
    auto calls = Sandbox::sendmail_calls();
    calls.erase(calls.begin(), calls.begin() + static_cast<long>(earlier));
    ASSERT_EQ(calls.size(), refused ? 0u : 1u);
    if (!refused && !on) {
      if (!*value) unset_reply = calls[0].input;
      EXPECT_EQ(calls[0].input, unset_reply);
    }
    if (!refused) {
      const std::string fields =
          "Subject: Re: S\nAuto-Submitted: auto-replied\nIn-Reply-To: <m1@x>\nReferences: <m1@x>\n";
      EXPECT_EQ(calls[0].input.find(fields) != std::string::npos, on) << calls[0].input;
      EXPECT_EQ(calls[0].input.find("Auto-Submitted"),
                on ? calls[0].input.find(fields) + 15 : std::string::npos);
    }
    if (on) {
      EXPECT_THAT(explain(message, "info@example.org").out,
                  HasSubstr(refused ? "guards: refused: " + c.refusal + "\n"
                                    : "guards: passed; RFC 3834 rules on\n"));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    , RobotGuards,
    ::testing::Values(
        Robot{"AutoSubmittedAutoReplied", "Auto-Submitted: auto-replied\n",
              "Field Auto-Submitted: is not no"},
        Robot{"AutoSubmittedWithComment", "Auto-Submitted: auto-generated (x)\n",
              "Field Auto-Submitted: is not no"},
        Robot{"AutoSubmittedNo", "Auto-Submitted: No (human)\n", ""},
        Robot{"PrecedenceBulk", "Precedence: bulk\n", "Field Precedence: is bulk, junk or list"},
        Robot{"PrecedenceJunk", "Precedence: JUNK\n", "Field Precedence: is bulk, junk or list"},
        Robot{"PrecedenceList", "Precedence:  list\n", "Field Precedence: is bulk, junk or list"},
        Robot{"PrecedenceFirstClass", "Precedence: first-class\n", ""},
        Robot{"ListId", "List-Id: <x.example>\n", "Field List-Id: present"},
        Robot{"ListUnsubscribe", "List-unsubscribe: <mailto:u@x>\n",
              "Field List-Unsubscribe: present"},
        Robot{"ListPost", "LIST-POST: NO\n", "Field List-Post: present"},
        Robot{"EmptyReturnPath", "Return-Path: < >\n", "Field Return-Path: is empty"},
        Robot{"ReturnPathGiven", "Return-Path: <a@x>\n", ""},
        Robot{"OwnerSender", "", "Field From: is a mailing list address", "Owner-list@x"},
        Robot{"RequestSender", "", "Field From: is a mailing list address", "list-REQUEST@x"},
        Robot{"ListservSender", "", "Field From: is a mailing list address", "listserv@x"},
        Robot{"MajordomoSender", "", "Field From: is a mailing list address", "Majordomo@x"},
        Robot{"ListWordsElsewhere", "X-List: bulk\n", "", "owner@majordomo.example"},
        Robot{"RequestInTheMiddle", "", "", "a-request-b@x"}),
    panel::kCaseName);

// The Message-ID is repeated only when it can be a header line as it is.
TEST_F(Explain, UnusableMessageIdIsNotRepeated) {
  Sandbox::write_file("etc/ovk/ovk.conf",
                      Sandbox::read_file("etc/ovk/ovk.conf") + kRobotGuardsVariable + " on\n");
  for (const std::string& id : {std::string("<a b@x>"), std::string("none"),
                                "<" + std::string(kMessageIdMax - 1, 'x') + ">"}) {
    const std::size_t earlier = Sandbox::sendmail_calls().size();
    e2e::run_autoresponder("From: a@x\nMessage-ID: " + id + "\n\nHi\n", "info@example.org");
    const auto calls = Sandbox::sendmail_calls();
    ASSERT_EQ(calls.size(), earlier + 1);
    EXPECT_THAT(calls.back().input, HasSubstr("\nAuto-Submitted: auto-replied\nContent-Type"));
    TestDb::exec("DELETE FROM resp_freq");
  }
}

}  // namespace
