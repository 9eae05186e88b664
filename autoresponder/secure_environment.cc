// Hardening of the start: the standard descriptors made safe, and the
// database client's environment variables removed on a privileged start.
//
// The program may be installed set-user-ID root and runs on behalf of mailbox
// owners; the client library reads its socket, port, host, password, debug
// trace, option files (through HOME and its home variables) and plugins from
// the environment. Left in place, they would let the invoking user make the
// privileged process talk to a server of their choosing or load their code.
// glibc already clears its own unsafe variables (LD_*, GCONV_PATH, ...) on
// such a start; these are the client library's. unsetenv cannot fail for
// these valid names, so nothing is reported.
#include "autoresponder/secure_environment.h"

#include <fcntl.h>

#include <cstdlib>

#include "lib/paths.h"

namespace {

constexpr const char* kClientLibraryVariables[] = {
    "MYSQL_UNIX_PORT",
    "MARIADB_UNIX_PORT",
    "MYSQL_HOST",
    "MYSQL_TCP_PORT",
    "MARIADB_TCP_PORT",
    "MYSQL_PWD",
    "MYSQL_DEBUG",
    "MYSQL_HISTFILE",
    "MYSQL_PS1",
    "MYSQL_TEST_LOGIN_FILE",
    "MARIADB_PLUGIN_DIR",
    "LIBMYSQL_PLUGIN_DIR",
    "LIBMYSQL_PLUGINS",
    "LIBMYSQL_ENABLE_CLEARTEXT_PLUGIN",
    "MYSQL_GROUP_SUFFIX",
    "MARIADB_GROUP_SUFFIX",
    "MARIADB_HOME",
    "MYSQL_HOME",
    "HOME",
};

}  // namespace

void drop_privileged_environment(bool secure) {
  if (!secure) return;
  for (const char* name : kClientLibraryVariables) unsetenv(name);
}

void open_standard_descriptors() {
  // open() returns the lowest free number, so each /dev/null lands on the
  // closed descriptor it replaces.
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && open(orvik::paths::kDevNull, O_RDWR) != fd) return;
  }
}
