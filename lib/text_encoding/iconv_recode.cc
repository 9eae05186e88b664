// Charset conversion through the system's iconv.
//
// Owns one iconv descriptor per conversion (closed on every path, also when a
// conversion error is thrown) and a fixed 4096-byte output buffer reused for
// every pass, so memory beyond the result does not grow with the text; the
// streamed conversion also keeps the few bytes of a character cut between
// two pieces. Fails by throwing std::runtime_error with one of three texts:
// the pair cannot be opened, a conversion error that is not skipped
// (including input that ends inside a character), or the descriptor cannot
// be closed.
#include "lib/text_encoding/iconv_recode.h"

#include <iconv.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace orvik {

namespace {

constexpr std::size_t kPassBufferSize = 4096;
const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

// Charsets (names upper-cased, "-" and "_" removed) that map every byte below
// 0x80 to that ASCII character, whatever comes before or after it: in them an
// ASCII byte can neither continue nor start a multibyte sequence.
std::string name_key(const std::string& name) {
  std::string key;
  for (const char c : name) {
    if (c != '-' && c != '_') key += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return key;
}

bool passes_ascii(const std::string& name) {
  const std::string key = name_key(name);
  static constexpr std::string_view kNames[] = {
      "USASCII",     "ASCII",       "UTF8",        "ISO88591",  "ISO88592",  "ISO88594",
      "ISO88595",    "ISO88597",    "ISO88599",    "ISO885913", "ISO885915", "LATIN1",
      "WINDOWS1250", "WINDOWS1251", "WINDOWS1252", "KOI8R"};
  return std::find(std::begin(kNames), std::end(kNames), key) != std::end(kNames);
}

// ASCII runs shorter than this between other bytes go through iconv.
constexpr std::size_t kShortAsciiRun = 256;

constexpr auto is_ascii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };

// The length of the ASCII prefix of `size` bytes at `text`, eight bytes at a
// time while it lasts.
std::size_t ascii_prefix(const char* text, std::size_t size) {
  constexpr std::uint64_t kHighBits = 0x8080808080808080ULL;
  std::size_t at = 0;
  for (std::uint64_t word; at + sizeof word <= size; at += sizeof word) {
    std::memcpy(&word, text + at, sizeof word);
    if ((word & kHighBits) != 0) break;
  }
  while (at < size && is_ascii(text[at])) ++at;
  return at;
}

// The length of the longest prefix of `text` made of whole, well-formed UTF-8
// characters (no overlong form, no surrogate, nothing above U+10FFFF): what
// iconv converts from UTF-8 to UTF-8 as itself.
std::size_t well_formed_utf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t at = 0;
  const auto in = [&](std::size_t i, unsigned lo, unsigned hi) {
    return at + i < size && bytes[at + i] >= lo && bytes[at + i] <= hi;
  };
  while (at < size) {
    const unsigned lead = bytes[at];
    std::size_t length = 0;
    if (lead < 0x80) {
      length = ascii_prefix(text.data() + at, size - at);
    } else if (lead >= 0xc2 && lead <= 0xdf) {
      length = in(1, 0x80, 0xbf) ? 2 : 0;
    } else if (lead >= 0xe0 && lead <= 0xef) {
      const unsigned lo = lead == 0xe0 ? 0xa0 : 0x80;
      const unsigned hi = lead == 0xed ? 0x9f : 0xbf;
      length = in(1, lo, hi) && in(2, 0x80, 0xbf) ? 3 : 0;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
      const unsigned lo = lead == 0xf0 ? 0x90 : 0x80;
      const unsigned hi = lead == 0xf4 ? 0x8f : 0xbf;
      length = in(1, lo, hi) && in(2, 0x80, 0xbf) && in(3, 0x80, 0xbf) ? 4 : 0;
    }
    if (length == 0) break;
    at += length;
  }
  return at;
}

}  // namespace

Iconv_stream::Iconv_stream(const std::string& from, const std::string& to, bool skipInvalid)
    : cd_(iconv_open(to.c_str(), from.c_str())),
      from_(from),
      to_(to),
      skip_invalid_(skipInvalid),
      ascii_passes_(passes_ascii(from) && passes_ascii(to)),
      direct_(Direct::kNone),
      utf8_passes_(name_key(from) == "UTF8" && name_key(to) == "UTF8") {
  if (skipInvalid && name_key(to) == "UTF8") {
    const std::string key = name_key(from);
    if (key == "USASCII" || key == "ASCII") direct_ = Direct::kAscii;
    if (key == "ISO88591" || key == "LATIN1") direct_ = Direct::kLatin1;
  }
  if (static_cast<iconv_t>(cd_) == kNoDescriptor) {
    throw std::runtime_error("Cannot convert from " + from + " to " + to);
  }
}

Iconv_stream::~Iconv_stream() {
  if (static_cast<iconv_t>(cd_) != kNoDescriptor) iconv_close(static_cast<iconv_t>(cd_));
}

