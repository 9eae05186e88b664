// Composition of one reply: boundary, subject, charset conversion of the
// rule's text, and the MIME layout (a single text part, or multipart/mixed
// with the found attachment files in base64), written line by line into the
// response file named by resp_uu_file_name. Every line ends in a bare line
// feed.
//
// Owns: the placeholder table bound to the run's message, the writing stream
// on the response file, one attachment FILE* at a time.
//
// Failures: an unknown reply charset sends the text unconverted, declared
// UTF-8; an unreadable attachment is reported on standard error and leaves
// its part empty; an unwritable response file drops the reply silently.
// IDN failure of the mailbox address and exhausted memory end the process
// through the message log with status 1, leaving the temporary files.
#include "autoresponder/composition.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ext/stdio_filebuf.h>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>

#include "lib/base64.h"
#include "lib/paths.h"
#include "lib/put.h"
#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/idn.h"
#include "lib/text_encoding/rfc1522.h"

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

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

// Opens an attachment for reading without ever blocking: a FIFO in the
// repository would otherwise hold fopen until some writer appears. On a FIFO
// a read then ends at once; regular files ignore the flag.
UniqueFile open_attachment(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  UniqueFile file(fdopen(fd, "r"));
  if (!file) {
    const int error = errno;
    close(fd);
    errno = error;
  }
  return file;
}

// Streams the file as base64 lines, 45 bytes in and one line out at a time,
// so the attachment is never held in memory. Stops at the first read that
// yields nothing (end of file or a read error alike).
void write_base64_file(std::ostream& out, const std::string& path) {
  UniqueFile file = open_attachment(path);
  if (!file) {
    const int error = errno;
    std::cerr << "autoresponder: Failed to read attachement file '" << path
              << "': " << std::strerror(error) << " (" << error << ")" << std::endl;
    return;
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
  }
}

void write_response(std::ostream& out, const Mail_content& mail, const Resp_rule& rule,
                    const std::string& encoded_subject, const std::string& attach_dir,
                    const std::vector<std::string>& found_attachments,
                    const std::string& resp_boundary, const std::string& extra_fields) {
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
    write_base64_file(out, attach_dir + "/" + name);
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

namespace {

// Opens `path` for writing, created if missing, truncated: the file as
// open(O_TRUNC) leaves it. A file that is already empty, as the freshly
// created response file always is, is not truncated: on ext4 a truncation
// marks the file for writing out at its close, and the removal after the
// delivery then waits for that write, which made up a tenth of a run.
int open_truncated(const char* path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd == -1) return -1;
  struct stat status {};
  if (fstat(fd, &status) != 0 || (status.st_size != 0 && ftruncate(fd, 0) != 0)) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

Response_file_fd create_response_file() {
  return Response_file_fd(mkstemp(resp_uu_file_name));
}

void compose_response(const Mail_content& mail, const Resp_rule& rule,
                      const std::string& attach_dir,
                      const std::vector<std::string>& found_attachments,
                      const std::string& resp_boundary, Response_file_fd response_fd,
                      const std::string& extra_fields) {
  try {
    const std::string resp_subject = response_subject(rule, mail);
    const std::string encoded_subject = orvik::rfc1522::encode(resp_subject);
    // A file that cannot be opened leaves the stream failed, and every
    // write below is dropped.
    const int fd = open_truncated(resp_uu_file_name);
    __gnu_cxx::stdio_filebuf<char> buffer(fd, std::ios::out | std::ios::binary, kStreamBufferBytes);
    std::ostream out(&buffer);
    if (!buffer.is_open()) {
      if (fd != -1) close(fd);
      out.setstate(std::ios::failbit);
    }
    write_response(out, mail, rule, encoded_subject, attach_dir, found_attachments, resp_boundary,
                   extra_fields);
    buffer.close();
    response_fd.reset();
  } catch (const orvik::idn::IdnaError& error) {
    messlog2(1, 0, "IDN conversion error: %s", error.what());
  } catch (const std::bad_alloc&) {
    messlog2(1, 0, "Program failed due to exhausted memory");
  }
}
