// Reading the sender's mailbox from the Reply-To and From field bodies.
//
// A small RFC 822 tokenizer (atoms, specials, quoted strings, domain
// literals, comments; blanks and control characters separate tokens), a
// splitter for address and mailbox lists, and the mailbox reader. The obsolete
// forms (route addresses, blanks around dots and "@", phrases without angle
// brackets) are tolerated. Nothing here fails: text that does not read as a
// mailbox simply yields no mailbox. Owns no resources; linear in the input.
#include "autoresponder/intake/address_list.h"

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

// The tokens of a text, one at a time: nothing is held but the position, so
// the reader's memory does not grow with the number of tokens.
class Token_reader {
 public:
  explicit Token_reader(std::string_view text) : text_(text) {}

  // The next token, or nullopt at the end of the text.
  std::optional<Token> next() {
    while (pos_ < text_.size()) {
      const unsigned char c = static_cast<unsigned char>(text_[pos_]);
      if (c == '\0') return take(Token_kind::kNul, pos_ + 1);
      if (is_separator(c)) {
        ++pos_;
        continue;
      }
      switch (c) {
        case '"':
          return take_delimited(Token_kind::kQuotedString, '"', '"', false);
        case '(':
          return take_delimited(Token_kind::kComment, '(', ')', true);
        case '[':
          return take_delimited(Token_kind::kDomainLiteral, '[', ']', false);
        default:
          break;
      }
      if (is_special(c)) return take(Token_kind::kSpecial, pos_ + 1);
      std::size_t end = pos_ + 1;
      while (end < text_.size()) {
        const unsigned char next = static_cast<unsigned char>(text_[end]);
        if (next == '\0' || is_separator(next) || is_special(next)) break;
        ++end;
      }
      return take(Token_kind::kAtom, end);
    }
    return std::nullopt;
  }

  // Where the text after the last token returned begins.
  std::size_t position() const { return pos_; }

 private:
  Token take(Token_kind kind, std::size_t end) {
    const Token token{kind, text_.substr(pos_, end - pos_)};
    pos_ = end;
    return token;
  }
  Token take_delimited(Token_kind kind, char open, char close, bool nests) {
    const std::size_t end = delimited_end(text_, pos_, open, close, nests);
    if (end == std::string_view::npos) return take(Token_kind::kUnterminated, text_.size());
    return take(kind, end);
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

bool is_special_token(const Token& token, char c) {
  return token.kind == Token_kind::kSpecial && token.text[0] == c;
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
  Token_reader reader(text);
  while (const std::optional<Token> next = reader.next()) {
    const Token& token = *next;
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
// address a group, which runs to its ";" and is passed over whole. Each
// address is read twice, to find its end and then as a mailbox, so memory
// holds no tokens. In a `cut` text the address that reaches its end may be
// incomplete and is not taken.
std::optional<Mailbox_address> first_mailbox(std::string_view field_body, bool with_groups,
                                             bool cut) {
  Token_reader reader(field_body);
  std::size_t start = 0;
  for (;;) {
    enum class State { kTop, kInAngles, kInGroup } state = State::kTop;
    bool group = false;
    bool any_token = false;
    bool comma = false;
    std::size_t end = field_body.size();
    while (const std::optional<Token> token = reader.next()) {
      if (token->kind == Token_kind::kSpecial) {
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
