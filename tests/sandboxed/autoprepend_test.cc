// The panel configuration: the configured mailbox root or its default, a
// missing file, loading once, and the compile-time defaults.
//
// The loaded configuration is process-wide and permanent, so every scenario
// runs in a child process of its own (a death test that must exit 0) and
// starts with nothing loaded. The panel file of the sandbox is written per
// test and put back as it was afterwards.
#include "lib/autoprepend.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>

#include "lib/paths.h"

namespace {

namespace fs = std::filesystem;

// Collects the failed checks of a scenario run in a child process; the child
// prints them and exits non-zero, which the parent's EXPECT_EXIT shows.
class Checks {
 public:
  void equal(const char* actual, const std::string& expected, const char* what) {
    if (actual == nullptr || expected != actual) {
      failures_ << what << ": got " << (actual ? "\"" + std::string(actual) + "\"" : "null")
                << ", want \"" << expected << "\"\n";
    }
  }
  void is_true(bool condition, const char* what) {
    if (!condition) failures_ << what << "\n";
  }
  [[noreturn]] void finish() {
    std::cerr << failures_.str() << std::flush;
    std::exit(failures_.str().empty() ? 0 : 1);
  }

 private:
  std::ostringstream failures_;
};

#define RUN_SCENARIO(body) EXPECT_EXIT(body, ::testing::ExitedWithCode(0), "^$")

class PanelConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(fs::path(path_).parent_path());
    if (fs::exists(path_)) {
      std::ifstream in(path_, std::ios::binary);
      std::ostringstream content;
      content << in.rdbuf();
      saved_ = content.str();
    }
    fs::remove(path_);
  }
  void TearDown() override {
    fs::remove(path_);
    if (saved_) write_panel_file(*saved_);
  }
  static void write_panel_file(const std::string& content) {
    std::ofstream(path_, std::ios::binary) << content;
  }

  static constexpr const char* path_ = orvik::paths::kPanelConfigFile;
  std::optional<std::string> saved_;
};

TEST_F(PanelConfigTest, ConfiguredMailboxRootIsUsed) {
  write_panel_file("# panel layout\nORVIK_MAILNAMES_D /home/mail\n");
  RUN_SCENARIO({
    Checks check;
    check.is_true(autoprepend() == 0, "autoprepend succeeds");
    check.is_true(theOvkConfHash != nullptr, "store kept");
    check.equal(ovkConfGetDefaultByIndex(_ORVIK_MAILNAMES_D_INDEX), "/home/mail", "index 1");
    check.equal(theOvkConfArray[_ORVIK_MAILNAMES_D_INDEX], "/home/mail", "cached value");
    check.equal(ovkConfGet("ORVIK_MAILNAMES_D"), "/home/mail", "by name");
    check.is_true(ovkConfGet("orvik_mailnames_d") == nullptr, "names are case-sensitive");
    check.finish();
  });
}

TEST_F(PanelConfigTest, DefaultWithoutTheVariable) {
  write_panel_file("HTTPD_SERVICE httpd\nORVIK_MAILNAMES_D\n");  // the second line is malformed
  RUN_SCENARIO({
    Checks check;
    check.is_true(autoprepend() == 0, "malformed lines do not fail the load");
    check.equal(ovkConfGetDefaultByIndex(_ORVIK_MAILNAMES_D_INDEX), orvik::paths::kMailnamesDefault,
                "index 1");
    check.is_true(ovkConfGetByIndex(_ORVIK_MAILNAMES_D_INDEX) == nullptr, "no value by index");
    check.is_true(theOvkConfArray[_ORVIK_MAILNAMES_D_INDEX] == nullptr, "absent is not cached");
    check.equal(ovkConfGetDefaultByIndex(_HTTPD_SERVICE_INDEX), "httpd", "configured index 25");
    check.equal(ovkConfGetDefaultByIndex(_HTTPD_VHOSTS_D_INDEX), "/srv/www/vhosts",
                "default index 29");
    check.finish();
  });
}

