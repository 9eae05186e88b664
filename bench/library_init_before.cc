// A measurement aid, linked only into the benchmark's variants that show what
// the client library's set-up cost before it was cut: its definition of
// db_library_init() comes first on the link line and replaces the program's
// (lib/dbconnect.cc), which it leaves otherwise as it is.
//
// LIBRARY_INIT_PORT_ONLY: only the TCP port given before the set-up (no
// service look-up); OpenSSL still set up in full by the client library, with
// its clean-up at exit. Without it: the client library's set-up as it was,
// with the port looked up as the service "mysql".
#include <mysql.h>

#include "lib/dbconnect.h"

int db_library_init() {
#ifdef LIBRARY_INIT_PORT_ONLY
  mysql_port = 3306;
#endif
  return mysql_library_init(0, nullptr, nullptr);
}
