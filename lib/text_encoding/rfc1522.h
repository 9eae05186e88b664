// Encoded words of mail header texts (=?charset?encoding?data?=).
//
// decode: every encoded word becomes UTF-8, everything else is copied;
// malformed words are reported on standard error and kept. Throws
// std::runtime_error when a word names a charset the converter does not know
// or ends inside a character.
// encode: a UTF-8 text that needs no escaping comes back unchanged; otherwise
// its tail, from the word holding the first byte to escape, becomes one
// Q-encoded word labelled utf-8.
#pragma once

#include <string>

namespace orvik {

// Lenient base64 decoding: blanks skipped, bad symbols reported and skipped,
// decoding stops at the first "=".
std::string base64_decode(const std::string& text);

namespace rfc1522 {

std::string decode(std::string text);
std::string encode(std::string text);

}  // namespace rfc1522
}  // namespace orvik
