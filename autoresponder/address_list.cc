// Reading the sender's mailbox from the Reply-To and From field bodies.
//
// A small RFC 822 tokenizer (atoms, specials, quoted strings, domain
// literals, comments; blanks and control characters separate tokens), a
// splitter for address and mailbox lists, and the mailbox reader. The obsolete
// forms (route addresses, blanks around dots and "@", phrases without angle
// brackets) are tolerated. Nothing here fails: text that does not read as a
// mailbox simply yields no mailbox. Owns no resources; linear in the input.
#include "autoresponder/address_list.h"

#include <span>
#include <vector>

namespace {

enum class Token_kind {
  kAtom,
  kSpecial,
  kQuotedString,
  kDomainLiteral,
  kComment,
  kUnterminated,  // a quoted string, comment or domain literal cut off by the end of the text
  kNul,           // a NUL byte between tokens
};

struct Token {
  Token_kind kind;
  std::string_view text;
};

// Blanks and control characters only separate tokens (CR and LF of folded
// lines included). NUL is kept apart so that it can make an address unusable.
bool is_separator(unsigned char c) {
  return c == ' ' || (c >= 1 && c < 32) || c == 127;
}

bool is_special(unsigned char c) {
  switch (c) {
    case '(':
    case ')':
    case '<':
    case '>':
    case '@':
    case ',':
    case ';':
    case ':':
    case '\\':
    case '"':
    case '.':
    case '[':
    case ']':
      return true;
    default:
      return false;
  }
}

// The end of a delimited token starting at `start` (the opening character),
// or npos when the text ends first. A backslash quotes the next byte.
// Comments nest.
std::size_t delimited_end(std::string_view text, std::size_t start, char open, char close,
                          bool nests) {
  int depth = 1;
  for (std::size_t pos = start + 1; pos < text.size(); ++pos) {
    char c = text[pos];
    if (c == '\\') {
      ++pos;
    } else if (c == close) {
      if (--depth == 0) return pos + 1;
    } else if (nests && c == open) {
      ++depth;
    }
  }
  return std::string_view::npos;
}

std::vector<Token> tokenize(std::string_view text) {
  std::vector<Token> tokens;
  std::size_t pos = 0;
  while (pos < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[pos]);
    if (c == '\0') {
      tokens.push_back({Token_kind::kNul, text.substr(pos, 1)});
      ++pos;
      continue;
    }
    if (is_separator(c)) {
      ++pos;
      continue;
    }
    std::size_t end;
    Token_kind kind;
    switch (c) {
      case '"':
        end = delimited_end(text, pos, '"', '"', false);
        kind = Token_kind::kQuotedString;
        break;
      case '(':
        end = delimited_end(text, pos, '(', ')', true);
        kind = Token_kind::kComment;
        break;
      case '[':
        end = delimited_end(text, pos, '[', ']', false);
        kind = Token_kind::kDomainLiteral;
        break;
      default:
        if (is_special(c)) {
          end = pos + 1;
          kind = Token_kind::kSpecial;
        } else {
          end = pos + 1;
          while (end < text.size()) {
            unsigned char next = static_cast<unsigned char>(text[end]);
            if (next == '\0' || is_separator(next) || is_special(next)) break;
            ++end;
          }
          kind = Token_kind::kAtom;
        }
        break;
    }
    if (end == std::string_view::npos) {
      end = text.size();
      kind = Token_kind::kUnterminated;
    }
    tokens.push_back({kind, text.substr(pos, end - pos)});
    pos = end;
  }
  return tokens;
}

bool is_special_token(const Token& token, char c) {
  return token.kind == Token_kind::kSpecial && token.text[0] == c;
}

bool holds_line_break(const std::string& text) {
  return text.find_first_of("\r\n") != std::string::npos;
}

// The mailbox reader proper: a phrase or local part, then either "<" with an
// optional route before ":" and a local part "@" domain, or "@" and the domain. Tokens
// that have no place in the current state are passed over.
std::optional<Mailbox_address> read_mailbox(std::span<const Token> tokens) {
  for (const Token& token : tokens) {
    if (token.kind == Token_kind::kNul || token.text.find('\0') != std::string_view::npos) {
      return std::nullopt;
    }
  }

  enum class State { kStart, kAfterLess, kInRoute, kInAddrSpec, kAfterAt, kAfterGreater };
  State state = State::kStart;
  Mailbox_address mailbox;
  for (const Token& token : tokens) {
    const bool word = token.kind == Token_kind::kAtom || token.kind == Token_kind::kQuotedString;
    switch (state) {
      case State::kStart:
        // Without angle brackets every word and dot belongs to the local part
        // (a phrase without "<...>" reads as one).
        if (is_special_token(token, '@')) {
          state = State::kAfterAt;
        } else if (is_special_token(token, '<')) {
          mailbox.local_part.clear();
          state = State::kAfterLess;
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
      case State::kInAddrSpec:
        if (is_special_token(token, '@')) {
          state = State::kAfterAt;
        } else if (word || is_special_token(token, '.')) {
          mailbox.local_part += token.text;
        }
        break;
      case State::kAfterAt:
        if (is_special_token(token, '>')) {
          state = State::kAfterGreater;
        } else if (token.kind == Token_kind::kAtom || token.kind == Token_kind::kDomainLiteral ||
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
// address a group, which runs to its ";" and is passed over whole.
std::optional<Mailbox_address> first_mailbox(std::string_view field_body, bool with_groups) {
  const std::vector<Token> tokens = tokenize(field_body);
  std::size_t pos = 0;
  while (pos < tokens.size()) {
    enum class State { kTop, kInAngles, kInGroup } state = State::kTop;
    bool group = false;
    const std::size_t start = pos;
    for (; pos < tokens.size(); ++pos) {
      const Token& token = tokens[pos];
      if (token.kind != Token_kind::kSpecial) continue;
      const char c = token.text[0];
      if (state == State::kTop) {
        if (c == ',') break;
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
    const std::span<const Token> address(tokens.data() + start, pos - start);
    if (pos < tokens.size()) ++pos;  // the comma
    if (address.empty() || group) continue;
    if (auto mailbox = read_mailbox(address)) return mailbox;
  }
  return std::nullopt;
}

}  // namespace

std::optional<Mailbox_address> ParseMailbox(std::string_view text) {
  const std::vector<Token> tokens = tokenize(text);
  return read_mailbox(tokens);
}

std::optional<Mailbox_address> GetMailboxFromAddressList(std::string_view field_body) {
  return first_mailbox(field_body, true);
}

std::optional<Mailbox_address> GetMailboxFromMailboxList(std::string_view field_body) {
  return first_mailbox(field_body, false);
}
