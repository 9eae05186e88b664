// The external paths of a relocated build all lie under ROOT_PREFIX, and the
// temporary-file name buffers hold exactly their templates.
#include "lib/paths.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

TEST(Paths, EveryPathLiesUnderTheRootPrefix) {
  const std::string root = orvik::paths::kRootPrefix;
  ASSERT_FALSE(root.empty()) << "tests run only in a relocated build";
  EXPECT_EQ(orvik::paths::kPanelConfigFile, root + "/etc/ovk/ovk.conf");
  EXPECT_EQ(orvik::paths::kPasswordFile, root + "/etc/ovk/.ovk.shadow");
  EXPECT_EQ(orvik::paths::kSendmail, root + "/usr/sbin/sendmail");
  EXPECT_EQ(orvik::paths::kQmailDir, root + "/var/qmail");
  EXPECT_EQ(orvik::paths::kDatabytesFile, root + "/var/qmail/control/databytes");
  EXPECT_EQ(orvik::paths::kMailnamesDefault, root + "/var/qmail/mailnames");
  EXPECT_EQ(orvik::paths::kMailTemplate, root + "/tmp/ovk-autoresponder-XXXXXX");
  EXPECT_EQ(orvik::paths::kResponseTemplate, root + "/tmp/ovk-response-uu-XXXXXX");
  EXPECT_STREQ(orvik::paths::kDevNull, "/dev/null");
}

TEST(Paths, NameBuffersStartAsTheirTemplatesAndFitThemExactly) {
  EXPECT_STREQ(mail_file_name, orvik::paths::kMailTemplate);
  EXPECT_STREQ(resp_uu_file_name, orvik::paths::kResponseTemplate);
  EXPECT_EQ(kMailFileNameSize, std::strlen(orvik::paths::kMailTemplate) + 1);
  EXPECT_EQ(kRespUuFileNameSize, std::strlen(orvik::paths::kResponseTemplate) + 1);
  EXPECT_TRUE(starts_with(mail_file_name, orvik::paths::kRootPrefix));
}

}  // namespace
