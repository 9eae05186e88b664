// The intake of the incoming message: the stored copy, the message record on
// the corpus in tests/data, and the failure lines.
//
// parse_message reads descriptor 0 and creates its copy in the sandbox's tmp
// directory; each test puts its input on descriptor 0 (a file or a pipe),
// restores the real one afterwards and removes the copy.
#include "autoresponder/intake.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "autoresponder/mail_content.h"
#include "lib/paths.h"

namespace {

using namespace std::string_literals;

const char kRecipient[] = "info@example.com";

template <typename Case>
std::string case_name(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

std::string read_whole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string corpus(const std::string& name) {
  return read_whole(std::string(OVK_TEST_DATA_DIR) + "/" + name);
}

struct Intake_result {
  int status = -1;
  Mail_content mail;
  std::string err;
  std::optional<std::string> stored;  // the temporary copy, when one was made
};

enum class Input_kind { kFile, kPipe };

class IntakeTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(std::string(orvik::paths::kRootPrefix) + "/tmp");
    std::strcpy(mail_file_name, orvik::paths::kMailTemplate);
    if (const char* saved = std::getenv("RESP_RECIPIENT")) saved_recipient_ = saved;
  }

  void TearDown() override {
    remove_copy();
    if (saved_recipient_) {
      setenv("RESP_RECIPIENT", saved_recipient_->c_str(), 1);
    } else {
      unsetenv("RESP_RECIPIENT");
    }
  }

  static void remove_copy() {
    if (std::strcmp(mail_file_name, orvik::paths::kMailTemplate) != 0) unlink(mail_file_name);
    std::strcpy(mail_file_name, orvik::paths::kMailTemplate);
  }

  // Runs the intake with `input_fd` (borrowed) as descriptor 0 and
  // RESP_RECIPIENT set to `recipient` (unset when null).
  static Intake_result take_in_from(int input_fd, const char* recipient = kRecipient) {
    if (recipient != nullptr) {
      setenv("RESP_RECIPIENT", recipient, 1);
    } else {
      unsetenv("RESP_RECIPIENT");
    }
    const int saved_stdin = dup(STDIN_FILENO);
    dup2(input_fd, STDIN_FILENO);
    Intake_result result;
    testing::internal::CaptureStderr();
    result.status = parse_message(&result.mail);
    result.err = testing::internal::GetCapturedStderr();
    dup2(saved_stdin, STDIN_FILENO);
    close(saved_stdin);
    if (std::strcmp(mail_file_name, orvik::paths::kMailTemplate) != 0) {
      result.stored = read_whole(mail_file_name);
    }
    return result;
  }

  // The same with `input` in a file or written into a pipe.
  static Intake_result take_in(const std::string& input, const char* recipient = kRecipient,
                               Input_kind kind = Input_kind::kFile) {
    if (kind == Input_kind::kFile) {
      char path[] = "/tmp/intake-input-XXXXXX";
      const int fd = mkstemp(path);
      unlink(path);
      EXPECT_EQ(write(fd, input.data(), input.size()), static_cast<ssize_t>(input.size()));
      lseek(fd, 0, SEEK_SET);
      Intake_result result = take_in_from(fd, recipient);
      close(fd);
      return result;
    }
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    std::thread writer([&input, out = ends[1]] {
      for (std::size_t done = 0; done < input.size();) {
        const ssize_t n = write(out, input.data() + done, input.size() - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
      }
      close(out);
    });
    Intake_result result = take_in_from(ends[0], recipient);
    writer.join();
    close(ends[0]);
    return result;
  }

 private:
  std::optional<std::string> saved_recipient_;
};

// --- The message record on the corpus: golden files ------------------------

// Control bytes and the backslash escaped, so a golden file shows every byte
// of a value on one line; 8-bit bytes stay as they are.
std::string escaped(const std::string& value) {
  std::string out;
  for (const char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\0') {
      out += "\\0";
    } else if (byte < 0x20 || byte == 0x7f) {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", byte);
      out += hex;
    } else {
      out += c;
    }
  }
  return out;
}

// "name: value", or "name:" for an empty value, so no golden line ends in a
// blank.
std::string field(const char* name, const std::string& value) {
  return std::string(name) + ":" + (value.empty() ? "" : " " + escaped(value)) + "\n";
}

std::string render(const Intake_result& result) {
  const Mail_content& mail = result.mail;
  std::string text = field("status", std::to_string(result.status));
  text += field("from", mail.from) + field("to", mail.to) + field("to_mailname", mail.to_mailname) +
          field("to_domain", mail.to_domain) + field("subject", mail.subject) +
          field("date", mail.date) + field("charset", mail.charset);
  text += "body: " + std::to_string(mail.body.size()) + " lines\n";
  for (const std::string& line : mail.body) {
    text += "|" + (line.empty() ? "" : " " + escaped(line)) + "\n";
  }
  text += "stderr:\n" + result.err;
  return text;
}

class CorpusTest : public IntakeTest, public testing::WithParamInterface<const char*> {};

