// Reading a Content-Type field body. The parameters are read in one pass that
// keeps only the sections of the parameter asked for, as places in the field
// body, so that a field body of megabytes with many parameters costs little
// memory.
#include "autoresponder/intake/media_type.h"

#include <strings.h>

#include <algorithm>
#include <vector>

namespace {

// Blanks, line breaks and the other control characters.
bool is_blank_or_control(char c) {
  const unsigned char byte = static_cast<unsigned char>(c);
  return byte <= ' ' || byte == 127;
}

// RFC 2045 token characters; 8-bit bytes are let through.
bool is_token_char(char c) {
  const unsigned char byte = static_cast<unsigned char>(c);
  if (byte <= ' ' || byte == 127) return false;
  static constexpr std::string_view kTspecials = "()<>@,;:\\\"/[]?=";
  return kTspecials.find(c) == std::string_view::npos;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "%XX" undone; a "%" without two hex digits after it stays as it is.
void append_percent_decoded(std::string_view text, std::string& out) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hex_value(text[i + 1]);
      const int low = hex_value(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
}

// A charset-tagged value without its charset'language' prefix.
std::string_view without_charset_tag(std::string_view value) {
  const std::size_t first = value.find('\'');
  if (first == std::string_view::npos) return value;
  const std::size_t second = value.find('\'', first + 1);
  return value.substr((second == std::string_view::npos ? first : second) + 1);
}

// One parameter, or one section of a split one, as written.
struct Section {
  long number = -1;       // -1: the parameter is not split
  bool extended = false;  // written with "*" before "=": "%XX" to undo
  std::size_t value_begin = 0;
  std::size_t value_size = 0;
  bool quoted = false;  // the value lay between quotes; its escapes are still in it
};

class Field_reader {
 public:
  explicit Field_reader(std::string_view text) : text_(text) {}

  bool at_end() const { return pos_ >= text_.size(); }
  char peek() const { return at_end() ? '\0' : text_[pos_]; }
  void advance() { ++pos_; }

  // Blanks, control characters and comments (nested, with quoted pairs).
  void skip_cfws() {
    while (!at_end()) {
      if (is_blank_or_control(text_[pos_])) {
        ++pos_;
      } else if (text_[pos_] == '(') {
        int depth = 0;
        while (!at_end()) {
          const char c = text_[pos_++];
          if (c == '\\') {
            ++pos_;
          } else if (c == '(') {
            ++depth;
          } else if (c == ')' && --depth == 0) {
            break;
          }
        }
        pos_ = std::min(pos_, text_.size());
      } else {
        return;
      }
    }
  }

  // Up to the next ";" outside quoted strings and comments, or the end.
  void skip_to_separator() {
    while (!at_end() && text_[pos_] != ';') {
      if (text_[pos_] == '"') {
        skip_quoted_string();
      } else if (text_[pos_] == '(') {
        skip_cfws();
      } else {
        ++pos_;
      }
    }
  }

  // A run of token characters; with `star_ends`, "*" ends it too.
  std::string_view token(bool star_ends) {
    const std::size_t begin = pos_;
    while (!at_end() && is_token_char(text_[pos_]) && !(star_ends && text_[pos_] == '*')) ++pos_;
    return text_.substr(begin, pos_ - begin);
  }

  // A value, quoted or a token, into `section`; false when there is none.
  bool value(Section& section) {
    if (peek() == '"') {
      section.quoted = true;
      section.value_begin = pos_ + 1;
      section.value_size = skip_quoted_string();
      return true;
    }
    section.value_begin = pos_;
    section.value_size = token(false).size();
    return section.value_size > 0;
  }

  // A section number; one too large to hold stays at a large bound.
  long number() {
    long n = 0;
    while (!at_end() && text_[pos_] >= '0' && text_[pos_] <= '9') {
      n = std::min(n * 10 + (text_[pos_] - '0'), 1'000'000'000L);
      ++pos_;
    }
    return n;
  }

 private:
  // At a quote: passes the quoted string, which may run to the end, and
  // returns the length of its content.
  std::size_t skip_quoted_string() {
    const std::size_t begin = ++pos_;
    while (!at_end() && text_[pos_] != '"') pos_ += text_[pos_] == '\\' ? 2 : 1;
    pos_ = std::min(pos_, text_.size());
    const std::size_t size = pos_ - begin;
    if (!at_end()) ++pos_;
    return size;
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

// Reads one parameter after its ";"; false when it cannot be read.
bool read_parameter(Field_reader& in, std::string_view& name, Section& section) {
  in.skip_cfws();
  name = in.token(true);
  if (name.empty()) return false;
  in.skip_cfws();
  if (in.peek() == '*') {
    in.advance();
    in.skip_cfws();
    if (in.peek() >= '0' && in.peek() <= '9') {
      section.number = in.number();
      in.skip_cfws();
      if (in.peek() == '*') {
        section.extended = true;
        in.advance();
        in.skip_cfws();
      }
    } else {
      section.extended = true;
    }
  }
  if (in.peek() != '=') return false;
  in.advance();
  in.skip_cfws();
  return in.value(section);
}

std::string value_text(std::string_view field, const Section& section) {
  const std::string_view raw = field.substr(section.value_begin, section.value_size);
  if (!section.quoted) return std::string(raw);
  std::string out;
  out.reserve(raw.size());
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\\' && i + 1 < raw.size()) ++i;
    out += raw[i];
  }
  return out;
}

bool same_name(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// More sections of one parameter than any mail program writes; the rest are
// left out, so that a field body made of sections cannot take much memory.
constexpr std::size_t kMaxSections = 4096;

// The sections of `name`, in the order written; only those that belong to
// the first parameter of that name: the unsplit one, or all split ones.
std::vector<Section> sections_of(std::string_view field, std::string_view name) {
  std::vector<Section> sections;
  Field_reader in(field);
  in.skip_to_separator();  // the media type
  while (!in.at_end()) {
    in.advance();  // the ";"
    std::string_view found;
    Section section;
    if (read_parameter(in, found, section) && same_name(found, name)) {
      if (section.number < 0) {
        if (sections.empty()) return {section};
      } else if (sections.size() < kMaxSections) {
        sections.push_back(section);
      }
    }
    in.skip_to_separator();
  }
  return sections;
}

}  // namespace

std::string_view MediaMainType(std::string_view content_type) {
  Field_reader in(content_type);
  in.skip_cfws();
  return in.token(false);
}

std::optional<std::string> MediaTypeParameter(std::string_view content_type,
                                              std::string_view name) {
  std::vector<Section> sections = sections_of(content_type, name);
  if (sections.empty()) return std::nullopt;
  std::stable_sort(sections.begin(), sections.end(),
                   [](const Section& a, const Section& b) { return a.number < b.number; });
  std::string value;
  for (const Section& section : sections) {
    const std::string text = value_text(content_type, section);
    if (!section.extended) {
      value += text;
    } else if (section.number <= 0) {  // a name*= value, or the first section
      append_percent_decoded(without_charset_tag(text), value);
    } else {
      append_percent_decoded(text, value);
    }
  }
  return value;
}
