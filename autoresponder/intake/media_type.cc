// Reading a Content-Type field body. The parameters are read in one pass that
// keeps only the sections of the parameter asked for, as places in the field
// body, so that a field body of megabytes with many parameters costs little
// memory.
#include "autoresponder/intake/media_type.h"

#include <algorithm>
#include <vector>

#include "autoresponder/intake/header_lexer.h"
#include "lib/ascii.h"

namespace {

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
  long number = -1;        // -1: the parameter is not split
  bool extended = false;   // written with "*" before "=": "%XX" to undo
  std::string_view value;  // in the field body
  bool quoted = false;     // the value lay between quotes; its escapes are still in it
};

// More sections of one parameter than any mail program writes; the rest are
// left out, so that a field body made of sections cannot take much memory.
constexpr std::size_t kMaxSections = 4096;
// A section number too large to hold stays at this bound.
constexpr long kMaxSectionNumber = 1'000'000'000L;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

long section_number(Header_lexer& in) {
  long n = 0;
  while (is_digit(in.peek())) {
    n = std::min(n * 10 + (in.peek() - '0'), kMaxSectionNumber);
    in.advance();
  }
  return n;
}

// A value, quoted or a token, into `section`; false when there is none.
bool read_value(Header_lexer& in, Section& section) {
  if (in.peek() == '"') {
    section.quoted = true;
    section.value = in.quoted_content();
    return true;
  }
  section.value = in.atom();
  return !section.value.empty();
}

// Reads one parameter after its ";"; false when it cannot be read.
bool read_parameter(Header_lexer& in, std::string_view& name, Section& section) {
  in.skip_cfws();
  name = in.atom(true);
  if (name.empty()) return false;
  in.skip_cfws();
  if (in.peek() == '*') {
    in.advance();
    in.skip_cfws();
    if (is_digit(in.peek())) {
      section.number = section_number(in);
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
  return read_value(in, section);
}

std::string value_text(const Section& section) {
  const std::string_view raw = section.value;
  if (!section.quoted) return std::string(raw);
  std::string out;
  out.reserve(raw.size());
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\\' && i + 1 < raw.size()) ++i;
    out += raw[i];
  }
  return out;
}

// The sections of `name`, in the order written; only those that belong to
// the first parameter of that name: the unsplit one, or all split ones.
std::vector<Section> sections_of(std::string_view field, std::string_view name) {
  std::vector<Section> sections;
  Header_lexer in(field, Header_syntax::kMediaType);
  in.skip_to(';');  // the media type
  while (!in.at_end()) {
    in.advance();  // the ";"
    std::string_view found;
    Section section;
    if (read_parameter(in, found, section) && EqualsIgnoringCase(found, name)) {
      if (section.number < 0) {
        if (sections.empty()) return {section};
      } else if (sections.size() < kMaxSections) {
        sections.push_back(section);
      }
    }
    in.skip_to(';');
  }
  return sections;
}

}  // namespace

std::string_view MediaMainType(std::string_view content_type) {
  Header_lexer in(content_type, Header_syntax::kMediaType);
  in.skip_cfws();
  return in.atom();
}

std::optional<std::string> MediaTypeParameter(std::string_view content_type,
                                              std::string_view name) {
  std::vector<Section> sections = sections_of(content_type, name);
  if (sections.empty()) return std::nullopt;
  std::stable_sort(sections.begin(), sections.end(),
                   [](const Section& a, const Section& b) { return a.number < b.number; });
  std::string value;
  for (const Section& section : sections) {
    const std::string text = value_text(section);
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
