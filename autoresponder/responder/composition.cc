// Composition of one reply: boundary, subject, charset conversion of the
// rule's text, and the MIME layout (a single text part, or multipart/mixed
// with the found attachment files in base64), written line by line through
// the descriptor of the response file. Every line ends in a bare line feed.
//
// The response file of every reply is a new file: mkstemp on a fresh copy of
// the template, mode 0600, written and later handed to sendmail through the
// descriptor mkstemp returned and never opened by its name, so nobody who can
// write the temporary directory can slip a file or a symbolic link in under
// that name. Attachments are read only when they are regular files, found
// through no symbolic link, and the reading stops once the reply has grown
// past the mail system's size limit, where the size notice replaces it.
//
// Owns: the placeholder table bound to the run's message, the writer on the
// response file's descriptor (not the descriptor), one attachment FILE* at a
// time.
//
// Failures: an unknown reply charset sends the text unconverted, declared
// UTF-8; an unreadable attachment is reported on standard error and leaves
// its part empty; an unwritable response file drops the reply silently.
// IDN failure of the mailbox address and exhausted memory end the process
// through the message log with status 1, leaving the temporary files.
#include "autoresponder/responder/composition.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "autoresponder/responder/failure_report.h"
#include "autoresponder/run_files.h"
#include "lib/base64.h"
#include "lib/c_owners.h"
#include "lib/paths.h"
#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/idn.h"
#include "lib/text_encoding/rfc1522.h"
#include "lib/unique_fd.h"
#include "lib/write_all.h"

namespace {

constexpr char kBoundaryPrefix[] = "--------=_";
constexpr int kBoundaryLetters = 29;
constexpr int kAlphabetHalf = 26;  // A-Z, then a-z

// Bytes per base64 line: 45 bytes give 60 characters.
constexpr std::size_t kBase64LineBytes = 45;
constexpr std::size_t kBase64LineChars = kBase64LineBytes / 3 * 4;

// Buffer size of the attachment reader and the reply writer: large enough
// that a big attachment costs few system calls, fixed so that memory does not
// grow with it.
constexpr std::size_t kStreamBufferBytes = 64 * 1024;

// Opens an attachment for reading, a regular file only: never through a
// symbolic link (ELOOP), never blocking on a FIFO that was put in place after
// the lookup, and nothing but a regular file (checked on the descriptor that
// is read, so no rename in between can change it): a device such as
// /dev/zero would never end, a directory reads nothing.
UniqueFile open_attachment(const std::string& path) {
  Unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return nullptr;
  struct stat status {};
  if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    fd.reset();
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return nullptr;
  }
  UniqueFile file(fdopen(fd.get(), "r"));
  if (!file) {
    const int error = errno;
    fd.reset();
    errno = error;
    return nullptr;
  }
  fd.release();
  return file;
}

// Whether the reply written so far is larger than the size limit (0 or less:
// none); the composition then stops, since the size notice replaces it.
bool over_limit(const Response_writer& writer, std::int64_t size_limit) {
  return size_limit > 0 && writer.bytes() > static_cast<std::uint64_t>(size_limit);
}

// Streams the file as base64 lines, 45 bytes in and one line out at a time,
// so the attachment is never held in memory. Stops at the first read that
// yields nothing (end of file or a read error alike), or once the reply is
// over the size limit (then returns false).
bool write_base64_file(std::ostream& out, const Response_writer& writer, const std::string& path,
                       std::int64_t size_limit) {
  UniqueFile file = open_attachment(path);
  if (!file) {
    const int error = errno;
    report_system_error("autoresponder: Failed to read attachement file '" + path + "': ", error);
    return true;
  }
  std::setvbuf(file.get(), nullptr, _IOFBF, kStreamBufferBytes);
  // base64Encode works in place: the bytes read are replaced by their
  // encoding, which then gets its line feed in place of the terminating NUL.
  char line[kBase64LineChars + 1];
  std::size_t got;
  while ((got = std::fread(line, 1, kBase64LineBytes, file.get())) > 0) {
    const std::size_t length = base64Encode(line, got, line);
    line[length] = '\n';
    out.write(line, static_cast<std::streamsize>(length + 1));
    if (over_limit(writer, size_limit)) return false;
  }
  return true;
}

