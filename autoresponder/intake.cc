// Intake of the incoming message: the stored copy, the parse and the message
// record.
//
// Copies standard input (a pipe or a file) in large blocks into a new file
// made from mail_file_name, which is kept for forwarding and removed by the
// run's clean-up. The message is then parsed from that file with GMime's
// persistent stream parser, so the parts stay on disk as windows into the
// file and only the selected text body is read into memory: memory use does
// not grow with attachments.
//
// Fails (returns 1 after one line on standard error) when the file cannot be
// created, when neither Reply-To nor From yields a mailbox, and when
// RESP_RECIPIENT is unset. Charset and subject conversion failures are
// reported and the intake goes on. Other exceptions (exhausted memory, a
// failed dup of the stored file) pass to the caller.
#include "autoresponder/intake.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "autoresponder/address_list.h"
#include "autoresponder/body_selection.h"
#include "autoresponder/gmime_handle.h"
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
// taken; From is a list of mailboxes.
std::optional<Mailbox_address> choose_sender(GMimeHeaderList* headers) {
  if (const auto reply_to = FieldBody(headers, "Reply-To")) {
    if (auto mailbox = GetMailboxFromAddressList(*reply_to)) return mailbox;
  }
  if (const auto from = FieldBody(headers, "From")) return GetMailboxFromMailboxList(*from);
  return std::nullopt;
}

// Where the message's body starts in the stored file: after the blank line
// (LF or CR LF) at `headers_end`. nullopt when the header block has no blank
// line after it, so the body is empty.
std::optional<gint64> body_start(int spool, gint64 headers_end) {
  if (headers_end < 0) return std::nullopt;
  char blank[2];
  const ssize_t got = pread(spool, blank, sizeof blank, headers_end);
  if (got == 2 && blank[0] == '\r' && blank[1] == '\n') return headers_end + 2;
  if (got >= 1 && blank[0] == '\n') return headers_end + 1;
  return headers_end;
}

// Every piece between line feeds, the one after the last line feed too, so
// there is always one line more than the text has line feeds.
std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
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
  gmime_init_once();
  spool_input(STDIN_FILENO, spool.get());

  // The parser reads through its own descriptor (the stream closes it); it
  // shares the file offset, so the stream is bound to the whole file.
  Unique_fd parse_fd(dup(spool.get()));
  if (!parse_fd) {
    throw std::system_error(errno, std::generic_category(), "cannot read the stored message");
  }
  const GObjectRef<GMimeStream> file(g_mime_stream_fs_new_with_bounds(parse_fd.release(), 0, -1));
  const GObjectRef<GMimeParser> parser(g_mime_parser_new_with_stream(file.get()));
  const GObjectRef<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
  const gint64 headers_end = g_mime_parser_get_headers_end(parser.get());

  // Input that does not start with a header block gives no message at all.
  GMimeHeaderList* headers =
      message ? g_mime_object_get_header_list(GMIME_OBJECT(message.get())) : nullptr;
  const std::optional<Mailbox_address> sender = choose_sender(headers);
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
  const std::string subject_text = up_to_nul(FieldBody(headers, "Subject").value_or(""));
  const std::string date_text = up_to_nul(FieldBody(headers, "Date").value_or(""));

  GObjectRef<GMimeStream> message_body;
  if (const auto start = body_start(spool.get(), headers_end)) {
    message_body.reset(g_mime_stream_substream(file.get(), *start, -1));
  }
  Text_body text = SelectTextBody(message.get(), message_body.get());
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
