// A small key-value store and the reader of configuration files made of
// "NAME value" lines. Procedural: functions return 0 or -1 with errno set
// (ENOMEM), or a pointer that is null when absent. The store owns its strings.
#pragma once

#include <cstddef>

struct conf_entry {
  char* key;
  char* value;
};

struct conf_data {
  conf_entry* data;   // null before first use
  std::size_t size;   // capacity in entries
  std::size_t nmemb;  // entries in use
  int finalized;      // 1 when sorted by key (binary search allowed)
};

// Makes room for one more entry (allocates 20 on first use, doubles when full).
int conf_init_r(conf_data* store);
// Stores copies of name and value; an existing name gets the new value.
int conf_set_r(const char* name, const char* value, conf_data* store);
// The stored value (owned by the store) or null.
const char* conf_get_r(const char* name, conf_data* store);
// Sorts the entries by key when not sorted yet.
int conf_finalize_r(conf_data* store);
// Frees every key and value, the array and the store record itself (from
// malloc); a null store is allowed.
void conf_free_r(conf_data* store);
// Parses the file at `path` into the store; 0 on success, -1 on failure.
int conf_read_file_r(const char* path, conf_data* store);
