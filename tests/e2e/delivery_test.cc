// Delivery of the reply: the mail system's size limit and the notice that
// replaces an oversized reply, the sendmail command line, one sendmail at a
// time, and how a failing sendmail or a missing response file is handled.
#include "autoresponder/delivery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

#include "lib/paths.h"
#include "tests/e2e/panel_rows.h"
#include "tests/e2e/reply_golden.h"
#include "tests/harness/harness.h"

namespace e2e {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kDomain[] = "example.org";
constexpr char kRecipient[] = "info@example.org";
constexpr int kMailbox = 1;
constexpr char kDatabytes[] = "var/qmail/control/databytes";
constexpr char kNoticeText[] = "Autoresponder message size exceeds databytes limit.";

int count_of(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

panel::Rule rule_with_text(const std::string& text) {
  panel::Rule rule;
  rule.text = text;
  return rule;
}

class DeliveryTest : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::add_domain(1, kDomain);
    panel::add_mailbox(kMailbox, 1, "info");
  }

  RunResult run(const std::string& message, const std::string& recipient = kRecipient) {
    const RunResult result = run_autoresponder(message, recipient);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result;
  }
};

// ------------------------------------------------------------- size limit

struct LimitCase {
  const char* name;
  std::optional<std::string> databytes;  // the file's content; nullopt: no file
  int reply_size;
  bool replaced;
  friend void PrintTo(const LimitCase& c, std::ostream* os) { *os << c.name; }
};

class SizeLimitTest : public DeliveryTest, public ::testing::WithParamInterface<LimitCase> {
 protected:
  // The length of rule text that makes the reply to hello.eml `reply_size`
  // bytes long: everything but the text is fixed, so one reply with an empty
  // text tells.
  int text_length_for(int reply_size) {
    panel::add_rule(1, kMailbox, rule_with_text(""));
    run(test_data("replies/hello.eml"));
    const int empty_reply = static_cast<int>(Sandbox::sendmail_calls().at(0).input.size());
    SetUp();  // a fresh sandbox and database for the real run
    return reply_size - empty_reply;
  }
};

