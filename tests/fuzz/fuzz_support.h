// Small pieces shared by the fuzz targets: a sink for the diagnostics the
// code under test writes on std::cerr, and an anonymous in-memory file that
// holds one input.
//
// The diagnostics are silenced at the stream, not at descriptor 2, so the
// sanitizers and libFuzzer itself still report on standard error.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <streambuf>
#include <string>

namespace ovk_fuzz {

// Swallows everything written to it.
class NullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Points std::cerr at a NullBuffer for the rest of the process.
inline void silence_cerr() {
  static NullBuffer sink;
  std::cerr.rdbuf(&sink);
}

// Any failure of the harness itself ends the process loudly, so libFuzzer
// records the input instead of going on with a broken set-up.
[[noreturn]] inline void harness_failure(const char* what) {
  std::fprintf(stderr, "fuzz harness: %s\n", what);
  std::abort();
}

// An anonymous file holding one input, rewound to its start. Owns the
// descriptor.
class MemFile {
 public:
  MemFile(const std::uint8_t* data, std::size_t size) : fd_(memfd_create("fuzz-input", 0)) {
    if (fd_ < 0) harness_failure("memfd_create failed");
    std::size_t done = 0;
    while (done < size) {
      const ssize_t written = write(fd_, data + done, size - done);
      if (written <= 0) harness_failure("writing the input failed");
      done += static_cast<std::size_t>(written);
    }
    if (lseek(fd_, 0, SEEK_SET) != 0) harness_failure("rewinding the input failed");
  }
  MemFile(const MemFile&) = delete;
  MemFile& operator=(const MemFile&) = delete;
  ~MemFile() { close(fd_); }

  int fd() const { return fd_; }
  // A path that opens the same file anew.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

// Whether `text` is well-formed UTF-8: shortest forms only, no surrogates,
// nothing above U+10FFFF.
inline bool is_valid_utf8(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length;
    std::uint32_t code;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      code = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      code = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      code = lead & 0x07;
    } else {
      return false;
    }
    if (text.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if ((length == 3 && code < 0x800) || (length == 4 && code < 0x10000)) return false;
    if (code >= 0xD800 && code <= 0xDFFF) return false;
    if (code > 0x10FFFF) return false;
    i += length;
  }
  return true;
}

}  // namespace ovk_fuzz
