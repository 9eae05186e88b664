// Streaming decoders of the two transfer encodings a text part may carry.
//
// Each is a small state machine fed the encoded text in pieces of any size;
// what a piece ends in the middle of (a partial base64 quartet, an "=" or
// "=X" of quoted-printable, the CR of a soft line break) is carried to the
// next piece. Their output is byte for byte that of the MIME library's
// decoders fed the same pieces, malformed input included, which is what the
// program has always given:
// - base64: bytes outside the alphabet are skipped; the first "=" ends the
//   data: the two or three digits before it give their one or two whole
//   bytes, and everything after it is ignored; an incomplete quartet at the
//   end of the text is lost.
// - quoted-printable: "=" before LF or CR LF is a soft line break; "=" and two
//   hexadecimal digits (either case) are one byte; any other "=XY" is kept as
//   it is; everything else, 8-bit bytes and CR included, is copied; "=" or
//   "=X" at the very end is lost.
#pragma once

#include <cstddef>
#include <cstdint>

namespace transfer_decoding {

// The most bytes one step writes for `size` bytes of input.
constexpr std::size_t MaxDecodedSize(std::size_t size) {
  return size + 3;
}

class Base64_decoder {
 public:
  // Decodes `size` bytes at `in` to `out` (room for MaxDecodedSize(size)
  // bytes); returns the number of bytes written.
  std::size_t step(const char* in, std::size_t size, char* out);

 private:
  std::uint32_t bits_ = 0;  // the digits of an incomplete quartet
  int digits_ = 0;          // how many (0 to 3)
  bool ended_ = false;      // "=" seen: the rest is ignored
};

class Quoted_printable_decoder {
 public:
  // As Base64_decoder::step.
  std::size_t step(const char* in, std::size_t size, char* out);

 private:
  enum class State { kText, kEquals, kEqualsAndOne };
  State state_ = State::kText;
  unsigned char first_ = 0;  // the byte after "=" in kEqualsAndOne
};

}  // namespace transfer_decoding
