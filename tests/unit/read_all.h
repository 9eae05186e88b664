// Everything left to read on a descriptor, which is then closed; a whole
// file ("" when it cannot be read).
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

inline std::string read_all(int fd) {
  std::string text;
  char chunk[4096];
  for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;)
    text.append(chunk, static_cast<std::size_t>(n));
  ::close(fd);
  return text;
}

inline std::string read_file(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return fd < 0 ? "" : read_all(fd);
}
