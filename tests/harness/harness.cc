// End-to-end test harness: the sandbox under the build's ROOT_PREFIX, the
// recording fake sendmail, the runner for the real binary, and the root
// connection to the private test database.
//
// Owns one process-wide MYSQL* (closed at exit) and, per run, the child
// process and its scratch files under <root>/harness-run (numbered per call,
// so threads may run programs side by side). Setup failures
// (unreadable files, a database that does not answer, a failed statement)
// throw std::runtime_error, which GoogleTest reports as a failure of the
// test; a child that hangs is killed after a minute.
#include "tests/harness/harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "lib/mysql_handle.h"
#include "lib/paths.h"
#include "lib/unique_fd.h"

extern char** environ;

namespace e2e {
namespace {

namespace fs = std::filesystem;

constexpr const char kSendmailLogDir[] = "sendmail-log";
constexpr const char kSendmailModeFile[] = "sendmail-mode";
constexpr const char kRunDir[] = "harness-run";
constexpr auto kRunTimeout = std::chrono::seconds(60);

// Every table of the panel schema (tests/db/schema.sql).
constexpr const char* kPanelTables[] = {
    "clients",   "domains",   "domainaliases", "mail",        "mail_aliases",
    "mail_resp", "resp_freq", "resp_forward",  "resp_attach", "misc",
};

std::string read_whole_file(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + file + ": " + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void write_whole_file(const std::string& file, const std::string& content) {
  fs::create_directories(fs::path(file).parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + file);
}

std::vector<std::string> split_at_nul(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, '\0');) parts.push_back(part);
  return parts;
}

// The test's environment with `changes` applied (nullopt: removed), as
// NAME=value strings for execve.
std::vector<std::string> environment_with(
    const std::map<std::string, std::optional<std::string>>& changes) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!changes.contains(text.substr(0, text.find('=')))) entries.push_back(text);
  }
  for (const auto& [name, value] : changes) {
    if (value) entries.push_back(name + "=" + *value);
  }
  return entries;
}

// The first line of `file`; "" when it cannot be read.
std::string first_line(const std::string& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

// The socket named by the fixture, or "" when no test database runs.
std::string current_socket() {
  return first_line(OVK_TESTDB_DIR "/socket");
}

// The client library reads MYSQL_UNIX_PORT at its first use in the process;
// this runs before main, so it is set before anything can connect.
[[maybe_unused]] const bool kSocketExported = [] {
  const std::string socket = current_socket();
  if (!socket.empty()) setenv("MYSQL_UNIX_PORT", socket.c_str(), 1);
  return true;
}();

MysqlConnection& root_connection() {
  static MysqlConnection connection;
  return connection;
}

MysqlConnection connect_root(const std::string& socket) {
  MysqlConnection connection(mysql_init(nullptr));
  if (!connection) throw std::runtime_error("test database: mysql_init failed");
  mysql_options(connection.get(), MYSQL_SET_CHARSET_NAME, "utf8mb4");
  if (mysql_real_connect(connection.get(), "localhost", "root", "", "ovk", 0, socket.c_str(), 0) ==
      nullptr) {
    throw std::runtime_error("test database: cannot connect as root through " + socket + ": " +
                             mysql_error(connection.get()));
  }
  return connection;
}

void check_query(MYSQL* connection, const std::string& statement) {
  if (mysql_real_query(connection, statement.data(), statement.size()) != 0) {
    throw std::runtime_error("test database: " + statement + ": " + mysql_error(connection));
  }
}

void run_statement(MYSQL* connection, const std::string& statement) {
  check_query(connection, statement);
  // A statement that returns rows is drained so the connection stays usable.
  MysqlResult result(mysql_store_result(connection));
}

std::vector<std::vector<std::optional<std::string>>> rows_of(MYSQL* connection,
                                                             const std::string& statement) {
  check_query(connection, statement);
  MysqlResult result(mysql_store_result(connection));
  std::vector<std::vector<std::optional<std::string>>> rows;
  if (!result) {
    if (mysql_field_count(connection) != 0) {
      throw std::runtime_error("test database: " + statement + ": " + mysql_error(connection));
    }
    return rows;
  }
  const unsigned columns = mysql_num_fields(result.get());
  while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
    const unsigned long* lengths = mysql_fetch_lengths(result.get());
    auto& values = rows.emplace_back();
    for (unsigned i = 0; i < columns; ++i) {
      values.push_back(row[i] ? std::optional<std::string>({row[i], lengths[i]}) : std::nullopt);
    }
  }
  return rows;
}

