// Owners for the C library's handles that the program and the utility
// library hold: buffers from malloc/realloc and stdio streams. Descriptors
// have their own owner (lib/unique_fd.h), the client library's handles theirs
// (lib/mysql_handle.h).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

// Owner of a buffer from malloc/realloc.
struct FreeDeleter {
  void operator()(void* block) const noexcept { std::free(block); }
};
using MallocChars = std::unique_ptr<char, FreeDeleter>;

// Owner of a stdio stream: fclose when it leaves scope. A caller that needs
// fclose's result (a stream written to) closes it itself with release().
struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;
