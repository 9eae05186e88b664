// Fuzz target: encoding of a header text into an encoded word
// (orvik::rfc1522::encode).
//
// Checks the promises the reply's headers rely on: the result is 7-bit, holds
// no line break and no control byte but the one blank that may end the plain
// head, a text needing no escape comes back unchanged, and decoding the
// result gives the original text back whenever that text is UTF-8.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "lib/text_encoding/rfc1522.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ovk_fuzz::check;

bool needs_escape(const std::string& text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x80) return true;
    if (std::string_view("!\"()*+-/=?_").find(c) != std::string_view::npos) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ovk_fuzz::silence_cerr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string encoded = orvik::rfc1522::encode(text);

  if (!needs_escape(text)) {
    check(encoded == text, "a text needing no escape changed");
    return 0;
  }
  const std::size_t word = encoded.find("=?utf-8?Q?");
  check(word != std::string::npos && encoded.ends_with("?="), "no encoded word");
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    const auto byte = static_cast<unsigned char>(encoded[i]);
    check(byte < 0x80, "an 8-bit byte in the result");
    check(byte != '\r' && byte != '\n', "a line break in the result");
    // The plain head ends with the blank before the first escaped word.
    check(byte >= 0x20 || (byte == '\t' && i + 1 == word), "a control byte in the result");
  }
  if (ovk_fuzz::is_valid_utf8(text)) {
    std::string decoded;
    try {
      decoded = orvik::rfc1522::decode(encoded);
    } catch (const std::runtime_error&) {
      ovk_fuzz::harness_failure("decoding an encoded UTF-8 text threw");
    }
    check(decoded == text, "decode(encode(text)) differs from the text");
  }
  return 0;
}
