// Hostile messages through the real program: header lines and blocks of
// megabytes, multiparts whose preface or epilogue is the whole body, 10,000
// parts, nesting 1,000 deep, malformed encoded words, SQL metacharacters in
// every address part, CR, LF and NUL where header texts go. Each run ends in
// bounded time and memory with the described result, and nothing from the
// message becomes statement text or a header line of the reply.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"
#include "tests/unit/text_case.h"

namespace {

using panel::Sandbox;
using panel::TestDb;
using text_case::repeat;

constexpr const char* kTo = "info@example.org";
constexpr std::size_t kHuge = 32 << 20;  // the size of the large cases, at the memory bound

// info@example.org answers a message whose text holds "key-word", under the
// incoming subject.
class Hostile : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::add_domain(1, "example.org");
    panel::add_mailbox(1, 1, "info");
    panel::add_rule(1, 1, "key_where='body', keystr='key-word', subject='<request_subject>'");
  }
};

const std::string kHead = "From: sender@example.com\nSubject: hi\n";
const std::string kLine = "0123456789abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqrst\n";
std::string lines() {
  return repeat(kLine, kHuge / kLine.size());
}
const std::string kText = "--B\nContent-Type: text/plain\n\nkey-word\n";

std::string multipart(const std::string& body) {
  return kHead + "Content-Type: multipart/mixed; boundary=B\n\n" + body;
}

// A part holding `inner` nested `depth` multiparts deep.
std::string nested(int depth, const std::string& inner) {
  if (depth == 0) return "Content-Type: text/plain\n\n" + inner + "\n";
  const std::string b = "N" + std::to_string(depth);
  return "Content-Type: multipart/mixed; boundary=" + b + "\n\n--" + b + "\n" +
         nested(depth - 1, inner) + "--" + b + "--\n";
}

struct Case {
  const char* name;
  std::function<std::string()> message;
  std::optional<std::string> subject;  // the reply's Subject field body; nullopt: no reply
  std::string err = "";
  long max_mib = 32;
  std::string to = kTo;
};

class HostileMessage : public Hostile, public ::testing::WithParamInterface<Case> {};

TEST_P(HostileMessage, EndsInBoundedTimeAndMemory) {
  const e2e::RunResult run = e2e::run_autoresponder(GetParam().message(), GetParam().to);
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, GetParam().err);
#ifndef __SANITIZE_ADDRESS__  // which has time and memory bounds of its own
  EXPECT_LT(run.seconds, e2e::kRunSecondsCeiling);
  EXPECT_LT(run.peak_rss_kib, GetParam().max_mib << 10);
#endif
  EXPECT_TRUE(Sandbox::tmp_files().empty());
  // The addresses of the SQL cases below reach statements escaped only.
  for (const std::string& statement : TestDb::statements_sent()) {
    for (const char* raw : {"o'h", "in'fo", "exa'm", "x';"})
      EXPECT_EQ(statement.find(raw), std::string::npos);
  }
  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), GetParam().subject ? 1u : 0u);
  if (calls.empty()) return;
  // The reply's header: only the fields the program writes, none from the
  // message.
  // Folded lines (of a long Subject) are read unfolded; no line is longer
  // than 998 octets.
  std::istringstream reply(calls[0].input);
  const std::regex own("(From|To|MIME-Version|Subject|Content-[A-Za-z-]+): .*");
  std::vector<std::string> fields;
  for (std::string line; std::getline(reply, line) && !line.empty();) {
    EXPECT_LE(line.size(), 998u) << line.substr(0, 200);
    if (!fields.empty() && line.starts_with(' ')) {
      fields.back() += line;
    } else {
      fields.push_back(line);
    }
  }
  for (const std::string& field : fields) {
    EXPECT_TRUE(std::regex_match(field, own)) << field.substr(0, 200);
    if (field.starts_with("Subject: ")) {
      EXPECT_EQ(field.substr(9), GetParam().subject);
    }
  }
  // The sender reaches the reply's recipient and resp_freq exactly.
  EXPECT_EQ(calls[0].argv.back().find_first_of("\r\n"), std::string::npos);
  EXPECT_EQ(TestDb::scalar("SELECT email FROM resp_freq"), calls[0].argv.back());
}

// A reply subject of 900 bytes or more that would make a line longer than
// 998 octets: Q-encoded words of at most 63 data bytes, read unfolded.
std::string folded(const std::string& text) {
  std::string words;
  for (std::size_t at = 0; at < text.size(); at += 63) {
    words += (at == 0 ? "=?utf-8?Q?" : " =?utf-8?Q?") + text.substr(at, 63) + "?=";
  }
  return words;
}

// Words that decode, then one of each malformation; the first NUL byte (from
// a bad hex pair, a final "=", or a bad base64 symbol that still counts as
// read) ends the subject.
const std::string kBadWords =
    "=?utf-8?Q?a_b?= =?utf-8?B?Yw==?= =?x =?utf-8?Q =?utf-8?q?abc =?utf-8?q?d?=tail "
    "=?utf-8?X?e?= =?utf-8?q?g=4?= =?utf-8?b?@Zg==?= =?utf-8?q?h=?= =?utf-8?q?=ZZ?=";

