// Forwarding: sends the stored incoming message, byte for byte, to the
// addresses a rule lists in resp_forward, through the run's mail sink (one
// sendmail child whose standard input is the stored message file).
//
// Owns for the length of one call: the resp_forward result and the descriptor
// of the stored message (closed once the sink has the mail).
//
// Failures: a failed resp_forward statement ends the run through
// correct_exit(). Everything else is best effort: a file that cannot be opened
// or a sendmail that cannot be started is reported on one line and the answer
// still goes out. Addresses are handed to sendmail as separate arguments
// without any shell, exactly as stored; one that begins with "-", which
// sendmail would read as an option, is left out with a report line.
#include "autoresponder/responder/forwarding.h"

#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <vector>

#include "autoresponder/responder/db_statement.h"
#include "autoresponder/responder/failure_report.h"
#include "autoresponder/run_files.h"
#include "lib/paths.h"

namespace {

// The rule's addresses; NULL rows are dropped, the rest kept as stored and in
// the order the server returns them.
std::vector<std::string> forwarding_list(MYSQL* connection, const std::string& rule_id) {
  const MysqlResult result = select_or_exit(
      connection, "select address from resp_forward where rn_id=" + rule_id, kExecQueryFailed);
  std::vector<std::string> addresses;
  while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
    if (row[0] != nullptr) addresses.emplace_back(row[0]);
  }
  return addresses;
}

}  // namespace

void forward_incoming(MYSQL* connection, const std::string& rule_id, const Mail_content& mail,
                      Mail_sink& sink) {
  const std::vector<std::string> addresses = forwarding_list(connection, rule_id);
  if (addresses.empty()) return;

  // The intake's descriptor, never the file's name; put back at the
  // message's first byte for every forwarding rule.
  const int message = stored_message_fd();
  if (message < 0 || lseek(message, 0, SEEK_SET) != 0) {
    const int open_error = message < 0 ? EBADF : errno;
    report_system_error(std::string("autoresponder: Failed to open temporary file with forward "
                                    "mail contents '") +
                            mail_file_name + "': ",
                        open_error);
    return;
  }

  // The envelope sender is the address the message was received at, as the
  // mail system gave it (an alias stays the alias).
  std::vector<std::string> argv = {orvik::paths::kSendmail, "-f", mail.to};
  for (const std::string& address : addresses) {
    if (address.starts_with('-')) {
      std::cerr << "autoresponder: Forwarding address begins with '-', left out: " << address
                << '\n';
      continue;
    }
    argv.push_back(address);
  }
  if (argv.size() == 3) return;
  if (!sink.send_file(Outgoing::kForward, argv, message)) {
    report_system_error("autoresponder: Failed to spawn sendmail for forwarding: ", errno);
  }
}