void write_response(std::ostream& out, const Response_writer& writer, const Mail_content& mail,
                    const Resp_rule& rule, const std::string& encoded_subject,
                    const std::string& attach_dir,
                    const std::vector<std::string>& found_attachments,
                    const std::string& resp_boundary, std::int64_t size_limit,
                    const std::string& extra_fields) {
  if (!rule.reply_to.empty()) out << "Reply-To: " << rule.reply_to << '\n';

  // A charset the converter does not know: the text goes out as it is
  // stored, which is UTF-8, and is declared so.
  std::string charset = rule.charset;
  std::string resp_body;
  try {
    resp_body = orvik::iconvRecode(rule.text, "UTF-8", charset, true);
  } catch (const std::runtime_error&) {
    resp_body = rule.text;
    charset = "UTF-8";
  }

  out << "From: " << orvik::idn::toAscii(mail.to) << '\n';
  out << "To: " << mail.from << '\n';
  out << "MIME-Version: 1.0\n";
  out << "Subject: " << encoded_subject << '\n';
  out << extra_fields;

  const bool multipart = !found_attachments.empty();
  if (multipart) {
    out << "Content-Type: multipart/mixed;\n\tboundary=\"" << resp_boundary << "\"\n";
    out << '\n';
    out << "--" << resp_boundary << '\n';
  }
  out << "Content-Type: " << rule.content_type << "; charset=\"" << charset << "\"\n";
  out << "Content-Transfer-Encoding: 8bit\n";
  out << "Content-Disposition: inline\n";
  out << '\n';
  out << resp_body << '\n';
  out << "\n\n";
  if (!multipart) return;

  for (const std::string& name : found_attachments) {
    out << "--" << resp_boundary << '\n';
    out << "Content-Type: application/octet-stream\n";
    out << "Content-Transfer-Encoding: base64\n";
    out << "Content-Disposition: attachment;\n\tfilename=\"" << orvik::rfc1522::encode(name)
        << "\"\n";
    out << '\n';
    if (!write_base64_file(out, writer, attach_dir + "/" + name, size_limit)) return;
    out << '\n';
  }
  out << "--" << resp_boundary << "--\n";
}

}  // namespace

std::string makeBoundaryStr() {
  std::string boundary = kBoundaryPrefix;
  for (int i = 0; i < kBoundaryLetters; ++i) {
    const int r = std::rand() % (2 * kAlphabetHalf);
    boundary += static_cast<char>(r < kAlphabetHalf ? 'A' + r : 'a' + (r - kAlphabetHalf));
  }
  return boundary;
}

const par_templ* autoresp_templs(const Mail_content& mail) {
  // Sorted by name (strcmp order), as the lookup requires. The message
  // record is read-only for the rest of the run, so the pointers stay valid.
  static const par_templ table[kAutorespTemplCount] = {
      {"incoming_message_subject", mail.subject.c_str()},
      {"orig_emails_sender_mailname", mail.from.c_str()},
      {"orig_emails_subj", mail.subject.c_str()},
      {"request_from", mail.from.c_str()},
      {"request_subject", mail.subject.c_str()},
  };
  return table;
}

std::string response_subject(const Resp_rule& rule, const Mail_content& mail) {
  if (rule.subject.empty()) return "Re: " + mail.subject;
  char expanded[kResponseSubjectMax + 1] = {};
  repl_ctl ctl{0, 0, REPL_KEEP_UNKNOWN, 0};
  templ_replace('<', '>', autoresp_templs(mail), kAutorespTemplCount, rule.subject.c_str(),
                expanded, kResponseSubjectMax, &ctl);
  expanded[std::min(ctl.out_len, kResponseSubjectMax)] = '\0';
  return expanded;
}

Response_writer::Response_writer(int fd) : fd_(fd), buffer_(new char[kStreamBufferBytes]) {
  setp(buffer_.get(), buffer_.get() + kStreamBufferBytes);
  failed_ = fd_ < 0;
}

Response_writer::~Response_writer() {
  flush_buffer();
}

bool Response_writer::flush_buffer() {
  const char* next = pbase();
  const std::size_t left = static_cast<std::size_t>(pptr() - pbase());
  flushed_ += left;
  if (!failed_ && !write_all(fd_, next, left)) failed_ = true;
  setp(buffer_.get(), buffer_.get() + kStreamBufferBytes);
  return !failed_;
}

Response_writer::int_type Response_writer::overflow(int_type ch) {
  if (!flush_buffer()) return traits_type::eof();
  if (!traits_type::eq_int_type(ch, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(ch);
    pbump(1);
  }
  return traits_type::not_eof(ch);
}

int Response_writer::sync() {
  return flush_buffer() ? 0 : -1;
}

Response_file create_response_file() {
  Response_file file;
  // A fresh copy of the template every time: never a name used before.
  std::strcpy(resp_uu_file_name, orvik::paths::kResponseTemplate);
  file.fd = Unique_fd(mkostemp(resp_uu_file_name, O_CLOEXEC));
  if (!file.fd) {
    file.error = errno;
    // mkstemp may have filled in the name all the same.
    std::strcpy(resp_uu_file_name, orvik::paths::kResponseTemplate);
    return file;
  }
  // mkstemp asks for 0600, which the caller's umask could still narrow.
  (void)!fchmod(file.fd.get(), S_IRUSR | S_IWUSR);
  return file;
}

void compose_response(const Mail_content& mail, const Resp_rule& rule,
                      const std::string& attach_dir,
                      const std::vector<std::string>& found_attachments,
                      const std::string& resp_boundary, const Response_file& response_file,
                      std::int64_t size_limit, const std::string& extra_fields) {
  try {
    const std::string resp_subject = response_subject(rule, mail);
    const std::string encoded_subject =
        orvik::rfc1522::encode_field_body(resp_subject, std::strlen("Subject: "));
    // A file that could not be created leaves the stream failed, and every
    // write below is dropped.
    Response_writer writer(response_file.fd.get());
    std::ostream out(&writer);
    if (writer.failed()) out.setstate(std::ios::failbit);
    write_response(out, writer, mail, rule, encoded_subject, attach_dir, found_attachments,
                   resp_boundary, size_limit, extra_fields);
    writer.pubsync();
  } catch (...) {
    end_run_for_reply_failure(false);
  }
}
