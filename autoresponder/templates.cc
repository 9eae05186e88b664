// Placeholder substitution in one pass over the template.
//
// Names between the two delimiter characters are looked up by binary search
// in a table sorted by name and replaced by their values; everything else is
// copied literally. No allocation: names go through a local buffer of
// kTemplNameMax + 1 bytes and the output into the caller's buffer, which is
// filled up to `size` characters and then cut. Nothing is reported: malformed
// placeholders are literal text, unknown ones are kept or dropped by option.
#include "autoresponder/templates.h"

#include <cstring>
#include <utility>

namespace {

// What follows an opening delimiter.
enum class NameScan {
  kName,     // a name of 1..kTemplNameMax characters and its closing delimiter
  kEmpty,    // the closing delimiter right after the opening one
  kTooLong,  // kTemplNameMax + 1 characters without a closing delimiter
  kUnclosed  // the template ends first
};

// Reads the name after the opening delimiter at `start`. Opening delimiters
// inside the name are ordinary name characters.
NameScan scan_name(const char* start, char close, char (&name)[kTemplNameMax + 1],
                   std::size_t& length) {
  for (length = 0; length <= kTemplNameMax; ++length) {
    const char c = start[length];
    // The end of the template comes first, so that a NUL closing delimiter
    // never reads as a close past the terminator.
    if (c == '\0') return NameScan::kUnclosed;
    if (c == close) {
      name[length] = '\0';
      return length == 0 ? NameScan::kEmpty : NameScan::kName;
    }
    if (length < kTemplNameMax) name[length] = c;
  }
  return NameScan::kTooLong;
}

}  // namespace

char* templ_replace(char open, char close, const par_templ* table, unsigned count,
                    const char* templ, char* out, unsigned size, repl_ctl* ctl) {
  out[0] = '\0';
  ctl->src_used = 0;
  ctl->out_len = 0;
  ctl->status = 0;
  if (templ == nullptr || templ[0] == '\0' || size == 0 || count == 0) return out;

  const char* literal = templ;  // start of the literal text not yet copied
  const char* scan = templ;
  std::size_t out_pos = 0;
  std::size_t consumed = 0;
  char name[kTemplNameMax + 1];

  while (*scan != '\0') {
    if (*scan != open) {
      ++scan;
      continue;
    }
    const char* const name_start = scan + 1;
    std::size_t name_length = 0;
    const NameScan kind = scan_name(name_start, close, name, name_length);
    if (kind == NameScan::kUnclosed) {
      scan = name_start + name_length;  // the terminating NUL
      break;
    }
    if (kind == NameScan::kEmpty) {
      scan = name_start + 1;
      continue;
    }
    if (kind == NameScan::kTooLong) {
      scan = name_start + name_length;
      continue;
    }
    const char* const after_close = name_start + name_length + 1;

    const int index = templ_found(name, table, static_cast<int>(count));
    if (index < 0 && (ctl->options & REPL_KEEP_UNKNOWN) != 0) {
      ctl->status |= REPL_KEEP_UNKNOWN;
      scan = after_close;  // the placeholder stays in the pending literal text
      continue;
    }
    const char* const value = index >= 0 ? table[index].value : nullptr;

    const std::size_t literal_length = static_cast<std::size_t>(scan - literal);
    if (out_pos + literal_length > size) {
      const std::size_t fits = size - out_pos;
      std::memcpy(out + out_pos, literal, fits);
      ctl->src_used = static_cast<std::uint32_t>(consumed + fits);
      ctl->out_len = size;
      return out;
    }
    std::memcpy(out + out_pos, literal, literal_length);
    out_pos += literal_length;

    if (value != nullptr) {
      const std::size_t value_length = std::strlen(value);
      if (out_pos + value_length > size) {
        if ((ctl->options & REPL_STOP_BEFORE_VALUE) != 0) {
          ctl->status |= REPL_STOP_BEFORE_VALUE;
          ctl->src_used = static_cast<std::uint32_t>(consumed + literal_length);
          ctl->out_len = static_cast<std::uint32_t>(out_pos);
          return out;
        }
        std::memcpy(out + out_pos, value, size - out_pos);
        ctl->src_used = static_cast<std::uint32_t>(consumed + literal_length + name_length + 2);
        ctl->out_len = size;
        return out;
      }
      std::memcpy(out + out_pos, value, value_length);
      out_pos += value_length;
    }

    consumed += literal_length + name_length + 2;
    literal = after_close;
    scan = after_close;
  }

  const std::size_t literal_length = static_cast<std::size_t>(scan - literal);
  const std::size_t fits = literal_length < size - out_pos ? literal_length : size - out_pos;
  std::memcpy(out + out_pos, literal, fits);
  if (out_pos + literal_length < size) out[out_pos + literal_length] = '\0';
  ctl->src_used = static_cast<std::uint32_t>(consumed + fits);
  ctl->out_len = static_cast<std::uint32_t>(out_pos + fits);
  return out;
}

int templ_found(const char* name, const par_templ* table, int count) {
  if (name == nullptr || table == nullptr || count <= 0) return -1;
  int lo = 0;
  int hi = count - 1;
  while (lo < hi) {
    const int mid = lo + (hi - lo) / 2;
    const int order = std::strcmp(name, table[mid].name);
    if (order == 0) return mid;
    if (order > 0) {
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  return lo == hi && std::strcmp(name, table[lo].name) == 0 ? lo : -1;
}

void qs(par_templ* table, int lo, int hi) {
  // The left part recurses, the right part continues in this call.
  while (lo < hi) {
    const char* const pivot = table[(lo + hi) / 2].name;
    int i = lo;
    int j = hi;
    while (i <= j) {
      while (std::strcmp(table[i].name, pivot) < 0 && i < hi) ++i;
      while (std::strcmp(table[j].name, pivot) > 0 && j > lo) --j;
      if (i <= j) {
        std::swap(table[i], table[j]);
        ++i;
        --j;
      }
    }
    if (lo < j) qs(table, lo, j);
    lo = i;
  }
}

void templ_quick_sort(par_templ* table, int count) {
  if (table == nullptr || count <= 0) return;
  qs(table, 0, count - 1);
}
