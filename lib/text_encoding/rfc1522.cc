// Encoded words of mail header texts (RFC 1522 / RFC 2047).
//
// The decoder turns every =?charset?encoding?data?= word of a header text
// into UTF-8 and copies everything else; the encoder turns the tail of a
// UTF-8 text into one Q-encoded word labelled utf-8.
//
// Owns nothing beyond its result strings. The decoder is lenient with mail
// from outside: a malformed word, a bad Q escape or a bad base64 symbol is
// reported on standard error and kept or skipped, never fatal. A field of
// hostile text may hold millions of them, so one decode() reports the first
// kMaxReportsPerField and then says in one line how many it left out; a
// malformed word is shown up to kMaxReportedWordBytes. Only the
// charset conversion fails, by throwing std::runtime_error (unknown charset,
// decoded bytes ending inside a character); no partial result is returned.
#include "lib/text_encoding/rfc1522.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <utility>

#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/rfc1522_internal.h"

namespace orvik {

namespace {

constexpr char kBlanks[] = " \t";
constexpr std::string_view kWordStart = "=?";
constexpr std::string_view kWordEnd = "?=";
constexpr char kEncodedWordPrefix[] = "=?utf-8?Q?";
constexpr char kHexDigits[] = "0123456789ABCDEF";

// The reports of the decode() under way on this thread, counted against the
// field's budget; outside decode() (the workers called alone) every report
// is written.
class Field_reports {
 public:
  Field_reports() : outer_(std::exchange(current_, this)) {}
  Field_reports(const Field_reports&) = delete;
  Field_reports& operator=(const Field_reports&) = delete;
  ~Field_reports() {
    current_ = outer_;
    if (left_out_ > 0) {
      std::cerr << "wrong rfc1522 sequence: " << left_out_ << " more reports left out" << std::endl;
    }
  }

  // Whether the next report is written (and counts it either way).
  static bool admit() {
    if (current_ == nullptr) return true;
    if (current_->written_ < rfc1522::kMaxReportsPerField) {
      ++current_->written_;
      return true;
    }
    ++current_->left_out_;
    return false;
  }