std::optional<std::string> first_value(MYSQL* connection, const std::string& statement) {
  const auto rows = rows_of(connection, statement);
  if (rows.empty() || rows.front().empty()) return std::nullopt;
  return rows.front().front();
}

std::vector<std::string> other_connections_statements(MYSQL* connection) {
  // The general log is a CSV table: rows come back in the order written.
  const auto rows = rows_of(connection,
                            "SELECT argument FROM mysql.general_log WHERE command_type = 'Query' "
                            "AND thread_id <> CONNECTION_ID()");
  std::vector<std::string> statements;
  for (const auto& row : rows) statements.push_back(row.front().value_or(""));
  return statements;
}

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\\' || c == '\'') out += '\\';
    out += c;
  }
  return out + "'";
}

}  // namespace

// ---------------------------------------------------------------- Sandbox

std::string Sandbox::root() {
  const std::string root = orvik::paths::kRootPrefix;
  if (root.empty()) throw std::runtime_error("the tests need a build with ROOT_PREFIX set");
  return root;
}

std::string Sandbox::path(const std::string& relative) {
  return root() + "/" + relative;
}

void Sandbox::reset() {
  const fs::path top = root();
  fs::create_directories(top);
  for (const fs::directory_entry& entry : fs::directory_iterator(top)) fs::remove_all(entry);

  write_file("etc/ovk/ovk.conf", "ORVIK_MAILNAMES_D " + path("var/qmail/mailnames") + "\n");
  write_file("etc/ovk/.ovk.shadow", TestDb::admin_password() + "\n");
  fs::create_directories(path("var/qmail/control"));
  fs::create_directories(path("var/qmail/mailnames"));
  fs::create_directories(path("tmp"));
  fs::create_directories(path(kSendmailLogDir));
  fs::create_directories(path("usr/sbin"));
  fs::copy_file(OVK_FAKE_SENDMAIL, orvik::paths::kSendmail);
  fs::permissions(orvik::paths::kSendmail, fs::perms(0755));
  set_sendmail_mode(SendmailMode::kRecord);
}

void Sandbox::write_file(const std::string& relative, const std::string& content) {
  write_whole_file(path(relative), content);
}

void Sandbox::remove_file(const std::string& relative) {
  fs::remove(path(relative));
}

std::string Sandbox::read_file(const std::string& relative) {
  return read_whole_file(path(relative));
}

bool Sandbox::exists(const std::string& relative) {
  return fs::exists(path(relative));
}

void Sandbox::write_attachment(const std::string& domain, const std::string& mail_name,
                               const std::string& file_name, const std::string& content) {
  write_file("var/qmail/mailnames/" + domain + "/" + mail_name + "/@attachments/" + file_name,
             content);
}

void Sandbox::set_sendmail_mode(SendmailMode mode) {
  const char* word = "record";
  if (mode == SendmailMode::kFail) word = "fail";
  if (mode == SendmailMode::kExitEarly) word = "exit-early";
  write_file(kSendmailModeFile, std::string(word) + "\n");
}

std::vector<SendmailCall> Sandbox::sendmail_calls() {
  // Each call is <seq>.args/.stdin/.times; the six-digit numbers sort in
  // start order.
  std::vector<std::string> seqs;
  const fs::path log = path(kSendmailLogDir);
  if (!fs::exists(log)) return {};
  for (const fs::directory_entry& entry : fs::directory_iterator(log)) {
    if (entry.path().extension() == ".args") seqs.push_back(entry.path().stem().string());
  }
  std::sort(seqs.begin(), seqs.end());

  std::vector<SendmailCall> calls;
  for (const std::string& seq : seqs) {
    const std::string base = (log / seq).string();
    SendmailCall call;
    const auto part = [&](const char* end) {
      return fs::exists(base + end) ? read_whole_file(base + end) : "";
    };
    call.argv = split_at_nul(read_whole_file(base + ".args"));
    call.input = part(".stdin");
    call.environment = split_at_nul(part(".env"));
    call.context = part(".context");
    std::istringstream(part(".times")) >> call.started >> call.ended;
    calls.push_back(std::move(call));
  }
  return calls;
}

std::vector<std::string> Sandbox::tmp_files() {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(path("tmp"))) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// ---------------------------------------------------------------- runner

