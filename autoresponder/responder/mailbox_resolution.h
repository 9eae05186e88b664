// Finding the mailbox a recipient address belongs to: by its own name, by a
// mail alias, by a domain alias that serves mail, or by both.
#pragma once

#include <mysql.h>

#include <optional>
#include <string>

struct Mailbox_ref {
  std::string id;           // m.id, decimal text, pasted unquoted into later statements
  std::string mail_name;    // the mailbox's own local name
  std::string domain_name;  // the mailbox's own domain
  std::string attach_dir;   // <mailnames root>/<domain_name>/<mail_name>/@attachments
};

// Runs the four lookups in order on `connection` with the escaped recipient
// halves; the first that yields a row decides, and `route`, when given,
// receives its name: "own name", "mail alias", "domain alias", "mail alias in
// a domain alias". nullopt when nothing is found; a lookup that fails ends the
// run (Run_end).
std::optional<Mailbox_ref> resolve_mailbox(MYSQL* connection, const char* esc_domain,
                                           const char* esc_mailname, const char** route = nullptr);
