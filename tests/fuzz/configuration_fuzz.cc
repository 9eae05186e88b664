// Fuzz target: the configuration file reader (conf_read_file_r) and the
// store's lookups (conf_get_r).
//
// The input is the file, read through /proc/self/fd from an anonymous file.
// Messages about malformed lines are still formatted (into a local buffer)
// so that their arguments are exercised, but not written. Checks: a read
// file leaves the store sorted with unique keys, every key is found with its
// own value, and names that never occur are absent.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "lib/product_log.h"
#include "lib/read_configuration.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ovk_fuzz::check;

// Names the program and the panel look up, and a few edge cases.
constexpr const char* kNames[] = {"ORVIK_MAILNAMES_D", "MYSQL_HOST", "A", "", "_", "#"};

__attribute__((format(printf, 2, 3))) void formatting_log(int, const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
}

struct StoreDeleter {
  void operator()(conf_data* store) const { conf_free_r(store); }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvik_log = formatting_log;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ovk_fuzz::MemFile file(data, size);
  // conf_free_r releases the record too, so it comes from calloc.
  const std::unique_ptr<conf_data, StoreDeleter> store(
      static_cast<conf_data*>(std::calloc(1, sizeof(conf_data))));
  check(store != nullptr, "out of memory");

  const std::string_view file_text(reinterpret_cast<const char*>(data), size);
  const int result = conf_read_file_r(file.path().c_str(), store.get());
  check(result == 0, "reading an in-memory file failed");
  check(store->finalized == 1, "the store is not finalized after reading");
  check(store->nmemb <= store->size, "more entries than capacity");

  for (std::size_t i = 0; i < store->nmemb; ++i) {
    const conf_entry& entry = store->data[i];
    check(entry.key[0] != '\0' && entry.value[0] != '\0', "an empty key or value was stored");
    if (i + 1 < store->nmemb) {
      check(std::strcmp(entry.key, store->data[i + 1].key) < 0, "keys unsorted or repeated");
    }
    check(conf_get_r(entry.key, store.get()) == entry.value, "a key is not found with its value");
  }
  for (const char* name : kNames) {
    const char* value = conf_get_r(name, store.get());
    if (value != nullptr) check(std::strlen(value) > 0, "an empty value was found");
    if (name[0] == '\0' || file_text.find(name) == std::string_view::npos) {
      check(value == nullptr, "a name that never occurs was found");
    }
  }

  // The store keeps working after the read: a new name, then a replaced one.
  check(conf_set_r("FUZZ_NEW_NAME", "value", store.get()) == 0, "setting a name failed");
  check(std::strcmp(conf_get_r("FUZZ_NEW_NAME", store.get()), "value") == 0, "set name lost");
  check(conf_finalize_r(store.get()) == 0, "finalizing failed");
  check(std::strcmp(conf_get_r("FUZZ_NEW_NAME", store.get()), "value") == 0, "sorted name lost");
  return 0;
}
