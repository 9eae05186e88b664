// End-to-end test harness: the sandbox that the tested program's ROOT_PREFIX
// points at, a fake sendmail that records every invocation, a runner for the
// real binary, and the private test database.
#pragma once

#include <gtest/gtest.h>
#include <mysql.h>
#include <sys/resource.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lib/mysql_handle.h"

namespace e2e {

// One invocation of the fake sendmail, in the order they started.
struct SendmailCall {
  std::vector<std::string> argv;         // argv[0] included
  std::string input;                     // everything it read on standard input
  std::vector<std::string> environment;  // "NAME=value", as the program passed it
  // "<mode of standard input> <its file> umask=<umask> cwd=<directory>\n";
  // the file is a path ("... (deleted)" once removed) or pipe:[...].
  std::string context;
  double started = 0;  // seconds (CLOCK_REALTIME) at start and at end,
  double ended = 0;    // to check that children did not overlap
};

// The wall-clock ceiling a test may assert on a run: generous, so a loaded
// machine does not fail it; it catches runaway (quadratic, unbounded) work
// only. Speed goals are measured in bench/, as ratios to a baseline.
constexpr double kRunSecondsCeiling = 30.0;

struct RunResult {
  int exit_status = -1;   // exit status, or 128 + signal number
  std::string out;        // standard output
  std::string err;        // standard error
  double seconds = 0;     // wall time from start to end
  long peak_rss_kib = 0;  // peak resident memory of the child and the children it waited for
};

// Limits for the child. file_size is the soft RLIMIT_FSIZE in bytes, with
// SIGXFSZ ignored, so a write past it fails with EFBIG, as on a full file
// system (the fake sendmail lifts it for itself: only the program's own files
// are limited, its standard output and error included).
struct RunLimits {
  std::optional<rlim_t> file_size;
};

// How the fake sendmail behaves: record and exit 0; record and exit 1;
// exit 0 without reading its input.
enum class SendmailMode { kRecord, kFail, kExitEarly };

// The sandbox directory (the build's ROOT_PREFIX) and its files.
class Sandbox {
 public:
  static std::string root();
  static std::string path(const std::string& relative);  // root() + "/" + relative

  // Empties the sandbox and writes the defaults: the panel configuration
  // (ORVIK_MAILNAMES_D pointing at <root>/var/qmail/mailnames), the password
  // file of the test database, no databytes file, the fake sendmail in record
  // mode, empty <root>/tmp.
  static void reset();

  static void write_file(const std::string& relative, const std::string& content);
  static void remove_file(const std::string& relative);
  // Fails the test when the file cannot be read.
  static std::string read_file(const std::string& relative);
  static bool exists(const std::string& relative);

  // An attachment file in the repository of mailbox `mail_name`@`domain`.
  static void write_attachment(const std::string& domain, const std::string& mail_name,
                               const std::string& file_name, const std::string& content);

  static void set_sendmail_mode(SendmailMode mode);
  // Every invocation so far, in start order.
  static std::vector<SendmailCall> sendmail_calls();

  // Names of the files left in <root>/tmp.
  static std::vector<std::string> tmp_files();
};

// Runs the sandboxed autoresponder with `message` on standard input and
// RESP_RECIPIENT set to `recipient` (unset when nullopt); MYSQL_UNIX_PORT
// points at the test database. `extra_env` adds or replaces variables.
RunResult run_autoresponder(std::string message, const std::optional<std::string>& recipient,
                            const std::map<std::string, std::string>& extra_env = {},
                            const RunLimits& limits = {});

// The runner underneath: starts argv[0] with `argv`, `input` on standard
// input (from a file, so input of any size works; the string is released
// before the start, so a large input does not count in the child's peak
// resident memory, which starts from the caller's), standard output and error
// captured; the environment is the test's own, with RESP_RECIPIENT set to
// `recipient` or removed, MYSQL_UNIX_PORT set to the test database's socket
// when one runs, and `extra_env` applied last. A child that runs longer than
// a minute is killed (status 128 + SIGKILL) and the test fails. Each call has
// scratch files of its own, so threads may run programs at the same time.
// With `feed`, standard input is a pipe instead, which `feed` writes (given
// its descriptor; SIGPIPE ignored, so a write after the child's end fails)
// while the child runs; `input` is then unused.
using InputFeed = std::function<void(int fd)>;
RunResult run_program(const std::vector<std::string>& argv, std::string input,
                      const std::optional<std::string>& recipient,
                      const std::map<std::string, std::string>& extra_env = {},
                      const RunLimits& limits = {}, const InputFeed& feed = nullptr);

// The path of the sandboxed binary.
std::string autoresponder_path();

// The contents of tests/data/<name>.
std::string test_data(const std::string& name);
std::string test_data_path(const std::string& name);

// The private test database (started by the CTest fixture), reached as root.
//
// The MySQL client library reads MYSQL_UNIX_PORT once per process, at its
// first use, and connects there whenever a caller passes no socket (the
// panel library does so). The harness sets it to the test database's socket
// before that first use. A test that needs the library to see another socket
// must run in a process of its own (for instance a death test in the
// "threadsafe" style, which starts the test binary anew) and must set the
// variable before anything in that process connects.
class TestDb {
 public:
  static MYSQL* connection();
  static std::string socket_path();
  // The password of the panel's user 'admin'@'localhost', as written into the
  // sandbox's password file by Sandbox::reset.
  static std::string admin_password();

  // Removes every row of the panel tables (auto-increment keys start at 1
  // again), puts back the default misc rows (mysql41_compatible = "true")
  // and the admin password, and empties the statement log.
  static void reset();

  // Failures throw std::runtime_error with the statement and the error.
  static void exec(const std::string& statement);
  // The first column of the first row, or nullopt.
  static std::optional<std::string> scalar(const std::string& statement);

  // Statements (command "Query") that other connections sent since the last
  // reset or clear, in order, from the server's general query log.
  // The harness's own statements are not among them.
  static std::vector<std::string> statements_sent();
  static void clear_statement_log();
};

// A second private server beside the fixture's, for a test that needs one
// that behaves differently, for instance with another version string
// (server_options "--version=4.0.27"). The constructor starts it with the
// panel schema and the same admin password, from a data directory kept
// between runs (<fixture dir>-<name>); the destructor stops it. Programs
// reach it by MYSQL_UNIX_PORT=socket() (run_program's extra_env).
class ExtraServer {
 public:
  ExtraServer(const std::string& name, const std::string& server_options);
  ~ExtraServer();
  ExtraServer(const ExtraServer&) = delete;
  ExtraServer& operator=(const ExtraServer&) = delete;

  const std::string& socket() const { return socket_; }
  void exec(const std::string& statement);
  std::optional<std::string> scalar(const std::string& statement);
  // Sends `signal` to the server process and waits until it has gone
  // (SIGTERM: a shutdown, SIGKILL: a crash).
  void kill(int signal);
  // As TestDb::statements_sent, on this server.
  std::vector<std::string> statements_sent();

 private:
  std::string dir_;
  std::string socket_;
  MysqlConnection root_;
};

// Base fixture: resets the sandbox and the database before each test.
class EndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override;
};

}  // namespace e2e
