// The panel database connection and parameters; the probe program meets no server.
#include "lib/dbconnect.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "lib/get_param.h"
#include "lib/mysql_handle.h"
#include "tests/harness/harness.h"

namespace e2e {
namespace {

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

const char kShadow[] = "etc/ovk/.ovk.shadow";

std::vector<std::string> setup_statements(bool utf8) {
  return {"set foreign_key_checks=0", "SHOW VARIABLES LIKE 'version'",
          "SELECT val FROM misc WHERE param='mysql41_compatible'",
          utf8 ? "SET NAMES utf8" : "SET NAMES binary"};
}

// name, password file, server password (null: the sandbox's). A missing or empty file:
// responder_test's NoConnection runs.
using Password_case = std::tuple<const char*, std::string, const char*>;
const Password_case kPasswords[] = {
    {"LineFeedEnded", TestDb::admin_password() + "\n", nullptr},
    {"WithoutLineFeed", TestDb::admin_password(), nullptr},
    {"CarriageReturnKept", "pw\r\n", "pw\\r"},
};

class PasswordFileTest : public EndToEndTest, public testing::WithParamInterface<Password_case> {};

TEST_P(PasswordFileTest, ConnectsWithTheFirstLine) {
  const auto& [name, file, server_password] = GetParam();
  if (server_password) {
    TestDb::exec("SET PASSWORD FOR 'admin'@'localhost' = PASSWORD('" +
                 std::string(server_password) + "')");
  }
  Sandbox::write_file(kShadow, file);
  char message[4097] = "";
  const MysqlConnection connection(orvik_db_connect(message, sizeof message));
  EXPECT_NE(connection, nullptr) << message;
  EXPECT_STREQ(message, "");
}

INSTANTIATE_TEST_SUITE_P(Cases, PasswordFileTest, ::testing::ValuesIn(kPasswords),
                         [](const auto& p) { return std::string(std::get<0>(p.param)); });

using Charset_case = std::tuple<const char*, const char*, bool>;  // name, misc value, utf8
const Charset_case kCharsets[] = {
    {"True", "'true'", true}, {"AnyOtherText", "'no'", true}, {"False", "'false'", false},
    {"Empty", "''", false},   {"Null", "NULL", false},        {"NoRow", nullptr, false},
};
class CharacterSetTest : public EndToEndTest, public testing::WithParamInterface<Charset_case> {};

// misc's mysql41_compatible (an SQL literal, null: no row) chooses the client charset.
TEST_P(CharacterSetTest, FollowsThePanelParameter) {
  const auto [name, sql, utf8] = GetParam();
  TestDb::exec("DELETE FROM misc");
  if (sql) TestDb::exec("INSERT INTO misc VALUES ('mysql41_compatible', " + std::string(sql) + ")");
  TestDb::clear_statement_log();
  char message[4097] = "";
  const MysqlConnection connection(orvik_db_connect(message, sizeof message));
  ASSERT_NE(connection, nullptr) << message;
  EXPECT_EQ(_mysql41_compatible, utf8 ? 1 : 0);
  EXPECT_THAT(TestDb::statements_sent(), ElementsAreArray(setup_statements(utf8)));
  ASSERT_EQ(mysql_query(connection.get(), "SELECT @@character_set_client"), 0);
  const MysqlResult result(mysql_store_result(connection.get()));
  EXPECT_STREQ(mysql_fetch_row(result.get())[0], utf8 ? "utf8mb3" : "binary");
}

INSTANTIATE_TEST_SUITE_P(Cases, CharacterSetTest, ::testing::ValuesIn(kCharsets),
                         [](const auto& p) { return std::string(std::get<0>(p.param)); });

class DbConnectTest : public EndToEndTest {};

// db_connect reports once; get_param with no connection reports its own failure as well.
TEST_F(DbConnectTest, ServerDownIsReportedAndGivesNull) {
  const RunResult run = run_program({OVK_DBCONNECT_PROBE, "db_connect", "param:admin_email"}, "",
                                    std::nullopt, {{"MYSQL_UNIX_PORT", "/nonexistent/ovk.sock"}});
  EXPECT_EQ(run.exit_status, 0);
  const std::string down =
      "dbconnect_probe: Unable to connect to Orvik Database: Can't connect to local server "
      "through socket '/nonexistent/ovk.sock' (2)\n";
  EXPECT_THAT(run.err, testing::StartsWith(down));
  EXPECT_THAT(run.out, HasSubstr("\ndb_connect: null\n" + down));
  EXPECT_THAT(run.err, HasSubstr("\ndbconnect_probe: Unable to connect to the mysql database\n"));
  EXPECT_THAT(run.out, testing::EndsWith("\nget_param: null\n"));
}

// Without a connection get_param opens and closes its own; every call returns the same buffer.
TEST_F(DbConnectTest, GetParamSharesOneBufferCutAt4095) {
  TestDb::exec("INSERT INTO misc VALUES ('a', 'first'), ('long', '" + std::string(5000, 'v') +
               "')");
  const char* first = get_param("a", nullptr);
  EXPECT_STREQ(first, "first");
  std::vector<std::string> expected = setup_statements(true);
  expected.push_back("select val from misc where param='a'");
  EXPECT_THAT(TestDb::statements_sent(), ElementsAreArray(expected));
  EXPECT_EQ(
      TestDb::scalar("SELECT COUNT(*) FROM information_schema.processlist WHERE user='admin'"),
      "0");
  const MysqlConnection connection(db_connect());
  EXPECT_EQ(get_param("missing", connection.get()), first);
  EXPECT_STREQ(first, "");
  EXPECT_EQ(get_param("long", connection.get()), first);
  EXPECT_EQ(std::string(first), std::string(4095, 'v'));
}

}  // namespace
}  // namespace e2e
