// The message log: the library's unconditional user messages.
//
// Each message is written twice, on standard error and then on standard
// output, with the last path component of PROGNAME as its prefix, and gains
// a "System error N: text" line whenever errno was non-zero at the call.
// Owns nothing beyond one malloc buffer per call. A message that cannot get
// its buffer is replaced by a fixed text; a non-zero status ends the process
// with exit(status) after both streams were flushed, or by the end the
// program has set (set_fatal_message_end).
#include "lib/put.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

const char* PROGNAME = nullptr;

namespace {

Fatal_message_end fatal_message_end = nullptr;

[[noreturn]] void end_fatally(int status) {
  if (fatal_message_end != nullptr) fatal_message_end(status);
  std::exit(status);
}

// Messages up to this size need no second formatting pass.
constexpr std::size_t kInitialMessageSize = 4096;

// The last path component as POSIX basename() gives it, without modifying or
// copying PROGNAME: a message may have to be written when memory is gone.
std::string_view last_path_component(const char* path) {
  std::string_view rest(path);
  if (rest.empty()) return ".";
  while (rest.size() > 1 && rest.back() == '/') rest.remove_suffix(1);
  if (rest == "/") return rest;
  const std::size_t slash = rest.rfind('/');
  return slash == std::string_view::npos ? rest : rest.substr(slash + 1);
}

void write_message(std::FILE* stream, const std::string_view* utility, std::string_view text) {
  if (utility != nullptr) {
    std::fprintf(stream, "%.*s: ", static_cast<int>(utility->size()), utility->data());
  }
  std::fwrite(text.data(), 1, text.size(), stream);
  // An empty text counts as not ending in a line feed: it becomes an empty line.
  if (text.empty() || text.back() != '\n') std::fputc('\n', stream);
  std::fflush(stream);
}

// Appends the "System error" line of `error_number` at `length`, growing the
// buffer so that it fits whole; only a failed enlargement cuts it.
void append_system_error(char*& buffer, std::size_t& capacity, std::size_t length,
                         int error_number) {
  const char* reason = std::strerror(error_number);
  const int wanted = std::snprintf(nullptr, 0, "\nSystem error %d: %s", error_number, reason);
  if (wanted < 0) return;
  const std::size_t needed = length + static_cast<std::size_t>(wanted) + 1;
  if (needed > capacity) {
    if (char* bigger = static_cast<char*>(std::realloc(buffer, needed))) {
      buffer = bigger;
      capacity = needed;
    }
  }
  std::snprintf(buffer + length, capacity - length, "\nSystem error %d: %s", error_number, reason);
}

}  // namespace

int ex_messlog(const char* text, int status, int /*mess_out*/) {
  std::string_view utility;
  const bool has_utility = PROGNAME != nullptr;
  if (has_utility) utility = last_path_component(PROGNAME);
  const std::string_view message(text != nullptr ? text : "");

  write_message(stderr, has_utility ? &utility : nullptr, message);
  write_message(stdout, has_utility ? &utility : nullptr, message);
  if (status != 0) end_fatally(status);
  return 0;
}

void vmesslog2(int status, int mess_out, const char* format, va_list args) {
  const int saved_errno = errno;

  std::size_t capacity = kInitialMessageSize;
  char* buffer = static_cast<char*>(std::malloc(capacity));
  if (buffer == nullptr) {
    ex_messlog("Can't allocate memory for error message", status, mess_out);
    errno = saved_errno;
    return;
  }

  va_list first_pass;
  va_copy(first_pass, args);
  int formatted = std::vsnprintf(buffer, capacity, format, first_pass);
  va_end(first_pass);
  std::size_t length = 0;
  if (formatted < 0) {
    buffer[0] = '\0';  // an invalid format yields an empty text, not garbage
  } else if (static_cast<std::size_t>(formatted) < capacity) {
    length = static_cast<std::size_t>(formatted);
  } else if (char* bigger = static_cast<char*>(std::realloc(buffer, formatted + 1UL))) {
    buffer = bigger;
    capacity = formatted + 1UL;
    std::vsnprintf(buffer, capacity, format, args);
    length = static_cast<std::size_t>(formatted);
  } else {
    length = capacity - 1;  // keep the message cut rather than lose it
  }

  errno = saved_errno;
  if (saved_errno != 0) append_system_error(buffer, capacity, length, saved_errno);

  // Written with status 0 so that the buffer is freed before a fatal exit.
  ex_messlog(buffer, 0, mess_out);
  std::free(buffer);
  errno = saved_errno;
  if (status != 0) end_fatally(status);
}

void messlog2(int status, int mess_out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  // The list is closed before an end that may unwind.
  vmesslog2(0, mess_out, format, args);
  va_end(args);
  if (status != 0) end_fatally(status);
}

void set_fatal_message_end(Fatal_message_end end) {
  fatal_message_end = end;
}