 private:
  static thread_local Field_reports* current_;
  Field_reports* outer_;
  std::size_t written_ = 0;
  std::size_t left_out_ = 0;
};

thread_local Field_reports* Field_reports::current_ = nullptr;

void report_malformed(const char* what, const std::string& word) {
  if (!Field_reports::admit()) return;
  std::cerr << "wrong rfc1522 sequence (" << what << "): ";
  if (word.size() <= rfc1522::kMaxReportedWordBytes) {
    std::cerr << word << std::endl;
  } else {
    std::cerr.write(word.data(), rfc1522::kMaxReportedWordBytes) << "..." << std::endl;
  }
}

// The Q-encoding of `text` appended to `output`; the caller reserves.
void append_q_encoded(std::string& output, std::string_view text) {
  for (const char c : text) {
    if (c == ' ') {
      output += '_';
    } else if (rfc1522::rfc1522_nonprintable(c)) {
      const auto byte = static_cast<unsigned char>(c);
      output += '=';
      output += kHexDigits[byte >> 4];
      output += kHexDigits[byte & 0x0f];
    } else {
      output += c;
    }
  }
}

std::string q_decode(const std::string& data) {
  std::string decoded;
  decoded.reserve(data.size());
  long position = 0;
  while (position != -1) rfc1522::appendQP(&decoded, data, &position);
  return decoded;
}

}  // namespace

std::string base64_decode(const std::string& text) {
  std::string decoded;
  decoded.reserve(text.size() / 4 * 3 + 3);
  std::size_t position = 0;
  for (;;) {
    const std::size_t start = position;
    const unsigned s0 = rfc1522::base64Take(text, position);
    const unsigned s1 = rfc1522::base64Take(text, position);
    const unsigned s2 = rfc1522::base64Take(text, position);
    const unsigned s3 = rfc1522::base64Take(text, position);
    // Skipped characters count as consumed, so a blank or a bad symbol inside
    // a short final group can raise the number of bytes emitted.
    const std::size_t consumed = position - start;
    if (consumed == 0) break;
    decoded += static_cast<char>(s0 * 4 + s1 / 16);
    if (consumed >= 3) decoded += static_cast<char>((s1 * 16 + s2 / 4) % 256);
    if (consumed >= 4) decoded += static_cast<char>((s2 * 64 + s3) % 256);
  }
  return decoded;
}

namespace rfc1522 {

std::string words_map(const std::string& text, const WordFunction& word_function) {
  std::string result;
  if (text.empty()) return result;
  result.reserve(text.size());

  std::size_t position = 0;
  for (;;) {
    const std::size_t blank = text.find_first_of(kBlanks, position);
    const std::size_t word_end = blank == std::string::npos ? text.size() : blank;
    result += word_function(text.substr(position, word_end - position));
    if (blank == std::string::npos) return result;

    const std::size_t next = text.find_first_not_of(kBlanks, blank);
    const std::size_t run_end = next == std::string::npos ? text.size() : next;
    // Blanks between two adjacent encoded words are not part of the text
    // (RFC 2047 section 6.2). Only the characters are looked at.
    const bool between_words = blank >= 2 && text.compare(blank - 2, 2, kWordEnd) == 0 &&
                               next != std::string::npos && text.size() - next >= 2 &&
                               text.compare(next, 2, kWordStart) == 0;
    if (!between_words) result.append(text, blank, run_end - blank);
    if (next == std::string::npos) return result;
    position = next;
  }
}

std::string rfc1522_decode_word(const std::string& word) {
  if (word.compare(0, kWordStart.size(), kWordStart) != 0) return word;

  const std::size_t charset_end = word.find('?', 2);
  if (charset_end == std::string::npos) {
    report_malformed("no charset", word);
    return word;
  }
  const std::size_t encoding_end = word.find('?', charset_end + 1);
  if (encoding_end == std::string::npos) {
    report_malformed("no encoding", word);
    return word;
  }
  const std::size_t data_end = word.find(kWordEnd, encoding_end + 1);
  if (data_end == std::string::npos) {
    report_malformed("no data", word);
    return word;
  }
  const std::string trailing = word.substr(data_end + kWordEnd.size());
  if (!trailing.empty()) report_malformed("trailing stuff", word);

  const std::string charset = word.substr(2, charset_end - 2);
  const std::string encoding = word.substr(charset_end + 1, encoding_end - charset_end - 1);
  const std::string data = word.substr(encoding_end + 1, data_end - encoding_end - 1);

  std::string decoded;
  if (encoding == "Q" || encoding == "q") {
    decoded = q_decode(data);
  } else if (encoding == "B" || encoding == "b") {
    decoded = base64_decode(data);
  }
  return iconvRecode(decoded, charset, "utf-8", true) + trailing;
}

void appendQP(std::string* output, const std::string& text, long* position) {
  if (*position < 0 || static_cast<std::size_t>(*position) >= text.size()) {
    *position = -1;
    return;
  }
  const std::size_t at = static_cast<std::size_t>(*position);
  const char c = text[at];
  if (c == '_') {
    *output += ' ';
    ++*position;
  } else if (c == '=') {
    const std::size_t taken = std::min<std::size_t>(2, text.size() - at - 1);
    char hex[3] = {};
    text.copy(hex, taken, at + 1);
    // strtoul, not a strict pair: one valid leading digit is enough, and a
    // pair without any digit yields a 0 byte after the report.
    char* parse_end = nullptr;
    const unsigned long value = std::strtoul(hex, &parse_end, 16);
    if (parse_end == hex && taken > 0 && Field_reports::admit()) {
      std::cerr << "Bad hex in quoted-printable string: ";
      std::cerr.write(hex, static_cast<std::streamsize>(taken)) << std::endl;
    }
    *output += static_cast<char>(value);
    *position += static_cast<long>(1 + taken);
  } else {
    *output += c;
    ++*position;
  }
}

int base64Take(const std::string& text, std::size_t& position) {
  while (position < text.size()) {
    const char c = text[position++];
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    switch (c) {
      case '+':
        return 62;
      case '/':
        return 63;
      case '=':
        --position;
        return 0;
      case ' ':
      case '\t':
      case '\n':
      case '\r':
        break;
      default:
        if (Field_reports::admit()) std::cerr << "Bad base64 symbol: " << c << std::endl;
        break;
    }
  }
  return 0;
}

bool rfc1522_nonprintable(char c) {
  const auto byte = static_cast<unsigned char>(c);
  if (byte < 0x20 || byte >= 0x80) return true;
  switch (c) {
    case '!':
    case '"':
    case '(':
    case ')':
    case '*':
    case '+':
    case '-':
    case '/':
    case '=':
    case '?':
    case '_':
      return true;
    default:
      return false;
  }
}

std::string qp_encode(const std::string& text) {
  std::string encoded;
  encoded.reserve(3 * text.size());
  append_q_encoded(encoded, text);
  return encoded;
}

std::string decode(std::string text) {
  const Field_reports reports;
  return words_map(text, rfc1522_decode_word);
}

std::string encode(std::string text) {
  std::size_t first = 0;
  while (first < text.size() && !rfc1522_nonprintable(text[first])) ++first;
  if (first == text.size()) return text;

  const std::size_t blank = text.find_last_of(kBlanks, first);
  const std::size_t plain = blank == std::string::npos ? 0 : blank + 1;
  const std::string_view tail = std::string_view(text).substr(plain);

  std::string encoded;
  encoded.reserve(plain + sizeof kEncodedWordPrefix + 3 * tail.size() + kWordEnd.size());
  encoded.append(text, 0, plain);
  encoded += kEncodedWordPrefix;
  append_q_encoded(encoded, tail);
  encoded += kWordEnd;
  return encoded;
}

std::string encode_field_body(const std::string& text, std::size_t prefix_length) {
  std::string encoded = encode(text);
  if (text.size() < kKeptAsIsBytes || prefix_length + encoded.size() <= kMaxLineOctets) {
    return encoded;
  }
  encoded.clear();
  std::size_t used = 0;  // data bytes in the open word
  bool open = false;
  for (std::size_t i = 0; i < text.size();) {
    // One character: a byte, with the continuation bytes that follow a
    // leading byte (at most 4 bytes, so that any byte sequence fits a word).
    std::size_t length = 1;
    if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0xC0) {
      while (length < 4 && i + length < text.size() &&
             (static_cast<unsigned char>(text[i + length]) & 0xC0) == 0x80) {
        ++length;
      }
    }
    const std::string_view character = std::string_view(text).substr(i, length);
    std::size_t cost = 0;
    for (const char c : character) cost += c != ' ' && rfc1522_nonprintable(c) ? 3 : 1;
    if (open && used + cost > kFoldedWordData) {
      encoded += kWordEnd;
      encoded += "\n ";
      open = false;
    }
    if (!open) {
      encoded += kEncodedWordPrefix;
      used = 0;
      open = true;
    }
    append_q_encoded(encoded, character);
    used += cost;
    i += length;
  }
  encoded += kWordEnd;
  return encoded;
}

}  // namespace rfc1522
}  // namespace orvik