// A message with the subject `text` whose body holds the key.
std::function<std::string()> titled(const std::string& text) {
  return [text] { return "From: s@example.com\nSubject: " + text + "\n\nkey-word\n"; };
}

INSTANTIATE_TEST_SUITE_P(
    , HostileMessage,
    ::testing::Values(
        Case{"HeaderLineOfMegabytes",
             [] { return kHead + "X-Big: " + std::string(kHuge, 'x') + "\n\nkey-word\n"; }, "hi"},
        Case{"HeaderBlockOfMegabytes",
             [] { return kHead + repeat("X-Junk: " + kLine, kHuge / 75) + "\nkey-word\n"; }, "hi"},
        Case{"SubjectOf16MiB", [] { return titled(std::string(16 << 20, 'S'))(); },
             folded(std::string(999, 'S')), "", 64},
        Case{"FromListOf16MiB",
             [] {
               return "From: s@example.com, " + repeat("x@example.com, ", (16 << 20) / 15) +
                      "\nSubject: hi\n\nkey-word\n";
             },
             "hi", "", 64},
        Case{"ReplyToGroupsOf16MiB",
             [] {
               return "Reply-To: " + repeat("g: a@example.com;, ", (16 << 20) / 20) +
                      "\nFrom: s@example.com\nSubject: hi\n\nkey-word\n";
             },
             "hi", "", 64},
        // Reports of the Subject kept (kMaxKeptFieldBody: 3,855 words of 4 bad symbols).
        Case{"MegabyteOfBadEncodedWords",
             [] { return titled(repeat("=?utf-8?B?!!!!?= ", (1 << 20) / 17))(); }, "",
             repeat("Bad base64 symbol: !\n", 10) +
                 "wrong rfc1522 sequence: 15410 more reports left out\n"},
        Case{"PrefaceOfMegabytes", [] { return multipart(lines() + kText + "--B--\n"); }, "hi"},
        Case{"EpilogueOfMegabytes", [] { return multipart(kText + "--B--\n" + lines()); }, "hi"},
        Case{"MultipartWithoutBoundary",
             [] { return kHead + "Content-Type: multipart/mixed\n\n" + kText + lines(); },
             std::nullopt},
        Case{"TenThousandPartsBeforeTheText",
             [] {
               return multipart(repeat("--B\nContent-Type: image/png\n\nkey-word\n", 10000) +
                                kText);
             },
             "hi"},
        Case{"TextAfterAThousandNestedMultiparts",
             [] { return multipart("--B\n" + nested(1000, "deep") + kText); }, "hi"},
        Case{"EveryMalformedEncodedWord", titled(kBadWords),
             "a =?utf-8?Q?bc=3D=3Fx_=3D=3Futf=2D8=3FQ_=3D=3Futf=2D8=3Fq=3Fabc_dtail_g=04f?=",
             "wrong rfc1522 sequence (no charset): =?x\n"
             "wrong rfc1522 sequence (no encoding): =?utf-8?Q\n"
             "wrong rfc1522 sequence (no data): =?utf-8?q?abc\n"
             "wrong rfc1522 sequence (trailing stuff): =?utf-8?q?d?=tail\n"
             "Bad base64 symbol: @\nBad hex in quoted-printable string: ZZ\n"},
        Case{"UndecodableEncodedWords", titled("=?x-no-such?q?a?= =?utf-8?b?w6?="), "",
             "Could not convert message subject text from US-ASCII to UTF-8.\n"},
        Case{"HundredThousandEncodedWords",
             [] { return titled(repeat("=?utf-8?q?ab?= ", 100000))(); },
             folded(repeat("ab", 500).substr(0, 999))},
        Case{"CrLfInAnEncodedSubject", titled("=?utf-8?q?hi=0D=0ABcc:_x@example.net?="),
             "=?utf-8?Q?hi=0D=0ABcc:_x@example.net?="},
        Case{"NulInTheSubject", titled(std::string("h\0i", 3)), "h"},
        Case{"NulInAnEncodedSubject", titled("=?utf-8?q?hi=00Bcc?="), "hi"},
        Case{"SqlMetacharactersInTheSender",
             [] { return "From: \"o'h\\\"a;--\"@it's.example\nSubject: hi\n\nkey-word\n"; }, "hi"},
        Case{"SqlMetacharactersInTheRecipient", titled("hi"), std::nullopt,
             "autoresponder: Mailname not found: in'fo\\\";--@exa'mple.org\n", 32,
             "in'fo\\\";--@exa'mple.org"},
        Case{"CrLfInTheSender",
             [] {
               return "From: \"a\r\n Bcc: x@example.net\"@example.com, s@example.com\n"
                      "Reply-To: x@example.net\rBcc: y@example.net\n\nkey-word\n";
             },
             ""}),
    panel::kCaseName);

}  // namespace
