// The text body kept in its file: bounded search, lines on demand.
//
// Owns the file's descriptor through one shared record, so copies of a
// Mail_content share the file and the last one closes it. Reads with
// pread, so searches and iterations never disturb each other. A read error
// ends the text for the reader, as its end does.
#include "autoresponder/intake/body_text.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lib/unique_fd.h"

struct Body_text::File {
  Unique_fd fd;
  explicit File(int fd_in) : fd(fd_in) {}
};

Body_text::Body_text(int fd, off_t start, off_t end)
    : file_(std::make_shared<const File>(fd)), start_(start), end_(end) {}

ssize_t Body_text::read_at(char* into, std::size_t size, off_t at) const {
  if (!file_ || at >= end_ - start_) return 0;
  size = static_cast<std::size_t>(std::min<off_t>(static_cast<off_t>(size), end_ - start_ - at));
  for (;;) {
    const ssize_t got = pread(file_->fd.get(), into, size, start_ + at);
    if (got >= 0 || errno != EINTR) return got < 0 ? 0 : got;
  }
}

bool Body_text::line_contains(std::string_view key) const {
  if (!file_) return false;
  if (key.empty()) return true;
  // A line never holds a line feed; a key without one that occurs in the
  // text lies within one line.
  if (key.find('\n') != std::string_view::npos) return false;
  const std::size_t overlap = key.size() - 1;
  std::string window(overlap + kReadBlock, '\0');
  std::size_t held = 0;
  off_t at = 0;
  for (;;) {
    const ssize_t got = read_at(window.data() + held, kReadBlock, at);
    if (got <= 0) return false;
    at += got;
    held += static_cast<std::size_t>(got);
    if (std::string_view(window.data(), held).find(key) != std::string_view::npos) return true;
    const std::size_t keep = std::min(held, overlap);
    std::memmove(window.data(), window.data() + held - keep, keep);
    held = keep;
  }
}

Body_text::const_iterator::const_iterator(const Body_text* body) : body_(body), done_(false) {
  ++*this;
}

Body_text::const_iterator& Body_text::const_iterator::operator++() {
  if (next_ < 0) {
    done_ = true;
    return *this;
  }
  line_.clear();
  char block[4096];
  for (;;) {
    const ssize_t got = body_->read_at(block, sizeof block, next_);
    if (got <= 0) {
      next_ = -1;  // the last line: no line feed after it
      return *this;
    }
    const std::string_view piece(block, static_cast<std::size_t>(got));
    const std::size_t lf = piece.find('\n');
    line_.append(piece.substr(0, lf));
    if (lf != std::string_view::npos) {
      next_ += static_cast<long long>(lf + 1);
      return *this;
    }
    next_ += got;
  }
}

std::size_t Body_text::size() const {
  if (!file_) return 0;
  std::size_t lines = 1;
  std::string block(kReadBlock, '\0');
  off_t at = 0;
  for (ssize_t got; (got = read_at(block.data(), block.size(), at)) > 0; at += got) {
    lines += static_cast<std::size_t>(std::count(block.data(), block.data() + got, '\n'));
  }
  return lines;
}

bool Body_text::operator==(const std::vector<std::string>& lines) const {
  auto it = begin();
  for (const std::string& line : lines) {
    if (it == end() || *it != line) return false;
    ++it;
  }
  return it == end();
}
