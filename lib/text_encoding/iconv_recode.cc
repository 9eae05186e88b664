// Charset conversion through the system's iconv.
//
// Owns one iconv descriptor per call (closed on every path, also when a
// conversion error is thrown) and a fixed 4096-byte output buffer reused for
// every pass, so memory beyond the result does not grow with the text.
// Fails by throwing std::runtime_error with one of three texts: the pair
// cannot be opened, a conversion error that is not skipped (including input
// that ends inside a character), or the descriptor cannot be closed.
#include "lib/text_encoding/iconv_recode.h"

#include <iconv.h>

#include <cerrno>
#include <stdexcept>

namespace orvik {

namespace {

constexpr std::size_t kPassBufferSize = 4096;

// The one owner of a conversion descriptor. close() reports the result of
// iconv_close for the success path; the destructor closes silently.
class IconvDescriptor {
 public:
  IconvDescriptor(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
  IconvDescriptor(const IconvDescriptor&) = delete;
  IconvDescriptor& operator=(const IconvDescriptor&) = delete;
  ~IconvDescriptor() {
    if (valid()) iconv_close(cd_);
  }

  bool valid() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
  iconv_t get() const { return cd_; }

  int close() {
    const int rc = iconv_close(cd_);
    cd_ = reinterpret_cast<iconv_t>(-1);
    return rc;
  }

 private:
  iconv_t cd_;
};

}  // namespace

std::string iconvRecode(const std::string& text, const std::string& from, const std::string& to,
                        bool skipInvalid) {
  IconvDescriptor cd(to.c_str(), from.c_str());
  if (!cd.valid()) throw std::runtime_error("Cannot convert from " + from + " to " + to);

  std::string result;
  result.reserve(text.size());
  char buffer[kPassBufferSize];
  // iconv's input parameter is not const-qualified but the input is only read.
  char* in = const_cast<char*>(text.data());
  std::size_t in_left = text.size();

  while (in_left > 0) {
    char* out = buffer;
    std::size_t out_left = sizeof buffer;
    errno = 0;
    iconv(cd.get(), &in, &in_left, &out, &out_left);
    const int err = errno;
    const std::size_t produced = static_cast<std::size_t>(out - buffer);

    if (err == 0 || err == E2BIG) {
      result.append(buffer, produced);
    } else if (err == EILSEQ && skipInvalid) {
      // One "?" per offending byte: the converter resynchronises on its own
      // at the next byte that starts a valid character.
      result.append(buffer, produced);
      ++in;
      --in_left;
      result += '?';
    } else {
      throw std::runtime_error("Conversion from " + from + " to " + to);
    }
  }

  if (cd.close() != 0)
    throw std::runtime_error("Closing conversion from " + from + " to utf-8 failed");
  return result;
}

}  // namespace orvik
