// The one place where the program's external paths are spelled out.
// ROOT_PREFIX comes from the build (see lib/CMakeLists.txt); it is a string
// literal pasted in front of each path, so the paths are compile-time
// constants and no run-time input can change them.
#include "lib/paths.h"

#ifndef ROOT_PREFIX
#error "ROOT_PREFIX must be defined by the build"
#endif

namespace orvik::paths {

const char kRootPrefix[] = ROOT_PREFIX;
const char kPanelConfigFile[] = ROOT_PREFIX "/etc/ovk/ovk.conf";
const char kPasswordFile[] = ROOT_PREFIX "/etc/ovk/.ovk.shadow";
const char kSendmail[] = ROOT_PREFIX "/usr/sbin/sendmail";
const char kQmailDir[] = ROOT_PREFIX "/var/qmail";
const char kDatabytesFile[] = ROOT_PREFIX
    "/var/qmail"
    "/control/databytes";
const char kMailnamesDefault[] = ROOT_PREFIX "/var/qmail/mailnames";
const char kMailTemplate[] = OVK_MAIL_TEMPLATE;
const char kResponseTemplate[] = OVK_RESPONSE_TEMPLATE;
const char kBodyTemplate[] = ROOT_PREFIX "/tmp/ovk-autoresponder-body-XXXXXX";
const char kDevNull[] = "/dev/null";

}  // namespace orvik::paths