std::size_t Iconv_stream::convert(const char* data, std::size_t size, const Sink& sink) {
  char buffer[kPassBufferSize];
  // iconv's input parameter is not const-qualified but the input is only read.
  char* in = const_cast<char*>(data);
  std::size_t in_left = size;
  while (in_left > 0) {
    char* out = buffer;
    std::size_t out_left = sizeof buffer;
    errno = 0;
    iconv(static_cast<iconv_t>(cd_), &in, &in_left, &out, &out_left);
    const int err = errno;
    const std::string_view produced(buffer, static_cast<std::size_t>(out - buffer));

    if (err == 0 || err == E2BIG) {
      sink(produced);
    } else if (err == EILSEQ && skip_invalid_) {
      // One "?" per offending byte: the converter resynchronises on its own
      // at the next byte that starts a valid character.
      sink(produced);
      ++in;
      --in_left;
      sink("?");
    } else if (err == EINVAL) {
      // The piece ends inside a character: the rest waits for the next one.
      sink(produced);
      return in_left;
    } else {
      throw std::runtime_error("Conversion from " + from_ + " to " + to_);
    }
  }
  return 0;
}

void Iconv_stream::feed_ascii_runs(std::string_view piece, const Sink& sink) {
  while (!piece.empty()) {
    if (!pending_.empty()) {
      // A cut character waits: it is completed, or found invalid, by the
      // bytes up to the next ASCII byte, which itself ends every sequence.
      const auto ascii = std::find_if(piece.begin(), piece.end(), is_ascii);
      const std::size_t take = ascii == piece.end() ? piece.size() : ascii - piece.begin() + 1;
      pending_.append(piece.substr(0, take));
      piece.remove_prefix(take);
      const std::size_t rest = convert(pending_.data(), pending_.size(), sink);
      pending_.erase(0, pending_.size() - rest);
      continue;
    }
    const std::size_t run =
        utf8_passes_ ? well_formed_utf8(piece) : ascii_prefix(piece.data(), piece.size());
    if (run > 0) {
      // errno as iconv leaves it after converting the run.
      errno = 0;
      sink(piece.substr(0, run));
    }
    piece.remove_prefix(run);
    if (piece.empty()) return;
    // Through short ASCII runs (each iconv call costs more than a few bytes)
    // up to and with the first byte of a long one or of the piece's last
    // one: nothing is cut after an ASCII byte.
    std::size_t take = piece.size();
    for (auto at = piece.begin(); (at = std::find_if(at, piece.end(), is_ascii)) != piece.end();) {
      const auto run_end = std::find_if_not(at, piece.end(), is_ascii);
      if (run_end == piece.end() || run_end - at >= static_cast<std::ptrdiff_t>(kShortAsciiRun)) {
        take = static_cast<std::size_t>(at - piece.begin()) + 1;
        break;
      }
      at = run_end;
    }
    const std::size_t rest = convert(piece.data(), take, sink);
    pending_.assign(piece.substr(take - rest, rest));
    piece.remove_prefix(take);
  }
}

void Iconv_stream::feed_bytes(std::string_view piece, const Sink& sink) {
  char buffer[kPassBufferSize];
  std::size_t held = 0;
  for (std::string_view rest = piece; !rest.empty();) {
    // As many bytes as the buffer surely takes, each at most two out.
    const std::string_view chunk = rest.substr(0, (sizeof buffer - held) / 2);
    if (chunk.empty()) {
      sink({buffer, held});
      held = 0;
      continue;
    }
    rest.remove_prefix(chunk.size());
    const std::size_t run = ascii_prefix(chunk.data(), chunk.size());
    std::memcpy(buffer + held, chunk.data(), run);
    held += run;
    for (const char c : chunk.substr(run)) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte < 0x80) {
        buffer[held++] = c;
      } else if (direct_ == Direct::kAscii) {
        buffer[held++] = '?';
      } else {
        buffer[held++] = static_cast<char>(0xc0 | (byte >> 6));
        buffer[held++] = static_cast<char>(0x80 | (byte & 0x3f));
      }
    }
  }
  if (held > 0) sink({buffer, held});
  // errno as iconv leaves it: EILSEQ when the last byte was skipped.
  if (!piece.empty()) {
    const bool skipped = direct_ == Direct::kAscii && !is_ascii(piece.back());
    errno = skipped ? EILSEQ : 0;
  }
}

void Iconv_stream::feed(std::string_view piece, const Sink& sink) {
  if (direct_ != Direct::kNone) {
    feed_bytes(piece, sink);
    return;
  }
  if (ascii_passes_) {
    feed_ascii_runs(piece, sink);
    return;
  }
  if (pending_.empty()) {
    const std::size_t rest = convert(piece.data(), piece.size(), sink);
    pending_.assign(piece.substr(piece.size() - rest));
    return;
  }
  pending_.append(piece);
  const std::size_t rest = convert(pending_.data(), pending_.size(), sink);
  pending_.erase(0, pending_.size() - rest);
}

void Iconv_stream::finish() {
  if (!pending_.empty()) throw std::runtime_error("Conversion from " + from_ + " to " + to_);
  const int rc = iconv_close(static_cast<iconv_t>(cd_));
  cd_ = kNoDescriptor;
  if (rc != 0) throw std::runtime_error("Closing conversion from " + from_ + " to utf-8 failed");
}

bool AsciiConvertsToItself(const std::string& from, const std::string& to) {
  return passes_ascii(from) && passes_ascii(to);
}

std::string iconvRecode(const std::string& text, const std::string& from, const std::string& to,
                        bool skipInvalid) {
  Iconv_stream stream(from, to, skipInvalid);
  std::string result;
  result.reserve(text.size());
  stream.feed(text, [&](std::string_view piece) { result.append(piece); });
  stream.finish();
  return result;
}

}  // namespace orvik
