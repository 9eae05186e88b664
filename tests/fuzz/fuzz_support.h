// Small pieces shared by the fuzz targets: a sink for the diagnostics the
// code under test writes on std::cerr, and an anonymous in-memory file that
// holds one input.
//
// The diagnostics are silenced at the stream, not at descriptor 2, so the
// sanitizers and libFuzzer itself still report on standard error.
#pragma once

#include <glib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <streambuf>
#include <string>

#include "lib/unique_fd.h"

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

inline void check(bool condition, const char* what) {
  if (!condition) harness_failure(what);
}

// An anonymous file holding one input, rewound to its start. Owns the
// descriptor.
class MemFile {
 public:
  MemFile(const std::uint8_t* data, std::size_t size) : fd_(memfd_create("fuzz-input", 0)) {
    if (!fd_) harness_failure("memfd_create failed");
    for (std::size_t done = 0; done < size;) {
      const ssize_t written = write(fd(), data + done, size - done);
      if (written <= 0) harness_failure("writing the input failed");
      done += static_cast<std::size_t>(written);
    }
    if (lseek(fd(), 0, SEEK_SET) != 0) harness_failure("rewinding the input failed");
  }

  int fd() const { return fd_.get(); }
  // A path that opens the same file anew.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd()); }

 private:
  Unique_fd fd_;
};

// Whether `text` is well-formed UTF-8 (shortest forms only, no surrogates,
// nothing above U+10FFFF); a NUL byte is a character like any other.
inline bool is_valid_utf8(std::string text) {
  std::replace(text.begin(), text.end(), '\0', ' ');
  return g_utf8_validate_len(text.data(), text.size(), nullptr);
}

}  // namespace ovk_fuzz
