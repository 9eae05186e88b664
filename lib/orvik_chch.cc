// Character-level helpers of the utility library: in-place trimming.
//
// Works only inside the caller's buffer; never allocates, never fails. A null
// text is returned as null.
#include "lib/orvik_chch.h"

#include <cctype>
#include <cstring>

namespace {
bool is_blank(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}
}  // namespace

char* orvik_trim(char* text) {
  if (text == nullptr) return nullptr;
  for (std::size_t length = std::strlen(text); length > 0 && is_blank(text[length - 1]); --length) {
    text[length - 1] = '\0';
  }
  while (is_blank(*text)) ++text;
  return text;
}
