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

#include <cerrno>
#include <stdexcept>

namespace orvik {

namespace {

constexpr std::size_t kPassBufferSize = 4096;
const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

}  // namespace

Iconv_stream::Iconv_stream(const std::string& from, const std::string& to, bool skipInvalid)
    : cd_(iconv_open(to.c_str(), from.c_str())), from_(from), to_(to), skip_invalid_(skipInvalid) {
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

void Iconv_stream::feed(std::string_view piece, const Sink& sink) {
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
