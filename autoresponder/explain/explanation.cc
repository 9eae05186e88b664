// The explanation of one run: the decisions as the stages report them and the
// mails as they hand them over, written as text for a person or as one JSON
// document for the panel.
//
// Owns copies of everything it reports; a recorded mail is measured (and, when
// kept, read whole) through the descriptor the stage hands over, which stays
// the stage's. Every text from the message or the database is written quoted
// and escaped, so no control character reaches the terminal or the panel.
#include "autoresponder/explain/explanation.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

// The length of the well-formed UTF-8 sequence at `at` (1 for ASCII), or 0:
// no overlong form, no surrogate, nothing above U+10FFFF.
std::size_t utf8_sequence(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char lead = byte(0);
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xbf;
  if (lead < 0x80) return 1;
  if (lead >= 0xc2 && lead < 0xe0) length = 2;
  if (lead >= 0xe0 && lead < 0xf0) length = 3;
  if (lead >= 0xf0 && lead < 0xf5) length = 4;
  if (lead == 0xe0) low = 0xa0;
  if (lead == 0xed) high = 0x9f;
  if (lead == 0xf0) low = 0x90;
  if (lead == 0xf4) high = 0x8f;
  if (length == 0 || at + length > text.size() || byte(1) < low || byte(1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  return length;
}

// A JSON string; also the quoted form of the text output. A byte that is not
// part of well-formed UTF-8 (the message and the database may hold any) is
// written as U+FFFD, so the document stays valid.
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80) {
      const std::size_t length = utf8_sequence(text, at);
      if (length == 0) {
        out += "\\ufffd";
        continue;
      }
      out.append(text, at, length);
      at += length - 1;
    } else if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string joined_argv(const std::vector<std::string>& argv) {
  std::string out;
  for (const std::string& word : argv) {
    if (!out.empty()) out += ' ';
    out += word;
  }
  return out;
}

const char* place_name(const Resp_rule& rule) {
  switch (key_place(rule)) {
    case Key_place::kSubject:
      return "subject";
    case Key_place::kBodyLines:
      return "body lines";
    case Key_place::kNowhere:
      break;
  }
  return "nowhere";
}

// The missing names as the stage lists them: each followed by a line feed.
std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

std::string json_list(const std::vector<std::string>& items) {
  std::string out = "[";
  for (const std::string& item : items) out += (out.size() > 1 ? ", " : "") + quoted(item);
  return out + "]";
}

const char* json_bool(bool value) {
  return value ? "true" : "false";
}

}  // namespace

Explanation::Mail Explanation::new_mail(Outgoing kind, const std::vector<std::string>& argv) const {
  Mail mail;
  mail.kind = kind;
  mail.rule_id = rules_.empty() ? "" : rules_.back().rule.id;
  mail.argv = argv;
  return mail;
}

bool Explanation::send_file(Outgoing kind, const std::vector<std::string>& argv, int message) {
  Mail mail = new_mail(kind, argv);
  struct stat status;
  if (fstat(message, &status) != 0) return false;
  mail.size = status.st_size;
  if (keep_content_) {
    char block[64 * 1024];
    off_t at = 0;
    for (ssize_t got; (got = pread(message, block, sizeof block, at)) > 0; at += got) {
      mail.content.append(block, static_cast<std::size_t>(got));
    }
  }
  mails_.push_back(std::move(mail));
  return true;
}

void Explanation::send_text(Outgoing kind, const std::vector<std::string>& argv,
                            const std::string& text) {
  Mail mail = new_mail(kind, argv);
  mail.size = static_cast<long long>(text.size());
  if (keep_content_) mail.content = text;
  mails_.push_back(std::move(mail));
}

void Explanation::reply_fields(bool guards_on, const std::string& fields) {
  guards_on_ = guards_on;
  reply_fields_ = fields;
}

void Explanation::mailbox_found(const Mailbox_ref& mailbox, const char* route) {
  mailbox_ = mailbox;
  route_ = route != nullptr ? route : "";
}

void Explanation::rule_seen(const Resp_rule& rule, bool on, bool matches) {
  Rule seen;
  seen.rule = rule;
  seen.on = on;
  seen.matches = matches;
  rules_.push_back(std::move(seen));
}

void Explanation::answer_counted(const Answer_count& count) {
  if (!rules_.empty()) rules_.back().count = count;
}

void Explanation::attachments_looked_up(const std::vector<std::string>& found,
                                        const std::string& missing) {
  if (rules_.empty()) return;
  rules_.back().attachments_looked_up = true;
  rules_.back().found_attachments = found;
  rules_.back().missing_attachments = lines_of(missing);
}

void Explanation::size_checked(long long size, long long limit, bool replaced) {
  if (rules_.empty()) return;
  rules_.back().size = size;
  rules_.back().size_limit = limit;
  rules_.back().replaced = replaced;
}

void Explanation::set_message(std::string recipient, std::string from, std::string subject) {
  recipient_ = std::move(recipient);
  from_ = std::move(from);
  subject_ = std::move(subject);
}

