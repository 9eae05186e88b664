// Delivery of one reply: the mail system's size limit, the notice that
// replaces an oversized reply, and the hand-over of the response file to the
// run's mail sink (a sendmail child, waited for before the file is removed).
//
// Owns: the read-only descriptor on the response file until the sink has
// the mail (the program's sink waits for its sendmail child).
//
// Failures: a missing or unreadable limit file means no limit; a response
// file that cannot be measured goes out unchecked. A response file that
// cannot be opened, a sendmail that cannot be started, a mailbox address
// that fails IDN conversion and exhausted memory end the process through the
// message log with status 1, leaving the temporary files.
#include "autoresponder/delivery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include "lib/paths.h"
#include "lib/put.h"
#include "lib/text_encoding/idn.h"
#include "lib/text_encoding/rfc1522.h"
#include "lib/unique_fd.h"

namespace {

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

// The notice always answers the incoming subject, whatever the rule's own
// subject, and names the mailbox as it was addressed.
void write_size_notice(const Mail_content& mail, const Resp_rule& rule) {
  std::ofstream out(resp_uu_file_name, std::ios::out | std::ios::trunc | std::ios::binary);
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

void apply_size_limit(const Mail_content& mail, const Resp_rule& rule, Run_observer& observer) {
  const std::int32_t databytes_limit = read_databytes_limit();
  struct stat status;
  if (stat(resp_uu_file_name, &status) != 0) return;
  const bool over = databytes_limit > 0 && status.st_size > databytes_limit;
  observer.size_checked(status.st_size, databytes_limit, over);
  if (over) write_size_notice(mail, rule);
}

// One line: "autoresponder: ", the text, the error's text and number.
void report_errno(const std::string& text, int error) {
  std::cerr << "autoresponder: " << text << std::strerror(error) << " (" << error << ")"
            << std::endl;
}

void hand_to_sendmail(const Mail_content& mail, Mail_sink& sink) {
  Unique_fd response(open(resp_uu_file_name, O_RDONLY));
  if (response.get() < 0) {
    report_errno(std::string("Failed to open temporary file with response mail contents '") +
                     resp_uu_file_name + "': ",
                 errno);
    throw std::runtime_error("Failed to generate response mail contents");
  }
  const std::string envelope_sender = orvik::idn::toAscii(mail.to);
  if (!sink.send_file(Outgoing::kReply, {orvik::paths::kSendmail, "-f", envelope_sender, mail.from},
                      response.get())) {
    report_errno("Failed to spawn sendmail for response: ", errno);
    throw std::runtime_error("Failed to spawn sendmail to send response mail");
  }
}

}  // namespace

void deliver_response(const Mail_content& mail, const Resp_rule& rule, Mail_sink& sink,
                      Run_observer& observer) {
  try {
    apply_size_limit(mail, rule, observer);
    hand_to_sendmail(mail, sink);
  } catch (const orvik::idn::IdnaError& error) {
    messlog2(1, 0, "IDN conversion error: %s", error.what());
  } catch (const std::bad_alloc&) {
    messlog2(1, 0, "Program failed due to exhausted memory");
  } catch (const std::runtime_error& error) {
    messlog2(1, 0, "Send error: %s", error.what());
  }
  // The name stays in the buffer; the end of the run removes it once more.
  unlink(resp_uu_file_name);
}
