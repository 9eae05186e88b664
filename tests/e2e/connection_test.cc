// The run's database connection when it cannot be had: no password file, an
// empty one, a wrong password, no server. The connection layer's reason goes
// through the message log (program name, both streams), the responder adds
// its own line on standard error, and the run still ends cleanly with status 0.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string kRecipient = "info@example.com";

struct ConnectionCase {
  const char* name;
  std::function<std::map<std::string, std::string>()> arrange;  // gives extra environment
  std::string reason;  // the start of the connection layer's message
  friend void PrintTo(const ConnectionCase& c, std::ostream* os) { *os << c.name; }
};

class Connection : public e2e::EndToEndTest,
                   public ::testing::WithParamInterface<ConnectionCase> {};

TEST_P(Connection, AFailedConnectionEndsTheRunCleanly) {
  panel::add_domain(1, "example.com");
  panel::add_mailbox(10, 1, "info");
  panel::add_rule(1, 10, {});
  const auto extra_env = GetParam().arrange();

  const e2e::RunResult run = e2e::run_autoresponder(
      panel::message("alice@sender.example", kRecipient, "Hi", "x\n"), kRecipient, extra_env);

  EXPECT_EQ(run.exit_status, 0);
  // The message log writes the same text on both streams; the responder's
  // own line follows on standard error only.
  EXPECT_THAT(run.out, StartsWith("autoresponder: " + GetParam().reason));
  EXPECT_EQ(run.err, run.out + "autoresponder: Unable to connect to the mysql database \n");
  EXPECT_THAT(e2e::Sandbox::tmp_files(), IsEmpty());
  EXPECT_EQ(panel::sendmail_count(), 0);
  EXPECT_THAT(e2e::TestDb::statements_sent(), IsEmpty());
}

using Env = std::map<std::string, std::string>;

INSTANTIATE_TEST_SUITE_P(
    , Connection,
    ::testing::Values(
        ConnectionCase{"PasswordFileMissing",
                       [] {
                         e2e::Sandbox::remove_file("etc/ovk/.ovk.shadow");
                         return Env{};
                       },
                       "Unable to open admin password file: No such file or directory\n"},
        ConnectionCase{"PasswordFileEmpty",
                       [] {
                         e2e::Sandbox::write_file("etc/ovk/.ovk.shadow", "");
                         return Env{};
                       },
                       "Unable to read admin password file: "},
        ConnectionCase{"WrongPassword",
                       [] {
                         e2e::Sandbox::write_file("etc/ovk/.ovk.shadow", "not-the-password\n");
                         return Env{};
                       },
                       "Unable to connect to Orvik Database: Access denied for user "
                       "'admin'@'localhost'"},
        ConnectionCase{"ServerDown",
                       [] {
                         return Env{{"MYSQL_UNIX_PORT", e2e::Sandbox::path("no-server.sock")}};
                       },
                       "Unable to connect to Orvik Database: "}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
