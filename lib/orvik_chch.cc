// Character-level helpers of the utility library: in-place trimming.
//
// Works only inside the caller's buffer; never allocates, never fails. A null
// text is returned as null.
#include "lib/orvik_chch.h"

#include <cstring>

#include "lib/ascii.h"

char* orvik_trim(char* text) {
  if (text == nullptr) return nullptr;
  for (std::size_t length = std::strlen(text); length > 0 && IsSpace(text[length - 1]); --length) {
    text[length - 1] = '\0';
  }
  while (IsSpace(*text)) ++text;
  return text;
}
