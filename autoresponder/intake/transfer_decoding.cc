#include "autoresponder/intake/transfer_decoding.h"

#include <array>
#include <cstring>

namespace transfer_decoding {
namespace {

constexpr unsigned char kNotBase64 = 0xff;

// The value of each base64 digit.
constexpr std::array<unsigned char, 256> kBase64Value = [] {
  std::array<unsigned char, 256> table{};
  table.fill(kNotBase64);
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (unsigned char value = 0; value < 64; ++value) {
    table[static_cast<unsigned char>(kAlphabet[value])] = value;
  }
  return table;
}();

// The value of a hexadecimal digit (either case), or -1.
int hex_value(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::size_t Base64_decoder::step(const char* in, std::size_t size, char* out) {
  const auto* p = reinterpret_cast<const unsigned char*>(in);
  const unsigned char* const end = p + size;
  auto* const first = reinterpret_cast<unsigned char*>(out);
  unsigned char* o = first;
  std::uint32_t bits = bits_;
  int digits = digits_;
  while (p < end && !ended_) {
    if (digits == 0) {
      // Whole quartets at once, the common case of well-formed lines.
      while (end - p >= 4) {
        const unsigned a = kBase64Value[p[0]], b = kBase64Value[p[1]], c = kBase64Value[p[2]],
                       d = kBase64Value[p[3]];
        if (((a | b | c | d) & 0x80) != 0) break;
        const std::uint32_t quartet = a << 18 | b << 12 | c << 6 | d;
        o[0] = static_cast<unsigned char>(quartet >> 16);
        o[1] = static_cast<unsigned char>(quartet >> 8);
        o[2] = static_cast<unsigned char>(quartet);
        o += 3;
        p += 4;
      }
      if (p == end) break;
    }
    const unsigned char c = *p++;
    const unsigned char value = kBase64Value[c];
    if (value != kNotBase64) {
      bits = bits << 6 | value;
      if (++digits == 4) {
        o[0] = static_cast<unsigned char>(bits >> 16);
        o[1] = static_cast<unsigned char>(bits >> 8);
        o[2] = static_cast<unsigned char>(bits);
        o += 3;
        digits = 0;
      }
    } else if (c == '=') {
      // Padding: the bytes the digits so far complete, then the end.
      if (digits >= 2) *o++ = static_cast<unsigned char>(bits >> (digits == 2 ? 4 : 10));
      if (digits == 3) *o++ = static_cast<unsigned char>(bits >> 2);
      ended_ = true;
    }
  }
  bits_ = bits;
  digits_ = digits;
  return static_cast<std::size_t>(o - first);
}

std::size_t Quoted_printable_decoder::step(const char* in, std::size_t size, char* out) {
  const char* p = in;
  const char* const end = in + size;
  char* o = out;
  while (p < end) {
    switch (state_) {
      case State::kText: {
        const void* equals = std::memchr(p, '=', static_cast<std::size_t>(end - p));
        const char* stop = equals != nullptr ? static_cast<const char*>(equals) : end;
        std::memcpy(o, p, static_cast<std::size_t>(stop - p));
        o += stop - p;
        p = stop;
        if (p < end) {
          ++p;
          state_ = State::kEquals;
        }
        break;
      }
      case State::kEquals: {
        const auto c = static_cast<unsigned char>(*p++);
        if (c == '\n') {
          state_ = State::kText;  // soft line break
        } else {
          first_ = c;
          state_ = State::kEqualsAndOne;
        }
        break;
      }
      case State::kEqualsAndOne: {
        const auto c = static_cast<unsigned char>(*p++);
        const int high = hex_value(first_);
        const int low = hex_value(c);
        if (high >= 0 && low >= 0) {
          *o++ = static_cast<char>(high << 4 | low);
        } else if (!(first_ == '\r' && c == '\n')) {  // else a soft line break
          *o++ = '=';
          *o++ = static_cast<char>(first_);
          *o++ = static_cast<char>(c);
        }
        state_ = State::kText;
        break;
      }
    }
  }
  return static_cast<std::size_t>(o - out);
}

}  // namespace transfer_decoding
