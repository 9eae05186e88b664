// Several mail hosts, each with a node of one database cluster: deliveries
// spread over the three nodes of the fixture's cluster (start_cluster.sh),
// 8 at a time. Each sender gets exactly the answers its rules allow, however
// the runs meet on the nodes; resp_freq holds one row per rule and sender.
// The tests run in this order in one process: the last kills a node.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mysql.h>
#include <signal.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "autoresponder/responder/frequency.h"
#include "lib/mysql_handle.h"
#include "tests/harness/harness.h"

namespace {

using e2e::RunResult;
using e2e::Sandbox;
using testing::EndsWith;
using Answers = std::map<std::pair<int, std::string>, int>;  // (rule, sender): count

constexpr int kNodes = 3;
constexpr int kDeliveries = 300;
constexpr int kSenders = 10;
constexpr char kNoConnection[] = "autoresponder: Unable to connect to the mysql database \n";
const std::map<int, int> kDailyLimit = {{1, 1}, {2, 3}};

std::string node_file(int node, const char* name) {
  std::ifstream in(std::string(OVK_CLUSTER_DIR) + "/node" + std::to_string(node) + "/" + name);
  std::string line;
  std::getline(in, line);
  return line;
}

class Cluster : public ::testing::Test {
 protected:
  static std::string socket(int node) { return node_file(node, "socket"); }

  static MYSQL* root(int node) {
    static MysqlConnection connections[kNodes + 1];
    MysqlConnection& connection = connections[node];
    if (!connection) {
      connection.reset(mysql_init(nullptr));
      if (mysql_real_connect(connection.get(), nullptr, "root", nullptr, "ovk", 0,
                             socket(node).c_str(), 0) == nullptr) {
        ADD_FAILURE() << "node " << node << ": " << mysql_error(connection.get());
      }
    }
    return connection.get();
  }

  static void exec(const std::string& statement, int node = 1) {
    ASSERT_EQ(mysql_query(root(node), statement.c_str()), 0)
        << statement << ": " << mysql_error(root(node));
  }

  void SetUp() override {
    ASSERT_FALSE(socket(1).empty()) << "no cluster: run through ctest (fixture cluster)";
    Sandbox::reset();
    for (const char* table : {"domains", "mail", "mail_resp", "resp_freq"}) {
      exec(std::string("DELETE FROM ") + table);
    }
    exec(
        "INSERT INTO misc (param, val) SELECT 'mysql41_compatible', 'true' FROM DUAL WHERE NOT "
        "EXISTS (SELECT 1 FROM misc WHERE param='mysql41_compatible')");
    exec("INSERT INTO domains (id, name) VALUES (1, 'example.org')");
    exec("INSERT INTO mail (id, mail_name, dom_id) VALUES (1, 'info', 1)");
    for (const auto& [rule, limit] : kDailyLimit) {
      exec("INSERT INTO mail_resp (id, mn_id, resp_on, text, ans_freq) VALUES (" +
           std::to_string(rule) + ", 1, 'true', 'rule " + std::to_string(rule) + "', '" +
           std::to_string(limit) + "')");
    }
  }

  // Six deliveries in a row, two on each node, come from one sender, so
  // that runs for one sender meet on different nodes.
  static std::string sender(int i) {
    return "s" + std::to_string(i / 6 % kSenders) + "@example.com";
  }

  // The load; before delivery `before` starts, `event` runs (once).
  static std::vector<RunResult> deliver(int before = -1, const std::function<void()>& event = {}) {
    std::vector<RunResult> runs(kDeliveries);
    std::atomic<int> next{0};
    std::mutex event_mutex;
    std::vector<std::thread> workers(8);
    for (std::thread& worker : workers) {
      worker = std::thread([&] {
        for (int i; (i = next++) < kDeliveries;) {
          if (i == before) {
            std::lock_guard<std::mutex> hold(event_mutex);
            event();
          }
          runs[i] = e2e::run_program({e2e::autoresponder_path()},
                                     "From: " + sender(i) + "\nSubject: hi\n\nHello\n",
                                     "info@example.org", {{"MYSQL_UNIX_PORT", socket(node_of(i))}});
        }
      });
    }
    for (std::thread& worker : workers) worker.join();
    return runs;
  }

  static int node_of(int delivery) { return 1 + delivery % kNodes; }

