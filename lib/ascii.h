// Character classes and comparisons shared by the utility library and the
// responder's readers of mail text. Each class has one name and one meaning;
// none allocates or fails.
#pragma once

#include <strings.h>

#include <cctype>
#include <string_view>

// White space in the sense of isspace(): blank, tab, CR, LF, VT, FF.
inline bool IsSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// The blanks of a header line: space and tab, which continue a folded field.
inline bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// The control characters: bytes 0..31 and DEL.
inline bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 32 || byte == 127;
}

// What separates the pieces of a structured field body: blanks, line breaks
// and every other control character.
inline bool IsBlankOrControl(char c) {
  return c == ' ' || IsControl(c);
}

// The two texts are equal without regard to the case of their letters.
inline bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}
