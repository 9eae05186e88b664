// A client of the panel database connection in a process of its own.
//
// The client library fixes the server socket (MYSQL_UNIX_PORT) at its first
// use in a process, so tests that want the connection layers to meet another
// server, or none, run this program with the variable they need. Each
// argument is one step, run in order; every result goes to standard output
// as one line, and the library's own messages appear where it prints them:
//   db_connect        "db_connect: handle|null"
//   param:<name>      get_param(name, null): "get_param: null" or
//                     "get_param: [<value>]"
// Exits 0 after the last step.
#include <cstdio>
#include <cstring>
#include <string>

#include "lib/dbconnect.h"
#include "lib/get_param.h"
#include "lib/mysql_handle.h"
#include "lib/put.h"

namespace {

void say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  PROGNAME = argv[0];
  for (int i = 1; i < argc; ++i) {
    const std::string step = argv[i];
    if (step == "db_connect") {
      MysqlConnection connection(db_connect());
      say(std::string("db_connect: ") + (connection ? "handle" : "null"));
    } else if (step.starts_with("param:")) {
      const char* value = get_param(step.c_str() + std::strlen("param:"), nullptr);
      say(value ? std::string("get_param: [") + value + "]" : "get_param: null");
    } else {
      std::fprintf(stderr, "dbconnect_probe: unknown step %s\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
