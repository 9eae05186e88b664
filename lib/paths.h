// External paths of the program.
//
// Every absolute path the program touches is defined once, in paths.cc, and
// relocated at build time by the CMake cache variable ROOT_PREFIX (empty for
// the installed program). Nothing relocates them at run time: the program
// runs with superuser rights, so no environment variable or option may point
// it at other files.
#pragma once

#include <cstddef>

namespace orvik::paths {

extern const char kRootPrefix[];        // the build's ROOT_PREFIX, "" when installed
extern const char kPanelConfigFile[];   // panel configuration: /etc/ovk/ovk.conf
extern const char kPasswordFile[];      // database password: /etc/ovk/.ovk.shadow
extern const char kSendmail[];          // the mail system's sendmail: /usr/sbin/sendmail
extern const char kQmailDir[];          // /var/qmail
extern const char kDatabytesFile[];     // size limit: /var/qmail/control/databytes
extern const char kMailnamesDefault[];  // default mailbox root: /var/qmail/mailnames
extern const char kMailTemplate[];      // /tmp/ovk-autoresponder-XXXXXX
extern const char kResponseTemplate[];  // /tmp/ovk-response-uu-XXXXXX
extern const char kBodyTemplate[];      // /tmp/ovk-autoresponder-body-XXXXXX, removed once open
extern const char kDevNull[];           // /dev/null, never relocated

}  // namespace orvik::paths

#ifdef ROOT_PREFIX
// Two templates as literals, for a program that keeps a writable copy of one
// (mkstemp completes it in place) in a buffer of exactly its size. Only
// sources compiled with the build's ROOT_PREFIX, as paths.cc is, see them.
#define OVK_MAIL_TEMPLATE ROOT_PREFIX "/tmp/ovk-autoresponder-XXXXXX"
#define OVK_RESPONSE_TEMPLATE ROOT_PREFIX "/tmp/ovk-response-uu-XXXXXX"
#endif
