// Conversion of internationalised addresses to ASCII with GNU libidn.
//
// Owns libidn's result buffer for the length of one call (released with
// free, also when copying it throws). Fails by throwing IdnaError with
// libidn's result code, or std::bad_alloc when libidn reports success without
// a result.
#include "lib/text_encoding/idn.h"

#include <idna.h>

#include <new>

#include "lib/c_owners.h"
#include "lib/idn_error.h"

namespace orvik::idn {

IdnaError::~IdnaError() = default;

const char* IdnaError::what() const noexcept {
  return idn_strerror(code_);
}

std::string toAscii(const std::string& domain) {
  char* output = nullptr;
  // Flags 0: no unassigned code points, no STD3 ASCII rules.
  const int code = idna_to_ascii_8z(domain.c_str(), &output, 0);
  const MallocChars owner(output);
  if (code != IDNA_SUCCESS) throw IdnaError(code);
  if (output == nullptr) throw std::bad_alloc();
  return std::string(output);
}

}  // namespace orvik::idn
