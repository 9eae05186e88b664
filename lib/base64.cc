// Base64 encoding into a caller's buffer (RFC 4648, standard alphabet, "="
// padding, no line breaks).
//
// Owns nothing. Cannot fail; the caller sizes the destination. The output is
// produced from the end towards the beginning so that a file chunk can be
// encoded inside the buffer that holds it.
#include "lib/base64.h"

const char base64Chars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::size_t base64Encode(const void* source, std::size_t length, char* destination) {
  const auto* src = static_cast<const unsigned char*>(source);
  const std::size_t triplets = length / 3;
  const std::size_t remainder = length % 3;

  // Each group reads its source bytes before writing, and every group writes
  // at or after its own source offset (4t >= 3t), so later groups never
  // overwrite bytes that earlier groups still have to read.
  if (remainder != 0) {
    const unsigned b0 = src[3 * triplets];
    const unsigned b1 = remainder == 2 ? src[3 * triplets + 1] : 0;
    char* out = destination + 4 * triplets;
    out[0] = base64Chars[b0 >> 2];
    out[1] = base64Chars[((b0 & 0x03) << 4) | (b1 >> 4)];
    out[2] = remainder == 2 ? base64Chars[(b1 & 0x0f) << 2] : '=';
    out[3] = '=';
  }
  for (std::size_t t = triplets; t-- > 0;) {
    const unsigned b0 = src[3 * t];
    const unsigned b1 = src[3 * t + 1];
    const unsigned b2 = src[3 * t + 2];
    char* out = destination + 4 * t;
    out[0] = base64Chars[b0 >> 2];
    out[1] = base64Chars[((b0 & 0x03) << 4) | (b1 >> 4)];
    out[2] = base64Chars[((b1 & 0x0f) << 2) | (b2 >> 6)];
    out[3] = base64Chars[b2 & 0x3f];
  }

  const std::size_t written = 4 * (triplets + (remainder != 0 ? 1 : 0));
  destination[written] = '\0';
  return written;
}
