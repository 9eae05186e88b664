// Reading the sender's mailbox from the Reply-To and From field bodies.
//
// The tokens come from the shared header lexer (autoresponder/intake/
// header_lexer.h), one at a time; here are a splitter for address and mailbox
// lists and the mailbox reader. The obsolete
// forms (route addresses, blanks around dots and "@", phrases without angle
// brackets) are tolerated. Nothing here fails: text that does not read as a
// mailbox simply yields no mailbox. Owns no resources; linear in the input.
#include "autoresponder/intake/address_list.h"

#include "autoresponder/intake/header_lexer.h"

namespace {

bool is_special_token(const Header_token& token, char c) {
  return token.kind == Header_token_kind::kSpecial && token.text[0] == c;
}

bool holds_line_break(const std::string& text) {
  return text.find_first_of("\r\n") != std::string::npos;
}

// The mailbox reader proper: a phrase or local part, then either "<" with an
// optional route before ":" and a local part "@" domain, or "@" and the domain. Tokens
// that have no place in the current state are passed over.
// A NUL byte anywhere in the text (every byte that separates no tokens is in
// one) makes it no mailbox.
std::optional<Mailbox_address> read_mailbox(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return std::nullopt;

  enum class State { kStart, kAfterLess, kInRoute, kInAddrSpec, kAfterAt, kAfterGreater };
  State state = State::kStart;
  Mailbox_address mailbox;
  Header_lexer reader(text, Header_syntax::kAddress);
  while (const std::optional<Header_token> next = reader.next()) {
    const Header_token& token = *next;
    const bool word =
        token.kind == Header_token_kind::kAtom || token.kind == Header_token_kind::kQuotedString;
    switch (state) {
      case State::kStart:
        // Without angle brackets every word and dot belongs to the local part
        // (a phrase without "<...>" reads as one), as within them; "<" starts
        // the local part over.
        if (is_special_token(token, '<')) {
          mailbox.local_part.clear();
          state = State::kAfterLess;
          break;
        }
        [[fallthrough]];
      case State::kInAddrSpec:
        if (is_special_token(token, '@')) {
          state = State::kAfterAt;
        } else if (word || is_special_token(token, '.')) {
          mailbox.local_part += token.text;
        }
        break;
      case State::kAfterLess:
        if (is_special_token(token, '@')) {
          state = State::kInRoute;
        } else if (word) {
          mailbox.local_part = token.text;
          state = State::kInAddrSpec;
        }
        break;
      case State::kInRoute:
        if (is_special_token(token, ':')) state = State::kInAddrSpec;
        break;
      case State::kAfterAt:
        if (is_special_token(token, '>')) {
          state = State::kAfterGreater;
        } else if (token.kind == Header_token_kind::kAtom ||
                   token.kind == Header_token_kind::kDomainLiteral ||
                   is_special_token(token, '.')) {
          mailbox.domain += token.text;
        }
        break;
      case State::kAfterGreater:
        break;
    }
  }
  if (mailbox.local_part.empty()) return std::nullopt;
  if (holds_line_break(mailbox.local_part) || holds_line_break(mailbox.domain)) {
    return std::nullopt;
  }
  return mailbox;
}

// Walks the list's addresses in order and returns the first mailbox that
// reads as valid. In an address list a colon outside angle brackets makes the
// address a group, which runs to its ";" and is passed over whole. Each
// address is read twice, to find its end and then as a mailbox, so memory
// holds no tokens. In a `cut` text the address that reaches its end may be
// incomplete and is not taken.
std::optional<Mailbox_address> first_mailbox(std::string_view field_body, bool with_groups,
                                             bool cut) {
  Header_lexer reader(field_body, Header_syntax::kAddress);
  std::size_t start = 0;
  for (;;) {
    enum class State { kTop, kInAngles, kInGroup } state = State::kTop;
    bool group = false;
    bool any_token = false;
    bool comma = false;
    std::size_t end = field_body.size();
    while (const std::optional<Header_token> token = reader.next()) {
      if (token->kind == Header_token_kind::kSpecial) {
        const char c = token->text[0];
        if (state == State::kTop && c == ',') {
          comma = true;
          end = reader.position() - 1;
          break;
        }
        if (state == State::kTop) {
          if (c == '<') {
            state = State::kInAngles;
          } else if (with_groups && c == ':') {
            group = true;
            state = State::kInGroup;
          }
        } else if (state == State::kInAngles) {
          if (c == '>') state = State::kTop;
        } else if (c == ';') {
          state = State::kTop;
        }
      }
      any_token = true;
    }
    if (any_token && !group && (comma || !cut)) {
      if (auto mailbox = read_mailbox(field_body.substr(start, end - start))) return mailbox;
    }
    if (!comma) return std::nullopt;
    start = reader.position();
  }
}

}  // namespace

std::optional<Mailbox_address> ParseMailbox(std::string_view text) {
  return read_mailbox(text);
}

std::optional<Mailbox_address> GetMailboxFromAddressList(std::string_view field_body, bool cut) {
  return first_mailbox(field_body, true, cut);
}

std::optional<Mailbox_address> GetMailboxFromMailboxList(std::string_view field_body, bool cut) {
  return first_mailbox(field_body, false, cut);
}
