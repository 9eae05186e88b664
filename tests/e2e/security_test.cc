// What a hostile caller, sender or database writer can reach, through the
// real program: a set-user-ID start by an unprivileged user with a hostile
// environment, umask 000 and a file-size limit; reply files of one run;
// senders and forwarding addresses that sendmail would read as options;
// recipients with quotes on a server that runs NO_BACKSLASH_ESCAPES;
// attachments that are no regular files of the repository; rule columns with
// line feeds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using panel::Sandbox;
using panel::TestDb;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr const char* kTo = "info@example.org";
const std::string kMessage = "From: sender@example.com\nSubject: hi\n\nHello\n";
const std::string kAttachDir = "var/qmail/mailnames/example.org/info/@attachments/";

class Security : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::exec_all(
        "INSERT INTO clients VALUES (1, 'owner@client.example', 'Ada', 'ada');"
        "INSERT INTO domains VALUES (1, 'example.org', 1);"
        "INSERT INTO mail (id, mail_name, dom_id) VALUES (1, 'info', 1)");
    panel::add_rule(1, 1);
  }
};

// The context line of a reply handed over from a new 0600 response file.
const char kFreshReplyFile[] = ".*/tmp/ovk-response-uu-[A-Za-z0-9]{6} umask=[0-7]+ cwd=.*\n";

// Started by an unprivileged user: a set-user-ID root copy, run in a mount
// namespace of its own whose /run/mysqld/mysqld.sock (the client library's
// default, since the privileged start drops MYSQL_UNIX_PORT) leads to the
// test database, by "nobody" with a hostile environment, umask 000 and a
// 4 KiB file-size limit that the 64 KiB message passes.
TEST_F(Security, SetUserIdStartGivesSendmailNothingOfTheCaller) {
  const passwd* nobody = getpwnam("nobody");
  if (geteuid() != 0 || nobody == nullptr) GTEST_SKIP() << "needs root and a user nobody";
  if (std::system("unshare -m true 2>/dev/null") != 0) GTEST_SKIP() << "needs mount namespaces";
  const std::string copy = Sandbox::path("autoresponder-setuid");
  std::filesystem::copy_file(e2e::autoresponder_path(), copy);
  ASSERT_EQ(chmod(copy.c_str(), 04755), 0);
  Sandbox::write_file("bash_env", "touch " + Sandbox::path("bash_env_ran") + "\n");
  const std::string script =
      "mount -t tmpfs none /run && mkdir /run/mysqld &&"
      " ln -s \"$SOCKET\" /run/mysqld/mysqld.sock || exit 99\n"
      "exec /usr/bin/setpriv --reuid=nobody --regid=nogroup --clear-groups /bin/sh -c"
      " 'umask 000; ulimit -f 8; cd /tmp; exec \"$0\"' \"$0\"";
  const std::string message =
      "From: sender@example.com\nSubject: hi\n\n" + std::string(64 << 10, 'x') + "\n";
  const e2e::RunResult run =
      e2e::run_program({"/usr/bin/unshare", "-m", "/bin/sh", "-c", script, copy}, message, kTo,
                       {{"SOCKET", TestDb::socket_path()},
                        {"BASH_ENV", Sandbox::path("bash_env")},
                        {"ENV", Sandbox::path("bash_env")},
                        {"QMAILQUEUE", "/tmp/evil"},
                        {"QMAILINJECT", "f"},
                        {"PERL5OPT", "-d"},
                        {"SHELLOPTS", "xtrace"},
                        {"PS4", "$(id)"},
                        {"PATH", "/tmp/evil:/usr/bin:/bin"}});
  EXPECT_EQ(run.exit_status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].environment, ElementsAre("PATH=/usr/bin:/bin"));
  EXPECT_THAT(calls[0].context, MatchesRegex("600 .*/tmp/ovk-response-uu-.{6} umask=0077 cwd=/\n"));
  EXPECT_THAT(calls[0].input, HasSubstr("Thank you for your message."));
  EXPECT_FALSE(Sandbox::exists("bash_env_ran"));
}

// Two answering rules (or their two size notices), started with umask 000:
// each reply is a new file of mode 0600 under a name not used before.
class TwoReplies : public Security, public testing::WithParamInterface<const char*> {};

