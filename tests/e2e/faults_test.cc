// Faults around a run: sendmail missing, standard input closed or cut short,
// standard error closed,
// /tmp full (a file-size limit), the database server shut down or killed
// while the run waits for it. Each run ends by itself with the described
// outcome, exit status 0 and no temporary file left. (responder_test has sendmail
// failing or leaving early and an attachment that cannot be opened,
// security_test attachments that are FIFOs, devices or directories.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using panel::Sandbox;
using panel::TestDb;

constexpr const char* kTo = "info@example.org";
const std::string kMessage = "From: sender@example.com\nSubject: hi\n\nHello\n";
// The panel rows: info@example.org of Ada's example.org, whose rule forwards
// to desk@example.org and attaches a.txt and gone.pdf, which is missing.
const std::string kRows =
    "INSERT INTO clients VALUES (1, 'owner@client.example', 'Ada', 'ada');"
    "INSERT INTO domains VALUES (1, 'example.org', 1);"
    "INSERT INTO mail (id, mail_name, dom_id) VALUES (1, 'info', 1);"
    "INSERT INTO mail_resp (id, mn_id, resp_on, text) VALUES (1, 1, 'true', 'Thanks');"
    "INSERT INTO resp_forward (rn_id, address) VALUES (1, 'desk@example.org');"
    "INSERT INTO resp_attach (rn_id, filename) VALUES (1, 'a.txt'), (1, 'gone.pdf')";

class Faults : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::exec_all(kRows);
    Sandbox::write_attachment("example.org", "info", "a.txt", "a\n");
  }
};

struct Fault {
  const char* name;
  std::function<void()> arrange = [] {};
  std::string err = "";
  std::size_t sendmail_calls = 3;        // forward, notice, reply
  const char* start = "exec \"$0\"";     // the shell that starts the program ($0)
  std::optional<rlim_t> file_size = {};  // a full /tmp
  std::string message = ::kMessage;
  std::string forwarded = ::kMessage + "\n";  // what the forward carries
};

class FaultRun : public Faults, public ::testing::WithParamInterface<Fault> {};

TEST_P(FaultRun, EndsCleanly) {
  const Fault& fault = GetParam();
  fault.arrange();
  const e2e::RunResult run =
      e2e::run_program({"/bin/sh", "-c", fault.start, e2e::autoresponder_path()}, fault.message,
                       kTo, {}, {.file_size = fault.file_size});
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, fault.err);
  EXPECT_TRUE(Sandbox::tmp_files().empty());
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), fault.sendmail_calls);
  if (calls.empty()) return;
  EXPECT_EQ(calls[0].argv.back(), "desk@example.org");
  EXPECT_EQ(calls[0].input, fault.forwarded);
  EXPECT_EQ(TestDb::scalar("SELECT num FROM resp_freq"), "1");
  // The reply keeps the attachment that can be read.
  EXPECT_NE(calls.back().input.find("\nYQo=\n"), std::string::npos);
}

const std::string kLong = "From: sender@example.com\n\n" + std::string(64 << 10, 'x') + "\n";
// What a missing sendmail leaves: each child's own report, then the run's.
std::string sendmail_missing() {
  std::string err;
  for (const char* what : {"forward", "notice", "reply"}) {
    err += "fork_execv: execv(\"" + Sandbox::path("usr/sbin/sendmail") +
           "\") failed: No such file or directory\nautoresponder: sendmail for the " + what +
           " exited with status 255\n";
  }
  return err;
}
// A body whose charset the converter does not know: its report comes while
// the stored copy is open.
const std::string kUnknownCharset =
    "From: sender@example.com\nContent-Type: text/plain; charset=x-none\n\nHello\n";
const std::string kNoSender =
    "Could not get sender's e-mail address from Reply-To: or From: headers.\nAbnormal exit.\n";

INSTANTIATE_TEST_SUITE_P(
    , FaultRun,
    ::testing::Values(Fault{.name = "SendmailMissing",
                            .arrange = [] { Sandbox::remove_file("usr/sbin/sendmail"); },
                            .err = sendmail_missing(),
                            .sendmail_calls = 0},
                      Fault{.name = "StderrClosedKeepsReportsOutOfTheCopy",
                            .start = "exec \"$0\" 2>&-",
                            .message = kUnknownCharset,
                            .forwarded = kUnknownCharset + "\n"},
                      Fault{.name = "StdinClosed",
                            .err = kNoSender,
                            .sendmail_calls = 0,
                            .start = "exec \"$0\" <&-"},
                      Fault{.name = "StdinCutShort",
                            .start = "head -c 60 | \"$0\"",
                            .message = kMessage + std::string(100, 'y'),
                            .forwarded = kMessage + std::string(16, 'y') + "\n"},
                      Fault{.name = "TmpFullInTheBody",
                            .file_size = 16 << 10,
                            .message = kLong,
                            .forwarded = kLong.substr(0, 16 << 10)},
                      Fault{
                          .name = "TmpFullInTheHeader",
                          .err = kNoSender,
                          .sendmail_calls = 0,
                          .file_size = 16 << 10,
                          .message = "Received: " + std::string(32 << 10, 'r') + "\n" + kMessage}),
    panel::kCaseName);

// The server goes away while the run waits for its first resp_freq statement
// (held by a table lock of the test's own): the statement fails, the run
// reports it and ends through the clean-up, and nothing is sent.
class ServerLost : public Faults, public ::testing::WithParamInterface<int> {};

TEST_P(ServerLost, WhileTheRunWaitsForIt) {
  e2e::ExtraServer server("faults", "");
  std::istringstream rows(kRows + ";LOCK TABLES resp_freq WRITE");
  for (std::string row; std::getline(rows, row, ';');) server.exec(row);
  e2e::RunResult run;
  std::thread program([&] {
    run = e2e::run_autoresponder(kMessage, kTo, {{"MYSQL_UNIX_PORT", server.socket()}});
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (server.scalar("SELECT COUNT(*) FROM information_schema.processlist "
                       "WHERE info LIKE 'delete from resp_freq%'") != "1" &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  server.kill(GetParam());
  program.join();
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err,
            "autoresponder: Unable to exec query :Lost connection to server during query\n");
  EXPECT_TRUE(Sandbox::sendmail_calls().empty());
  EXPECT_TRUE(Sandbox::tmp_files().empty());
}

INSTANTIATE_TEST_SUITE_P(, ServerLost, ::testing::Values(SIGTERM, SIGKILL), [](const auto& test) {
  return test.param == SIGTERM ? "ShutDown" : "Killed";
});

}  // namespace
