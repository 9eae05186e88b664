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

// The value of each base64 digit at each place of a quartet, shifted there;
// a byte outside the alphabet sets a bit above the quartet's 24.
constexpr std::uint32_t kNotInQuartet = 1U << 24;
constexpr auto kQuartetPlace = [] {
  std::array<std::array<std::uint32_t, 256>, 4> tables{};
  for (int place = 0; place < 4; ++place) {
    for (int c = 0; c < 256; ++c) {
      const unsigned char value = kBase64Value[static_cast<std::size_t>(c)];
      tables[place][c] =
          value == kNotBase64 ? kNotInQuartet : std::uint32_t{value} << (18 - 6 * place);
    }
  }
  return tables;
}();

// The value of each hexadecimal digit (either case); 0xff for other bytes.
constexpr unsigned char kNotHex = 0xff;
constexpr std::array<unsigned char, 256> kHexValue = [] {
  std::array<unsigned char, 256> table{};
  table.fill(kNotHex);
  for (unsigned char digit = 0; digit < 10; ++digit) table['0' + digit] = digit;
  for (unsigned char digit = 0; digit < 6; ++digit) {
    table['A' + digit] = static_cast<unsigned char>(10 + digit);
    table['a' + digit] = static_cast<unsigned char>(10 + digit);
  }
  return table;
}();

// Bytes of quoted-printable text looked at one by one before memchr takes over.
constexpr std::ptrdiff_t kNearRun = 32;

// What "=" followed by `one` and `two` decodes to, written at `out` (which
// holds the "=" already); returns the end of the output. "=" CR LF is a soft
// line break.
inline char* write_escape(unsigned char one, unsigned char two, char* out) {
  const unsigned char high = kHexValue[one];
  const unsigned char low = kHexValue[two];
  if (high != kNotHex && low != kNotHex) {
    *out = static_cast<char>(high << 4 | low);
    return out + 1;
  }
  if (one == '\r' && two == '\n') return out;
  out[1] = static_cast<char>(one);
  out[2] = static_cast<char>(two);
  return out + 3;
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
        const std::uint32_t quartet = kQuartetPlace[0][p[0]] | kQuartetPlace[1][p[1]] |
                                      kQuartetPlace[2][p[2]] | kQuartetPlace[3][p[3]];
        if (quartet >= kNotInQuartet) break;
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
        // The text up to the next "=": escapes are often a few bytes apart,
        // so the first bytes are looked at here, the rest by memchr.
        const char* const near_end = end - p > kNearRun ? p + kNearRun : end;
        while (p < near_end && *p != '=') *o++ = *p++;
        if (p == near_end && p < end) {
          const void* equals = std::memchr(p, '=', static_cast<std::size_t>(end - p));
          const char* stop = equals != nullptr ? static_cast<const char*>(equals) : end;
          std::memcpy(o, p, static_cast<std::size_t>(stop - p));
          o += stop - p;
          p = stop;
        }
        if (p == end) break;
        if (end - p >= 3) {
          // The whole escape or soft line break is in this piece.
          const auto one = static_cast<unsigned char>(p[1]);
          const auto two = static_cast<unsigned char>(p[2]);
          if (one == '\n') {
            p += 2;
          } else {
            *o = '=';
            o = write_escape(one, two, o);
            p += 3;
          }
          break;
        }
        ++p;
        state_ = State::kEquals;
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
        *o = '=';
        o = write_escape(first_, static_cast<unsigned char>(*p++), o);
        state_ = State::kText;
        break;
      }
    }
  }
  return static_cast<std::size_t>(o - out);
}

}  // namespace transfer_decoding
