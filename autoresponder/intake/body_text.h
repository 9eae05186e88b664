// The text body of the incoming message in UTF-8, kept in a file for the run
// and read back on demand: the intake writes it once, the rules search it,
// and nothing holds it whole. The file has no name: the intake removes it as
// soon as it is open (orvik::paths::kBodyTemplate), so no path of the run,
// a crash included, can leave it behind. A text that needs neither decoding
// nor conversion is instead a stretch of the stored message.
//
// The body is a sequence of lines: the pieces between line feeds, the one
// after the last line feed too, so there is always one line more than the
// text has line feeds. It never holds a NUL byte.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class Body_text {
 public:
  // The file is read in blocks of this size; a search holds one block and
  // the last (key length - 1) bytes before it, whatever the lines' lengths.
  static constexpr std::size_t kReadBlock = 64 * 1024;

  // No body at all, not even an empty line: the record before the intake
  // has filled it.
  Body_text() = default;
  // Takes `fd`, open for reading: it is closed when the last copy of this
  // body goes. The text is the file's bytes from `start` up to `end` or the
  // file's end, whichever comes first.
  static constexpr off_t kToTheEnd = static_cast<off_t>(~0ULL >> 1);
  explicit Body_text(int fd, off_t start = 0, off_t end = kToTheEnd);

  // Whether some line holds `key`: an empty key is in every line, a key with
  // a line feed in none.
  bool line_contains(std::string_view key) const;

  // The lines one by one, each held whole: for inspection and tests only;
  // line_contains is the bounded way to look at the body.
  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::string;
    using difference_type = std::ptrdiff_t;
    using pointer = const std::string*;
    using reference = const std::string&;

    const_iterator() = default;  // the end
    const std::string& operator*() const { return line_; }
    const_iterator& operator++();
    bool operator==(const const_iterator& other) const { return done_ == other.done_; }

   private:
    friend class Body_text;
    explicit const_iterator(const Body_text* body);

    const Body_text* body_ = nullptr;
    long long next_ = 0;  // file offset after the current line's line feed
    std::string line_;
    bool done_ = true;
  };

  const_iterator begin() const { return file_ ? const_iterator(this) : const_iterator(); }
  const_iterator end() const { return {}; }
  std::size_t size() const;  // the number of lines, counted in the file
  bool empty() const { return !file_; }
  bool operator==(const std::vector<std::string>& lines) const;

 private:
  struct File;
  // Reads at `at` bytes into the text, never past its end; 0 at the end
  // and on a read error.
  ssize_t read_at(char* into, std::size_t size, off_t at) const;

  std::shared_ptr<const File> file_;
  off_t start_ = 0;
  off_t end_ = 0;
};
