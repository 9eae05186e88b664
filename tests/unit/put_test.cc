// The message log: prefix, line-feed rule, stream order, long messages, the
// "System error" line and the exit on a non-zero status.
#include "lib/put.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Sends descriptors 1 and 2 into temporary files while alive (one shared
// file when asked, to see the order of the two streams).
class OutputCapture {
 public:
  explicit OutputCapture(bool shared = false) {
    std::fflush(stdout);
    std::fflush(stderr);
    out_file_ = make_file();
    err_file_ = shared ? out_file_ : make_file();
    saved_out_ = ::dup(1);
    saved_err_ = ::dup(2);
    ::dup2(out_file_, 1);
    ::dup2(err_file_, 2);
  }
  ~OutputCapture() {
    restore();
    ::close(out_file_);
    if (err_file_ != out_file_) ::close(err_file_);
  }
  void restore() {
    if (saved_out_ < 0) return;
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(saved_out_, 1);
    ::dup2(saved_err_, 2);
    ::close(saved_out_);
    ::close(saved_err_);
    saved_out_ = saved_err_ = -1;
  }
  std::string out() {
    restore();
    return contents(out_file_);
  }
  std::string err() {
    restore();
    return contents(err_file_);
  }

 private:
  static int make_file() {
    std::string name = ::testing::TempDir() + "put_test_XXXXXX";
    const int fd = ::mkstemp(name.data());
    EXPECT_GE(fd, 0) << std::strerror(errno);
    ::unlink(name.c_str());
    return fd;
  }
  static std::string contents(int fd) {
    std::string text;
    char chunk[4096];
    off_t offset = 0;
    for (ssize_t n; (n = ::pread(fd, chunk, sizeof chunk, offset)) > 0; offset += n) {
      text.append(chunk, static_cast<std::size_t>(n));
    }
    return text;
  }
  int out_file_ = -1;
  int err_file_ = -1;
  int saved_out_ = -1;
  int saved_err_ = -1;
};

class MessageLogTest : public ::testing::Test {
 protected:
  void TearDown() override { PROGNAME = nullptr; }
};

struct MessageCase {
  const char* name;
  const char* progname;  // may be null
  int error_number;      // errno at the call
  std::string text;
  std::string expected;  // on each of the two streams
};

class MessageFormTest : public ::testing::TestWithParam<MessageCase> {
 protected:
  void TearDown() override { PROGNAME = nullptr; }
};

TEST_P(MessageFormTest, WritesTheSameLinesOnBothStreams) {
  const MessageCase& c = GetParam();
  PROGNAME = c.progname;
  OutputCapture capture;
  errno = c.error_number;
  messlog2(0, 0, "%s", c.text.c_str());
  EXPECT_EQ(errno, c.error_number) << "errno must survive the call";
  EXPECT_EQ(capture.err(), c.expected);
  EXPECT_EQ(capture.out(), c.expected);
}

const std::string kLong(5000, 'x');
const std::string kNoEntry = std::string("\nSystem error 2: ") + std::strerror(ENOENT);

INSTANTIATE_TEST_SUITE_P(
    MessageLog, MessageFormTest,
    ::testing::Values(
        MessageCase{"PrefixIsLastPathComponent", "/usr/lib/x/resp", 0, "hello", "resp: hello\n"},
        MessageCase{"PrefixWithoutDirectory", "resp", 0, "hello", "resp: hello\n"},
        MessageCase{"PrefixOfPathWithTrailingSlash", "/usr/lib/resp/", 0, "hi", "resp: hi\n"},
        MessageCase{"NoPrefixWithoutProgname", nullptr, 0, "hello", "hello\n"},
        MessageCase{"NoSecondLineFeed", "resp", 0, "hello\n", "resp: hello\n"},
        MessageCase{"PrefixOnlyOnFirstLine", "resp", 0, "one\ntwo", "resp: one\ntwo\n"},
        MessageCase{"EmptyTextIsAnEmptyLine", "resp", 0, "", "resp: \n"},
        MessageCase{"LongMessageWrittenWhole", "resp", 0, kLong, "resp: " + kLong + "\n"},
        MessageCase{"StaleErrnoAddsSystemError", "resp", ENOENT, "hello",
                    "resp: hello" + kNoEntry + "\n"},
        MessageCase{"SystemErrorAfterTrailingLineFeed", "resp", ENOENT, "hello\n",
                    "resp: hello\n" + kNoEntry + "\n"},
        MessageCase{"SystemErrorAfterLongMessage", "resp", ENOENT, kLong,
                    "resp: " + kLong + kNoEntry + "\n"},
        MessageCase{"SystemErrorJustPastInitialBuffer", nullptr, ENOENT, std::string(4090, 'y'),
                    std::string(4090, 'y') + kNoEntry + "\n"}),
    [](const ::testing::TestParamInfo<MessageCase>& case_info) { return case_info.param.name; });

TEST_F(MessageLogTest, FormatsArguments) {
  PROGNAME = "/bin/tool";
  OutputCapture capture;
  errno = 0;
  messlog2(0, 0, "alloc(%d) of %s", 64, "buffer");
  EXPECT_EQ(capture.err(), "tool: alloc(64) of buffer\n");
}

TEST_F(MessageLogTest, StandardErrorComesFirst) {
  PROGNAME = "tool";
  OutputCapture capture(/*shared=*/true);
  errno = 0;
  messlog2(0, 0, "once");
  EXPECT_EQ(capture.out(), "tool: once\ntool: once\n");
}

TEST_F(MessageLogTest, ExMessLogWritesTextVerbatimAndReturnsZero) {
  PROGNAME = "tool";
  OutputCapture capture;
  errno = ENOENT;  // only vmesslog2 looks at errno
  EXPECT_EQ(ex_messlog("100% done", 0, 1), 0);
  EXPECT_EQ(capture.err(), "tool: 100% done\n");
  EXPECT_EQ(capture.out(), "tool: 100% done\n");
}

TEST_F(MessageLogTest, NonZeroStatusExitsAfterWriting) {
  PROGNAME = "/usr/lib/x/resp";
  const std::string expected =
      std::string("^resp: alloc\\(64\\)\nSystem error 12: ") + std::strerror(ENOMEM) + "\n$";
  EXPECT_EXIT(
      {
        errno = ENOMEM;
        messlog2(1, 0, "alloc(%d)", 64);
      },
      ::testing::ExitedWithCode(1), expected);
}

TEST_F(MessageLogTest, ExMessLogExitsWithItsStatus) {
  PROGNAME = nullptr;
  EXPECT_EXIT(ex_messlog("bye", 3, 0), ::testing::ExitedWithCode(3), "^bye\n$");
}

}  // namespace
