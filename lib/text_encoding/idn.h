// Conversion of internationalised addresses to their ASCII form (GNU libidn).
#pragma once

#include <exception>
#include <string>

namespace orvik::idn {

// A failed conversion; what() is idn_strerror of the library's result code.
class IdnaError : public std::exception {
 public:
  explicit IdnaError(int code) noexcept : code_(code) {}
  ~IdnaError() override;
  const char* what() const noexcept override;
  int code() const noexcept { return code_; }

 private:
  int code_;
};

// The ASCII form of `domain` (UTF-8); labels are split at dots only. Throws
// IdnaError on a non-zero result code, std::bad_alloc on a missing result.
std::string toAscii(const std::string& domain);

}  // namespace orvik::idn
