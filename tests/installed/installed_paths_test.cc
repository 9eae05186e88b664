// The installed build (ROOT_PREFIX empty) uses exactly the mail system's and
// the panel's own paths. This test compiles the paths source a second time
// with an empty prefix; it reads nothing on the machine.
#include <gtest/gtest.h>

#include <cstring>

#include "lib/paths.h"

TEST(InstalledPaths, AreExactlyThePanelAndMailSystemPaths) {
  EXPECT_STREQ(orvik::paths::kRootPrefix, "");
  EXPECT_STREQ(orvik::paths::kPanelConfigFile, "/etc/ovk/ovk.conf");
  EXPECT_STREQ(orvik::paths::kPasswordFile, "/etc/ovk/.ovk.shadow");
  EXPECT_STREQ(orvik::paths::kSendmail, "/usr/sbin/sendmail");
  EXPECT_STREQ(orvik::paths::kQmailDir, "/var/qmail");
  EXPECT_STREQ(orvik::paths::kDatabytesFile, "/var/qmail/control/databytes");
  EXPECT_STREQ(orvik::paths::kMailnamesDefault, "/var/qmail/mailnames");
  EXPECT_STREQ(orvik::paths::kMailTemplate, "/tmp/ovk-autoresponder-XXXXXX");
  EXPECT_STREQ(orvik::paths::kResponseTemplate, "/tmp/ovk-response-uu-XXXXXX");
  EXPECT_STREQ(orvik::paths::kDevNull, "/dev/null");
  EXPECT_EQ(kMailFileNameSize, 30u);
  EXPECT_EQ(kRespUuFileNameSize, 28u);
}
