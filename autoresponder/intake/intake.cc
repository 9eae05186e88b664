// Intake of the incoming message: the stored copy, the parse and the message
// record.
//
// Copies standard input (a pipe or a file) in large blocks into a new file
// made from mail_file_name, which is kept for forwarding and removed by the
// run's clean-up. The message is then read from that file in bounded memory:
// the fields the record needs from its header block, and the selected text
// body (body_selection), which is decoded, converted to UTF-8 and written in
// pieces to a second file, made from kBodyTemplate and removed as soon as it
// is open, so that only its descriptor (kept for the rules) holds it and the
// run leaves the same files behind as ever. A text that is its own converted
// form (ASCII, not transfer-encoded) is not copied: the body is then its
// stretch of the stored message. Memory grows with those fields only, never
// with the text, the message's other headers, parts, nesting or size.
//
// Fails (returns 1 after one line on standard error) when a file cannot be
// created, when neither Reply-To nor From yields a mailbox, and when
// RESP_RECIPIENT is unset. Charset and subject conversion failures are
// reported and the intake goes on. Other exceptions (exhausted memory) pass
// to the caller.
#include "autoresponder/intake/intake.h"

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
#include <string_view>
#include <utility>

#include "autoresponder/intake/address_list.h"
#include "autoresponder/intake/body_selection.h"
#include "autoresponder/intake/stored_message.h"
#include "autoresponder/run_files.h"
#include "lib/paths.h"
#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/rfc1522.h"
#include "lib/unique_fd.h"
#include "lib/write_all.h"

namespace {

// Standard input is copied in blocks of this size: large enough that the
// copy runs at the speed of a plain file copy.
constexpr std::size_t kSpoolBlockSize = 128 * 1024;

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

// Writes the text body to its file in blocks of kSpoolBlockSize. The text
// ends at its first NUL byte: nothing from there on is written. After a
// failed write nothing more is written either, so the file stays a prefix of
// the text, as the stored message does.
class Body_writer {
 public:
  explicit Body_writer(int fd) : fd_(fd) { block_.reserve(kSpoolBlockSize); }

  void put(std::string_view piece) {
    if (ended_) return;
    const std::size_t nul = piece.find('\0');
    if (nul != std::string_view::npos) {
      piece = piece.substr(0, nul);
      ended_ = true;
    }
    block_.append(piece);
    if (block_.size() >= kSpoolBlockSize) flush();
  }

  void flush() {
    if (!failed_ && !write_all(fd_, block_.data(), block_.size())) failed_ = true;
    block_.clear();
  }

  // Starts the file again, empty.
  void restart() {
    block_.clear();
    ended_ = false;
    failed_ = lseek(fd_, 0, SEEK_SET) != 0 || ftruncate(fd_, 0) != 0;
  }

 private:
  int fd_;
  std::string block_;
  bool ended_ = false;
  bool failed_ = false;
};

// The end of the text when it is its own converted form, so that the stored
// message itself can serve as the body file: no transfer decoding, a charset
// in which ASCII converts to itself, and only ASCII bytes up to the text's
// end or its first NUL byte. Reads the text once; nullopt otherwise.
std::optional<off_t> unchanged_text_end(const Stored_message_reader& reader,
                                        const Text_body& text) {
  if (text.decoding != Transfer_decoding::kNone ||
      !orvik::AsciiConvertsToItself(text.charset, "UTF-8")) {
    return std::nullopt;
  }
  off_t end = text.start;
  bool ascii = true;
  reader.read_range(text.start, text.end, [&](const char* data, std::size_t size) {
    const void* nul = std::memchr(data, '\0', size);
    const std::size_t length = nul == nullptr ? size : static_cast<const char*>(nul) - data;
    unsigned char bits = 0;
    for (std::size_t i = 0; i < length; ++i) bits |= static_cast<unsigned char>(data[i]);
    ascii = bits < 0x80;
    end += static_cast<off_t>(length);
    return ascii && nul == nullptr;
  });
  return ascii ? std::optional<off_t>(end) : std::nullopt;
}

// Writes the selected text body, transfer-decoded, up to its first NUL byte
// and converted from its charset to UTF-8, to `out`; when the conversion
// fails, reports it and writes the text as decoded instead. Each step takes
// the text in pieces, so memory does not grow with its size.
void write_text_body(const Stored_message_reader& reader, const Text_body& text, Body_writer& out) {
  // The decoded text ends at its first NUL byte, before any conversion.
  const auto cut_at_nul = [](std::string_view& piece) {
    const std::size_t nul = piece.find('\0');
    piece = piece.substr(0, nul);
    return nul == std::string_view::npos;
  };
  try {
    orvik::Iconv_stream converter(text.charset, "UTF-8", true);
    const orvik::Iconv_stream::Sink sink = [&](std::string_view piece) { out.put(piece); };
    DecodeTextBody(reader, text, [&](std::string_view piece) {
      const bool more = cut_at_nul(piece);
      converter.feed(piece, sink);
      return more;
    });
    converter.finish();
    out.flush();
    return;
  } catch (const std::runtime_error&) {
    std::cerr << "Could not convert message body text from " << text.charset << " to UTF-8.\n";
  }
  out.restart();
  DecodeTextBody(reader, text, [&](std::string_view piece) {
    const bool more = cut_at_nul(piece);
    out.put(piece);
    return more;
  });
  out.flush();
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
  keep_stored_message_fd(spool.get());
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

  const Text_body text = SelectStoredTextBody(reader, message);
  // errno after the intake is what the conversion of the text leaves (later
  // reports may show it), whatever the body file's calls did to it.
  const int errno_before = errno;
  Body_text body;
  const std::optional<off_t> unchanged_end = unchanged_text_end(reader, text);
  const int stored_copy = unchanged_end ? fcntl(spool.get(), F_DUPFD_CLOEXEC, 0) : -1;
  if (stored_copy >= 0) {
    body = Body_text(stored_copy, text.start, *unchanged_end);
    errno = *unchanged_end > text.start ? 0 : errno_before;
  } else {
    std::string body_file_name = orvik::paths::kBodyTemplate;
    Unique_fd body_file(mkstemp(body_file_name.data()));
    if (!body_file) {
      std::cerr << "Could not create a temporary file." << std::endl;
      return 1;
    }
    unlink(body_file_name.c_str());
    errno = errno_before;
    Body_writer writer(body_file.get());
    write_text_body(reader, text, writer);
    body = Body_text(body_file.release());
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
  mail->body = std::move(body);
  return 0;
}
