// Everything left to read on a descriptor, which is then closed.
#pragma once

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
