// Autoresponder rules: reading one row of mail_resp into a Resp_rule and
// deciding whether the rule applies to the incoming message.
//
// The columns that go into the reply's header lines (subject template,
// reply_to, charset, content_type) lose their control characters but the
// tab: a line feed in a database value must not make a header line of its
// own (a Bcc:, say). Values without them are kept byte for byte.
//
// Owns nothing beyond the rule values it copies. Cannot fail: a NULL column
// keeps the field's default, and every comparison is exact and
// case-sensitive, so a misspelt switch or key place simply takes the
// permissive reading (on; applies to every message).
#include "autoresponder/responder/rules.h"

#include <string_view>

const char kRuleColumns[] =
    "id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, reply_to, charset, "
    "content_type";

namespace {

void take_column(const char* value, std::string& field) {
  if (value != nullptr) field = value;  // NULL keeps the default; "" stays ""
}

void take_header_column(const char* value, std::string& field) {
  take_column(value, field);
  strip_header_controls(field);
}

bool contains(std::string_view haystack, std::string_view key) {
  return haystack.find(key) != std::string_view::npos;
}

}  // namespace

void strip_header_controls(std::string& value) {
  std::erase_if(value, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && byte != '\t') || byte == 0x7f;
  });
}

Resp_rule rule_from_row(MYSQL_ROW row) {
  Resp_rule rule;
  take_column(row[0], rule.id);
  take_column(row[1], rule.keystr);
  take_column(row[2], rule.key_where);
  take_column(row[3], rule.text);
  take_column(row[4], rule.resp_on);
  take_column(row[5], rule.ans_freq);
  take_column(row[6], rule.mem_limit);
  take_header_column(row[7], rule.subject);
  take_header_column(row[8], rule.reply_to);
  take_header_column(row[9], rule.charset);
  take_header_column(row[10], rule.content_type);
  return rule;
}

bool rule_is_on(const Resp_rule& rule) {
  return rule.resp_on != "false";
}

Key_place key_place(const Resp_rule& rule) {
  if (rule.key_where == "subj") return Key_place::kSubject;
  if (rule.key_where == "body") return Key_place::kBodyLines;
  return Key_place::kNowhere;
}

bool rule_matches(const Resp_rule& rule, const Mail_content& mail) {
  const Key_place place = key_place(rule);
  if (place == Key_place::kSubject) return contains(mail.subject, rule.keystr);
  if (place == Key_place::kBodyLines) {
    // Line by line: a key spanning a line break never matches.
    return mail.body.line_contains(rule.keystr);
  }
  return true;
}
