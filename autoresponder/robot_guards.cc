// The opt-in robot guards: messages that announce themselves as automatic
// (Auto-Submitted other than "no"), as bulk or list mail (Precedence bulk,
// junk or list; a List-Id, List-Unsubscribe or List-Post field), bounces
// (an empty Return-Path), or that come from a list's administrative address
// (local part owner-*, *-request, listserv, majordomo) are not answered.
//
// Owns, while the fields are read, the descriptor of the stored message.
// Cannot fail otherwise: an unreadable stored message gives no fields, so only
// the sender's address is looked at.
#include "autoresponder/robot_guards.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "lib/ascii.h"
#include "lib/autoprepend.h"

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

bool starts_with_word(std::string_view text, std::string_view word) {
  return text.size() >= word.size() && EqualsIgnoringCase(text.substr(0, word.size()), word);
}

bool ends_with_word(std::string_view text, std::string_view word) {
  return text.size() >= word.size() &&
         EqualsIgnoringCase(text.substr(text.size() - word.size()), word);
}

// The field's first word: up to a blank, ';' or the start of a comment.
std::string_view first_word(std::string_view body) {
  const std::size_t start = std::min(body.find_first_not_of(kBlanks), body.size());
  body.remove_prefix(start);
  return body.substr(0, body.find_first_of(" \t\r\n;("));
}

bool is_list_sender(const std::string& sender) {
  const std::string_view local =
      std::string_view(sender).substr(0, std::min(sender.rfind('@'), sender.size()));
  return starts_with_word(local, "owner-") || ends_with_word(local, "-request") ||
         EqualsIgnoringCase(local, "listserv") || EqualsIgnoringCase(local, "majordomo");
}

bool is_empty_path(std::string_view body) {
  std::string path(body);
  std::erase_if(path, [](char c) { return kBlanks.find(c) != std::string_view::npos; });
  return path == "<>";
}

// The first "<...>" of the field when it is printable ASCII without blanks and
// short enough to repeat.
std::optional<std::string> message_id(const std::optional<std::string>& body) {
  if (!body) return std::nullopt;
  const std::size_t open = body->find('<');
  const std::size_t close = body->find('>', open);
  if (open == std::string::npos || close == std::string::npos) return std::nullopt;
  const std::string id = body->substr(open, close - open + 1);
  if (id.size() > kMessageIdMax || id.size() < 3) return std::nullopt;
  const bool printable = std::all_of(id.begin(), id.end(), [](char c) {
    return static_cast<unsigned char>(c) > 0x20 && static_cast<unsigned char>(c) < 0x7f;
  });
  return printable ? std::optional<std::string>(id) : std::nullopt;
}

}  // namespace

bool robot_guards_on() {
  const char* value = ovkConfGet(kRobotGuardsVariable);
  if (value == nullptr) return false;
  const std::string_view word = first_word(value);
  return EqualsIgnoringCase(word, "true") || EqualsIgnoringCase(word, "yes") ||
         EqualsIgnoringCase(word, "on");
}

std::optional<Entity_headers> robot_fields(int stored_message) {
  if (stored_message < 0) return std::nullopt;
  Stored_message_reader reader(stored_message);
  return ReadHeaderBlock(reader, Header_block_kind::kMessage);
}

std::optional<std::string> robot_refusal(const Mail_content& mail, const Entity_headers& fields) {
  if (fields.auto_submitted && !EqualsIgnoringCase(first_word(*fields.auto_submitted), "no")) {
    return "Field Auto-Submitted: is not no";
  }
  if (fields.precedence) {
    const std::string_view word = first_word(*fields.precedence);
    if (EqualsIgnoringCase(word, "bulk") || EqualsIgnoringCase(word, "junk") ||
        EqualsIgnoringCase(word, "list")) {
      return "Field Precedence: is bulk, junk or list";
    }
  }
  if (fields.list_id) return "Field List-Id: present";
  if (fields.list_unsubscribe) return "Field List-Unsubscribe: present";
  if (fields.list_post) return "Field List-Post: present";
  if (fields.return_path && is_empty_path(*fields.return_path)) {
    return "Field Return-Path: is empty";
  }
  if (is_list_sender(mail.from)) return "Field From: is a mailing list address";
  return std::nullopt;
}

std::string auto_reply_fields(const Entity_headers& fields) {
  std::string text = "Auto-Submitted: auto-replied\n";
  if (const auto id = message_id(fields.message_id)) {
    text += "In-Reply-To: " + *id + "\nReferences: " + *id + "\n";
  }
  return text;
}