TEST_P(SizeLimitTest, ReplacedOnlyWhenOverAPositiveLimit) {
  const std::string text(text_length_for(GetParam().reply_size), 'x');
  panel::add_rule(1, kMailbox, rule_with_text(text));
  if (GetParam().databytes) Sandbox::write_file(kDatabytes, *GetParam().databytes);
  run(test_data("replies/hello.eml"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  if (GetParam().replaced) {
    EXPECT_THAT(calls[0].input, HasSubstr(kNoticeText));
  } else {
    EXPECT_EQ(calls[0].input.size(), static_cast<std::size_t>(GetParam().reply_size));
    EXPECT_THAT(calls[0].input, HasSubstr("\n\n" + text + "\n\n\n"));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Databytes, SizeLimitTest,
    ::testing::Values(
        LimitCase{"OneByteOver", "1000\n", 1001, true},
        LimitCase{"ExactlyTheLimit", "1000\n", 1000, false}, LimitCase{"Zero", "0\n", 1001, false},
        LimitCase{"Negative", "-1000\n", 1001, false}, LimitCase{"Letters", "abc\n", 1001, false},
        LimitCase{"EmptyFile", "", 1001, false}, LimitCase{"NoFile", std::nullopt, 1001, false},
        LimitCase{"BlanksBeforeAndLettersAfter", " \n\t1000kB\n", 1001, true},
        LimitCase{"PlusSign", "+1000", 1001, true},
        LimitCase{"OnlyTheFirstWord", "2000 1000\n", 1001, false},
        // 2^32 + 1000 must become the largest limit, not 1000.
        LimitCase{"BeyondTheRangeClamped", "4294968296\n", 1001, false}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST_F(DeliveryTest, UnreadableLimitFileMeansNoLimit) {
  panel::add_rule(1, kMailbox, panel::Rule{});
  std::filesystem::create_directories(Sandbox::path(kDatabytes));
  run(test_data("replies/hello.eml"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_THAT(calls[0].input, Not(HasSubstr(kNoticeText)));
}

// The notice keeps the rule's Reply-To, answers the incoming subject (not the
// rule's) and goes to the reply's recipient.
TEST_F(DeliveryTest, OversizedReplyReplacedByNotice) {
  panel::Rule rule;
  rule.subject = "Auto: <request_subject>";
  rule.reply_to = "office@example.org";
  panel::add_rule(1, kMailbox, rule);
  Sandbox::write_file(kDatabytes, "100\n");
  run(test_data("replies/price_request.eml"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  reply_golden::expect_matches("size_notice", calls[0]);
}

// The envelope sender is the ASCII form of the mailbox address; the
// notice's From line shows the address as received.
TEST_F(DeliveryTest, NoticeFromInternationalMailbox) {
  panel::add_domain(2, "bücher.example");
  panel::add_mailbox(2, 2, "info");
  panel::add_rule(1, 2, panel::Rule{});
  Sandbox::write_file(kDatabytes, "100\n");
  run(test_data("replies/hello.eml"), "info@bücher.example");

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 1u);
  reply_golden::expect_matches("size_notice_idn", calls[0]);
}

// --------------------------------------------------------------- hand-over

TEST_F(DeliveryTest, RepliesHandedOverOneAfterTheOther) {
  panel::add_rule(1, kMailbox, rule_with_text("First."));
  panel::add_rule(2, kMailbox, rule_with_text("Second."));
  run(test_data("replies/hello.eml"));

  const auto calls = Sandbox::sendmail_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].input, HasSubstr("\n\nFirst.\n"));
  EXPECT_THAT(calls[1].input, HasSubstr("\n\nSecond.\n"));
  EXPECT_GE(calls[1].started, calls[0].ended);
  EXPECT_TRUE(Sandbox::tmp_files().empty());
}

// A refused reply is reported and the next rule still answers.
TEST_F(DeliveryTest, FailingSendmailReportedAndRunGoesOn) {
  Sandbox::set_sendmail_mode(SendmailMode::kFail);
  panel::add_rule(1, kMailbox, rule_with_text("First."));
  panel::add_rule(2, kMailbox, rule_with_text("Second."));
  const RunResult result = run(test_data("replies/hello.eml"));

  EXPECT_EQ(Sandbox::sendmail_calls().size(), 2u);
  EXPECT_EQ(count_of(result.err, "autoresponder: sendmail for the reply exited with status 1\n"),
            2);
}

// sendmail reads its input from the response file, so one that exits at once
// costs nothing but the reply.
TEST_F(DeliveryTest, SendmailExitingEarlyIsNoFailure) {
  Sandbox::set_sendmail_mode(SendmailMode::kExitEarly);
  panel::add_rule(1, kMailbox, rule_with_text("First."));
  panel::add_rule(2, kMailbox, rule_with_text("Second."));
  const RunResult result = run(test_data("replies/hello.eml"));

  EXPECT_EQ(Sandbox::sendmail_calls().size(), 2u);
  EXPECT_THAT(result.err, Not(HasSubstr("sendmail for the reply")));
}

// A response file that is gone when delivery starts: two reports, status 1.
// Not reachable through the program, so delivery is called directly; the
// name buffer still holds its template, which names no file.
TEST_F(DeliveryTest, MissingResponseFileEndsTheRunWithStatus1) {
  ASSERT_THAT(std::string(resp_uu_file_name), StartsWith(orvik::paths::kResponseTemplate));
  struct stat unused;
  ASSERT_NE(stat(resp_uu_file_name, &unused), 0);
  Mail_content mail;
  mail.from = "sender@example.com";
  mail.to = kRecipient;

  EXPECT_EXIT(deliver_response(mail, Resp_rule{}), ::testing::ExitedWithCode(1),
              "autoresponder: Failed to open temporary file with response mail contents '.*"
              "/tmp/ovk-response-uu-XXXXXX': No such file or directory \\(2\\)\n"
              "Send error: Failed to generate response mail contents\n");
  EXPECT_TRUE(Sandbox::sendmail_calls().empty());
}

}  // namespace
}  // namespace e2e
