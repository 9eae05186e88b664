// The floor of the end-to-end benchmark: a program that does only what a run
// of the autoresponder cannot avoid, linked exactly like it (same libraries,
// same options; the linker keeps what this program uses), so that the ratio
// of a measured run to this one is the price of everything else: MIME
// parsing, templates, composition, the library start-up we could avoid.
//
//   floor_main STATEMENTS MESSAGE
//
// It reads its standard input to the end (the incoming message), connects
// with db_connect() (which sends the connection's own set-up statements),
// then goes through the lines of the file STATEMENTS in order: the line
// "@sendmail" starts the sandbox's sendmail with the file MESSAGE on its
// standard input and the argument vector of a reply, and waits for it; every
// other line is sent as one statement, its result read whole, as the
// autoresponder does. The benchmark fills STATEMENTS with the statements the
// autoresponder sent in the measured case after its connection set-up (from
// the server's query log), with "@sendmail" where the autoresponder handed a
// reply over, so both send the same statements in the same number and
// order, the server does the same work for both, and the sendmail starts
// fall between the same statements.
//
// Exits 0; 1 when the connection or a statement fails or a file cannot be
// read (the benchmark then stops: a floor that did less would flatter us);
// 2 on bad usage.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "lib/dbconnect.h"
#include "lib/forkexec.h"
#include "lib/mysql_handle.h"
#include "lib/paths.h"

namespace {

constexpr char kSendmailLine[] = "@sendmail";

void drain_standard_input() {
  char block[16 * 1024];
  for (;;) {
    const ssize_t got = read(STDIN_FILENO, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;
  }
}

bool read_lines(const char* file, std::vector<std::string>& lines) {
  std::ifstream in(file);
  if (!in) return false;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  return true;
}

// Sends one statement and reads its result whole, if it has one.
bool send_statement(MYSQL* connection, const std::string& statement) {
  if (mysql_real_query(connection, statement.data(), statement.size()) != 0) return false;
  MysqlResult result(mysql_store_result(connection));
  return result || mysql_field_count(connection) == 0;
}

bool start_sendmail(const char* message_file) {
  const int message = open(message_file, O_RDONLY);
  if (message < 0) return false;
  const pid_t pid = fork_execl_pipes(message, STDOUT_FILENO, STDERR_FILENO, orvik::paths::kSendmail,
                                     orvik::paths::kSendmail, "-f", "info@example.com",
                                     "sender@example.org", static_cast<const char*>(nullptr));
  close(message);
  if (pid < 0) return false;
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s STATEMENTS MESSAGE\n", argv[0]);
    return 2;
  }
  // As the program does at its start.
  if (db_library_init() != 0) return 1;
  drain_standard_input();
  std::vector<std::string> lines;
  if (!read_lines(argv[1], lines)) {
    std::fprintf(stderr, "floor: cannot read %s: %s\n", argv[1], std::strerror(errno));
    return 1;
  }

  MysqlConnection connection(db_connect());
  if (!connection) return 1;
  for (const std::string& line : lines) {
    if (line == kSendmailLine) {
      if (!start_sendmail(argv[2])) {
        std::fprintf(stderr, "floor: sendmail with %s failed\n", argv[2]);
        return 1;
      }
    } else if (!send_statement(connection.get(), line)) {
      std::fprintf(stderr, "floor: %s: %s\n", line.c_str(), mysql_error(connection.get()));
      return 1;
    }
  }
  connection.reset();
  return 0;
}
