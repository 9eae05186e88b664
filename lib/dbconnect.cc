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

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "lib/dbconnect_legacy.h"
#include "lib/mysql_handle.h"
#include "lib/put.h"

// Public in the client library's archive, not exported by its shared object.
#pragma weak mysql_port

int _mysql41_compatible = -1;

namespace {

// Large enough for any message of the connection layers.
constexpr std::size_t kMessageBufferSize = 4097;

// The connection goes to the server's local socket (lib/dbconnect_legacy.cc),
// so no TCP port is ever used. Given one before its set-up, the client
// library skips the look-up of its service name through the name service
// switch (nsswitch.conf, the services file), which every run paid.
constexpr unsigned int kUnusedTcpPort = 3306;

// OpenSSL as the client library needs it: TLS is never used on the local
// socket, so neither the system's OpenSSL configuration file, nor the error
// texts, nor the tables of every cipher and digest are loaded, and nothing is
// left to undo at exit. OpenSSL does each part of its set-up once per process:
// the client library's own request for them then finds them done.
constexpr uint64_t kCryptoInitOptions =
    OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
    OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS | OPENSSL_INIT_NO_ATEXIT;
constexpr uint64_t kSslInitOptions =
    OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_SSL_STRINGS | OPENSSL_INIT_NO_ATEXIT;

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

int db_library_init() {
  // Debian's shared client library keeps the variable to itself (a build
  // without OVK_STATIC_LINK): the weak reference is then null, and the
  // library looks the port up as before.
  if (&mysql_port != nullptr) mysql_port = kUnusedTcpPort;
  // A failure here leaves the rest of the set-up to the client library,
  // which then reports its own.
  (void)OPENSSL_init_crypto(kCryptoInitOptions, nullptr);
  (void)OPENSSL_init_ssl(kSslInitOptions, nullptr);
  return mysql_library_init(0, nullptr, nullptr);
}

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
