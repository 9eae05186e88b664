// Intake of the incoming message: the stored copy, the parse and the message
// record.
//
// Copies standard input (a pipe or a file) in large blocks into a new file
// made from mail_file_name, which is kept for forwarding and removed by the
// run's clean-up. The message is then read from that file in bounded memory:
// the fields the record needs from its header block, and the selected text
// body (body_selection). Memory grows with those fields and that text only,
// never with the message's other headers, parts, nesting or size.
//
// Fails (returns 1 after one line on standard error) when the file cannot be
// created, when neither Reply-To nor From yields a mailbox, and when
// RESP_RECIPIENT is unset. Charset and subject conversion failures are
// reported and the intake goes on. Other exceptions (exhausted memory) pass
// to the caller.
#include "autoresponder/intake.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "autoresponder/address_list.h"
#include "autoresponder/body_selection.h"
#include "autoresponder/stored_message.h"
#include "lib/paths.h"
#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/rfc1522.h"

namespace {

// Standard input is copied in blocks of this size: large enough that the
// copy runs at the speed of a plain file copy.
constexpr std::size_t kSpoolBlockSize = 128 * 1024;

class Unique_fd {
 public:
  explicit Unique_fd(int fd) noexcept : fd_(fd) {}
  Unique_fd(const Unique_fd&) = delete;
  Unique_fd& operator=(const Unique_fd&) = delete;
  ~Unique_fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const noexcept { return fd_; }
  int release() noexcept { return std::exchange(fd_, -1); }
  explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

bool write_all(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Copies `input` to `spool` and adds one line feed, so the stored message is
// the input with its last line terminated, plus an empty last line when the
// input already ended in a line feed (an empty input becomes "\n"). A read
// error on the input ends the copy as its end would. After a failed write
// nothing more is written (the copy stays a prefix of the input, never a
// copy with a hole) but the input is still read to its end.
void spool_input(int input, int spool) {
  const std::unique_ptr<char[]> block(new char[kSpoolBlockSize]);
  bool writing = true;
  for (;;) {
    const ssize_t got = read(input, block.get(), kSpoolBlockSize);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (writing) writing = write_all(spool, block.get(), static_cast<std::size_t>(got));
  }
  if (writing) write_all(spool, "\n", 1);
}

// Message values are character strings: each ends at its first NUL byte.
std::string up_to_nul(std::string text) {
  const std::size_t nul = text.find('\0');
  if (nul != std::string::npos) text.resize(nul);
  return text;
}

// Reply-To before From. Reply-To is an address list whose groups are never
// taken; From is a list of mailboxes. Of a field cut to its kept length the
// last, perhaps incomplete, address is not taken.
std::optional<Mailbox_address> choose_sender(const Entity_headers& headers) {
  if (headers.reply_to) {
    if (auto mailbox = GetMailboxFromAddressList(*headers.reply_to, headers.reply_to_cut)) {
      return mailbox;
    }
  }
  if (headers.from) return GetMailboxFromMailboxList(*headers.from, headers.from_cut);
  return std::nullopt;
}

// Every piece between line feeds, the one after the last line feed too, so
// there is always one line more than the text has line feeds.
std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  // Counted first: a body of many short lines would otherwise cost up to
  // twice its vector in spare capacity.
  lines.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = text.find('\n', start);
    if (end == std::string::npos) break;
    lines.emplace_back(text, start, end - start);
    start = end + 1;
  }
  lines.emplace_back(text, start);
  return lines;
}

void split_recipient(const std::string& to, Mail_content* mail) {
  const std::size_t at = to.find('@');
  if (at == std::string::npos) {
    mail->to_mailname = to;
    mail->to_domain = to;
  } else {
    mail->to_mailname = to.substr(0, at);
    mail->to_domain = to.substr(at + 1);
  }
}

}  // namespace

int parse_message(Mail_content* mail) {
  const Unique_fd spool(mkstemp(mail_file_name));
  if (!spool) {
    // mkstemp may leave the last name it tried in the buffer; the clean-up
    // must only ever remove our own file, so the template goes back.
    if (std::strlen(orvik::paths::kMailTemplate) < kMailFileNameSize) {
      std::strcpy(mail_file_name, orvik::paths::kMailTemplate);
    }
    std::cerr << "Could not create a temporary file." << std::endl;
    return 1;
  }
  spool_input(STDIN_FILENO, spool.get());

  Stored_message_reader reader(spool.get());
  const Entity_headers message = ReadHeaderBlock(reader, Header_block_kind::kMessage);
  // Input that does not start with a header block has no sender.
  const std::optional<Mailbox_address> sender =
      message.readable ? choose_sender(message) : std::nullopt;
  if (!sender) {
    std::cerr << "Could not get sender's e-mail address from Reply-To: or From: headers."
              << std::endl;
    return 1;
  }
  const char* recipient = std::getenv("RESP_RECIPIENT");
  if (recipient == nullptr) {
    std::cerr << "Could not get recipient e-mail address from RESP_RECIPIENT environment variable"
              << std::endl;
    return 1;
  }
  const std::string subject_text = message.subject.value_or("");
  const std::string date_text = message.date.value_or("");

  Text_body text = SelectStoredTextBody(reader, message);
  std::string body = up_to_nul(std::move(text.text));
  try {
    body = orvik::iconvRecode(body, text.charset, "UTF-8", true);
  } catch (const std::runtime_error&) {
    std::cerr << "Could not convert message body text from " << text.charset << " to UTF-8.\n";
  }

  mail->from = up_to_nul(sender->local_part + "@" + sender->domain);
  mail->to = recipient;
  split_recipient(mail->to, mail);
  try {
    mail->subject = up_to_nul(orvik::rfc1522::decode(subject_text));
  } catch (const std::runtime_error&) {
    mail->subject.clear();
    std::cerr << "Could not convert message subject text from " << text.charset << " to UTF-8.\n";
  }
  mail->date = date_text;
  mail->charset = text.charset;
  mail->body = split_lines(up_to_nul(std::move(body)));
  return 0;
}
