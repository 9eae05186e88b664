// Bounded-memory reading of the stored incoming message: the line window, the
// header block reader and the search for a multipart's boundary lines.
//
// Owns a buffer of two windows; reads the borrowed descriptor with pread, so
// several readers (and the decoder's range reads) never disturb each other's
// position. A read error ends the file for the reader, like its end does.
// Header blocks follow the MIME library's reading of malformed headers (which
// lines are fields, where a block ends), so the results match a parse of the
// whole message; only what the intake needs is kept.
#include "autoresponder/intake/stored_message.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "autoresponder/intake/header_lexer.h"
#include "lib/ascii.h"

namespace {

bool is_empty_line(std::string_view line) {
  return line == "\n" || line.starts_with("\r\n");
}

// A mailbox separator line that may precede a message's fields.
bool is_from_line(std::string_view line, std::size_t scanned) {
  std::string_view text = line.substr(0, scanned);
  if (text.starts_with('>')) text.remove_prefix(1);
  return text.starts_with("From ");
}

// The fields a block keeps; the sender, subject, date and robot-guard fields
// only in a message's block.
struct Kept_field {
  const char* name;
  std::optional<std::string> Entity_headers::*slot;
  bool message_only;
};
constexpr Kept_field kKeptFields[] = {
    {"Content-Type", &Entity_headers::content_type, false},
    {"Content-Transfer-Encoding", &Entity_headers::transfer_encoding, false},
    {"Reply-To", &Entity_headers::reply_to, true},
    {"From", &Entity_headers::from, true},
    {"Subject", &Entity_headers::subject, true},
    {"Date", &Entity_headers::date, true},
    {"Auto-Submitted", &Entity_headers::auto_submitted, true},
    {"Precedence", &Entity_headers::precedence, true},
    {"List-Id", &Entity_headers::list_id, true},
    {"List-Unsubscribe", &Entity_headers::list_unsubscribe, true},
    {"List-Post", &Entity_headers::list_post, true},
    {"Return-Path", &Entity_headers::return_path, true},
    {"Message-ID", &Entity_headers::message_id, true},
};

// Where the first field of `name` goes, or null when the block does not keep
// it (another name, a later field of the name, a part's sender fields).
std::optional<std::string>* field_slot(Entity_headers& headers, Header_block_kind kind,
                                       std::string_view name) {
  for (const Kept_field& field : kKeptFields) {
    if (!EqualsIgnoringCase(name, field.name)) continue;
    if (field.message_only && kind == Header_block_kind::kPart) return nullptr;
    std::optional<std::string>* slot = &(headers.*field.slot);
    return slot->has_value() ? nullptr : slot;
  }
  return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- reader

Stored_message_reader::Stored_message_reader(int fd)
    : fd_(fd), buffer_(std::make_unique_for_overwrite<char[]>(kBufferSize)) {}

void Stored_message_reader::seek(off_t offset) {
  offset_ = offset;
  begin_ = end_ = 0;
}

ssize_t Stored_message_reader::read_at(char* into, std::size_t size, off_t at) const {
  for (;;) {
    const ssize_t got = pread(fd_, into, size, at);
    if (got >= 0 || errno != EINTR) return got;
  }
}

std::size_t Stored_message_reader::fill(std::size_t wanted) {
  if (end_ - begin_ >= wanted) return end_ - begin_;
  std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  while (end_ < wanted) {
    const ssize_t got =
        read_at(buffer_.get() + end_, kBufferSize - end_, offset_ + static_cast<off_t>(end_));
    if (got <= 0) break;
    end_ += static_cast<std::size_t>(got);
  }
  return end_;
}

std::string_view Stored_message_reader::peek_line() {
  std::string_view held(buffer_.get() + begin_, end_ - begin_);
  std::size_t lf = held.find('\n');
  if (lf == std::string_view::npos && held.size() < kWindow) {
    held = std::string_view(buffer_.get(), fill(kWindow));
    lf = held.find('\n');
  }
  if (lf != std::string_view::npos) return held.substr(0, lf + 1);
  return held.substr(0, std::min(held.size(), kWindow));
}

void Stored_message_reader::consume_line(std::string* keep, std::size_t keep_max) {
  consumed_crlf_ = false;
  for (;;) {
    const std::string_view held(buffer_.get() + begin_, end_ - begin_);
    const std::size_t lf = held.find('\n');
    const std::size_t taken = lf == std::string_view::npos ? held.size() : lf + 1;
    if (keep != nullptr && keep->size() < keep_max) {
      keep->append(held.data(), std::min(taken, keep_max - keep->size()));
    }
    if (lf != std::string_view::npos)
      consumed_crlf_ = (lf > 0 ? held[lf - 1] : last_consumed_) == '\r';
    if (taken > 0) last_consumed_ = held[taken - 1];
    begin_ += taken;
    offset_ += static_cast<off_t>(taken);
    if (lf != std::string_view::npos || fill(1) == 0) return;
  }
}

// ---------------------------------------------------------------- header block

Boundary_kind ClassifyBoundaryLine(std::string_view line, std::string_view delimiter) {
  if (!line.ends_with('\n') && line.size() >= Stored_message_reader::kWindow) {
    return Boundary_kind::kNone;
  }
  if (!line.starts_with(delimiter)) return Boundary_kind::kNone;
  line.remove_prefix(delimiter.size());
  const auto only_space = [](std::string_view rest) {
    return rest.find_first_not_of(" \t\r\n") == std::string_view::npos;
  };
  if (line.starts_with("--") && only_space(line.substr(2))) return Boundary_kind::kClose;
  return only_space(line) ? Boundary_kind::kDelimiter : Boundary_kind::kNone;
}

Boundary_hit NextBoundary(Stored_message_reader& reader, std::string_view delimiter) {
  const off_t start = reader.offset();
  for (;;) {
    const std::string_view line = reader.peek_line();
    if (line.empty()) return {Boundary_kind::kNone, reader.offset()};
    const Boundary_kind kind = ClassifyBoundaryLine(line, delimiter);
    if (kind == Boundary_kind::kNone) {
      reader.consume_line();
      continue;
    }
    off_t end = reader.offset();
    if (end > start) {
      --end;
      const std::string_view text = line.substr(0, line.find('\n'));
      if (end > start && reader.consumed_crlf() && text.ends_with('\r')) --end;
    }
    return {kind, end};
  }
}

Entity_headers ReadHeaderBlock(Stored_message_reader& reader, Header_block_kind kind,
                               std::string_view delimiter) {
  Entity_headers headers;
  bool in_field = false;   // a field is open: lines beginning with a blank continue it
  bool any_field = false;  // a field has been read (then lines that are no field are dropped)
  std::optional<std::string>* slot = nullptr;  // where the open field is kept, if anywhere
  std::string text;                            // the open field, when kept
  std::size_t text_max = 0;                    // its name, colon and kMaxKeptFieldBody
  off_t field_start = 0;                       // where the open field begins in the file

  const auto close_field = [&] {
    if (slot != nullptr) {
      std::string_view raw = std::string_view(text).substr(text.find(':') + 1);
      const std::size_t nul = raw.find('\0');
      // Bytes were left out, and the NUL that would end the body anyway
      // does not come first. A Subject then ends at its last blank, so that
      // no encoded word is cut (unless it has none but leading ones).
      const bool cut = reader.offset() - field_start > static_cast<off_t>(text.size()) &&
                       nul == std::string_view::npos;
      if (cut && slot == &headers.subject) {
        const std::size_t blank = raw.find_last_of(" \t\r\n");
        if (blank != std::string_view::npos && raw.find_first_not_of(" \t\r\n") < blank) {
          raw = raw.substr(0, blank);
        }
      }
      *slot = std::string(TrimFieldBody(raw.substr(0, nul)));
      if (slot == &headers.reply_to) headers.reply_to_cut = cut;
      if (slot == &headers.from) headers.from_cut = cut;
    }
    slot = nullptr;
    text.clear();
    in_field = false;
  };

  for (;;) {
    const std::string_view line = reader.peek_line();
    if (line.empty()) break;
    if (!in_field || !IsBlank(line.front())) {
      close_field();
      if (is_empty_line(line)) {
        reader.consume_line();
        headers.content_start = reader.offset();
        return headers;
      }
      if (kind == Header_block_kind::kPart &&
          ClassifyBoundaryLine(line, delimiter) != Boundary_kind::kNone) {
        headers.content_start = reader.offset();
        return headers;
      }
      const Field_name_scan name = ScanFieldName(line);
      const bool whole_line = line.back() == '\n' || line.size() == Stored_message_reader::kWindow;
      if (name.result == Field_name_scan::kOpen && !whole_line) {
        // The file ends inside a field name.
        headers.readable = false;
        return headers;
      }
      if (name.result != Field_name_scan::kField && !any_field) {
        if (kind == Header_block_kind::kMessage && !is_from_line(line, name.length)) {
          headers.readable = false;
          return headers;
        }
        reader.consume_line();
        continue;
      }
      in_field = true;
      if (name.result == Field_name_scan::kField) {
        any_field = true;
        slot = field_slot(headers, kind, line.substr(0, name.length));
        text_max = line.find(':') + 1 + kMaxKeptFieldBody;
        field_start = reader.offset();
      }
    }
    reader.consume_line(slot != nullptr ? &text : nullptr, text_max);
  }
  close_field();
  return headers;
}
