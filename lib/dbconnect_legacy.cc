// The bottom layers of the panel database connection: read the panel
// administrator's password file and connect as "admin" to the database "ovk"
// on the local server.
//
// Owns the password file only while reading it and the connection handle
// until it is handed to the caller. Failures write one text into the caller's
// buffer (cut to fit, as snprintf does) and return null, having closed
// whatever was opened here.
#include "lib/dbconnect_legacy.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "lib/c_owners.h"
#include "lib/mysql_handle.h"
#include "lib/paths.h"

namespace {

// "localhost" makes the client library use the server's local socket.
constexpr const char kHost[] = "localhost";
constexpr const char kUser[] = "admin";
constexpr const char kDatabase[] = "ovk";
constexpr unsigned int kPort = 0;         // the client library's default
constexpr const char* kSocket = nullptr;  // the client library's default
constexpr unsigned long kClientFlags = 0;
constexpr std::size_t kPasswordBufferSize = 100;  // the line is cut at 99 characters

}  // namespace

MYSQL* orvik_db_connect_raw_ex(char* msgbuf, std::size_t msgbufsize) {
  char password[kPasswordBufferSize];
  {
    UniqueFile file(std::fopen(orvik::paths::kPasswordFile, "r"));
    if (!file) {
      std::snprintf(msgbuf, msgbufsize, "Unable to open admin password file: %s",
                    std::strerror(errno));
      return nullptr;
    }
    // An empty file sets no errno; clearing it first keeps a stale value out
    // of the message.
    errno = 0;
    if (std::fgets(password, sizeof password, file.get()) == nullptr) {
      std::snprintf(msgbuf, msgbufsize, "Unable to read admin password file: %s",
                    std::strerror(errno));
      return nullptr;
    }
  }
  // Only the line feed goes; a carriage return before it is part of the
  // password.
  const std::size_t length = std::strlen(password);
  if (length > 0 && password[length - 1] == '\n') password[length - 1] = '\0';

  MysqlConnection connection(mysql_init(nullptr));
  if (!connection) {
    std::snprintf(msgbuf, msgbufsize, "Unable to initialize MySQL connection structure: %s",
                  std::strerror(ENOMEM));
    errno = ENOMEM;
    return nullptr;
  }
  if (mysql_real_connect(connection.get(), kHost, kUser, password, kDatabase, kPort, kSocket,
                         kClientFlags) == nullptr) {
    std::snprintf(msgbuf, msgbufsize, "Unable to connect to Orvik Database: %s",
                  mysql_error(connection.get()));
    return nullptr;
  }
  return connection.release();
}

MYSQL* orvik_db_connect_raw(char* msgbuf, std::size_t msgbufsize) {
  MysqlConnection connection(orvik_db_connect_raw_ex(msgbuf, msgbufsize));
  if (connection && mysql_errno(connection.get()) != 0) return nullptr;
  return connection.release();
}