// tests/data/NAME.eml read with RESP_RECIPIENT info@example.com gives the
// record in NAME.expected. On a mismatch the actual rendering is written to
// NAME.actual in the working directory (the build tree) for a reviewer.
TEST_P(CorpusTest, MatchesGoldenRecord) {
  const std::string name = GetParam();
  const std::string input = corpus(name + ".eml");
  const Intake_result result = take_in(input);
  EXPECT_EQ(result.stored, input + "\n");
  const std::string actual = render(result);
  const std::string expected = corpus(name + ".expected");
  EXPECT_EQ(actual, expected);
  if (actual != expected) {
    const auto path = std::filesystem::absolute(name + ".actual");
    std::ofstream(path, std::ios::binary) << actual;
    ADD_FAILURE() << "actual record written to " << path;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Corpus, CorpusTest,
    testing::Values("plain_no_content_type", "utf8_8bit", "html_koi8r_upper", "alternative_base64",
                    "mixed_image_then_qp", "nested_alternative", "octet_stream", "base64_upper",
                    "qp_mixed_case", "latin1_declared", "latin1_undeclared", "unknown_charset",
                    "unknown_charset_empty_body", "encoded_subject", "raw8bit_subject",
                    "reply_to_group", "reply_to_invalid", "reply_to_valid", "crlf", "nul_body",
                    "no_final_lf", "part_without_content_type", "mailer_daemon", "empty",
                    "garbage"),
    [](const testing::TestParamInfo<const char*>& param) { return std::string(param.param); });

// --- The stored copy -----------------------------------------------------

struct Copy_case {
  const char* name;
  std::string input;
  std::string stored;
  Input_kind kind;
};

void PrintTo(const Copy_case& value, std::ostream* out) {
  *out << value.name;
}

class StoredCopyTest : public IntakeTest, public testing::WithParamInterface<Copy_case> {};

TEST_P(StoredCopyTest, IsTheInputPlusOneLineFeed) {
  const Intake_result result = take_in(GetParam().input, kRecipient, GetParam().kind);
  EXPECT_EQ(result.stored, GetParam().stored);
}

std::string big_message() {
  std::string message = "From: big@example.com\nSubject: big\n\n";
  // Not a multiple of any block size, so the last read is a short one.
  while (message.size() < 3 * 128 * 1024 + 17) message += "0123456789abcdef\n";
  return message;
}

INSTANTIATE_TEST_SUITE_P(
    Copies, StoredCopyTest,
    testing::Values(Copy_case{"TwoLines", "A\nB\n", "A\nB\n\n", Input_kind::kFile},
                    Copy_case{"TwoLinesWithoutLastLineFeed", "A\nB", "A\nB\n", Input_kind::kFile},
                    Copy_case{"Empty", "", "\n", Input_kind::kFile},
                    Copy_case{"EmptyPipe", "", "\n", Input_kind::kPipe},
                    Copy_case{"NulAndCrKept", "a\0b\r\n"s, "a\0b\r\n\n"s, Input_kind::kFile},
                    Copy_case{"LargeFile", big_message(), big_message() + "\n", Input_kind::kFile},
                    Copy_case{"LargePipe", big_message(), big_message() + "\n", Input_kind::kPipe}),
    case_name<Copy_case>);

TEST_F(IntakeTest, CopyIsPrivateToTheOwner) {
  const Intake_result result = take_in(corpus("plain_no_content_type.eml"));
  struct stat info {};
  ASSERT_EQ(stat(mail_file_name, &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600);
  EXPECT_EQ(std::string(mail_file_name).rfind(orvik::paths::kRootPrefix, 0), 0u);
}

TEST_F(IntakeTest, ReadErrorEndsTheCopyLikeEndOfInput) {
  // Open for writing only: every read fails with EBADF.
  const int write_only = open("/dev/null", O_WRONLY);
  const Intake_result result = take_in_from(write_only);
  close(write_only);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.stored, "\n");
}

// --- Failures --------------------------------------------------------------

const char kNoSender[] = "Could not get sender's e-mail address from Reply-To: or From: headers.\n";

struct Failure_case {
  const char* name;
  std::string input;
  bool recipient_set;
  std::string err;
};

void PrintTo(const Failure_case& value, std::ostream* out) {
  *out << value.name;
}

class FailureTest : public IntakeTest, public testing::WithParamInterface<Failure_case> {};

TEST_P(FailureTest, ReportsOneLineAndReturnsOne) {
  const Intake_result result =
      take_in(GetParam().input, GetParam().recipient_set ? kRecipient : nullptr);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, GetParam().err);
  EXPECT_EQ(result.mail.from, "");
  EXPECT_EQ(result.mail.to, "");
  EXPECT_TRUE(result.mail.body.empty());
  // The copy is made before parsing; the run's clean-up removes it.
  EXPECT_EQ(result.stored, GetParam().input + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Failures, FailureTest,
    testing::Values(
        Failure_case{"FirstLineWithoutColon", "hello world\nFrom: a@example.com\n\nx\n", true,
                     kNoSender},
        Failure_case{"NoFromNoReplyTo", "Subject: lonely\n\nbody\n", true, kNoSender},
        Failure_case{"OnlyUnusableAddresses", "From: <>\nReply-To: grp: a@example.com;\n\nbody\n",
                     true, kNoSender},
        // The sender is looked for first: without one the recipient does not
        // matter.
        Failure_case{"NoSenderAndNoRecipient", "Subject: x\n\n", false, kNoSender},
        Failure_case{"RecipientUnset", "From: a@example.com\n\nbody\n", false,
                     "Could not get recipient e-mail address from RESP_RECIPIENT environment "
                     "variable\n"}),
    case_name<Failure_case>);

TEST_F(IntakeTest, UncreatableCopyReadsNothing) {
  // A template in a directory that does not exist, as long as the real one.
  const std::string missing_dir =
      std::string(orvik::paths::kRootPrefix) + "/tmq/ovk-autoresponder-XXXXXX";
  ASSERT_EQ(missing_dir.size() + 1, kMailFileNameSize);
  std::strcpy(mail_file_name, missing_dir.c_str());
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "From: a@b\n", 10), 10);
  close(ends[1]);

  const Intake_result result = take_in_from(ends[0]);
  char left[16];
  EXPECT_EQ(read(ends[0], left, sizeof left), 10);
  close(ends[0]);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "Could not create a temporary file.\n");
  // The clean-up may only remove the template, never a name mkstemp tried.
  EXPECT_STREQ(mail_file_name, orvik::paths::kMailTemplate);
}

