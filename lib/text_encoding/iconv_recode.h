// Charset conversion through the system's iconv.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace orvik {

// Converts `text` from charset `from` to charset `to` (names as iconv_open
// takes them). With skipInvalid, each input byte that is invalid or cannot be
// represented becomes "?"; without it such a byte fails the call. Throws
// std::runtime_error: "Cannot convert from F to T" (unknown pair),
// "Conversion from F to T" (conversion error, also input ending inside a
// character), "Closing conversion from F to utf-8 failed".
std::string iconvRecode(const std::string& text, const std::string& from, const std::string& to,
                        bool skipInvalid);

// Whether every text of ASCII bytes only converts from `from` to `to` as
// itself (a short list of charsets known to map each ASCII byte to itself
// without shift states; false for any other).
bool AsciiConvertsToItself(const std::string& from, const std::string& to);

// The same conversion over a text that arrives in pieces: the result handed
// to a sink in pieces, memory independent of the text's length. A character
// cut between two pieces is held back until the next one completes it, so the
// output is the one iconvRecode gives for the pieces joined. Throws the same
// texts: the constructor for an unknown pair, feed for a conversion error,
// finish for input ending inside a character and for a failed close.
class Iconv_stream {
 public:
  using Sink = std::function<void(std::string_view)>;

  Iconv_stream(const std::string& from, const std::string& to, bool skipInvalid);
  Iconv_stream(const Iconv_stream&) = delete;
  Iconv_stream& operator=(const Iconv_stream&) = delete;
  ~Iconv_stream();

  void feed(std::string_view piece, const Sink& sink);
  void finish();

 private:
  // Converts what it can; returns how many bytes at the end start a
  // character that the input does not complete.
  std::size_t convert(const char* data, std::size_t size, const Sink& sink);
  // Hands on the piece's runs of ASCII bytes unchanged and converts the rest.
  void feed_ascii_runs(std::string_view piece, const Sink& sink);
  // The conversion of a single-byte charset to UTF-8 byte by byte.
  void feed_bytes(std::string_view piece, const Sink& sink);

  void* cd_;
  std::string from_;
  std::string to_;
  bool skip_invalid_;
  // Both charsets are ones in which every ASCII byte is a character of its
  // own that means itself, without shift states: ASCII runs need no iconv.
  bool ascii_passes_;
  // US-ASCII or ISO-8859-1 to UTF-8, invalid bytes skipped: a table does
  // what iconv does (ASCII bytes stay, every other byte is "?", or in
  // ISO-8859-1 the character of its own code).
  enum class Direct { kNone, kAscii, kLatin1 } direct_;
  // UTF-8 to UTF-8: well-formed characters, not only ASCII, pass unchanged.
  bool utf8_passes_;
  std::string pending_;  // the start of a character cut by the end of a piece
};

}  // namespace orvik
