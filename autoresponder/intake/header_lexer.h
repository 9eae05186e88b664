// The lexer of structured header text that the intake's readers share: the
// address reader (From, Reply-To), the media-type reader (Content-Type) and
// the stored-message reader (field names and bodies).
//
// Quoted strings, comments and domain literals end at their closing
// character; a backslash quotes the byte after it, comments nest, and one
// that the text cuts off runs to its end. Blanks, line breaks and the other
// control characters separate the pieces. The lexer holds nothing but its
// position in the borrowed text, so reading tokens one at a time costs no
// memory however many there are. Linear in the text; nothing here fails.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

// The specials of the two syntaxes: an address's (RFC 5322, where "[" opens a
// domain literal) and a media type's tspecials (RFC 2045).
enum class Header_syntax { kAddress, kMediaType };

enum class Header_token_kind {
  kAtom,  // a run of bytes that are neither blank, control nor special
  kSpecial,
  kQuotedString,
  kDomainLiteral,
  kComment,
  kUnterminated,  // a quoted string, comment or domain literal cut off by the end of the text
  kNul,           // a NUL byte between tokens
};

struct Header_token {
  Header_token_kind kind;
  std::string_view text;  // as written: quotes, brackets and parentheses included
};

class Header_lexer {
 public:
  Header_lexer(std::string_view text, Header_syntax syntax) : text_(text), syntax_(syntax) {}

  // The next token after blanks and control characters other than NUL, or
  // nullopt at the end of the text.
  std::optional<Header_token> next();

  // Where the text after the last piece read begins.
  std::size_t position() const { return pos_; }

  // Reading piece by piece.
  bool at_end() const { return pos_ >= text_.size(); }
  // The current byte; NUL at the end.
  char peek() const { return at_end() ? '\0' : text_[pos_]; }
  void advance() { ++pos_; }
  // Blanks, control characters and comments.
  void skip_cfws();
  // Up to the next `stop` outside quoted strings and comments, or the end.
  void skip_to(char stop);
  // A run of atom bytes; with `star_ends`, "*" ends it too. Empty when the
  // current byte is none.
  std::string_view atom(bool star_ends = false);
  // At a quote: passes the quoted string and returns its content, escapes
  // still in it.
  std::string_view quoted_content();

 private:
  bool is_special(char c) const;
  Header_token take(Header_token_kind kind, std::size_t end);
  Header_token take_delimited(Header_token_kind kind, char close, bool nests);

  std::string_view text_;
  Header_syntax syntax_;
  std::size_t pos_ = 0;
};

// The end of the quoted string, comment or domain literal whose opening
// character is at `start`, or npos when the text ends first.
std::size_t DelimitedEnd(std::string_view text, std::size_t start, char close, bool nests);

// How the first line of a header field reads: a name ending in a colon, a
// line that is no field (stopped where the name broke off), or a name still
// open where the line ends.
struct Field_name_scan {
  enum { kField, kNoField, kOpen } result;
  std::size_t length;  // the name before trailing blanks, or where it broke off
};

// A field name has no control character and no blank inside; blanks may stand
// before its colon. A line that starts with the colon is no field, though
// one that starts with blanks before it is (of an empty name).
Field_name_scan ScanFieldName(std::string_view line);

// A raw header value as a field body: leading blanks and tabs and trailing
// white space removed.
std::string_view TrimFieldBody(std::string_view raw);