TEST_F(PanelConfigTest, MissingFileGivesDefaultsAndIsRetried) {
  RUN_SCENARIO({
    Checks check;
    check.is_true(autoprepend() == -1, "autoprepend fails");
    check.is_true(theOvkConfHash == nullptr, "nothing stored");
    check.is_true(ovkConfGetByIndex(_ORVIK_MAILNAMES_D_INDEX) == nullptr, "no value by index");
    check.equal(ovkConfGetDefaultByIndex(_ORVIK_MAILNAMES_D_INDEX), orvik::paths::kMailnamesDefault,
                "default index 1");
    write_panel_file("ORVIK_MAILNAMES_D /home/mail\n");
    check.equal(ovkConfGetDefaultByIndex(_ORVIK_MAILNAMES_D_INDEX), "/home/mail",
                "the next lookup loads the file");
    check.finish();
  });
}

TEST_F(PanelConfigTest, LoadedOnceAndLookupsLoadOnDemand) {
  write_panel_file("ORVIK_MAILNAMES_D /home/mail\nDUMP_D /first\n");
  RUN_SCENARIO({
    Checks check;
    // No autoprepend call: the first lookup loads the file.
    check.equal(ovkConfGet("DUMP_D"), "/first", "loaded by a lookup");
    conf_data* const loaded = theOvkConfHash;
    write_panel_file("ORVIK_MAILNAMES_D /elsewhere\nDUMP_D /second\n");
    check.is_true(autoprepend() == 0, "already loaded");
    check.is_true(theOvkConfHash == loaded, "same store");
    check.equal(ovkConfGetDefaultByIndex(_ORVIK_MAILNAMES_D_INDEX), "/home/mail",
                "changes to the file are not seen");
    check.equal(ovkConfGetDefaultByIndex(_DUMP_D_INDEX), "/first", "by index");
    check.finish();
  });
}

TEST(PanelConfigDefaults, EveryVariableHasNameAndDefault) {
  for (int index = _MIN_POSSIBLE_OVK_CONF_VAR_INDEX; index <= _MAX_POSSIBLE_OVK_CONF_VAR_INDEX;
       ++index) {
    ASSERT_NE(theOvkConfNames[index], nullptr) << index;
    ASSERT_NE(theOvkConfDefauls[index], nullptr) << index;
  }
  EXPECT_EQ(kOvkConfVarCount, 34);
  EXPECT_STREQ(theOvkConfNames[_ORVIK_MAILNAMES_D_INDEX], "ORVIK_MAILNAMES_D");
  EXPECT_STREQ(theOvkConfNames[_NAMED_ZONES_CONF_INDEX], "NAMED_ZONES_CONF");
  EXPECT_STREQ(theOvkConfNames[_MAX_POSSIBLE_OVK_CONF_VAR_INDEX],
               "_MAX_POSSIBLE_OVK_CONF_VAR_NAME");
  EXPECT_STREQ(theOvkConfDefauls[_MIN_POSSIBLE_OVK_CONF_VAR_INDEX],
               "_MIN_POSSIBLE_OVK_CONF_VAR_VALUE");
  EXPECT_STREQ(theOvkConfDefauls[_COURIER_IMAP_ROOT_D_INDEX], "/");
  EXPECT_STREQ(theOvkConfDefauls[_LOGROTATE_INDEX], "/usr/local/ovk/logrotate/sbin/logrotate");
  EXPECT_STREQ(theOvkConfDefauls[_NAMED_OPTIONS_CONF_INDEX],
               "/etc/named.conf.include.orvik-options");
}

TEST(PanelConfigDefaults, MailboxRootFollowsTheBuild) {
  const std::string root = theOvkConfDefauls[_ORVIK_MAILNAMES_D_INDEX];
  EXPECT_EQ(root, std::string(orvik::paths::kRootPrefix) + "/var/qmail/mailnames");
}

}  // namespace
