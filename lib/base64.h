// Base64 encoding (RFC 4648, standard alphabet, "=" padding, no line breaks).
#pragma once

#include <cstddef>

// The 64 symbols of the alphabet, NUL-terminated.
extern const char base64Chars[];

// Encodes `length` bytes of `source` into `destination` and NUL-terminates it;
// returns the number of characters written, 4 * ceil(length / 3). Works from
// the end towards the beginning, so `destination` may be the buffer holding
// `source` (in-place encoding); it must hold 4 * ceil(length / 3) + 1 bytes.
std::size_t base64Encode(const void* source, std::size_t length, char* destination);
