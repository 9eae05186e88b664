// Small helpers of the utility library: an allocation that cannot fail and
// the escaping of a text for an SQL statement.
//
// realloc_safe ends the process through the message log (status 1,
// "alloc(%d)") when memory is exhausted, so neither helper returns null for
// real input. Buffers handed out belong to the caller (free).
#include "lib/libcommon.h"

#include <cstring>

#include "lib/put.h"

void* realloc_safe(void* block, std::size_t size) {
  // realloc(block, 0) may free the block and return null, which is not an
  // allocation failure; ask for one byte instead.
  void* grown = std::realloc(block, size != 0 ? size : 1);
  if (grown == nullptr) messlog2(1, 0, "alloc(%d)", static_cast<int>(size));
  return grown;
}

char* escape_mysql_param(MYSQL* connection, const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t length = std::strlen(text);
  // Every byte escapes to at most two, plus the terminating NUL.
  char* escaped = static_cast<char*>(realloc_safe(nullptr, 2 * length + 1));
  escaped[0] = '\0';
  mysql_real_escape_string(connection, escaped, text, length);
  return escaped;
}
