// Attachments of a rule's reply and the notice about missing ones.
//
// collect_attachments reads the rule's file names from resp_attach and sorts
// them into the files that exist in the mailbox's attachment repository and
// the ones that do not. notify_missing_attachments tells the panel client who
// owns the recipient's domain, by a mail through sendmail, which files are
// missing; the reply goes out with the files that exist either way.
//
// Owns for the length of one call: the query results and the notice's text,
// which goes to the run's mail sink.
//
// Failures: only a failed resp_attach statement ends the run
// (correct_exit()). Every failure of the notice is reported on one line and
// the reply still goes out.
//
// Security: the program runs as the superuser and whoever can write
// resp_attach rows names the files, so only a name of the repository itself
// counts as found: no "/" in it, not "..", and a regular file there (not a
// symbolic link, device, FIFO or directory). The composer checks the kind
// once more on the descriptor it reads.
#include "autoresponder/responder/attachments.h"

#include <sys/stat.h>

#include <iostream>
#include <optional>
#include <sstream>
#include <utility>

#include "autoresponder/responder/db_statement.h"
#include "lib/get_param.h"
#include "lib/mysql_handle.h"
#include "lib/orvik_chch.h"
#include "lib/paths.h"

namespace {

// Sender of the notice when the panel names neither an administrator address
// nor its host: the superuser of this machine.
constexpr char kFallbackNoticeSender[] = "root@localhost";

// The trimmed form of a stored name, as orvik_trim gives it.
std::string trimmed_name(const char* stored) {
  std::string buffer(stored);
  return orvik_trim(buffer.data());
}

struct Domain_owner {
  std::string email;
  std::string name;  // personal name, or the login when there is none
};

// The client owning the domain the message was addressed to (the recipient's
// domain as received, so a domain alias finds nobody). Reports and returns
// nothing when there is no one to notify.
std::optional<Domain_owner> domain_owner(MYSQL* connection, const char* esc_domain) {
  const std::string query =
      std::string(
          "select c.email, c.pname, c.login from clients c, domains d where d.cl_id=c.id and "
          "d.name='") +
      esc_domain + "'";
  if (mysql_real_query(connection, query.data(), query.size()) != 0) {
    std::cerr << "Unable to define client email and personal name :" << mysql_error(connection)
              << '\n';
    return std::nullopt;
  }
  MysqlResult result(mysql_store_result(connection));
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  if (row == nullptr) {
    std::cerr << "This client does not exist :" << mysql_error(connection) << '\n';
    return std::nullopt;
  }
  if (row[0] == nullptr || row[0][0] == '\0') return std::nullopt;
  Domain_owner owner;
  owner.email = row[0];
  if (row[1] != nullptr && row[1][0] != '\0') {
    owner.name = row[1];
  } else if (row[2] != nullptr) {
    owner.name = row[2];
  }
  return owner;
}

// The administrator's address, else root at the panel's host name, else the
// local superuser. get_param hands out one static buffer that its next call
// overwrites, so each value is copied at once; a failed lookup (null) counts
// as an empty value.
std::string notice_sender(MYSQL* connection) {
  const char* value = get_param("admin_email", connection);
  const std::string admin_email = value != nullptr ? value : "";
  if (!admin_email.empty()) return admin_email;
  value = get_param("FullHostName", connection);
  const std::string host_name = value != nullptr ? value : "";
  if (!host_name.empty()) return "root@" + host_name;
  return kFallbackNoticeSender;
}

// The notice, one line per row of its layout; the list of missing names
// brings its own line ends.
void write_notice(std::ostream& out, const std::string& reply_to, const std::string& sender,
                  const Domain_owner& owner, const Mail_content& mail,
                  const std::string& missing_attachments) {
  if (!reply_to.empty()) out << "Reply-To: " << reply_to << "\n";
  out << "From: " << sender << "\n"
      << "To: " << owner.email << "\n"
      << "CC: \n"
      << "Subject: ovk notification (files missing in attachments repository). \n"
      << "Content-Type: text/plain; charset=utf-8\n"
      << "Content-Disposition: inline\n"
      << "Content-Transfer-Encoding: 8bit\n"
      << "\n"
      << "\n"
      << "Notification for ovk client '" << owner.name << "'.\n"
      << "\n"
      << "The following files are missing in the attachment repository\n"
      << "for the mailname '" << mail.to_mailname << "' on domain '" << mail.to_domain << "':\n"
      << missing_attachments << "\n";
}

}  // namespace

bool names_a_repository_file(const std::string& attach_dir, const std::string& name) {
  if (name.find('/') != std::string::npos || name == "..") return false;
  struct stat info;
  return lstat((attach_dir + "/" + name).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

Attachment_lookup collect_attachments(MYSQL* connection, const std::string& rule_id,
                                      const std::string& attach_dir) {
  const MysqlResult result = select_or_exit(
      connection, "select filename from resp_attach where rn_id=" + rule_id, kExecQueryFailed);

  Attachment_lookup lookup;
  while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
    if (row[0] == nullptr || row[0][0] == '\0') continue;
    std::string name = trimmed_name(row[0]);
    if (names_a_repository_file(attach_dir, name)) {
      lookup.found_attachments.push_back(std::move(name));
    } else {
      lookup.missing_attachments += name;
      lookup.missing_attachments += '\n';
    }
  }
  return lookup;
}

void notify_missing_attachments(MYSQL* connection, const char* esc_domain,
                                const std::string& reply_to, const Mail_content& mail,
                                const std::string& missing_attachments, Mail_sink& sink) {
  const std::optional<Domain_owner> owner = domain_owner(connection, esc_domain);
  if (!owner) return;
  if (owner->email.starts_with('-')) {
    // sendmail would read it as an option.
    std::cerr << "autoresponder: Client email begins with '-', no notice sent: " << owner->email
              << '\n';
    return;
  }
  const std::string sender = notice_sender(connection);

  std::ostringstream notice;
  write_notice(notice, reply_to, sender, *owner, mail, missing_attachments);
  sink.send_text(Outgoing::kNotice, {orvik::paths::kSendmail, "-f", sender, owner->email},
                 notice.str());
}
