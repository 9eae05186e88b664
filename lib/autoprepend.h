// The panel configuration: the process-wide store loaded once from the panel
// configuration file, and lookups by name or by number with compile-time
// defaults. Returned strings live for the whole process; never free them.
#pragma once

#include "lib/read_configuration.h"

enum OvkConfVarIndexT {
  _MIN_POSSIBLE_OVK_CONF_VAR_INDEX = 0,
  _ORVIK_MAILNAMES_D_INDEX,
  _COURIER_IMAP_ROOT_D_INDEX,
  _RBLSMTPD_INDEX,
  _CGI_PHP_BIN_INDEX,
  _CLIENT_PHP_BIN_INDEX,
  _LIB_CRYPTO_PATH_INDEX,
  _LIB_SSL_PATH_INDEX,
  _AWSTATS_DOC_D_INDEX,
  _AWSTATS_TOOLS_D_INDEX,
  _AWSTATS_BIN_D_INDEX,
  _AWSTATS_ETC_D_INDEX,
  _CATALINA_HOME_INDEX,
  _MAILMAN_VAR_D_INDEX,
  _MAILMAN_ROOT_D_INDEX,
  _PGSQL_DATA_D_INDEX,
  _PGSQL_BIN_D_INDEX,
  _MYSQL_BIN_D_INDEX,
  _MYSQL_VAR_D_INDEX,
  _LOGROTATE_INDEX,
  _WEB_STAT_INDEX,
  _DUMP_D_INDEX,
  _DUMP_TMP_D_INDEX,
  _NAMED_RUN_ROOT_D_INDEX,
  _FTPD_CONF_INC_INDEX,
  _HTTPD_SERVICE_INDEX,
  _HTTPD_LOG_D_INDEX,
  _HTTPD_INCLUDE_D_INDEX,
  _HTTPD_CONF_D_INDEX,
  _HTTPD_VHOSTS_D_INDEX,
  _PRODUCT_ROOT_D_INDEX,
  _NAMED_OPTIONS_CONF_INDEX,
  _NAMED_ZONES_CONF_INDEX,
  _MAX_POSSIBLE_OVK_CONF_VAR_INDEX,
};

inline constexpr int kOvkConfVarCount = _MAX_POSSIBLE_OVK_CONF_VAR_INDEX + 1;  // 34

extern conf_data* theOvkConfHash;                      // null until a load succeeds
extern const char* theOvkConfArray[kOvkConfVarCount];  // values cached by index
extern const char* const theOvkConfNames[kOvkConfVarCount];
extern const char* const theOvkConfDefauls[kOvkConfVarCount];

// Loads the panel configuration file once: 0 when loaded (now or before),
// -1 when it could not be (tried again by the next lookup that needs it).
int autoprepend();
const char* ovkConfGet(const char* name);
const char* ovkConfGetByIndex(OvkConfVarIndexT index);
// The configured value or the compile-time default; never null for 1..32.
const char* ovkConfGetDefaultByIndex(OvkConfVarIndexT index);