TEST_P(TwoReplies, EachAFreshFileOfMode0600) {
  panel::add_rule(2, 1);
  if (std::string(GetParam()) == "SizeNotices")
    Sandbox::write_file("var/qmail/control/databytes", "10\n");
  const e2e::RunResult run = e2e::run_program(
      {"/bin/sh", "-c", "umask 000; exec \"$0\"", e2e::autoresponder_path()}, kMessage, kTo);
  EXPECT_EQ(run.err, "");
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  for (const auto& call : calls) {
    EXPECT_THAT(call.context, MatchesRegex(std::string("600 ") + kFreshReplyFile));
    EXPECT_THAT(call.context, HasSubstr("umask=0000"));
  }
  EXPECT_NE(calls[0].context, calls[1].context);
}

INSTANTIATE_TEST_SUITE_P(, TwoReplies, testing::Values("Replies", "SizeNotices"));

// Senders that sendmail would read as options are refused like the loop
// guards refuse; nothing is looked up or sent.
class DashSender : public Security, public testing::WithParamInterface<const char*> {};

TEST_P(DashSender, IsRefused) {
  const e2e::RunResult run =
      e2e::run_autoresponder(std::string("From: ") + GetParam() + "\nSubject: hi\n\nHello\n", kTo);
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, "Field From: begins with '-'\n");
  EXPECT_THAT(Sandbox::sendmail_calls(), IsEmpty());
  EXPECT_THAT(TestDb::statements_sent(), IsEmpty());
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, DashSender,
                         testing::Values("<-Xlog@example.org>", "<-oQ/x@example.org>",
                                         "<@a,@b:-oX@example.org>", "-f@example.org"),
                         [](const auto& p) { return "Case" + std::to_string(p.index); });

TEST_F(Security, DashForwardingAddressIsLeftOut) {
  panel::exec_all(
      "INSERT INTO resp_forward (rn_id, address) VALUES (1, '-oQ/x@example.org');"
      "INSERT INTO resp_forward (rn_id, address) VALUES (1, 'desk@example.org')");
  const e2e::RunResult run = e2e::run_autoresponder(kMessage, kTo);
  EXPECT_EQ(run.err,
            "autoresponder: Forwarding address begins with '-', left out: "
            "-oQ/x@example.org\n");
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].argv.back(), "desk@example.org");
  EXPECT_EQ(calls[0].argv.size(), 4u);
}

// The recipient's halves are escaped by the connection: on a server running
// NO_BACKSLASH_ESCAPES the statements are those of the default mode with
// each \' written '' instead, and the runs end alike: the mailbox with a
// quote in its name is answered, the injection finds nothing.
TEST_F(Security, RecipientQuotesUnderNoBackslashEscapes) {
  e2e::ExtraServer server("nobackslash", "--sql-mode=NO_BACKSLASH_ESCAPES");
  for (const char* table : {"mail_resp", "mail", "domains", "resp_freq", "resp_attach",
                            "resp_forward", "mail_aliases", "domainaliases"}) {
    server.exec(std::string("DELETE FROM ") + table);
  }
  server.exec("INSERT INTO domains (id, name) VALUES (1, 'example.org')");
  server.exec("REPLACE INTO misc (param, val) VALUES ('mysql41_compatible', 'true')");
  for (const char* row :
       {"INSERT INTO mail (id, mail_name, dom_id) VALUES (2, 'o''brien', 1)",
        "INSERT INTO mail_resp (id, mn_id, resp_on, text) VALUES (2, 2, 'true', 'Thanks')"}) {
    server.exec(row);
    TestDb::exec(row);
  }
  for (const std::string recipient :
       {"o'brien@example.org",
        "x'and extractvalue(1,concat(0x7e,(select val from misc limit 1)))#@example.org"}) {
    SCOPED_TRACE(recipient);
    TestDb::clear_statement_log();
    Sandbox::reset();
    const e2e::RunResult plain = e2e::run_autoresponder(kMessage, recipient);
    const auto plain_calls = Sandbox::sendmail_calls();
    std::vector<std::string> plain_statements = TestDb::statements_sent();
    Sandbox::reset();
    server.exec("TRUNCATE TABLE mysql.general_log");
    const e2e::RunResult strict =
        e2e::run_autoresponder(kMessage, recipient, {{"MYSQL_UNIX_PORT", server.socket()}});
    EXPECT_EQ(strict.err, plain.err);
    EXPECT_EQ(strict.exit_status, plain.exit_status);
    const auto strict_calls = Sandbox::sendmail_calls();
    ASSERT_EQ(strict_calls.size(), plain_calls.size());
    for (std::size_t i = 0; i < plain_calls.size(); ++i) {
      EXPECT_EQ(strict_calls[i].input, plain_calls[i].input);
    }
    for (std::string& s : plain_statements) s = std::regex_replace(s, std::regex(R"(\\')"), "''");
    EXPECT_EQ(server.statements_sent(), plain_statements);
  }
}

