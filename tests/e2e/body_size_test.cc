// Text bodies of hundreds of megabytes through the real program, streamed
// into its standard input as they are generated (never held by the test):
// many short lines, many empty lines, one line of 100 MB, and 100 MB text
// parts in base64, in quoted-printable with soft line breaks and in
// ISO-8859-1. A rule searches the body for a key that is near the end or
// absent; the program answers exactly when it is there, stays under 32 MiB
// and leaves no file behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using panel::Sandbox;

constexpr const char* kKey = "key-word";
#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kMiB =
    1 << 16;  // a sixteenth: the shapes stay, the sanitizer's time stays short
#else
constexpr std::size_t kMiB = 1 << 20;
#endif

// Writes to the program's standard input; stops quietly when it has gone.
class Feed {
 public:
  explicit Feed(int fd) : fd_(fd) {}
  void put(std::string_view text) {
    while (!text.empty() && fd_ >= 0) {
      const ssize_t written = write(fd_, text.data(), text.size());
      if (written <= 0) {
        fd_ = -1;
        return;
      }
      text.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  // `piece` repeated up to `bytes` (whole pieces), written a megabyte at a time.
  void repeat(std::string_view piece, std::size_t bytes) {
    std::string block;
    while (block.size() + piece.size() <= (1u << 20)) block += piece;
    const std::size_t per_block = block.size() / piece.size();
    std::size_t pieces = bytes / piece.size();
    for (; pieces >= per_block; pieces -= per_block) put(block);
    put(std::string_view(block).substr(0, pieces * piece.size()));
  }

 private:
  int fd_;
};

const std::string kHead = "From: sender@example.com\nSubject: hi\n";
const std::string kLine = "0123456789abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqrstuvw\n";

// A message: kHead, `head`, a blank line, `piece` repeated to `mib`
// megabytes, then the body's last bytes (the key, when wanted, near the end)
// and `end`.
struct Shape {
  const char* name;
  std::string head;
  std::string_view piece;
  std::size_t mib;
  std::string_view key_tail = "some text, key-word, more text\nbye\n";
  std::string_view tail = "bye\n";
  std::string_view end = "";
};

const Shape kShapes[] = {
    {"ShortLines200MB", "", kLine, 200},
    {"EmptyLines50MB", "", "\n", 50},
    {"OneLine100MBKeyInItsLastBytes", "", "x", 100, kKey, ""},
    // "The quick brown fox jumps over the lazy dog, 0123456789.\n" (57 bytes) in
    // one base64 line of 76 characters; the two tails above in base64.
    {"Base64TextPart100MB",
     "Content-Type: multipart/mixed; boundary=B\n\n--B\nContent-Type: text/plain\n"
     "Content-Transfer-Encoding: base64\n",
     "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZywgMDEyMzQ1Njc4OS4K\n", 100,
     "c29tZSB0ZXh0LCBrZXktd29yZCwgbW9yZSB0ZXh0CmJ5ZQo=\n", "YnllCg==\n", "--B--\n"},
    {"QuotedPrintableSoftBreaks100MB", "Content-Transfer-Encoding: quoted-printable\n",
     "0123456789abcdef=3D0123456789abcdef=20=C3=A9=C3=A9xyz0123456789abcdef=\n", 100},
    {"Latin1Body100MB", "Content-Type: text/plain; charset=ISO-8859-1\n",
     "caf\xe9 cr\xe8me br\xfbl\xe9\x65, na\xefve fa\xe7\x61\x64\x65, \xa9 \xbd\n", 100},
};

class BodySize : public e2e::EndToEndTest,
                 public ::testing::WithParamInterface<std::tuple<Shape, bool>> {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::add_domain(1, "example.org");
    panel::add_mailbox(1, 1, "info");
    panel::add_rule(1, 1, "key_where='body', keystr='key-word'");
  }
};

TEST_P(BodySize, AnswersWhenTheKeyIsThereInBoundedMemory) {
  const auto& [shape, key] = GetParam();
  const e2e::RunResult run =
      e2e::run_program({e2e::autoresponder_path()}, "", "info@example.org", {}, {}, [&](int fd) {
        Feed feed(fd);
        feed.put(kHead + shape.head + "\n");
        feed.repeat(shape.piece, shape.mib * kMiB);
        feed.put(key ? shape.key_tail : shape.tail);
        feed.put(shape.end);
      });
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, "");
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(run.peak_rss_kib, 32 << 10);
#endif
  EXPECT_EQ(Sandbox::sendmail_calls().size(), key ? 1u : 0u);
  EXPECT_TRUE(Sandbox::tmp_files().empty());
}

INSTANTIATE_TEST_SUITE_P(, BodySize,
                         ::testing::Combine(::testing::ValuesIn(kShapes), ::testing::Bool()),
                         [](const auto& p) {
                           return std::string(std::get<0>(p.param).name) +
                                  (std::get<1>(p.param) ? "KeyNearTheEnd" : "KeyAbsent");
                         });

}  // namespace
