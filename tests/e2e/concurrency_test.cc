// Twenty deliveries from one sender to one rule, run at the same moment:
// the answer count stays exact, so the sender gets exactly the rule's daily
// number of answers and not one more.
//
// The runs are held at their first resp_freq statement by a table lock of
// the test's own until all twenty wait there, then let go together, so their
// checks really overlap. The harness's runner is synchronous and shares its
// scratch files, so the processes are started here, each with files of its own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lib/mysql_handle.h"
#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

extern char** environ;

namespace {

using ::testing::IsEmpty;

const std::string kSender = "alice@sender.example";
const std::string kRecipient = "info@example.com";
constexpr int kRuns = 20;
constexpr auto kGatherTimeout = std::chrono::seconds(30);

struct Started_run {
  pid_t pid = -1;
  std::string err_file;  // relative to the sandbox
};

// Starts the program on `message_file` with its output in files named after `index`.
Started_run start_run(int index, const std::string& message_file) {
  Started_run run;
  const std::string base = "concurrency/run" + std::to_string(index);
  const std::string out_file = e2e::Sandbox::path(base + ".out");
  run.err_file = base + ".err";
  const std::string err_file = e2e::Sandbox::path(run.err_file);

  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string e = *entry;
    if (!panel::starts_with(e, "RESP_RECIPIENT=") && !panel::starts_with(e, "MYSQL_UNIX_PORT=")) {
      env.push_back(e);
    }
  }
  env.push_back("RESP_RECIPIENT=" + kRecipient);
  env.push_back("MYSQL_UNIX_PORT=" + e2e::TestDb::socket_path());
  std::vector<char*> env_block;
  for (std::string& e : env) env_block.push_back(e.data());
  env_block.push_back(nullptr);
  std::string program = e2e::autoresponder_path();
  char* argv[] = {program.data(), nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, message_file.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  const int error =
      posix_spawn(&run.pid, program.c_str(), &actions, nullptr, argv, env_block.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) ADD_FAILURE() << "posix_spawn: " << std::strerror(error);
  return run;
}

// A second root connection: the harness's own one keeps serving queries
// while this one holds the table lock.
MysqlConnection gate_connection() {
  MysqlConnection connection(mysql_init(nullptr));
  if (mysql_real_connect(connection.get(), "localhost", "root", "", "ovk", 0,
                         e2e::TestDb::socket_path().c_str(), 0) == nullptr) {
    ADD_FAILURE() << "gate connection: " << mysql_error(connection.get());
  }
  return connection;
}

void gate_exec(MYSQL* connection, const std::string& statement) {
  ASSERT_EQ(mysql_query(connection, statement.c_str()), 0) << mysql_error(connection);
}

// The number of program connections waiting at their first resp_freq statement.
int runs_waiting() {
  return std::stoi(
      e2e::TestDb::scalar("SELECT COUNT(*) FROM information_schema.processlist WHERE user='admin' "
                          "AND info LIKE 'delete from resp_freq%'")
          .value_or("0"));
}

class Concurrency : public e2e::EndToEndTest, public ::testing::WithParamInterface<int> {};

TEST_P(Concurrency, SimultaneousRunsCountEveryAnswerOnce) {
  const int ans_freq = GetParam();
  panel::add_domain(1, "example.com");
  panel::add_mailbox(10, 1, "info");
  panel::Rule rule;
  rule.ans_freq = std::to_string(ans_freq);
  panel::add_rule(1, 10, rule);
  e2e::Sandbox::write_file("concurrency/message.eml",
                           panel::message(kSender, kRecipient, "Hello", "Hi there.\n"));

  MysqlConnection gate = gate_connection();
  ASSERT_TRUE(gate);
  gate_exec(gate.get(), "LOCK TABLES resp_freq WRITE");
  std::vector<Started_run> runs;
  for (int i = 0; i < kRuns; ++i) {
    runs.push_back(start_run(i, e2e::Sandbox::path("concurrency/message.eml")));
  }
  const auto deadline = std::chrono::steady_clock::now() + kGatherTimeout;
  while (runs_waiting() < kRuns && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(runs_waiting(), kRuns) << "not every run reached the check";
  gate_exec(gate.get(), "UNLOCK TABLES");

  for (Started_run& run : runs) {
    int status = 0;
    ASSERT_EQ(waitpid(run.pid, &status, 0), run.pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_EQ(e2e::Sandbox::read_file(run.err_file), "");
  }

  EXPECT_EQ(e2e::TestDb::scalar("SELECT COUNT(*) FROM resp_freq"), "1");
  EXPECT_EQ(panel::answer_count(1, kSender), std::to_string(ans_freq));
  EXPECT_EQ(panel::sendmail_count(), ans_freq);
  EXPECT_THAT(e2e::Sandbox::tmp_files(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, Concurrency, ::testing::Values(1, 5),
                         [](const auto& test) { return "Limit" + std::to_string(test.param); });

}  // namespace