RunResult run_program(const std::vector<std::string>& argv, std::string input,
                      const std::optional<std::string>& recipient,
                      const std::map<std::string, std::string>& extra_env, const RunLimits& limits,
                      const InputFeed& feed) {
  if (argv.empty()) throw std::runtime_error("run_program: empty argument vector");
  static std::atomic<unsigned> calls{0};
  const std::string scratch = Sandbox::path(kRunDir) + "/" + std::to_string(++calls);
  const std::string in_file = scratch + ".stdin";
  const std::string out_file = scratch + ".stdout";
  const std::string err_file = scratch + ".stderr";
  // The scratch files go on every path out, a throw included.
  const std::unique_ptr<const std::string, void (*)(const std::string*)> remove_scratch(
      &scratch, [](const std::string* base) {
        std::error_code ignored;  // a destructor must not throw
        for (const char* end : {".stdin", ".stdout", ".stderr"}) fs::remove(*base + end, ignored);
      });
  write_whole_file(in_file, input);
  std::string().swap(input);

  std::map<std::string, std::optional<std::string>> changes = {{"RESP_RECIPIENT", recipient}};
  if (const std::string socket = current_socket(); !socket.empty()) {
    changes["MYSQL_UNIX_PORT"] = socket;
  }
  for (const auto& [name, value] : extra_env) changes[name] = value;

  // Everything the child needs is prepared before the fork.
  std::vector<std::string> args = argv, env = environment_with(changes);
  std::vector<char*> arg_block, env_block;
  for (std::string& a : args) arg_block.push_back(a.data());
  for (std::string& e : env) env_block.push_back(e.data());
  arg_block.push_back(nullptr);
  env_block.push_back(nullptr);
  rlimit file_size{};
  getrlimit(RLIMIT_FSIZE, &file_size);
  if (limits.file_size) file_size.rlim_cur = *limits.file_size;

  // Owned, so nothing leaks when a step below throws.
  Unique_fd in_fd, feed_fd;
  if (int ends[2]; feed && pipe2(ends, O_CLOEXEC) == 0) {
    in_fd = Unique_fd(ends[0]);
    feed_fd = Unique_fd(ends[1]);
  } else if (!feed) {
    in_fd = Unique_fd(open(in_file.c_str(), O_RDONLY | O_CLOEXEC));
  }
  Unique_fd out_fd(open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  Unique_fd err_fd(open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!in_fd || !out_fd || !err_fd) {
    throw std::runtime_error("run_program: cannot open the scratch files " + scratch +
                             ".* or the pipe");
  }

  std::fflush(nullptr);
  const auto started = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    if (dup2(in_fd.get(), 0) < 0 || dup2(out_fd.get(), 1) < 0 || dup2(err_fd.get(), 2) < 0) {
      _exit(126);
    }
    // The program starts as the mail system starts it: with the three
    // standard streams only (not, say, the harness's database socket).
    close_range(3, ~0U, 0);
    if (limits.file_size) {
      signal(SIGXFSZ, SIG_IGN);
      setrlimit(RLIMIT_FSIZE, &file_size);
    }
    execve(arg_block[0], arg_block.data(), env_block.data());
    const char message[] = "run_program: execve failed\n";
    (void)!write(2, message, sizeof message - 1);
    _exit(127);
  }
  for (Unique_fd* fd : {&in_fd, &out_fd, &err_fd}) fd->reset();
  if (pid < 0) throw std::runtime_error(std::string("run_program: fork: ") + std::strerror(errno));
  if (feed) {
    const auto old_handler = signal(SIGPIPE, SIG_IGN);  // a write after the child's end fails
    feed(feed_fd.get());
    feed_fd.reset();
    signal(SIGPIPE, old_handler);
  }

  RunResult result;
  int status = 0;
  rusage usage{};
  const auto deadline = started + kRunTimeout;
  for (;;) {
    const pid_t done = wait4(pid, &status, WNOHANG, &usage);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) {
      const int error = errno;
      kill(pid, SIGKILL);  // not left running behind the failure
      throw std::runtime_error(std::string("run_program: wait4: ") + std::strerror(error));
    }
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      wait4(pid, &status, 0, &usage);
      ADD_FAILURE() << argv[0] << " ran longer than " << kRunTimeout.count() << " s; killed";
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  result.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  result.peak_rss_kib = usage.ru_maxrss;
  result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = read_whole_file(out_file);
  result.err = read_whole_file(err_file);
  return result;
}

