// The panel utility library: the message log and the levelled logger, the
// configuration file reader, trimming, statement escaping, realloc_safe and
// the child process starter.
#include <gtest/gtest.h>
#include <mysql.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <string>

#include "lib/forkexec.h"
#include "lib/libcommon.h"
#include "lib/mysql_handle.h"
#include "lib/orvik_chch.h"
#include "lib/product_log.h"
#include "lib/put.h"
#include "lib/read_configuration.h"
#include "tests/unit/read_all.h"
#include "tests/unit/text_case.h"

using namespace std::string_literals;
using text_case::Case;
using text_case::Fn;
using text_case::repeat;

namespace {

// What messlog2 writes on standard output, with that PROGNAME and errno at the call.
std::string Log(const char* progname, int error, const std::string& text) {
  PROGNAME = progname;
  testing::internal::CaptureStdout();
  errno = error;
  messlog2(0, 0, "%s", text.c_str());
  PROGNAME = nullptr;
  return testing::internal::GetCapturedStdout();
}

// The levelled logger, replaced while reading configuration files.
void Record(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "%d:", level);
  std::vfprintf(stderr, format, args);
  va_end(args);
}

// The file's entries as NAME=value; (each looked up by name), or the read's errno text.
std::string ReadConf(const std::string& path) {
  orvik_log = Record;
  conf_data* store = static_cast<conf_data*>(std::calloc(1, sizeof(conf_data)));
  std::string dump = conf_read_file_r(path.c_str(), store) == 0 ? "" : std::strerror(errno);
  for (std::size_t i = 0; i < store->nmemb; ++i) {
    const char* value = conf_get_r(store->data[i].key, store);
    dump += std::string(store->data[i].key) + "=" + (value ? value : "(none)") + ";";
  }
  if (conf_get_r("X", store) != nullptr) dump += "X found;";  // never defined below
  conf_free_r(store);
  orvik_log = _orvik_utility_log;
  return dump;
}

const Fn LogBare = [](const std::string& s) { return Log(nullptr, 0, s); };
const Fn LogErrno = [](const std::string& s) { return Log("/usr/lib/x/resp", ENOENT, s); };
const Fn Level = [](const std::string& s) {
  testing::internal::CaptureStdout();
  orvik_log(std::stoi(s), "level %s", s.c_str());
  return testing::internal::GetCapturedStdout();
};
const Fn Trim = [](const std::string& s) {
  std::string buffer = s;
  const std::string trimmed = orvik_trim(buffer.data());
  return trimmed + "|" + buffer.c_str();  // the result, and the caller's buffer after
};
// Escaping needs no connection, only a handle of the initialised library.
const MysqlConnection kHandle(mysql_init(nullptr));
const Fn Escape = [](const std::string& s) {
  return std::string(MallocChars(escape_mysql_param(kHandle.get(), s.c_str())).get());
};
const Fn Conf = [](const std::string& text) {
  const std::string path = testing::TempDir() + "ovk" + std::to_string(::getpid()) + ".conf";
  std::ofstream(path, std::ios::binary) << text;
  const std::string dump = ReadConf(path);
  std::remove(path.c_str());
  return dump;
};

// The message log and the levelled logger write the same text on both streams.
Case Both(const char* name, Fn fn, const std::string& in, const std::string& out) {
  return {name, fn, in, out, out};
}

const std::string kNoEnt = "\nSystem error 2: "s + std::strerror(ENOENT) + "\n";
const std::string kBadLine = "12:Invalid variable definition ";
const std::string kMissing = "/nonexistent/ovk.conf";

const Case kCases[] = {
    Both("LogEmptyIsEmptyLine", LogBare, "", "\n"),
    Both("LogNoPrefixNoSecondLineFeed", LogBare, "hi\n", "hi\n"),
    Both("LogLongWhole", LogBare, repeat("x", 5000), repeat("x", 5000) + "\n"),
    Both("LogBasenameStaleErrno", LogErrno, "hello", "resp: hello" + kNoEnt),
    Both("LogSystemErrorPastBuffer", LogErrno, repeat("y", 4090),
         "resp: " + repeat("y", 4090) + kNoEnt),
    Both("LoggerAtThreshold", Level, "6", "level 6\n"),
    Both("LoggerAboveThreshold", Level, "7", ""),
    {"TrimBlanks", Trim, "\t\v\f a  b \r\n", "a  b|\t\v\f a  b"},
    {"TrimOnlyBlanks", Trim, " \t\r\n ", "|"},
    {"TrimEmpty", Trim, "", "|"},
    {"EscapeSpecials", Escape, "O'Brien \"x\" \\ \n\r\x1a!", "O\\'Brien \\\"x\\\" \\\\ \\n\\r\\Z!"},
    {"EscapeWorstCase", Escape, repeat("'", 1000), repeat("\\'", 1000)},
    {"ConfComments", Conf, "# A x\n   # B y\n\nC z # note\nD w#x\n", "C=z;D=w;"},
    {"ConfCarriageReturns", Conf, "A 1\r\nB 2\r\n", "A=1;B=2;"},
    {"ConfInnerBlanks", Conf, " \tA\t one two  three \n", "A=one two  three;"},
    {"ConfNameAlone", Conf, "A\nB 2", "B=2;", kBadLine + "A\n\nExpected a value"},
    {"ConfNameEqualsValue", Conf, "A=1\n", "",
     kBadLine + "A=1\n\nExpected a space after variable name\n"},
    {"ConfSecondWins", Conf, "A 1\nB x\nA 2\n", "A=2;B=x;"},
    {"ConfMissingFile", ReadConf, kMissing, std::strerror(ENOENT),
     "12:unable to open configuration file " + kMissing + ": " + std::strerror(ENOENT) + "\n"},
};

