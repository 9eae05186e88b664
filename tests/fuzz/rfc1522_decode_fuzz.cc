// Fuzz target: decoding of encoded words in a header text
// (orvik::rfc1522::decode), with its word splitting, Q and base64 decoding
// and the recoding of each word from the charset it names.
//
// Unknown charsets and words ending inside a character throw
// std::runtime_error by contract; anything else escaping is a fault. A text
// without "=?" has no encoded word and must come back unchanged.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "lib/text_encoding/rfc1522.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ovk_fuzz::silence_cerr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string decoded;
  try {
    decoded = orvik::rfc1522::decode(text);
  } catch (const std::runtime_error&) {
    return 0;
  }
  if (text.find("=?") == std::string::npos && decoded != text) {
    ovk_fuzz::harness_failure("a text without encoded words changed");
  }
  // The module's base64 decoder on its own: at most three bytes per four symbols.
  const std::string bytes = orvik::base64_decode(text);
  if (bytes.size() > (text.size() + 3) / 4 * 3) {
    ovk_fuzz::harness_failure("base64 produced more bytes than the text can hold");
  }
  return 0;
}