// Only regular files of the repository itself are attached: a symbolic link
// to /dev/zero, a FIFO, a directory and names with "/" or ".." count as
// missing (the notice lists them), the regular file goes out.
TEST_F(Security, AttachmentsAreRegularFilesOfTheRepository) {
  Sandbox::write_attachment("example.org", "info", "a.txt", "a\n");
  std::filesystem::create_directory(Sandbox::path(kAttachDir + "dir"));
  std::filesystem::create_symlink("/dev/zero", Sandbox::path(kAttachDir + "zero"));
  ASSERT_EQ(mkfifo(Sandbox::path(kAttachDir + "fifo").c_str(), 0600), 0);
  Sandbox::write_file("var/qmail/mailnames/example.org/info/secret", "s\n");
  for (const char* name : {"zero", "fifo", "dir", "../secret", "..", "dir/../a.txt", "a.txt"}) {
    TestDb::exec("INSERT INTO resp_attach (rn_id, filename) VALUES (1, " + panel::sql(name) + ")");
  }
  const e2e::RunResult run = e2e::run_autoresponder(kMessage, kTo);
  EXPECT_EQ(run.err, "");
  EXPECT_LT(run.seconds, e2e::kRunSecondsCeiling);
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].input, HasSubstr("':\nzero\nfifo\ndir\n../secret\n..\ndir/../a.txt\n\n"));
  EXPECT_THAT(calls[1].input, HasSubstr("filename=\"a.txt\"\n\nYQo=\n"));
  EXPECT_EQ(calls[1].input.find("filename=\"zero\""), std::string::npos);
}

// A regular attachment far larger than the size limit: composition stops
// once the reply is over it, and the size notice goes out at once.
TEST_F(Security, LargeAttachmentStopsAtTheSizeLimit) {
  const std::string big = Sandbox::path(kAttachDir + "big.bin");
  Sandbox::write_attachment("example.org", "info", "big.bin", "");
  std::filesystem::resize_file(big, std::uintmax_t{8} << 30);  // sparse
  TestDb::exec("INSERT INTO resp_attach (rn_id, filename) VALUES (1, 'big.bin')");
  Sandbox::write_file("var/qmail/control/databytes", "100000\n");
  const e2e::RunResult run = e2e::run_autoresponder(kMessage, kTo);
  EXPECT_EQ(run.err, "");
  EXPECT_LT(run.seconds, e2e::kRunSecondsCeiling);
  EXPECT_THAT(Sandbox::tmp_files(), IsEmpty());
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].input, HasSubstr("Autoresponder message size exceeds databytes limit."));
}

// Rule columns with line feeds and other control characters never make a
// header line of their own.
TEST_F(Security, RuleColumnsWithLineFeeds) {
  TestDb::exec(
      "UPDATE mail_resp SET reply_to='help@example.com\\nBcc: list@evil.example', "
      "content_type='text/plain\\nX-Type: 1', charset='UTF-8\\r\\nX-Charset: 1', "
      "subject='Auto\\nBcc: s@evil.example <request_subject>\\x01' WHERE id=1");
  TestDb::exec("UPDATE mail_resp SET subject=REPLACE(subject, 'x01', CHAR(1)) WHERE id=1");
  const e2e::RunResult run = e2e::run_autoresponder(kMessage, kTo);
  EXPECT_EQ(run.err, "");
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  const std::string& reply = calls[0].input;
  EXPECT_THAT(reply, HasSubstr("Reply-To: help@example.comBcc: list@evil.example\n"));
  EXPECT_THAT(reply, HasSubstr("Subject: AutoBcc: s@evil.example hi\n"));
  // The charset is unknown to the converter, so the text goes out as UTF-8.
  EXPECT_THAT(reply, HasSubstr("Content-Type: text/plainX-Type: 1; charset=\"UTF-8\"\n"));
  for (const char* field : {"\nBcc:", "\nX-Type:", "\nX-Charset:"}) {
    EXPECT_EQ(reply.find(field), std::string::npos) << field;
  }
}

}  // namespace
