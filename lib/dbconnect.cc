// The panel database connection with its session set up: foreign-key checks
// off, and the client character set chosen from the server version and the
// panel parameter mysql41_compatible (UTF-8 or binary).
//
// Owns the connection until it is handed to the caller, and each result set
// while it is read. A failed set-up statement leaves its error on the handle
// and its text in the caller's buffer; the layers from orvik_db_connect up
// then close the handle and return null. db_connect prints the reason
// through the message log and lets the program go on.
#include "lib/dbconnect.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "lib/dbconnect_legacy.h"
#include "lib/mysql_handle.h"
#include "lib/put.h"

int _mysql41_compatible = -1;

namespace {

// Large enough for any message of the connection layers.
constexpr std::size_t kMessageBufferSize = 4097;

constexpr std::string_view kForeignKeysOff = "set foreign_key_checks=0";
constexpr std::string_view kVersionQuery = "SHOW VARIABLES LIKE 'version'";
constexpr std::string_view kCompatibleQuery =
    "SELECT val FROM misc WHERE param='mysql41_compatible'";
constexpr std::string_view kNamesUtf8 = "SET NAMES utf8";
constexpr std::string_view kNamesBinary = "SET NAMES binary";

int send(MYSQL* connection, std::string_view statement) {
  return mysql_real_query(connection, statement.data(), statement.size());
}

// Servers before 4.1 know no connection character sets.
bool predates_character_sets(std::string_view version) {
  return version.starts_with("3.") || version.starts_with("4.0.");
}

// Whether the panel runs its database in UTF-8: a mysql41_compatible row
// with a value other than empty or "false". Anything else, including a
// missing result, means binary.
bool panel_wants_utf8(MYSQL* connection) {
  MysqlResult result(mysql_store_result(connection));
  if (!result) return false;
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr || row[0] == nullptr) return false;
  const std::string_view value = row[0];
  return !value.empty() && value != "false";
}

}  // namespace

void set_db_errmsg(MYSQL* connection, char* msgbuf, std::size_t msgbufsize, const char* stage) {
  const unsigned int error = mysql_errno(connection);
  if (error != 0) {
    std::snprintf(msgbuf, msgbufsize, "DB error (%s) %u: %s", stage, error,
                  mysql_error(connection));
  } else {
    std::snprintf(msgbuf, msgbufsize, "DB error (%s): unknown error", stage);
  }
}

MYSQL* orvik_db_connect_ex(char* msgbuf, std::size_t msgbufsize) {
  MYSQL* connection = orvik_db_connect_raw(msgbuf, msgbufsize);
  if (connection == nullptr) return nullptr;

  // The panel's own tables are written in an order the keys do not know.
  send(connection, kForeignKeysOff);

  if (send(connection, kVersionQuery) != 0) {
    set_db_errmsg(connection, msgbuf, msgbufsize, "query version");
    return connection;
  }
  {
    MysqlResult result(mysql_store_result(connection));
    if (!result) {
      set_db_errmsg(connection, msgbuf, msgbufsize, "store query result");
      return connection;
    }
    MYSQL_ROW row = mysql_fetch_row(result.get());
    if (row == nullptr) {
      set_db_errmsg(connection, msgbuf, msgbufsize, "fetch version row");
      return connection;
    }
    if (row[1] == nullptr) {
      set_db_errmsg(connection, msgbuf, msgbufsize, "empty version result");
      return connection;
    }
    if (predates_character_sets(row[1])) {
      _mysql41_compatible = 0;
      return connection;
    }
  }

  if (send(connection, kCompatibleQuery) != 0) {
    set_db_errmsg(connection, msgbuf, msgbufsize, "mysql41 compatible query");
    return connection;
  }
  const bool utf8 = panel_wants_utf8(connection);
  _mysql41_compatible = utf8 ? 1 : 0;

  if (send(connection, utf8 ? kNamesUtf8 : kNamesBinary) != 0) {
    set_db_errmsg(connection, msgbuf, msgbufsize, "set names query");
  }
  return connection;
}

MYSQL* orvik_db_connect(char* msgbuf, std::size_t msgbufsize) {
  MysqlConnection connection(orvik_db_connect_ex(msgbuf, msgbufsize));
  if (connection && mysql_errno(connection.get()) != 0) return nullptr;
  return connection.release();
}

MYSQL* db_connect_nothrow(char* msgbuf, std::size_t msgbufsize) {
  return orvik_db_connect(msgbuf, msgbufsize);
}

MYSQL* db_connect() {
  char message[kMessageBufferSize] = "";
  MYSQL* connection = db_connect_nothrow(message, sizeof message);
  if (connection == nullptr) messlog2(0, 0, "%s", message);
  return connection;
}
