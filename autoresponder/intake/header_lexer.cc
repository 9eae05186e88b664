// The shared lexer of structured header text; see the header for its rules.
#include "autoresponder/intake/header_lexer.h"

#include <algorithm>
#include <array>

#include "lib/ascii.h"

namespace {

// Which bytes are specials, one table per syntax, looked up per byte.
using Special_table = std::array<bool, 256>;

constexpr Special_table specials(std::string_view chars) {
  Special_table table{};
  for (const char c : chars) table[static_cast<unsigned char>(c)] = true;
  return table;
}

constexpr Special_table kAddressSpecials = specials("()<>@,;:\\\".[]");
constexpr Special_table kMediaTypeSpecials = specials("()<>@,;:\\\"/[]?=");

}  // namespace

std::size_t DelimitedEnd(std::string_view text, std::size_t start, char close, bool nests) {
  const char open = text[start];
  int depth = 1;
  for (std::size_t pos = start + 1; pos < text.size(); ++pos) {
    const char c = text[pos];
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

bool Header_lexer::is_special(char c) const {
  const Special_table& table =
      syntax_ == Header_syntax::kAddress ? kAddressSpecials : kMediaTypeSpecials;
  return table[static_cast<unsigned char>(c)];
}

std::optional<Header_token> Header_lexer::next() {
  while (!at_end()) {
    const char c = text_[pos_];
    if (c == '\0') return take(Header_token_kind::kNul, pos_ + 1);
    if (IsBlankOrControl(c)) {
      ++pos_;
      continue;
    }
    if (c == '"') return take_delimited(Header_token_kind::kQuotedString, '"', false);
    if (c == '(') return take_delimited(Header_token_kind::kComment, ')', true);
    if (c == '[' && syntax_ == Header_syntax::kAddress) {
      return take_delimited(Header_token_kind::kDomainLiteral, ']', false);
    }
    if (is_special(c)) return take(Header_token_kind::kSpecial, pos_ + 1);
    const std::size_t begin = pos_;
    atom();
    return Header_token{Header_token_kind::kAtom, text_.substr(begin, pos_ - begin)};
  }
  return std::nullopt;
}

void Header_lexer::skip_cfws() {
  while (!at_end()) {
    if (IsBlankOrControl(text_[pos_])) {
      ++pos_;
    } else if (text_[pos_] == '(') {
      pos_ = std::min(DelimitedEnd(text_, pos_, ')', true), text_.size());
    } else {
      return;
    }
  }
}

void Header_lexer::skip_to(char stop) {
  while (!at_end() && text_[pos_] != stop) {
    if (text_[pos_] == '"') {
      quoted_content();
    } else if (text_[pos_] == '(') {
      skip_cfws();
    } else {
      ++pos_;
    }
  }
}

std::string_view Header_lexer::atom(bool star_ends) {
  const std::size_t begin = pos_;
  while (!at_end()) {
    const char c = text_[pos_];
    if (IsBlankOrControl(c) || is_special(c) || (star_ends && c == '*')) break;
    ++pos_;
  }
  return text_.substr(begin, pos_ - begin);
}

std::string_view Header_lexer::quoted_content() {
  const std::size_t begin = pos_ + 1;
  const std::size_t end = DelimitedEnd(text_, pos_, '"', false);
  pos_ = std::min(end, text_.size());
  return text_.substr(begin, (end == std::string_view::npos ? pos_ : end - 1) - begin);
}

Header_token Header_lexer::take(Header_token_kind kind, std::size_t end) {
  const Header_token token{kind, text_.substr(pos_, end - pos_)};
  pos_ = end;
  return token;
}

Header_token Header_lexer::take_delimited(Header_token_kind kind, char close, bool nests) {
  const std::size_t end = DelimitedEnd(text_, pos_, close, nests);
  if (end == std::string_view::npos) return take(Header_token_kind::kUnterminated, text_.size());
  return take(kind, end);
}

Field_name_scan ScanFieldName(std::string_view line) {
  bool blank = false;
  std::size_t name_end = 0;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == ':') {
      return {i == 0 ? Field_name_scan::kNoField : Field_name_scan::kField, blank ? name_end : i};
    }
    if (IsBlank(c)) {
      if (!blank) name_end = i;
      blank = true;
    } else if (blank || IsControl(c)) {
      return {Field_name_scan::kNoField, i};
    }
  }
  return {Field_name_scan::kOpen, line.size()};
}

std::string_view TrimFieldBody(std::string_view raw) {
  const std::size_t first = raw.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const std::size_t last = raw.find_last_not_of(" \t\r\n\v\f");
  if (last == std::string_view::npos || last < first) return {};
  return raw.substr(first, last - first + 1);
}
