// Fuzz target: the intake of an incoming message (parse_message), from the
// copy of standard input through the MIME parse, the choice of sender and
// text body, to the decoded subject and the body lines in UTF-8.
//
// Each input becomes standard input through an anonymous file; the stored
// copy goes to the sandbox's tmp directory and is removed after the input.
// Beyond the sanitizers, checks what the intake promises: the stored copy is
// the input plus one line feed, and the record holds no NUL bytes and no
// line feeds inside body lines, and a sender without line breaks.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "autoresponder/intake/intake.h"
#include "autoresponder/mail_content.h"
#include "lib/paths.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/unit/read_all.h"

namespace {

using ovk_fuzz::check;

constexpr char kRecipient[] = "info@example.com";

bool has_nul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

// Standard input replaced by a descriptor for the lifetime of the object.
class StdinRedirect {
 public:
  explicit StdinRedirect(int fd) : saved_(dup(STDIN_FILENO)) {
    if (!saved_ || dup2(fd, STDIN_FILENO) < 0) ovk_fuzz::harness_failure("redirecting stdin");
  }
  ~StdinRedirect() { dup2(saved_.get(), STDIN_FILENO); }

 private:
  Unique_fd saved_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string tmp = std::string(orvik::paths::kRootPrefix) + "/tmp";
  const std::string root = orvik::paths::kRootPrefix;
  if (!root.empty() && mkdir(root.c_str(), 0700) != 0 && errno != EEXIST) {
    ovk_fuzz::harness_failure("cannot create the sandbox directory");
  }
  if (mkdir(tmp.c_str(), 0700) != 0 && errno != EEXIST) {
    ovk_fuzz::harness_failure("cannot create the sandbox tmp directory");
  }
  setenv("RESP_RECIPIENT", kRecipient, 1);
  ovk_fuzz::silence_cerr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ovk_fuzz::MemFile input(data, size);
  std::strcpy(mail_file_name, orvik::paths::kMailTemplate);

  Mail_content mail;
  int result;
  {
    const StdinRedirect redirect(input.fd());
    result = parse_message(&mail);
  }
  check(std::strcmp(mail_file_name, orvik::paths::kMailTemplate) != 0,
        "no stored copy was created");
  const std::string stored = read_file(mail_file_name);
  unlink(mail_file_name);
  std::strcpy(mail_file_name, orvik::paths::kMailTemplate);

  std::string expected(reinterpret_cast<const char*>(data), size);
  expected += '\n';
  check(stored == expected, "the stored copy is not the input plus one line feed");

  if (result != 0) {
    check(result == 1, "parse_message returned neither 0 nor 1");
    return 0;
  }
  check(mail.to == kRecipient && mail.to_mailname == "info" && mail.to_domain == "example.com",
        "recipient split");
  check(!has_nul(mail.from) && !has_nul(mail.subject) && !has_nul(mail.date) &&
            !has_nul(mail.charset),
        "a message value holds a NUL byte");
  // The sender goes into the reply's header and onto sendmail's command line.
  check(mail.from.find_first_of("\r\n") == std::string::npos, "the sender holds a line break");
  check(mail.from.find('@') != std::string::npos, "the sender has no @");
  check(!mail.body.empty(), "the body has no line");
  for (const std::string& line : mail.body) {
    check(line.find('\n') == std::string::npos, "a body line holds a line feed");
    check(!has_nul(line), "a body line holds a NUL byte");
  }
  return 0;
}