void Explanation::write_text(std::ostream& out) const {
  out << "message: from " << quoted(from_) << " to " << quoted(recipient_) << ", subject "
      << quoted(subject_) << '\n';
  if (refusal_) {
    out << "guards: refused: " << *refusal_ << '\n' << "mails: none\n";
    return;
  }
  out << "guards: passed; RFC 3834 rules " << (guards_on_ ? "on" : "off") << '\n';
  if (!reply_fields_.empty()) out << "reply fields: " << quoted(reply_fields_) << '\n';
  if (mailbox_missing_) {
    out << "mailbox: not found by own name, mail alias, domain alias or mail alias in a domain "
           "alias\nmails: none\n";
    return;
  }
  if (mailbox_) {
    out << "mailbox: " << quoted(mailbox_->mail_name + "@" + mailbox_->domain_name) << " (id "
        << mailbox_->id << "), found by its " << route_ << '\n';
  }
  if (mailbox_ && rules_.empty()) out << "rules: none\n";
  for (const Rule& r : rules_) {
    out << "rule " << r.rule.id << ": ";
    if (!r.on) {
      out << "off\n";
      continue;
    }
    if (key_place(r.rule) == Key_place::kNowhere) {
      out << "on; no key place, every message matches\n";
    } else {
      out << "on; key " << quoted(r.rule.keystr) << " searched in the " << place_name(r.rule)
          << ": " << (r.matches ? "found" : "not found") << '\n';
    }
    if (const auto& c = r.count) {
      out << "  daily limit: ans_freq " << c->limit;
      if (c->limit > 0) {
        out << ", sender answered " << (c->today ? std::to_string(*c->today) : "0")
            << (c->today ? "" : " (not remembered)") << " times today; " << c->remembered
            << " senders remembered, mem_limit " << c->memory;
        if (c->evicts) out << ", the oldest would be forgotten";
      }
      out << ": " << (c->answers ? "answers" : "does not answer") << '\n';
    }
    if (r.attachments_looked_up) {
      out << "  attachments: found " << json_list(r.found_attachments) << ", missing "
          << json_list(r.missing_attachments) << '\n';
    }
    if (r.size) {
      out << "  reply size: " << *r.size << " bytes, databytes limit "
          << (*r.size_limit > 0 ? std::to_string(*r.size_limit) : std::string("none"))
          << (r.replaced ? ": over, replaced by the size notice" : ": within") << '\n';
    }
  }
  if (!complete()) out << "the run ended early: see the line on standard error\n";
  out << "mails: " << (mails_.empty() ? "none" : std::to_string(mails_.size())) << '\n';
  for (const Mail& mail : mails_) {
    out << "  " << outgoing_name(mail.kind) << " (rule " << mail.rule_id
        << "): " << joined_argv(mail.argv) << "; " << mail.size << " bytes\n";
    if (keep_content_) out << mail.content << (mail.content.ends_with('\n') ? "" : "\n");
  }
}

void Explanation::write_json(std::ostream& out) const {
  out << "{\"recipient\": " << quoted(recipient_) << ", \"from\": " << quoted(from_)
      << ", \"subject\": " << quoted(subject_)
      << ",\n \"refused\": " << (refusal_ ? quoted(*refusal_) : "null")
      << ", \"rfc3834\": " << json_bool(guards_on_)
      << ", \"reply_fields\": " << quoted(reply_fields_) << ",\n \"mailbox\": ";
  if (mailbox_) {
    out << "{\"id\": " << quoted(mailbox_->id) << ", \"mail_name\": " << quoted(mailbox_->mail_name)
        << ", \"domain\": " << quoted(mailbox_->domain_name) << ", \"route\": " << quoted(route_)
        << "}";
  } else {
    out << "null";
  }
  out << ",\n \"rules\": [";
  const char* separator = "";
  for (const Rule& r : rules_) {
    out << separator << "\n  {\"id\": " << quoted(r.rule.id) << ", \"on\": " << json_bool(r.on)
        << ", \"key\": " << quoted(r.rule.keystr)
        << ", \"searched\": " << quoted(place_name(r.rule))
        << ", \"matches\": " << json_bool(r.matches) << ", \"daily_limit\": ";
    separator = ",";
    if (const auto& c = r.count) {
      out << "{\"ans_freq\": " << c->limit
          << ", \"today\": " << (c->today ? std::to_string(*c->today) : "null")
          << ", \"remembered\": " << c->remembered << ", \"mem_limit\": " << c->memory
          << ", \"evicts\": " << json_bool(c->evicts) << ", \"answers\": " << json_bool(c->answers)
          << "}";
    } else {
      out << "null";
    }
    if (r.attachments_looked_up) {
      out << ", \"attachments\": {\"found\": " << json_list(r.found_attachments)
          << ", \"missing\": " << json_list(r.missing_attachments) << "}";
    }
    if (r.size) {
      out << ", \"size\": {\"bytes\": " << *r.size << ", \"limit\": " << *r.size_limit
          << ", \"replaced\": " << json_bool(r.replaced) << "}";
    }
    out << "}";
  }
  out << "],\n \"complete\": " << json_bool(complete()) << ",\n \"mails\": [";
  separator = "";
  for (const Mail& mail : mails_) {
    out << separator << "\n  {\"kind\": " << quoted(outgoing_name(mail.kind))
        << ", \"rule\": " << quoted(mail.rule_id) << ", \"argv\": " << json_list(mail.argv)
        << ", \"bytes\": " << mail.size;
    if (keep_content_) out << ", \"content\": " << quoted(mail.content);
    out << "}";
    separator = ",";
  }
  out << "]}\n";
}
