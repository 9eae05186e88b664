// The panel configuration: one process-wide store loaded from the panel
// configuration file on first need, a cache of values found by index, and
// compile-time defaults for every numbered variable.
//
// The store and the cached pointers live until the process ends and are
// never freed. A missing or unreadable file is not fatal: lookups then give
// null (by name) or the default (ovkConfGetDefaultByIndex), and the next
// lookup tries to load the file again. Single-threaded.
#include "lib/autoprepend.h"

#include <cstdlib>

#include "lib/paths.h"
#include "lib/put.h"

conf_data* theOvkConfHash = nullptr;
const char* theOvkConfArray[kOvkConfVarCount];

namespace {
bool arrayInitialized = false;
}  // namespace

const char* const theOvkConfNames[kOvkConfVarCount] = {
    "_MIN_POSSIBLE_OVK_CONF_VAR_NAME",
    "ORVIK_MAILNAMES_D",
    "COURIER_IMAP_ROOT_D",
    "RBLSMTPD",
    "CGI_PHP_BIN",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "CATALINA_HOME",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "LOGROTATE",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "FTPD_CONF_INC",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "PRODUCT_ROOT_D",
    "NAMED_OPTIONS_CONF",
    "NAMED_ZONES_CONF",
    "_MAX_POSSIBLE_OVK_CONF_VAR_NAME",
};

int autoprepend() {
  if (theOvkConfHash != nullptr) return 0;
  if (!arrayInitialized) {
    for (const char*& slot : theOvkConfArray) slot = nullptr;
    arrayInitialized = true;
  }

  auto* store = static_cast<conf_data*>(std::calloc(1, sizeof(conf_data)));
  if (store == nullptr) {
    messlog2(0, 0, "Not enough memory to allocate Orvik runtime configuration structure\n");
    return -1;
  }
  if (conf_read_file_r(orvik::paths::kPanelConfigFile, store) != 0) {
    conf_free_r(store);
    return -1;
  }
  theOvkConfHash = store;
  return 0;
}

const char* ovkConfGet(const char* name) {
  if (theOvkConfHash == nullptr && autoprepend() != 0) return nullptr;
  return conf_get_r(name, theOvkConfHash);
}

const char* ovkConfGetByIndex(OvkConfVarIndexT index) {
  if (theOvkConfArray[index] != nullptr) return theOvkConfArray[index];
  const char* value = ovkConfGet(theOvkConfNames[index]);
  if (value != nullptr) theOvkConfArray[index] = value;
  return value;
}

const char* ovkConfGetDefaultByIndex(OvkConfVarIndexT index) {
  const char* value = ovkConfGetByIndex(index);
  return value != nullptr ? value : theOvkConfDefauls[index];
}
