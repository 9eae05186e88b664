// A rule's attachment files and the notice to the domain's owner about the
// ones missing from the mailbox's attachment repository.
#pragma once

#include <mysql.h>

#include <string>
#include <vector>

#include "autoresponder/mail_content.h"
#include "autoresponder/run_seam.h"

struct Attachment_lookup {
  std::vector<std::string> found_attachments;  // trimmed names that exist, in row order
  std::string missing_attachments;             // trimmed missing names, each + "\n"
};

// Whether `name` is found in the repository: no "/" in it, not "..", and a
// regular file there, not reached through a symbolic link. Anything else
// counts as missing.
bool names_a_repository_file(const std::string& attach_dir, const std::string& name);

// A failed resp_attach statement ends the run (correct_exit()).
Attachment_lookup collect_attachments(MYSQL* connection, const std::string& rule_id,
                                      const std::string& attach_dir);

// Hands the notice to `sink`; every failure is reported and the reply still
// goes out.
void notify_missing_attachments(MYSQL* connection, const char* esc_domain,
                                const std::string& reply_to, const Mail_content& mail,
                                const std::string& missing_attachments,
                                Mail_sink& sink = sendmail_sink());
