// Placeholder substitution: names between two delimiter characters replaced
// by texts from a table sorted by name (strcmp order).
#pragma once

#include <cstdint>

struct par_templ {
  const char* name;   // without delimiters
  const char* value;  // may be null: replaced by nothing
};

inline constexpr std::uint32_t REPL_STOP_BEFORE_VALUE = 1;
inline constexpr std::uint32_t REPL_KEEP_UNKNOWN = 2;

struct repl_ctl {
  std::uint32_t src_used;  // template characters consumed
  std::uint32_t out_len;   // characters written; the caller terminates the output here
  std::uint32_t options;   // REPL_* bits set by the caller
  std::uint32_t status;    // REPL_* bits: stopped before a value / met an unknown name
};

// The longest placeholder name.
inline constexpr unsigned kTemplNameMax = 32;

char* templ_replace(char open, char close, const par_templ* table, unsigned count,
                    const char* templ, char* out, unsigned size, repl_ctl* ctl);
int templ_found(const char* name, const par_templ* table, int count);
void templ_quick_sort(par_templ* table, int count);
void qs(par_templ* table, int lo, int hi);