class UtilityLibrary : public text_case::TextCaseTest {};
TEXT_CASE_TESTS(UtilityLibrary, kCases);

TEST(MessageLog, NonZeroStatusExitsAndReallocSafe) {
  PROGNAME = "/x/resp";
  EXPECT_EXIT((errno = ENOMEM, messlog2(1, 0, "alloc(%d)", 64)), testing::ExitedWithCode(1),
              "^resp: alloc\\(64\\)\nSystem error 12: "s + std::strerror(ENOMEM));
#ifndef __SANITIZE_ADDRESS__  // which aborts on impossible allocations instead
  EXPECT_EXIT(realloc_safe(nullptr, SIZE_MAX), testing::ExitedWithCode(1),
              "^resp: alloc\\(-1\\)\n");
#endif
  PROGNAME = nullptr;
  MallocChars block(static_cast<char*>(realloc_safe(nullptr, 4)));
  std::memcpy(block.get(), "abc", 4);
  block.reset(static_cast<char*>(realloc_safe(block.release(), 100000)));
  EXPECT_STREQ(block.get(), "abc");
  block.reset(static_cast<char*>(realloc_safe(block.release(), 0)));
  EXPECT_NE(block.get(), nullptr);
  EXPECT_EQ(orvik_trim(nullptr), nullptr);
  EXPECT_EQ(escape_mysql_param(nullptr, nullptr), nullptr);
}

TEST(Conf, MoreThanTwentyEntries) {
  std::string text, dump;
  for (int i = 99; i >= 55; --i) text += "V" + std::to_string(i) + " " + std::to_string(i) + "\n";
  for (int i = 55; i <= 99; ++i) dump += "V" + std::to_string(i) + "=" + std::to_string(i) + ";";
  EXPECT_EQ(Conf(text), dump);
}

int ExitStatus(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The shell shows its argv and that it has the given pipes and fd 2, and no other descriptor.
TEST(ForkExec, GivenDescriptorsExactArgvNothingElse) {
  int in[2], out[2];
  ASSERT_EQ(::pipe(in) | ::pipe(out), 0);
  ASSERT_EQ(::dup2(in[0], 100), 100);
  const char script[] = "cat /proc/$$/cmdline; ls /proc/$$/fd; cat";
  const pid_t pid =
      fork_execl_pipes(in[0], out[1], 2, "/bin/sh", "/usr/sbin/sendmail", "-c", script, nullptr);
  for (int fd : {in[0], out[1], 100}) ::close(fd);
  ASSERT_EQ(::write(in[1], "hi\n", 3), 3);
  ::close(in[1]);
  EXPECT_EQ(read_all(out[0]), "/usr/sbin/sendmail\0-c\0"s + script + "\0"s + "0\n1\n2\nhi\n");
  EXPECT_EQ(ExitStatus(pid), 0);
}

TEST(ForkExec, MinusOneIsNullDeviceMissingProgramExits255) {
  const char script[] = "[ $(readlink /proc/$$/fd/[012] | grep -cx /dev/null) = 3 ]";
  EXPECT_EQ(ExitStatus(fork_execl_pipes(-1, -1, -1, "/bin/sh", "sh", "-c", script, nullptr)), 0);
  int err[2];
  ASSERT_EQ(::pipe(err), 0);
  const char* const args[] = {"prog", nullptr};
  const pid_t pid = fork_execv_pipes(-1, -1, err[1], "/nonexistent/prog", args);
  ::close(err[1]);
  EXPECT_EQ(read_all(err[0]),
            "fork_execv: execv(\"/nonexistent/prog\") failed: "s + std::strerror(ENOENT) + "\n");
  EXPECT_EQ(ExitStatus(pid), 255);
}

}  // namespace
