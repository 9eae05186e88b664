// Fuzz target: charset conversion through iconv (orvik::iconvRecode).
//
// The first byte picks a charset pair (low bits) and skipInvalid (high bit);
// the rest is the text. The pairs cover what the program converts: incoming
// bodies and encoded words to UTF-8 from single-byte, multi-byte and stateful
// charsets, replies from UTF-8 to the reply charsets, and a name iconv does
// not know. Failures must be std::runtime_error with one of the three texts
// of the contract; UTF-8 to UTF-8 must keep well-formed text unchanged.
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string>

#include "lib/text_encoding/iconv_recode.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ovk_fuzz::check;

struct CharsetPair {
  const char* from;
  const char* to;
};

constexpr CharsetPair kPairs[] = {
    {"utf-8", "utf-8"},        {"UTF-8", "UTF-8"},
    {"ISO-8859-1", "UTF-8"},   {"KOI8-R", "UTF-8"},
    {"windows-1251", "UTF-8"}, {"US-ASCII", "UTF-8"},
    {"UTF-16", "UTF-8"},       {"UTF-7", "UTF-8"},
    {"SHIFT_JIS", "UTF-8"},    {"ISO-2022-JP", "UTF-8"},
    {"GB18030", "UTF-8"},      {"BIG5", "utf-8"},
    {"EUC-KR", "UTF-8"},       {"UTF-8", "KOI8-R"},
    {"UTF-8", "ISO-8859-1"},   {"UTF-8", "ISO-2022-JP"},
    {"UTF-8", "UTF-16"},       {"UTF-8", "US-ASCII"},
    {"UTF-8", "windows-1252"}, {"x-unknown-charset", "UTF-8"},
};
constexpr std::size_t kPairCount = std::size(kPairs);
constexpr std::uint8_t kSkipInvalidBit = 0x80;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const CharsetPair& pair = kPairs[(data[0] & ~kSkipInvalidBit) % kPairCount];
  const bool skip_invalid = (data[0] & kSkipInvalidBit) != 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  const std::string from = pair.from;
  const std::string to = pair.to;

  std::string converted;
  try {
    converted = orvik::iconvRecode(text, from, to, skip_invalid);
  } catch (const std::runtime_error& error) {
    const std::string what = error.what();
    check(what == "Cannot convert from " + from + " to " + to ||
              what == "Conversion from " + from + " to " + to ||
              what == "Closing conversion from " + from + " to utf-8 failed",
          "an exception text outside the contract");
    // Only a name iconv does not know fails to open.
    check(what.starts_with("Cannot") == (from == "x-unknown-charset"),
          "a known pair failed to open");
    // Single-byte charsets that define all 256 bytes cannot fail, and
    // without multi-byte characters nothing can end inside one.
    check(from != "ISO-8859-1" && from != "KOI8-R", "a charset defining every byte failed");
    check(!(from == "US-ASCII" && skip_invalid), "US-ASCII with skipped bytes failed");
    return 0;
  }
  check(from != "x-unknown-charset", "an unknown charset converted");
  if (from == to && (from == "utf-8" || from == "UTF-8") && ovk_fuzz::is_valid_utf8(text)) {
    check(converted == text, "UTF-8 to UTF-8 changed well-formed text");
  }
  if (from == "US-ASCII" && skip_invalid) {
    // Every byte is a character or one "?": the length is kept.
    check(converted.size() == text.size(), "US-ASCII conversion changed the length");
  }
  return 0;
}
