// Panel parameters against the private test server: the statements sent,
// absent versus failed lookups, the shared result buffer and its size limit,
// and the connection opened for a caller that passes none.
#include "lib/get_param.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "lib/dbconnect.h"
#include "lib/mysql_handle.h"
#include "lib/put.h"
#include "tests/harness/harness.h"

namespace e2e {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class GetParamTest : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    connection_.reset(db_connect());
    ASSERT_NE(connection_, nullptr);
    TestDb::clear_statement_log();
  }

  MYSQL* db() { return connection_.get(); }

  static std::string admin_connections() {
    return TestDb::scalar(
               "SELECT COUNT(*) FROM information_schema.processlist "
               "WHERE user='admin'")
        .value_or("?");
  }

 private:
  MysqlConnection connection_;
};

TEST_F(GetParamTest, ReadsTheNamedMiscRow) {
  TestDb::exec("INSERT INTO misc VALUES ('admin_email', 'admin@example.com')");
  const char* value = get_param("admin_email", db());
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value, "admin@example.com");
  EXPECT_THAT(TestDb::statements_sent(),
              ElementsAre("select val from misc where param='admin_email'"));
}

TEST_F(GetParamTest, AbsentRowAndNullValueAreEmptyNotNull) {
  TestDb::exec("INSERT INTO misc VALUES ('FullHostName', NULL)");
  for (const char* name : {"FullHostName", "no_such_param"}) {
    const char* value = get_param(name, db());
    ASSERT_NE(value, nullptr) << name;
    EXPECT_STREQ(value, "") << name;
  }
}

TEST_F(GetParamTest, EveryCallReusesOneBuffer) {
  TestDb::exec("INSERT INTO misc VALUES ('a', 'first'), ('b', 'second')");
  const char* first = get_param("a", db());
  const char* second = get_param("b", db());
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "second");
  EXPECT_EQ(get_param("missing", db()), first);
  EXPECT_STREQ(first, "");
}

TEST_F(GetParamTest, LongValueIsCutTo4095Characters) {
  const std::string long_value(5000, 'v');
  TestDb::exec("INSERT INTO misc VALUES ('long', '" + long_value + "')");
  EXPECT_EQ(std::string(get_param("long", db())), long_value.substr(0, 4095));
}

TEST_F(GetParamTest, SimpleLookupNamesAnyTableAndColumns) {
  TestDb::exec("INSERT INTO domains (name, cl_id) VALUES ('example.com', 7)");
  EXPECT_STREQ(get_param_simple("example.com", "domains", "name", "cl_id", db()), "7");
  EXPECT_THAT(TestDb::statements_sent(),
              ElementsAre("select cl_id from domains where name='example.com'"));
}

TEST_F(GetParamTest, QueryTakesTheChosenColumnOfTheFirstRow) {
  TestDb::exec("INSERT INTO misc VALUES ('p1', 'one'), ('p2', 'two')");
  const char* query = "select param, val, NULL from misc where param like 'p%' order by param";
  EXPECT_STREQ(get_param_query(query, db()), "p1");
  EXPECT_STREQ(get_param_from_bigquery(query, db(), 1), "one");
  EXPECT_STREQ(get_param_from_bigquery(query, db(), 2), "");
  EXPECT_STREQ(get_param_from_bigquery(query, db(), 3), "");  // no such column
}

TEST_F(GetParamTest, FailedQueryIsReportedAndGivesNull) {
  PROGNAME = "/usr/local/ovk/admin/bin/get_param_test";
  errno = 0;
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  const char* value = get_param_query("select nothing from nowhere", db());
  const std::string err = ::testing::internal::GetCapturedStderr();
  const std::string out = ::testing::internal::GetCapturedStdout();
  PROGNAME = nullptr;

  EXPECT_EQ(value, nullptr);
  const std::string line =
      "get_param_test: Unable to query parameter by query select nothing from nowhere: "
      "Table 'ovk.nowhere' doesn't exist\n";
  EXPECT_THAT(err, StartsWith(line));
  EXPECT_THAT(out, StartsWith(line));
  EXPECT_EQ(mysql_ping(db()), 0) << "the caller's connection stays open";
}

TEST_F(GetParamTest, OverlongStatementIsCutTo4095Characters) {
  const std::string name(5000, 'n');
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(get_param(name.c_str(), db()), nullptr);  // the cut leaves the quote open
  ::testing::internal::GetCapturedStderr();
  ::testing::internal::GetCapturedStdout();

  const auto sent = TestDb::statements_sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0], ("select val from misc where param='" + name).substr(0, 4095));
}

TEST_F(GetParamTest, WithoutAConnectionOpensAndClosesItsOwn) {
  TestDb::exec("INSERT INTO misc VALUES ('admin_email', 'root@example.com')");
  EXPECT_EQ(admin_connections(), "1");  // the fixture's
  EXPECT_STREQ(get_param("admin_email", nullptr), "root@example.com");
  EXPECT_THAT(TestDb::statements_sent(),
              ElementsAre("set foreign_key_checks=0", "SHOW VARIABLES LIKE 'version'",
                          "SELECT val FROM misc WHERE param='mysql41_compatible'", "SET NAMES utf8",
                          "select val from misc where param='admin_email'"));
  EXPECT_EQ(admin_connections(), "1");
}

TEST_F(GetParamTest, WithTheServerDownReportsTwiceAndGivesNull) {
  const RunResult run = run_program({OVK_DBCONNECT_PROBE, "param:admin_email"}, "", std::nullopt,
                                    {{"MYSQL_UNIX_PORT", "/nonexistent/ovk.sock"}});
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_THAT(run.err, StartsWith("dbconnect_probe: Unable to connect to Orvik Database: "));
  EXPECT_THAT(run.err, HasSubstr("\ndbconnect_probe: Unable to connect to the mysql database\n"));
  EXPECT_THAT(run.out, HasSubstr("\ndbconnect_probe: Unable to connect to the mysql database\n"));
  EXPECT_THAT(run.out, EndsWith("\nget_param: null\n"));
}

}  // namespace
}  // namespace e2e
