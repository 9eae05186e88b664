// The installed build (empty ROOT_PREFIX) uses exactly the panel's and the mail system's paths.
#include <gtest/gtest.h>

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
  EXPECT_EQ(kMailFileNameSize, 30u);
  EXPECT_EQ(kRespUuFileNameSize, 28u);
}
