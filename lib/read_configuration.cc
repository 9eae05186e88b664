// A small key-value store and the reader of "NAME value" configuration files.
//
// The store owns copies of every key and value (malloc). Entries are kept in
// one array that grows 20 -> double; once finalized (sorted by key) lookups
// use binary search. Failures return -1 with errno set (ENOMEM for memory);
// messages go through the levelled logger at level 12, which the default
// threshold hides. Lines that do not parse are skipped, not fatal.
#include "lib/read_configuration.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/ascii.h"
#include "lib/c_owners.h"
#include "lib/product_log.h"

namespace {

constexpr std::size_t kInitialEntries = 20;
constexpr std::size_t kGrowthStep = 20;
// Capacity at which the store refuses to grow.
constexpr std::size_t kMaxEntries = 536870911;
constexpr int kConfLogLevel = 12;

bool is_name_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

int cmp_conf(const void* left, const void* right) {
  return std::strcmp(static_cast<const conf_entry*>(left)->key,
                     static_cast<const conf_entry*>(right)->key);
}

int fail_to_grow() {
  orvik_log(kConfLogLevel, "Unable to read configuration: %s", std::strerror(ENOMEM));
  errno = ENOMEM;
  return -1;
}

// One line of the file; malformed lines are logged and skipped (0), only a
// failure to store is an error (-1).
int parse_line(char* line, conf_data* store) {
  char* cursor = line;
  while (IsSpace(*cursor)) ++cursor;
  if (*cursor == '\0' || *cursor == '#') return 0;

  char* const name = cursor;
  while (is_name_char(*cursor)) ++cursor;
  char* const name_end = cursor;
  if (!IsSpace(*cursor)) {
    orvik_log(kConfLogLevel,
              "Invalid variable definition %s\nExpected a space after variable name\n", name);
    return 0;
  }
  while (IsSpace(*cursor)) ++cursor;
  if (*cursor == '\0' || *cursor == '#') {
    orvik_log(kConfLogLevel, "Invalid variable definition %s\nExpected a value", name);
    return 0;
  }

  char* const value = cursor;
  char* value_end = std::strchr(value, '#');
  if (value_end == nullptr) value_end = value + std::strlen(value);
  while (value_end > value && IsSpace(value_end[-1])) --value_end;
  *value_end = '\0';
  *name_end = '\0';
  return conf_set_r(name, value, store);
}

}  // namespace

int conf_init_r(conf_data* store) {
  if (store == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (store->data == nullptr) {
    store->data = static_cast<conf_entry*>(std::calloc(kInitialEntries, sizeof(conf_entry)));
    if (store->data == nullptr) {
      errno = ENOMEM;
      return -1;
    }
    store->size = kInitialEntries;
    store->nmemb = 0;
    store->finalized = 1;
    return 0;
  }
  if (store->nmemb < store->size) return 0;

  std::size_t capacity = store->size * 2;
  if (capacity <= store->nmemb || capacity / 2 != store->size)
    capacity = store->nmemb + kGrowthStep;
  if (capacity >= kMaxEntries) return fail_to_grow();
  auto* grown = static_cast<conf_entry*>(std::realloc(store->data, capacity * sizeof(conf_entry)));
  if (grown == nullptr) return fail_to_grow();
  std::memset(grown + store->size, 0, (capacity - store->size) * sizeof(conf_entry));
  store->data = grown;
  store->size = capacity;
  return 0;
}

int conf_set_r(const char* name, const char* value, conf_data* store) {
  if (conf_init_r(store) != 0) return -1;
  MallocChars key_copy(strdup(name));
  MallocChars value_copy(strdup(value));
  if (!key_copy || !value_copy) {
    orvik_log(kConfLogLevel, "Unable to form configuration: %s", std::strerror(ENOMEM));
    errno = ENOMEM;
    return -1;
  }
  for (std::size_t i = 0; i < store->nmemb; ++i) {
    conf_entry& entry = store->data[i];
    if (std::strcmp(entry.key, key_copy.get()) == 0) {
      std::free(entry.value);
      entry.value = value_copy.release();
      return 0;
    }
  }
  store->data[store->nmemb++] = conf_entry{key_copy.release(), value_copy.release()};
  store->finalized = 0;
  return 0;
}

const char* conf_get_r(const char* name, conf_data* store) {
  if (name == nullptr || store == nullptr || store->data == nullptr) return nullptr;
  // The search key only borrows the name; cmp_conf never writes through it.
  const conf_entry wanted{const_cast<char*>(name), nullptr};
  if (store->finalized) {
    const void* found =
        std::bsearch(&wanted, store->data, store->nmemb, sizeof(conf_entry), cmp_conf);
    return found != nullptr ? static_cast<const conf_entry*>(found)->value : nullptr;
  }
  for (std::size_t i = 0; i < store->nmemb; ++i) {
    if (cmp_conf(&wanted, &store->data[i]) == 0) return store->data[i].value;
  }
  return nullptr;
}

int conf_finalize_r(conf_data* store) {
  if (store == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (!store->finalized && store->data != nullptr) {
    std::qsort(store->data, store->nmemb, sizeof(conf_entry), cmp_conf);
  }
  store->finalized = 1;
  return 0;
}

void conf_free_r(conf_data* store) {
  if (store == nullptr) return;
  for (std::size_t i = 0; i < store->nmemb; ++i) {
    std::free(store->data[i].key);
    std::free(store->data[i].value);
  }
  std::free(store->data);
  std::free(store);
}

int conf_read_file_r(const char* path, conf_data* store) {
  if (conf_init_r(store) != 0) return -1;

  int result = 0;
  int saved_errno = 0;
  {
    const UniqueFile file(std::fopen(path, "r"));
    if (!file) {
      saved_errno = errno;
      orvik_log(kConfLogLevel, "unable to open configuration file %s: %s\n", path,
                std::strerror(saved_errno));
      errno = saved_errno;
      return -1;
    }
    // One buffer for every line, grown by getline.
    struct Line_buffer {
      char* text = nullptr;
      std::size_t capacity = 0;
      ~Line_buffer() { std::free(text); }
    } line;
    while (getline(&line.text, &line.capacity, file.get()) != -1) {
      if (parse_line(line.text, store) != 0) {
        saved_errno = errno;
        result = -1;
        break;
      }
    }
    if (result == 0) {
      saved_errno = errno;
      // getline also stops on a failed allocation, which leaves the file short of its end.
      const bool complete = std::feof(file.get()) && !std::ferror(file.get());
      conf_finalize_r(store);
      if (!complete) {
        orvik_log(kConfLogLevel, "Unable to read configuration file: %s",
                  std::strerror(saved_errno));
        result = -1;
      }
    }
  }
  // After the stream and the line buffer are released, which may touch errno.
  errno = saved_errno;
  return result;
}
