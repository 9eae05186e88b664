// Composition of the reply into its response file.
#pragma once

#include <cstdint>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include "autoresponder/mail_content.h"
#include "autoresponder/responder/rules.h"
#include "autoresponder/run_files.h"
#include "autoresponder/templates.h"
#include "lib/unique_fd.h"

// "--------=_" and 29 letters from rand().
std::string makeBoundaryStr();

// The five placeholders of an answer subject, bound to `mail` on first use;
// later calls return the same table whatever they are given.
const par_templ* autoresp_templs(const Mail_content& mail);
inline constexpr unsigned kAutorespTemplCount = 5;

// The subject before encoding: "Re: " + incoming subject, or the rule's
// subject with placeholders expanded (at most kResponseSubjectMax bytes).
inline constexpr unsigned kResponseSubjectMax = 999;
std::string response_subject(const Resp_rule& rule, const Mail_content& mail);

// The response file of one reply: created by mkstemp on a fresh copy of the
// template (its name then in resp_uu_file_name), mode 0600, and from then on
// reached only through `fd`, which composition writes and delivery hands to
// sendmail. `fd` is invalid, `error` the errno of the failure and the name
// the template, when it could not be created.
struct Response_file {
  Unique_fd fd;
  int error = 0;
};

// Creates the response file of a reply; a failure is not reported here.
Response_file create_response_file();

// A buffered writer on a descriptor it does not own; counts the bytes given
// to it. A failed write (or fd -1) makes it drop everything after.
class Response_writer : public std::streambuf {
 public:
  explicit Response_writer(int fd);
  ~Response_writer() override;
  Response_writer(const Response_writer&) = delete;
  Response_writer& operator=(const Response_writer&) = delete;

  // Bytes written so far, those still in the buffer included.
  std::uint64_t bytes() const { return flushed_ + static_cast<std::uint64_t>(pptr() - pbase()); }
  bool failed() const { return failed_; }

 protected:
  int_type overflow(int_type ch) override;
  int sync() override;

 private:
  bool flush_buffer();

  int fd_;
  std::unique_ptr<char[]> buffer_;
  std::uint64_t flushed_ = 0;
  bool failed_ = false;
};

// Writes the complete reply through `response_file` (left open, its offset at
// the end), with `extra_fields` (whole lines) after its Subject. Attachments stop once the reply is
// larger than `size_limit` (0 or less: no limit), since delivery then sends the size notice
// instead. An unwritable file drops the reply silently (delivery reports a file that could not be
// created). IDN failure and exhausted memory end the process through the message log with status 1.
void compose_response(const Mail_content& mail, const Resp_rule& rule,
                      const std::string& attach_dir,
                      const std::vector<std::string>& found_attachments,
                      const std::string& resp_boundary, const Response_file& response_file,
                      std::int64_t size_limit = 0, const std::string& extra_fields = {});
