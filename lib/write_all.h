// Writing a whole buffer to a file descriptor.
#pragma once

#include <cstddef>

// Writes `size` bytes from `data` to `fd`, retrying short writes and writes
// interrupted by a signal. False, with errno set, at the first failed write;
// what was written before it stays written.
bool write_all(int fd, const char* data, std::size_t size);