  static Answers replies() {
    Answers sent;
    for (const e2e::SendmailCall& call : Sandbox::sendmail_calls()) {
      ++sent[{call.input[call.input.find("rule ") + 5] - '0', call.argv.back()}];
    }
    return sent;
  }

  static Answers counted(int node) {
    Answers rows;
    EXPECT_EQ(mysql_query(root(node), "SELECT rn_id, email, num FROM resp_freq"), 0);
    MysqlResult result(mysql_store_result(root(node)));
    while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
      auto [entry, added] =
          rows.emplace(std::pair{std::stoi(row[0]), std::string(row[1])}, std::stoi(row[2]));
      EXPECT_TRUE(added) << "a second row for rule " << row[0] << " and " << row[1];
    }
    return rows;
  }

  static Answers allowed() {
    Answers all;
    for (int s = 0; s < kSenders; ++s) {
      for (const auto& [rule, limit] : kDailyLimit) all[{rule, sender(6 * s)}] = limit;
    }
    return all;
  }
};

TEST_F(Cluster, EverySenderGetsExactlyTheAllowedAnswers) {
  const std::vector<RunResult> runs = deliver();
  for (int i = 0; i < kDeliveries; ++i) {
    EXPECT_EQ(runs[i].exit_status, 0) << i;
    EXPECT_EQ(runs[i].err, "") << i;
  }
  EXPECT_EQ(replies(), allowed());
  for (int node = 1; node <= kNodes; ++node) EXPECT_EQ(counted(node), allowed()) << node;
}

// Without the unique key the program goes on, answers, and says why the
// count may not be exact, once per run.
TEST_F(Cluster, AMissingUniqueKeyIsReportedOncePerRun) {
  exec("ALTER TABLE resp_freq DROP KEY rule_sender");
  std::vector<RunResult> runs;
  for (int i = 0; i < 3; ++i) {
    runs.push_back(e2e::run_program({e2e::autoresponder_path()}, "From: a@x\n\nHi\n",
                                    "info@example.org", {{"MYSQL_UNIX_PORT", socket(1 + i)}}));
  }
  exec("ALTER TABLE resp_freq ADD UNIQUE KEY rule_sender (rn_id, email)");
  for (const RunResult& run : runs) {
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.err,
              "autoresponder: resp_freq has no unique key over rn_id and email; a new sender "
              "answered on two hosts at once may be counted twice\n");
  }
  EXPECT_EQ(replies(), (Answers{{{1, "a@x"}, 1}, {{2, "a@x"}, 3}}));
}

// A cluster node's count, tried and rolled back: it tells what it would do
// and leaves the table as it was.
TEST_F(Cluster, ATrialCountChangesNothing) {
  exec("INSERT INTO resp_freq (rn_id, email, num) VALUES (2, 'known@x', 2)");
  const Count_policy policy = count_policy_for(root(2));
  EXPECT_TRUE(policy.in_transaction && policy.lock_sender_row);
  for (const char* from : {"known@x", "new@x"}) {
    Mail_content mail;
    mail.from = from;
    EXPECT_EQ(can_response_freq(root(2), &mail, "2", "3", "1000", trial_of(policy)), 1) << from;
  }
  EXPECT_EQ(counted(1), (Answers{{{2, "known@x"}, 2}}));
}

TEST_F(Cluster, AKilledNodeLeavesTheOthersExact) {
  const int dead = 3;
  const int killed_before = kDeliveries / 4;
  const std::vector<RunResult> runs = deliver(killed_before, [&] {
    const pid_t pid = std::stoi(node_file(dead, "launched.pid"));
    ASSERT_EQ(kill(pid, SIGKILL), 0);
  });
  for (int i = 0; i < kDeliveries; ++i) {
    EXPECT_EQ(runs[i].exit_status, 0) << i;
    if (node_of(i) != dead) {
      EXPECT_EQ(runs[i].err, "") << i;
    } else if (i >= killed_before + 8) {  // later than every run in flight at the kill
      EXPECT_THAT(runs[i].err, EndsWith(kNoConnection)) << i;
    }
  }
  EXPECT_EQ(replies(), allowed());
  for (int node = 1; node <= kNodes; ++node) {
    if (node != dead) {
      EXPECT_EQ(counted(node), allowed()) << node;
    }
  }
}

}  // namespace
