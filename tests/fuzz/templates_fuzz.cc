// Fuzz target: placeholder substitution (templ_replace) with a table sorted
// by templ_quick_sort and searched by templ_found.
//
// Input layout, readable so that seeds can be written by hand: the first two
// bytes are the opening and closing delimiters, then the template up to the
// first line feed, then one table entry per line, "name=value" (a line
// without "=" is a name whose value is null). Bytes after a NUL inside a
// string are not seen, as for any C string.
//
// Each input runs with both options on and off and at several output sizes,
// every output in a heap buffer of exactly size + 1 bytes. Checks: the sort
// orders the table and every name is found; out_len <= size; a cut result is
// a prefix of the uncut one; with room enough the whole template is consumed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "autoresponder/templates.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ovk_fuzz::check;

constexpr std::size_t kMaxEntries = 16;
// Inputs whose whole result could exceed this are passed over.
constexpr std::size_t kMaxRoom = std::size_t{1} << 24;
constexpr std::uint32_t kOptionSets[] = {0, REPL_STOP_BEFORE_VALUE, REPL_KEEP_UNKNOWN,
                                         REPL_STOP_BEFORE_VALUE | REPL_KEEP_UNKNOWN};
constexpr unsigned kFixedSizes[] = {1, 2, 7, 33, 999};

struct Entry {
  std::string name;
  std::string value;
  bool null_value;
};

struct Result {
  std::string text;  // the first out_len bytes
  repl_ctl ctl;
};

Result run(char open, char close, const std::vector<par_templ>& table, const std::string& templ,
           unsigned size, std::uint32_t options) {
  // Exactly what the contract lets the call touch, so any byte beyond is a
  // heap overflow.
  const std::unique_ptr<char[]> out(new char[static_cast<std::size_t>(size) + 1]);
  repl_ctl ctl{0, 0, options, 0};
  char* const returned =
      templ_replace(open, close, table.data(), static_cast<unsigned>(table.size()), templ.c_str(),
                    out.get(), size, &ctl);
  check(returned == out.get(), "templ_replace returned another buffer");
  check(ctl.options == options, "templ_replace changed the options");
  check(ctl.out_len <= size, "out_len exceeds size");
  check(ctl.src_used <= std::strlen(templ.c_str()), "src_used exceeds the template");
  return Result{std::string(out.get(), ctl.out_len), ctl};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const char open = static_cast<char>(data[0]);
  const char close = static_cast<char>(data[1]);
  const std::string_view rest(reinterpret_cast<const char*>(data + 2), size - 2);

  const std::size_t template_end = std::min(rest.find('\n'), rest.size());
  const std::string templ(rest.substr(0, template_end));
  std::vector<Entry> entries;
  std::size_t pos = template_end + 1;
  while (pos < rest.size() && entries.size() < kMaxEntries) {
    const std::size_t line_end = std::min(rest.find('\n', pos), rest.size());
    const std::string_view line = rest.substr(pos, line_end - pos);
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
      entries.push_back({std::string(line), "", true});
    } else {
      entries.push_back(
          {std::string(line.substr(0, equals)), std::string(line.substr(equals + 1)), false});
    }
    pos = line_end + 1;
  }

  std::vector<par_templ> table;
  std::size_t longest_value = 0;
  for (const Entry& entry : entries) {
    table.push_back({entry.name.c_str(), entry.null_value ? nullptr : entry.value.c_str()});
    longest_value = std::max(longest_value, std::strlen(entry.value.c_str()));
  }
  templ_quick_sort(table.data(), static_cast<int>(table.size()));
  for (std::size_t i = 0; i + 1 < table.size(); ++i) {
    check(std::strcmp(table[i].name, table[i + 1].name) <= 0, "the sorted table is out of order");
  }
  for (const par_templ& entry : table) {
    const int found = templ_found(entry.name, table.data(), static_cast<int>(table.size()));
    check(found >= 0 && std::strcmp(table[found].name, entry.name) == 0, "a name is not found");
  }

  // Room for the whole result: the template plus a longest value for every
  // placeholder of the shortest form (a delimiter, one character, a delimiter).
  const std::size_t template_length = std::strlen(templ.c_str());
  const std::size_t roomy = template_length + (template_length / 3 + 1) * longest_value + 1;
  if (roomy > kMaxRoom) return 0;

  for (const std::uint32_t options : kOptionSets) {
    const Result full = run(open, close, table, templ, static_cast<unsigned>(roomy), options);
    check((full.ctl.status & REPL_STOP_BEFORE_VALUE) == 0, "stopped with room to spare");
    if (!table.empty()) {
      check(full.ctl.src_used == template_length, "the roomy run left the template unconsumed");
    }
    if ((options & REPL_KEEP_UNKNOWN) == 0) {
      check((full.ctl.status & REPL_KEEP_UNKNOWN) == 0, "kept an unknown name without the option");
    }
    std::vector<unsigned> sizes(std::begin(kFixedSizes), std::end(kFixedSizes));
    sizes.push_back(static_cast<unsigned>(full.text.size()));
    if (!full.text.empty()) sizes.push_back(static_cast<unsigned>(full.text.size() - 1));
    for (const unsigned cut : sizes) {
      if (cut == 0) continue;
      const Result part = run(open, close, table, templ, cut, options);
      check(full.text.starts_with(part.text), "a cut result is not a prefix of the whole");
      if ((options & REPL_STOP_BEFORE_VALUE) == 0) {
        check(part.text.size() == std::min<std::size_t>(cut, full.text.size()),
              "a cut result is shorter than the room allows");
      }
      check(part.ctl.src_used <= full.ctl.src_used, "a cut run consumed more than the whole");
    }
    const Result none = run(open, close, table, templ, 0, options);
    check(none.ctl.out_len == 0 && none.ctl.src_used == 0, "size 0 wrote something");
  }
  return 0;
}
