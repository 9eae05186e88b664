// Delivery of one reply: the mail system's size limit, the notice that
// replaces an oversized reply, and the hand-over of the response file to the
// run's mail sink (a sendmail child, waited for before the file is removed).
//
// The file is measured and handed over through the descriptor it was created
// with, never opened by name; the notice is a response file of its own (a
// new name from mkstemp), and the oversized reply is removed at once.
//
// Owns: the notice's file until it replaces the reply's in the caller's
// Response_file.
//
// Failures: a missing or unreadable limit file means no limit; a response
// file that cannot be measured goes out unchecked. A response file that
// could not be created, a sendmail that cannot be started, a mailbox address
// that fails IDN conversion, a recipient that sendmail would read as an
// option and exhausted memory end the process through the message log with
// status 1, leaving the temporary files.
#include "autoresponder/responder/delivery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "autoresponder/responder/composition.h"
#include "autoresponder/responder/failure_report.h"
#include "autoresponder/run_files.h"
#include "lib/paths.h"
#include "lib/text_encoding/idn.h"
#include "lib/text_encoding/rfc1522.h"
#include "lib/unique_fd.h"

// The largest message the mail system accepts, in bytes; 0 or less means no
// limit. Only the first word of the file counts, read as strtol does.
std::int32_t read_databytes_limit() {
  std::ifstream file(orvik::paths::kDatabytesFile);
  if (!file) return 0;
  std::string word;
  file >> word;
  const long value = std::strtol(word.c_str(), nullptr, 10);
  if (value > std::numeric_limits<std::int32_t>::max()) {
    return std::numeric_limits<std::int32_t>::max();
  }
  if (value < std::numeric_limits<std::int32_t>::min()) {
    return std::numeric_limits<std::int32_t>::min();
  }
  return static_cast<std::int32_t>(value);
}

namespace {

// The notice always answers the incoming subject, whatever the rule's own
// subject, and names the mailbox as it was addressed. It is written into a
// new response file, which then takes the reply's place; the reply's file is
// removed. A notice file that cannot be created leaves the reply as it is.
void write_size_notice(const Mail_content& mail, const Resp_rule& rule, Response_file& file) {
  const std::string reply_name = resp_uu_file_name;
  Response_file notice = create_response_file();
  if (!notice.fd) {
    // Keeps the reply's name for its removal.
    std::strcpy(resp_uu_file_name, reply_name.c_str());
    return;
  }
  {
    Response_writer writer(notice.fd.get());
    std::ostream out(&writer);
    if (!rule.reply_to.empty()) out << "Reply-To: " << rule.reply_to << '\n';
    out << "From: " << mail.to << '\n';
    out << "CC: \n";
    out << "Subject: " << orvik::rfc1522::encode("Re: " + mail.subject) << '\n';
    out << '\n';
    out << "An error occurred while responding on you request.\n";
    out << '\n';
    out << "Autoresponder message size exceeds databytes limit.\n";
    out << "\n\n\n";
  }
  file.fd.reset();
  unlink(reply_name.c_str());
  file = std::move(notice);
}

void apply_size_limit(const Mail_content& mail, const Resp_rule& rule, Response_file& file,
                      std::int32_t databytes_limit, Run_observer& observer) {
  struct stat status;
  if (fstat(file.fd.get(), &status) != 0) return;
  const bool over = databytes_limit > 0 && status.st_size > databytes_limit;
  observer.size_checked(status.st_size, databytes_limit, over);
  if (over) write_size_notice(mail, rule, file);
}

void hand_to_sendmail(const Mail_content& mail, const Response_file& file, Mail_sink& sink) {
  // Read from its first byte; the descriptor's offset is the child's too.
  if (!file.fd || lseek(file.fd.get(), 0, SEEK_SET) != 0) {
    if (!file.fd) errno = file.error;
    report_system_error(
        std::string("autoresponder: Failed to open temporary file with response mail contents '") +
            resp_uu_file_name + "': ",
        errno);
    throw std::runtime_error("Failed to generate response mail contents");
  }
  // The run's loop guards refuse such a sender; this keeps it so for every
  // way here.
  if (mail.from.starts_with('-')) throw std::runtime_error("Recipient address begins with '-'");
  const std::string envelope_sender = orvik::idn::toAscii(mail.to);
  if (!sink.send_file(Outgoing::kReply, {orvik::paths::kSendmail, "-f", envelope_sender, mail.from},
                      file.fd.get())) {
    report_system_error("autoresponder: Failed to spawn sendmail for response: ", errno);
    throw std::runtime_error("Failed to spawn sendmail to send response mail");
  }
}

}  // namespace

void deliver_response(const Mail_content& mail, const Resp_rule& rule, Response_file& file,
                      std::int32_t databytes_limit, Mail_sink& sink, Run_observer& observer) {
  try {
    apply_size_limit(mail, rule, file, databytes_limit, observer);
    hand_to_sendmail(mail, file, sink);
  } catch (...) {
    end_run_for_reply_failure(true);
  }
  // The name stays in the buffer; the end of the run removes it once more.
  file.fd.reset();
  unlink(resp_uu_file_name);
}