RunResult run_autoresponder(std::string message, const std::optional<std::string>& recipient,
                            const std::map<std::string, std::string>& extra_env,
                            const RunLimits& limits) {
  return run_program({autoresponder_path()}, std::move(message), recipient, extra_env, limits);
}

std::string autoresponder_path() {
  return OVK_AUTORESPONDER_BIN;
}

std::string test_data_path(const std::string& name) {
  return std::string(OVK_TEST_DATA_DIR) + "/" + name;
}

std::string test_data(const std::string& name) {
  return read_whole_file(test_data_path(name));
}

// ---------------------------------------------------------------- TestDb

std::string TestDb::socket_path() {
  const std::string socket = current_socket();
  if (socket.empty()) {
    throw std::runtime_error("no test database: " OVK_TESTDB_DIR
                             "/socket is missing (run the tests through ctest, whose "
                             "fixture testdb starts the server)");
  }
  return socket;
}

std::string TestDb::admin_password() {
  return OVK_TESTDB_PASSWORD;
}

MYSQL* TestDb::connection() {
  MysqlConnection& connection = root_connection();
  if (!connection) {
    const std::string socket = socket_path();
    setenv("MYSQL_UNIX_PORT", socket.c_str(), 1);
    connection = connect_root(socket);
  }
  return connection.get();
}

void TestDb::reset() {
  for (const char* table : kPanelTables) exec(std::string("TRUNCATE TABLE ") + table);
  exec("INSERT INTO misc (param, val) VALUES ('mysql41_compatible', 'true')");
  // A test may have changed it.
  exec("SET PASSWORD FOR 'admin'@'localhost' = PASSWORD(" + quoted(admin_password()) + ")");
  clear_statement_log();
}

void TestDb::exec(const std::string& statement) {
  run_statement(connection(), statement);
}

std::optional<std::string> TestDb::scalar(const std::string& statement) {
  return first_value(connection(), statement);
}

std::vector<std::string> TestDb::statements_sent() {
  return other_connections_statements(connection());
}

void TestDb::clear_statement_log() {
  exec("TRUNCATE TABLE mysql.general_log");
}

// ---------------------------------------------------------------- ExtraServer

ExtraServer::ExtraServer(const std::string& name, const std::string& server_options)
    : dir_(std::string(OVK_TESTDB_DIR) + "-" + name) {
  const RunResult started = run_program(
      {OVK_TESTDB_SCRIPTS "/start_db.sh", dir_, TestDb::admin_password(), OVK_SCHEMA_FILE}, "",
      std::nullopt, {{"OVK_TESTDB_SERVER_OPTS", server_options}});
  if (started.exit_status != 0) {
    throw std::runtime_error("cannot start the server in " + dir_ + ": " + started.err);
  }
  socket_ = first_line(dir_ + "/socket");
  if (socket_.empty()) throw std::runtime_error("no socket file in " + dir_);
  root_ = connect_root(socket_);
  run_statement(root_.get(), "TRUNCATE TABLE mysql.general_log");
}

ExtraServer::~ExtraServer() {
  root_.reset();
  run_program({OVK_TESTDB_SCRIPTS "/stop_db.sh", dir_}, "", std::nullopt);
}

void ExtraServer::exec(const std::string& statement) {
  run_statement(root_.get(), statement);
}

std::optional<std::string> ExtraServer::scalar(const std::string& statement) {
  return first_value(root_.get(), statement);
}

void ExtraServer::kill(int signal) {
  std::ifstream pid_file(dir_ + "/mariadbd.pid");
  pid_t pid = 0;
  if (!(pid_file >> pid) || pid <= 0) throw std::runtime_error("no server pid in " + dir_);
  if (::kill(pid, signal) != 0) throw std::runtime_error("cannot signal the server in " + dir_);
  // Not our child, so possibly left a zombie nobody reaps: gone when its
  // state reads Z or the pid is free.
  const auto gone = [pid] {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return true;
    const std::size_t paren = line.rfind(')');
    return paren == std::string::npos || line.compare(paren, 3, ") Z") == 0;
  };
  const auto deadline = std::chrono::steady_clock::now() + kRunTimeout;
  while (!gone() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::vector<std::string> ExtraServer::statements_sent() {
  return other_connections_statements(root_.get());
}

// ---------------------------------------------------------------- fixture

void EndToEndTest::SetUp() {
  Sandbox::reset();
  TestDb::reset();
}

}  // namespace e2e
