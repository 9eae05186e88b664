// Autoresponder rules: one row of mail_resp, and whether it applies.
#pragma once

#include <mysql.h>

#include <string>

#include "autoresponder/mail_content.h"

// The eleven columns of mail_resp as strings; NULL takes the default shown.
struct Resp_rule {
  std::string id = "0";
  std::string keystr;
  std::string key_where = "no";
  std::string text;
  std::string resp_on = "false";
  std::string ans_freq = "10";
  std::string mem_limit = "1000";
  std::string subject;
  std::string reply_to;
  std::string charset = "UTF-8";
  std::string content_type = "text/plain";
};

// The rule statement's column list, in the order rule_from_row reads it.
extern const char kRuleColumns[];

// Fills a rule from a row of the rule statement (columns 0 to 10).
// subject, reply_to, charset and content_type pass strip_header_controls.
Resp_rule rule_from_row(MYSQL_ROW row);

// Removes every control character but the tab (bytes below 0x20, and 0x7f)
// from a value bound for a header line.
void strip_header_controls(std::string& value);

// resp_on exactly "false" is off; key_where "subj" searches the subject,
// "body" each body line; anything else matches every message.
bool rule_is_on(const Resp_rule& rule);
enum class Key_place { kSubject, kBodyLines, kNowhere };
Key_place key_place(const Resp_rule& rule);
bool rule_matches(const Resp_rule& rule, const Mail_content& mail);
