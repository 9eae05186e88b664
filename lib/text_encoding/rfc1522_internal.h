// Workers of the encoded-word decoder and encoder, private to the
// text-encoding module. Declared here so that the module's tests reach them;
// nothing outside lib/text_encoding includes this header.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace orvik::rfc1522 {

using WordFunction = std::function<std::string(const std::string&)>;

// Splits `text` at runs of blanks (space, tab), replaces every word by
// `word_function` of it and keeps the blank runs, except a run that stands
// between "?=" and "=?", which is dropped.
std::string words_map(const std::string& text, const WordFunction& word_function);

// Decodes one encoded word to UTF-8; anything that does not start with "=?"
// comes back unchanged, malformed words are reported and kept.
std::string rfc1522_decode_word(const std::string& word);

// Decodes one unit of Q-encoded `text` at *position onto *output and advances
// the position; sets it to -1 once the text is exhausted.
void appendQP(std::string* output, const std::string& text, long* position);

// The value (0..63) of the next base64 symbol of `text` from `position`,
// which it advances. Returns 0 at the end of the text, and at "=", where it
// stays so that every later read stops there too.
int base64Take(const std::string& text, std::size_t& position);

// Whether byte `c` must be escaped inside a Q-encoded word.
bool rfc1522_nonprintable(char c);

// The Q-encoding of `text`, without the =?charset?Q? ... ?= delimiters.
std::string qp_encode(const std::string& text);

}  // namespace orvik::rfc1522
