// Small helpers of the utility library: trimming, the allocation that cannot
// fail, SQL escaping, and the levelled logger's threshold.
#include <gtest/gtest.h>
#include <mysql.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "lib/libcommon.h"
#include "lib/orvik_chch.h"
#include "lib/product_log.h"
#include "lib/put.h"

namespace {

struct TrimCase {
  const char* name;
  const char* input;
  const char* trimmed;       // the text at the returned pointer
  std::size_t skipped;       // leading characters passed over
  const char* buffer_after;  // the caller's buffer after the call
};

class TrimTest : public ::testing::TestWithParam<TrimCase> {};

TEST_P(TrimTest, TrimsInPlace) {
  const TrimCase& c = GetParam();
  std::string storage(c.input);
  storage.push_back('\0');
  char* buffer = storage.data();
  char* result = orvik_trim(buffer);
  EXPECT_STREQ(result, c.trimmed);
  EXPECT_EQ(result, buffer + c.skipped);
  EXPECT_STREQ(buffer, c.buffer_after);
}

INSTANTIATE_TEST_SUITE_P(
    OrvikTrim, TrimTest,
    ::testing::Values(TrimCase{"BlanksAroundText", "  a b  ", "a b", 2, "  a b"},
                      TrimCase{"NothingToTrim", "abc", "abc", 0, "abc"},
                      TrimCase{"Empty", "", "", 0, ""},
                      TrimCase{"OnlyWhitespace", " \t\r\n ", "", 0, ""},
                      TrimCase{"EveryKindOfWhitespace", "\t\v\f x \r\n", "x", 4, "\t\v\f x"},
                      TrimCase{"InnerBlanksKept", "a  \t b", "a  \t b", 0, "a  \t b"}),
    [](const ::testing::TestParamInfo<TrimCase>& case_info) { return case_info.param.name; });

TEST(OrvikTrim, NullStaysNull) {
  EXPECT_EQ(orvik_trim(nullptr), nullptr);
}

TEST(ReallocSafe, GrowsAndKeepsContents) {
  MallocChars block(static_cast<char*>(realloc_safe(nullptr, 4)));
  std::memcpy(block.get(), "abc", 4);
  block.reset(static_cast<char*>(realloc_safe(block.release(), 100000)));
  EXPECT_STREQ(block.get(), "abc");
}

TEST(ReallocSafe, ZeroSizeIsNotAFailure) {
  MallocChars block(static_cast<char*>(realloc_safe(nullptr, 16)));
  block.reset(static_cast<char*>(realloc_safe(block.release(), 0)));
  EXPECT_NE(block.get(), nullptr);
}

TEST(ReallocSafe, FailureEndsTheProcess) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer aborts on impossible allocations instead of failing them";
#else
  PROGNAME = "/x/resp";
  // The size is reported through %d, so a size beyond int shows wrapped.
  EXPECT_EXIT(realloc_safe(nullptr, static_cast<std::size_t>(-1)), ::testing::ExitedWithCode(1),
              "^resp: alloc\\(-1\\)\nSystem error 12: ");
  PROGNAME = nullptr;
#endif
}

class EscapeTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(connection_, nullptr); }
  void TearDown() override { mysql_close(connection_); }
  std::string escape(const char* text) {
    MallocChars escaped(escape_mysql_param(connection_, text));
    return escaped ? std::string(escaped.get()) : std::string("<null>");
  }
  // Escaping needs only an initialised handle, not a connection.
  MYSQL* connection_ = mysql_init(nullptr);
};

TEST_F(EscapeTest, NullTextGivesNull) {
  EXPECT_EQ(escape_mysql_param(connection_, nullptr), nullptr);
}

TEST_F(EscapeTest, EmptyTextGivesEmptyBuffer) {
  EXPECT_EQ(escape(""), "");
}

TEST_F(EscapeTest, PlainTextUnchanged) {
  EXPECT_EQ(escape("info@example.com"), "info@example.com");
}

TEST_F(EscapeTest, SpecialCharactersEscaped) {
  EXPECT_EQ(escape("O'Brien \"x\" \\ \n\r\x1a!"), "O\\'Brien \\\"x\\\" \\\\ \\n\\r\\Z!");
}

TEST_F(EscapeTest, WorstCaseFitsTheBuffer) {
  const std::string quotes(1000, '\'');
  std::string expected;
  for (int i = 0; i < 1000; ++i) expected += "\\'";
  EXPECT_EQ(escape(quotes.c_str()), expected);
}

// The levelled logger writes on both streams; the threshold decides.
class LoggerTest : public ::testing::Test {
 protected:
  void TearDown() override { LogLevel = 6; }

  // What orvik_log(level, ...) writes on standard error.
  static std::string logged_at(int level) {
    std::fflush(stderr);
    std::fflush(stdout);
    int err_pipe[2];
    int out_pipe[2];
    EXPECT_EQ(::pipe(err_pipe), 0);
    EXPECT_EQ(::pipe(out_pipe), 0);
    const int saved_err = ::dup(2);
    const int saved_out = ::dup(1);
    ::dup2(err_pipe[1], 2);
    ::dup2(out_pipe[1], 1);
    orvik_log(level, "level %d: %s", level, "text");
    std::fflush(stderr);
    std::fflush(stdout);
    ::dup2(saved_err, 2);
    ::dup2(saved_out, 1);
    for (int fd : {saved_err, saved_out, err_pipe[1], out_pipe[1]}) ::close(fd);
    const std::string err = drain(err_pipe[0]);
    const std::string out = drain(out_pipe[0]);
    EXPECT_EQ(err, out) << "both streams carry the same text";
    return err;
  }
  static std::string drain(int fd) {
    std::string text;
    char chunk[256];
    for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;) text.append(chunk, n);
    ::close(fd);
    return text;
  }
};

TEST_F(LoggerTest, DefaultsToTheUtilityLoggerAtSix) {
  EXPECT_EQ(orvik_log, &_orvik_utility_log);
  EXPECT_EQ(LogLevel, 6);
}

TEST_F(LoggerTest, WritesAtOrBelowThresholdWithoutPrefix) {
  PROGNAME = "resp";
  errno = ENOENT;
  EXPECT_EQ(logged_at(1), "level 1: text\n");
  EXPECT_EQ(logged_at(6), "level 6: text\n");
  PROGNAME = nullptr;
}

TEST_F(LoggerTest, SilentAboveThreshold) {
  EXPECT_EQ(logged_at(7), "");
  EXPECT_EQ(logged_at(12), "");
}

TEST_F(LoggerTest, RaisedThresholdShowsConfigurationMessages) {
  LogLevel = 12;
  EXPECT_EQ(logged_at(12), "level 12: text\n");
}

}  // namespace
