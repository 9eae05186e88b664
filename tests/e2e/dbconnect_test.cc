// The panel database connection against the private test server: the
// password file, the session set-up statements and the client character
// set, the messages of every failing layer. Tests that need the client
// library to meet another server (an old version, none at all) run the
// probe program, since the library fixes its socket once per process.
#include "lib/dbconnect.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "lib/dbconnect_legacy.h"
#include "lib/mysql_handle.h"
#include "tests/harness/harness.h"

namespace e2e {
namespace {

using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr const char kPasswordFile[] = "etc/ovk/.ovk.shadow";

class DbConnectTest : public EndToEndTest {};

struct Connected {
  MysqlConnection handle;
  std::string message;
};

Connected connect_panel() {
  char message[4097] = "";
  MysqlConnection handle(orvik_db_connect(message, sizeof message));
  return {std::move(handle), message};
}

std::string character_set_client(MYSQL* connection) {
  EXPECT_EQ(mysql_query(connection, "SELECT @@character_set_client"), 0);
  MysqlResult result(mysql_store_result(connection));
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  return row && row[0] ? row[0] : "";
}

std::vector<std::string> setup_statements(const char* names) {
  return {"set foreign_key_checks=0", "SHOW VARIABLES LIKE 'version'",
          "SELECT val FROM misc WHERE param='mysql41_compatible'", names};
}

// ------------------------------------------------------------ password file

struct PasswordCase {
  const char* name;
  std::optional<std::string> file;             // nullopt: no password file
  std::optional<std::string> server_password;  // nullopt: the sandbox's
  const char* message;                         // "" when the connection succeeds
};

void PrintTo(const PasswordCase& c, std::ostream* os) {
  *os << c.name;
}

class PasswordFileTest : public EndToEndTest, public ::testing::WithParamInterface<PasswordCase> {};

TEST_P(PasswordFileTest, DecidesTheConnection) {
  const PasswordCase& c = GetParam();
  if (c.server_password) {
    TestDb::exec("SET PASSWORD FOR 'admin'@'localhost' = PASSWORD('" + *c.server_password + "')");
  }
  if (c.file) {
    Sandbox::write_file(kPasswordFile, *c.file);
  } else {
    Sandbox::remove_file(kPasswordFile);
  }

  const Connected result = connect_panel();
  if (std::string(c.message).empty()) {
    EXPECT_NE(result.handle, nullptr) << result.message;
  } else {
    EXPECT_EQ(result.handle, nullptr);
    EXPECT_EQ(result.message, c.message);
  }
}

const std::string kPw = TestDb::admin_password();
const std::string k99(99, 'p');

INSTANTIATE_TEST_SUITE_P(
    Cases, PasswordFileTest,
    ::testing::Values(
        PasswordCase{"LineFeedEnded", kPw + "\n", std::nullopt, ""},
        PasswordCase{"WithoutLineFeed", kPw, std::nullopt, ""},
        PasswordCase{"OnlyTheFirstLine", kPw + "\nsecond line\n", std::nullopt, ""},
        PasswordCase{"BlanksArePartOfIt", " " + kPw + "\n", std::nullopt,
                     "Unable to connect to Orvik Database: Access denied for user "
                     "'admin'@'localhost' (using password: YES)"},
        PasswordCase{"CarriageReturnIsPartOfIt", kPw + "\r\n", std::nullopt,
                     "Unable to connect to Orvik Database: Access denied for user "
                     "'admin'@'localhost' (using password: YES)"},
        PasswordCase{"CarriageReturnMatchesServer", "pw\r\n", "pw\\r", ""},
        PasswordCase{"CutAt99Characters", k99 + "ignored\n", k99, ""},
        PasswordCase{"EmptyLineIsNoPassword", "\n", std::nullopt,
                     "Unable to connect to Orvik Database: Access denied for user "
                     "'admin'@'localhost' (using password: NO)"},
        PasswordCase{"EmptyFile", "", std::nullopt, "Unable to read admin password file: Success"},
        PasswordCase{"Missing", std::nullopt, std::nullopt,
                     "Unable to open admin password file: No such file or directory"}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST_F(DbConnectTest, UnreadablePasswordFileIsAReadError) {
  // A directory opens for reading but cannot be read.
  Sandbox::remove_file(kPasswordFile);
  std::filesystem::create_directory(Sandbox::path(kPasswordFile));
  EXPECT_EQ(connect_panel().message, "Unable to read admin password file: Is a directory");
}

TEST_F(DbConnectTest, MessageIsCutToTheCallersBuffer) {
  Sandbox::remove_file(kPasswordFile);
  char message[10];
  std::memset(message, 'x', sizeof message);
  EXPECT_EQ(orvik_db_connect(message, sizeof message), nullptr);
  EXPECT_STREQ(message, "Unable to");
}

// ------------------------------------------------------------ session set-up

struct CharsetCase {
  const char* name;
  std::optional<std::optional<std::string>> misc_value;  // outer nullopt: no row
  const char* names_statement;
  int compatible;
  const char* client_charset;
};

void PrintTo(const CharsetCase& c, std::ostream* os) {
  *os << c.name;
}

class CharacterSetTest : public EndToEndTest, public ::testing::WithParamInterface<CharsetCase> {};

TEST_P(CharacterSetTest, FollowsThePanelParameter) {
  const CharsetCase& c = GetParam();
  TestDb::exec("DELETE FROM misc");
  if (c.misc_value) {
    const std::string value = *c.misc_value ? "'" + **c.misc_value + "'" : "NULL";
    TestDb::exec("INSERT INTO misc VALUES ('mysql41_compatible', " + value + ")");
  }
  TestDb::clear_statement_log();
  _mysql41_compatible = -1;

  const Connected result = connect_panel();
  ASSERT_NE(result.handle, nullptr) << result.message;
  EXPECT_EQ(_mysql41_compatible, c.compatible);
  EXPECT_THAT(TestDb::statements_sent(), ElementsAreArray(setup_statements(c.names_statement)));
  EXPECT_EQ(character_set_client(result.handle.get()), c.client_charset);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CharacterSetTest,
    ::testing::Values(CharsetCase{"True", "true", "SET NAMES utf8", 1, "utf8mb3"},
                      CharsetCase{"AnyOtherText", "no", "SET NAMES utf8", 1, "utf8mb3"},
                      CharsetCase{"FalseInCapitals", "FALSE", "SET NAMES utf8", 1, "utf8mb3"},
                      CharsetCase{"False", "false", "SET NAMES binary", 0, "binary"},
                      CharsetCase{"Empty", "", "SET NAMES binary", 0, "binary"},
                      CharsetCase{"Null", std::optional<std::string>(), "SET NAMES binary", 0,
                                  "binary"},
                      CharsetCase{"NoRow", std::nullopt, "SET NAMES binary", 0, "binary"}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST_F(DbConnectTest, FailedSetupStatementClosesTheConnection) {
  TestDb::exec("RENAME TABLE misc TO misc_hidden");
  const Connected result = connect_panel();
  TestDb::exec("RENAME TABLE misc_hidden TO misc");

  EXPECT_EQ(result.handle, nullptr);
  EXPECT_EQ(result.message,
            "DB error (mysql41 compatible query) 1146: Table 'ovk.misc' doesn't exist");
  EXPECT_EQ(TestDb::scalar("SELECT COUNT(*) FROM information_schema.processlist "
                           "WHERE user='admin'"),
            "0");
}

TEST_F(DbConnectTest, ErrorMessageNamesTheStage) {
  char message[200];
  MysqlConnection fresh(mysql_init(nullptr));
  set_db_errmsg(fresh.get(), message, sizeof message, "some stage");
  EXPECT_STREQ(message, "DB error (some stage): unknown error");

  Connected connected = connect_panel();
  ASSERT_NE(connected.handle, nullptr);
  ASSERT_NE(mysql_query(connected.handle.get(), "select nothing from nowhere"), 0);
  set_db_errmsg(connected.handle.get(), message, sizeof message, "x");
  EXPECT_STREQ(message, "DB error (x) 1146: Table 'ovk.nowhere' doesn't exist");
}

TEST_F(DbConnectTest, DbConnectIsSilentOnSuccess) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  MysqlConnection connection(db_connect());
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), IsEmpty());
  EXPECT_THAT(::testing::internal::GetCapturedStdout(), IsEmpty());
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(mysql_ping(connection.get()), 0);
}

// ------------------------------------------------------------ other servers

RunResult probe(const std::vector<std::string>& steps, const std::string& socket) {
  std::vector<std::string> argv = {OVK_DBCONNECT_PROBE};
  argv.insert(argv.end(), steps.begin(), steps.end());
  return run_program(argv, "", std::nullopt, {{"MYSQL_UNIX_PORT", socket}});
}

TEST_F(DbConnectTest, DbConnectWithTheServerDownReportsAndGoesOn) {
  const RunResult run = probe({"db_connect"}, "/nonexistent/ovk.sock");
  EXPECT_EQ(run.exit_status, 0);
  const std::string line =
      "dbconnect_probe: Unable to connect to Orvik Database: Can't connect to local server "
      "through socket '/nonexistent/ovk.sock' (2)\n";
  EXPECT_THAT(run.err, StartsWith(line));
  EXPECT_THAT(run.out, StartsWith(line));
  EXPECT_THAT(run.out, EndsWith("\ndb_connect: null\n"));
}

TEST_F(DbConnectTest, OldServersGetNoCharacterSetStatement) {
  struct Server {
    const char* version;
    bool sets_names;
  };
  for (const Server server :
       {Server{"4.0.27-log", false}, Server{"3.23.58", false}, Server{"4.1.22", true}}) {
    SCOPED_TRACE(server.version);
    ExtraServer old("version", std::string("--version=") + server.version);
    old.exec("INSERT INTO misc VALUES ('mysql41_compatible', 'true')");
    const RunResult run = probe({"connect"}, old.socket());
    EXPECT_THAT(run.out, HasSubstr("orvik_db_connect: handle\n"));

    std::vector<std::string> expected = {"set foreign_key_checks=0",
                                         "SHOW VARIABLES LIKE 'version'"};
    if (server.sets_names) {
      EXPECT_THAT(run.out, HasSubstr("mysql41_compatible: 1\n"));
      expected = setup_statements("SET NAMES utf8");
    } else {
      EXPECT_THAT(run.out, HasSubstr("mysql41_compatible: 0\n"));
    }
    expected.push_back("SELECT @@character_set_client");  // the probe's own
    EXPECT_THAT(old.statements_sent(), ElementsAreArray(expected));
  }
}

}  // namespace
}  // namespace e2e
