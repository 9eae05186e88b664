// The output stream onto a pipe: state on a bad descriptor, buffering, and
// what the reader sees when the stream is destroyed.
#include "autoresponder/pipe_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <type_traits>

namespace {

static_assert(std::is_base_of_v<std::ostream, ofd_pipestream>);
static_assert(std::has_virtual_destructor_v<ofd_pipestream>);

class PipeStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::pipe(fds_), 0);
    // Reads below must not block when the pipe is empty.
    ::fcntl(fds_[0], F_SETFL, O_NONBLOCK);
  }
  void TearDown() override {
    if (fds_[0] >= 0) ::close(fds_[0]);
  }

  // What the pipe holds now; sets `eof` when the writer is gone.
  std::string available(bool* eof = nullptr) {
    std::string text;
    char chunk[4096];
    ssize_t n;
    while ((n = ::read(fds_[0], chunk, sizeof chunk)) > 0) text.append(chunk, n);
    if (eof != nullptr) *eof = n == 0;
    return text;
  }
  int fds_[2] = {-1, -1};
};

TEST_F(PipeStreamTest, MinusOneSetsFailbit) {
  auto stream = std::make_unique<ofd_pipestream>(-1);
  EXPECT_TRUE(stream->fail());
  EXPECT_FALSE(stream->good());
  *stream << "discarded" << std::endl;
  stream.reset();  // nothing to flush or close
  ::close(fds_[1]);
}

TEST_F(PipeStreamTest, NotAnOpenDescriptorSetsFailbit) {
  const int unused = 250;
  ASSERT_EQ(::fcntl(unused, F_GETFD), -1);
  ofd_pipestream stream(unused);
  EXPECT_TRUE(stream.fail());
  ::close(fds_[1]);
}

TEST_F(PipeStreamTest, GoodOnAPipe) {
  ofd_pipestream stream(fds_[1]);
  EXPECT_TRUE(stream.good());
}

TEST_F(PipeStreamTest, EndOfLineReachesTheReaderAtOnce) {
  ofd_pipestream stream(fds_[1]);
  stream << "To: owner@example.com" << std::endl;
  EXPECT_EQ(available(), "To: owner@example.com\n");
}

TEST_F(PipeStreamTest, DestructionFlushesAndGivesEndOfInput) {
  {
    ofd_pipestream stream(fds_[1]);
    stream << "Subject: " << 42 << '\n' << "unflushed";
    bool eof = true;
    EXPECT_EQ(available(&eof), "") << "the text waits in the buffer";
    EXPECT_FALSE(eof);
  }
  bool eof = false;
  EXPECT_EQ(available(&eof), "Subject: 42\nunflushed");
  EXPECT_TRUE(eof);
  EXPECT_EQ(::fcntl(fds_[1], F_GETFD), -1) << "the descriptor is closed";
}

TEST_F(PipeStreamTest, OutputLargerThanTheBufferArrivesWhole) {
  const std::string text(20000, 'x');  // fits the pipe, exceeds the buffer
  std::string received;
  {
    ofd_pipestream stream(fds_[1]);
    for (std::size_t at = 0; at < text.size(); at += 10) stream << text.substr(at, 10);
    received = available();
    EXPECT_GE(received.size(), 8000u) << "a full buffer is written out";
    EXPECT_LT(received.size(), text.size()) << "the tail waits in the buffer";
  }
  bool eof = false;
  received += available(&eof);
  EXPECT_TRUE(eof);
  EXPECT_EQ(received, text);
}

TEST_F(PipeStreamTest, WriteAfterTheReaderIsGoneSetsBadbit) {
  // Without ignoring SIGPIPE the write would end the test process.
  struct sigaction ignore {};
  struct sigaction previous {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &previous), 0);
  ::close(fds_[0]);
  fds_[0] = -1;
  {
    ofd_pipestream stream(fds_[1]);
    stream << "lost" << std::endl;
    EXPECT_TRUE(stream.bad());
  }
  ::sigaction(SIGPIPE, &previous, nullptr);
}

}  // namespace
