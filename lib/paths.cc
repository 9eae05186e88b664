// The one place where the program's external paths are spelled out.
// ROOT_PREFIX comes from the build (see lib/CMakeLists.txt); it is a string
// literal pasted in front of each path, so the paths are compile-time
// constants and no run-time input can change them.
#include "lib/paths.h"

#include "lib/autoprepend.h"

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

// The panel configuration's compile-time defaults (lib/autoprepend.h), by
// index of OvkConfVarIndexT: paths of the panel, relocated like the others,
// and a few words. The program itself uses only the mailbox root.
const char* const theOvkConfDefauls[kOvkConfVarCount] = {
    "_MIN_POSSIBLE_OVK_CONF_VAR_VALUE",
    orvik::paths::kMailnamesDefault,
    ROOT_PREFIX "/",
    ROOT_PREFIX "/usr/sbin/rblsmtpd",
    "dynamic",
    ROOT_PREFIX "/usr/local/ovk/bin/php-cli",
    ROOT_PREFIX "/lib/libcrypto.so",
    ROOT_PREFIX "/lib/libssl.so",
    ROOT_PREFIX "/usr/share/apache2/icons/awstats",
    ROOT_PREFIX "/usr/share/awstats",
    ROOT_PREFIX "/srv/www/cgi-bin/awstats",
    ROOT_PREFIX "/etc/awstats",
    ROOT_PREFIX "/usr/share/tomcat5",
    ROOT_PREFIX "/var/lib/mailman",
    ROOT_PREFIX "/usr/lib/mailman",
    ROOT_PREFIX "/var/lib/pgsql/data",
    ROOT_PREFIX "/usr/bin",
    ROOT_PREFIX "/usr/bin",
    ROOT_PREFIX "/var/lib/mysql",
    ROOT_PREFIX "/usr/local/ovk/logrotate/sbin/logrotate",
    ROOT_PREFIX "/usr/bin/webalizer",
    ROOT_PREFIX "/var/lib/ovk/dumps",
    ROOT_PREFIX "/tmp",
    ROOT_PREFIX "/var/lib/named",
    ROOT_PREFIX "/etc/proftpd.include",
    "apache2",
    ROOT_PREFIX "/var/log/apache2",
    ROOT_PREFIX "/etc/apache2/conf.d",
    ROOT_PREFIX "/etc/apache2",
    ROOT_PREFIX "/srv/www/vhosts",
    ROOT_PREFIX "/usr/local/ovk",
    ROOT_PREFIX "/etc/named.conf.include.orvik-options",
    ROOT_PREFIX "/etc/named.conf.include.orvik-zones",
    "_MAX_POSSIBLE_OVK_CONF_VAR_VALUE",
};
