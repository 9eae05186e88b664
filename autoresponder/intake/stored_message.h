// Reading the stored incoming message in bounded memory: its header blocks,
// line by line, keeping only the fields the intake uses.
//
// The message may be of any size and shape (header lines of megabytes,
// millions of fields, a multipart whose preface is the whole body), so it is
// never held whole: lines pass through a fixed window and only the first
// field of each name the intake reads is kept.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Lines of the stored message, read through a window of kWindow bytes. A line
// is everything through its line feed, or through the end of the file.
class Stored_message_reader {
 public:
  // Lines that do not end within this many bytes are read in pieces: they are
  // never a boundary line, and a field name must end within them.
  static constexpr std::size_t kWindow = 64 * 1024;

  // `fd` is borrowed and read with pread, from offset 0.
  explicit Stored_message_reader(int fd);

  off_t offset() const { return offset_; }
  void seek(off_t offset);

  // The current line as far as the window reaches; empty at the end of the
  // file. It ends in a line feed unless it is longer than the window or the
  // file ends without one.
  std::string_view peek_line();
  // Consumes the current line, appending it to `keep` when given, as far as
  // `keep` then holds no more than `keep_max` bytes.
  void consume_line(std::string* keep = nullptr, std::size_t keep_max = SIZE_MAX);
  // Whether the line consumed last ended in CR LF.
  bool consumed_crlf() const { return consumed_crlf_; }

  // Reads [start, end) in pieces of at most kWindow bytes; `sink` takes
  // (const char*, std::size_t) and returns whether it wants more. A read
  // error ends the range early.
  template <typename Sink>
  void read_range(off_t start, off_t end, Sink&& sink) const {
    if (start >= end) return;
    const auto block =
        std::make_unique_for_overwrite<char[]>(std::min<off_t>(end - start, kWindow));
    while (start < end) {
      const ssize_t got = read_at(block.get(), std::min<off_t>(end - start, kWindow), start);
      if (got <= 0) return;
      if (!sink(static_cast<const char*>(block.get()), static_cast<std::size_t>(got))) return;
      start += got;
    }
  }

 private:
  ssize_t read_at(char* into, std::size_t size, off_t at) const;
  // Makes the buffer hold at least `wanted` bytes from offset() unless the
  // file ends first; returns how many it holds.
  std::size_t fill(std::size_t wanted);

  int fd_;
  off_t offset_ = 0;  // file offset of buffer_[begin_]
  // 2 * kWindow, so that a refill always reads a window; not cleared, since
  // only bytes read into it are ever looked at.
  static constexpr std::size_t kBufferSize = 2 * kWindow;
  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  char last_consumed_ = 0;
  bool consumed_crlf_ = false;
};

enum class Boundary_kind { kNone, kDelimiter, kClose };

// A line (as peek_line gives it) read against a multipart's delimiter ("--"
// and the boundary): the delimiter followed only by white space starts a
// part; with "--" after the delimiter it closes the multipart. A line longer
// than the reader's window is neither.
Boundary_kind ClassifyBoundaryLine(std::string_view line, std::string_view delimiter);

struct Boundary_hit {
  Boundary_kind kind;  // kNone: the file ended first
  off_t content_end;   // where the content before the line ends
};

// Reads lines up to the next boundary line of `delimiter`, which stays
// unread. The line feed before a boundary line belongs to the boundary, and
// so does a carriage return before it when the boundary line itself ends in
// CR LF.
Boundary_hit NextBoundary(Stored_message_reader& reader, std::string_view delimiter);

enum class Header_block_kind { kMessage, kPart };

// Of a kept field body longer than this (a From list or a Subject of
// megabytes) only this many bytes are kept, and of a Subject only those
// before the last blank, CR or LF among them (that follows other text); the
// rest of the field is read past.
inline constexpr std::size_t kMaxKeptFieldBody = 64 * 1024;

// The fields of one header block the intake reads: the field body (the raw
// text after the colon up to a NUL byte, leading blanks and trailing white
// space removed, folding kept) of the first field of each name, names
// compared without regard to case.
struct Entity_headers {
  // False when the block cannot be read as one: a message whose first line
  // is neither a field nor a leading "From " line, or a block whose last line
  // ends inside a field name at the end of the file.
  bool readable = true;
  // Where the content starts: after the empty line (LF or CR LF) that ends
  // the block, or at a boundary line that ends a part's block (its content is
  // then empty); nullopt when the file ends first, so the content is empty.
  std::optional<off_t> content_start;
  std::optional<std::string> content_type;
  std::optional<std::string> transfer_encoding;
  // Only read in a message's block.
  std::optional<std::string> reply_to;
  std::optional<std::string> from;
  std::optional<std::string> subject;
  std::optional<std::string> date;
  // Whether the Reply-To or From kept is only the beginning of a longer field
  // body (kMaxKeptFieldBody), so that its last address may be incomplete.
  bool reply_to_cut = false;
  bool from_cut = false;
  // The fields of the opt-in robot guards (autoresponder/robot_guards.h).
  std::optional<std::string> auto_submitted;
  std::optional<std::string> precedence;
  std::optional<std::string> list_id;
  std::optional<std::string> list_unsubscribe;
  std::optional<std::string> list_post;
  std::optional<std::string> return_path;
  std::optional<std::string> message_id;
};

// Reads the header block that starts at the reader's position and leaves the
// reader at its content. A field is a line whose name (no blank inside, no
// control character, blanks allowed before the colon) ends in a colon, with
// the following lines that begin with a blank or tab. Lines that are no field
// are dropped; before the first field they end a message's block as
// unreadable, except leading "From " lines (also written ">From "), and are
// skipped in a part's block. A part's block also ends at a line of the
// enclosing multipart's `delimiter`.
Entity_headers ReadHeaderBlock(Stored_message_reader& reader, Header_block_kind kind,
                               std::string_view delimiter = {});
