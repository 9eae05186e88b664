// Encoded words of mail header texts (=?charset?encoding?data?=).
//
// decode: every encoded word becomes UTF-8, everything else is copied;
// malformed words are reported on standard error and kept. Throws
// std::runtime_error when a word names a charset the converter does not know
// or ends inside a character.
// encode: a UTF-8 text that needs no escaping comes back unchanged; otherwise
// its tail, from the word holding the first byte to escape, becomes one
// Q-encoded word labelled utf-8.
// encode_field_body: encode, unless that would make a long text's field line
// too long; the text then becomes Q-encoded words on folded lines.
#pragma once

#include <cstddef>
#include <string>

namespace orvik {

// Lenient base64 decoding: blanks skipped, bad symbols reported and skipped,
// decoding stops at the first "=".
std::string base64_decode(const std::string& text);

namespace rfc1522 {

// Reports one decode() writes in full; the rest are counted and stated in
// one closing line.
inline constexpr std::size_t kMaxReportsPerField = 10;
// A malformed word longer than this is shown cut, followed by "...".
inline constexpr std::size_t kMaxReportedWordBytes = 256;

// A field line may hold at most this many octets (without its line end).
inline constexpr std::size_t kMaxLineOctets = 998;
// Texts shorter than this always get encode()'s form, whatever its length.
inline constexpr std::size_t kKeptAsIsBytes = 900;
// Bytes of Q-encoded data in each word of the folded form: with
// "=?utf-8?Q?" and "?=" a word of 75 characters.
inline constexpr std::size_t kFoldedWordData = 63;

std::string decode(std::string text);
std::string encode(std::string text);

// The body of a header field whose first line holds `prefix_length`
// characters before it ("Subject: " is 9): encode(text) when the text is
// shorter than kKeptAsIsBytes or when that line then holds at most
// kMaxLineOctets; otherwise all of the text as Q-encoded words of at most
// kFoldedWordData data bytes, one a line, each further line starting with a
// blank. A UTF-8 character is never split between words. Lines end in a bare
// line feed, like the rest of the reply.
std::string encode_field_body(const std::string& text, std::size_t prefix_length);

}  // namespace rfc1522
}  // namespace orvik
