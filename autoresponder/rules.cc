// Autoresponder rules: reading one row of mail_resp into a Resp_rule and
// deciding whether the rule applies to the incoming message.
//
// Owns nothing beyond the rule values it copies. Cannot fail: a NULL column
// keeps the field's default, and every comparison is exact and
// case-sensitive, so a misspelt switch or key place simply takes the
// permissive reading (on; applies to every message).
#include "autoresponder/rules.h"

#include <string_view>

const char kRuleColumns[] =
    "id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, reply_to, charset, "
    "content_type";

namespace {

void take_column(const char* value, std::string& field) {
  if (value != nullptr) field = value;  // NULL keeps the default; "" stays ""
}

bool contains(std::string_view haystack, std::string_view key) {
  return haystack.find(key) != std::string_view::npos;
}

}  // namespace

Resp_rule rule_from_row(MYSQL_ROW row) {
  Resp_rule rule;
  take_column(row[0], rule.id);
  take_column(row[1], rule.keystr);
  take_column(row[2], rule.key_where);
  take_column(row[3], rule.text);
  take_column(row[4], rule.resp_on);
  take_column(row[5], rule.ans_freq);
  take_column(row[6], rule.mem_limit);
  take_column(row[7], rule.subject);
  take_column(row[8], rule.reply_to);
  take_column(row[9], rule.charset);
  take_column(row[10], rule.content_type);
  return rule;
}

bool rule_is_on(const Resp_rule& rule) {
  return rule.resp_on != "false";
}

bool rule_matches(const Resp_rule& rule, const Mail_content& mail) {
  if (rule.key_where == "subj") return contains(mail.subject, rule.keystr);
  if (rule.key_where == "body") {
    // Line by line: a key spanning a line break never matches.
    return mail.body.line_contains(rule.keystr);
  }
  return true;
}