// --- The recipient -----------------------------------------------------------

struct Recipient_case {
  const char* name;
  const char* recipient;
  std::string mailname;
  std::string domain;
};

void PrintTo(const Recipient_case& value, std::ostream* out) {
  *out << value.name;
}

class RecipientTest : public IntakeTest, public testing::WithParamInterface<Recipient_case> {};

TEST_P(RecipientTest, SplitsAtTheFirstAt) {
  const Intake_result result = take_in("From: a@example.com\n\nx\n", GetParam().recipient);
  ASSERT_EQ(result.status, 0);
  EXPECT_EQ(result.mail.to, GetParam().recipient);
  EXPECT_EQ(result.mail.to_mailname, GetParam().mailname);
  EXPECT_EQ(result.mail.to_domain, GetParam().domain);
}

INSTANTIATE_TEST_SUITE_P(
    Recipients, RecipientTest,
    testing::Values(Recipient_case{"Plain", "info@example.com", "info", "example.com"},
                    Recipient_case{"NoAt", "info", "info", "info"},
                    Recipient_case{"TwoAts", "a@b@c", "a", "b@c"},
                    Recipient_case{"AtFirst", "@example.com", "", "example.com"},
                    Recipient_case{"Empty", "", "", ""},
                    Recipient_case{"CaseKept", "Info@Example.COM", "Info", "Example.COM"}),
    case_name<Recipient_case>);

// --- Header texts --------------------------------------------------------------

TEST_F(IntakeTest, FirstSubjectAndDateTakenWithoutDecodingTheDate) {
  const Intake_result result = take_in(
      "From: a@example.com\nsubject:  \t first  \t\nSubject: second\n"
      "DATE: =?utf-8?q?not_decoded?=\n\nx\n");
  ASSERT_EQ(result.status, 0);
  EXPECT_EQ(result.mail.subject, "first");
  EXPECT_EQ(result.mail.date, "=?utf-8?q?not_decoded?=");
}

TEST_F(IntakeTest, SubjectDecodingFailureNamesTheBodyCharset) {
  const Intake_result result = take_in(
      "From: a@example.com\nSubject: =?x-unknown-charset?q?abc?=\n"
      "Content-Type: text/plain; charset=iso-8859-2\n\nx\n");
  ASSERT_EQ(result.status, 0);
  EXPECT_EQ(result.mail.subject, "");
  EXPECT_EQ(result.err, "Could not convert message subject text from iso-8859-2 to UTF-8.\n");
}

TEST_F(IntakeTest, BodyLineComesBeforeSubjectLine) {
  const Intake_result result = take_in(
      "From: a@example.com\nSubject: =?x-unknown-charset?q?abc?=\n"
      "Content-Type: text/plain; charset=x-unknown-body\n\nx\n");
  ASSERT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "Could not convert message body text from x-unknown-body to UTF-8.\n"
            "Could not convert message subject text from x-unknown-body to UTF-8.\n");
}

TEST_F(IntakeTest, HeaderOnlyMessageHasOneEmptyLine) {
  // The added line feed ends the header block; the body is empty.
  const Intake_result result = take_in("From: a@example.com\nSubject: s\n");
  ASSERT_EQ(result.status, 0);
  EXPECT_EQ(result.mail.body, std::vector<std::string>{""});
}

TEST_F(IntakeTest, NulEndsHeaderTexts) {
  const Intake_result result =
      take_in("From: a@example.com\nSubject: one\0two\nDate: d1\0d2\n\nx\n"s);
  ASSERT_EQ(result.status, 0);
  EXPECT_EQ(result.mail.subject, "one");
  EXPECT_EQ(result.mail.date, "d1");
}

}  // namespace
