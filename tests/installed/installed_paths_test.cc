// The installed build (empty ROOT_PREFIX) uses exactly the panel's and the mail system's paths.
#include <gtest/gtest.h>

#include "autoresponder/run_files.h"
#include "lib/autoprepend.h"
#include "lib/paths.h"

TEST(InstalledPaths, AreThePanelAndMailSystemPaths) {
  namespace p = orvik::paths;
  EXPECT_STREQ(p::kRootPrefix, "");
  EXPECT_STREQ(p::kPanelConfigFile, "/etc/ovk/ovk.conf");
  EXPECT_STREQ(p::kPasswordFile, "/etc/ovk/.ovk.shadow");
  EXPECT_STREQ(p::kSendmail, "/usr/sbin/sendmail");
  EXPECT_STREQ(p::kQmailDir, "/var/qmail");
  EXPECT_STREQ(p::kDatabytesFile, "/var/qmail/control/databytes");
  EXPECT_STREQ(p::kMailnamesDefault, "/var/qmail/mailnames");
  EXPECT_STREQ(p::kMailTemplate, "/tmp/ovk-autoresponder-XXXXXX");
  EXPECT_STREQ(p::kResponseTemplate, "/tmp/ovk-response-uu-XXXXXX");
  EXPECT_STREQ(p::kBodyTemplate, "/tmp/ovk-autoresponder-body-XXXXXX");
  EXPECT_EQ(kMailFileNameSize, 30u);
  EXPECT_EQ(kRespUuFileNameSize, 28u);
  // The panel configuration's defaults: paths as the panel installs them.
  EXPECT_STREQ(theOvkConfDefauls[_ORVIK_MAILNAMES_D_INDEX], "/var/qmail/mailnames");
  EXPECT_STREQ(theOvkConfDefauls[_COURIER_IMAP_ROOT_D_INDEX], "/");
  EXPECT_STREQ(theOvkConfDefauls[_CGI_PHP_BIN_INDEX], "dynamic");
  EXPECT_STREQ(theOvkConfDefauls[_NAMED_ZONES_CONF_INDEX], "/etc/named.conf.include.orvik-zones");
}
