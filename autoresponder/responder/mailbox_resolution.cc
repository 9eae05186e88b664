// Mailbox resolution: the recipient address to the mailbox it belongs to, by
// its own name, a mail alias, a domain alias that serves mail, or an alias in
// a domain alias, in that order; the first lookup with a row decides and the
// later ones are never sent.
//
// Owns each lookup's result while it is read. Fails by ending the run
// (Run_end) when a lookup does not execute (or its result cannot be fetched),
// with "autoresponder: Unable to query: " and the server's text; an unknown
// recipient is the caller's to report.
#include "autoresponder/responder/mailbox_resolution.h"

#include "autoresponder/responder/db_statement.h"
#include "lib/autoprepend.h"

namespace {

// The four lookups, tried in this order; each statement is its text before
// the escaped domain, between the domain and the escaped local part, and
// after the local part.
struct Lookup {
  const char* route;  // how the mailbox was reached, for the explanation
  const char* before_domain;
  const char* before_mailname;
  const char* after_mailname;
};
constexpr Lookup kLookups[] = {
    {"own name",
     "select m.id, m.mail_name, d.name from mail m, domains d where m.dom_id=d.id and d.name='",
     "' and m.mail_name='", "'"},
    {"mail alias",
     "select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d where "
     "m.id=ma.mn_id and m.dom_id=d.id and d.name='",
     "' and ma.alias='", "'"},
    {"domain alias",
     "select m.id, m.mail_name, d.name from mail m, domains d, domainaliases da where "
     "m.dom_id=d.id and d.id=da.dom_id and da.name='",
     "' and m.mail_name='", "' and da.mail='true'"},
    {"mail alias in a domain alias",
     "select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d, "
     "domainaliases da where m.id=ma.mn_id and m.dom_id=d.id and d.id=da.dom_id and "
     "da.name='",
     "' and ma.alias='", "' and da.mail='true'"},
};

std::string statement_of(const Lookup& lookup, const char* esc_domain, const char* esc_mailname) {
  return std::string(lookup.before_domain) + esc_domain + lookup.before_mailname + esc_mailname +
         lookup.after_mailname;
}

// The three columns are never NULL in the panel schema; should one be NULL
// all the same, it reads as the empty string rather than crashing the run. An
// empty id makes the rule statement ("mn_id=" with nothing after it) fail, so
// the rule stage reports it and ends the run; an empty name only shapes
// attach_dir.
std::string column_text(const char* value) {
  return value != nullptr ? value : "";
}

}  // namespace

std::optional<Mailbox_ref> resolve_mailbox(MYSQL* connection, const char* esc_domain,
                                           const char* esc_mailname, const char** route) {
  MysqlResult result;
  for (const Lookup& lookup : kLookups) {
    result =
        select_or_exit(connection, statement_of(lookup, esc_domain, esc_mailname), kQueryFailed);
    if (mysql_num_rows(result.get()) == 0) continue;
    if (route != nullptr) *route = lookup.route;
    break;
  }

  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr) return std::nullopt;

  Mailbox_ref mailbox;
  mailbox.id = column_text(row[0]);
  mailbox.mail_name = column_text(row[1]);
  mailbox.domain_name = column_text(row[2]);
  mailbox.attach_dir = std::string(ovkConfGetDefaultByIndex(_ORVIK_MAILNAMES_D_INDEX)) + "/" +
                       mailbox.domain_name + "/" + mailbox.mail_name + "/@attachments";
  return mailbox;
}
