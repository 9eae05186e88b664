// The run's pieces that can be checked in-process: the loop guards, the
// clean-up and the removal of the client library's variables on a
// privileged start.
#include "autoresponder/run.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "autoresponder/mail_content.h"
#include "autoresponder/secure_environment.h"
#include "lib/paths.h"

namespace {

template <typename Case>
std::string case_name(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

// --- Loop guards -----------------------------------------------------------

struct Guard_case {
  const char* name;
  std::string from;
  std::string to;
  const char* refusal;  // null: the message may be answered
};

// Test names and failure messages show the case name, not its bytes.
void PrintTo(const Guard_case& value, std::ostream* out) {
  *out << value.name;
}

class LoopGuardTest : public testing::TestWithParam<Guard_case> {};

TEST_P(LoopGuardTest, RefusesLoopsOnly) {
  Mail_content mail;
  mail.from = GetParam().from;
  mail.to = GetParam().to;
  const char* refusal = loop_guard_refusal(mail);
  if (GetParam().refusal == nullptr) {
    EXPECT_EQ(refusal, nullptr) << refusal;
  } else {
    ASSERT_NE(refusal, nullptr);
    EXPECT_STREQ(refusal, GetParam().refusal);
  }
}

const char kSame[] = "Field From: equial field To:";
const char kDaemon[] = "Field From: contains MAILER-DAEMON";

INSTANTIATE_TEST_SUITE_P(
    Guards, LoopGuardTest,
    testing::Values(
        Guard_case{"Ordinary", "anna@example.org", "info@example.com", nullptr},
        Guard_case{"SenderIsRecipient", "info@example.com", "info@example.com", kSame},
        Guard_case{"CaseDiffers", "Info@example.com", "info@example.com", nullptr},
        Guard_case{"TrailingBlankDiffers", "info@example.com ", "info@example.com", nullptr},
        Guard_case{"BothEmpty", "", "", kSame},
        Guard_case{"UpperDaemon", "MAILER-DAEMON@mx.example.net", "info@example.com", kDaemon},
        Guard_case{"LowerDaemon", "mailer-daemon@mx.example.net", "info@example.com", kDaemon},
        Guard_case{"DrWebDaemon", "DrWEB-DAEMON@av.example.net", "info@example.com", kDaemon},
        Guard_case{"DaemonInDomain", "bounce@MAILER-DAEMON.example.net", "info@example.com",
                   kDaemon},
        Guard_case{"DaemonInsideLocalPart", "xmailer-daemonx@example.net", "info@example.com",
                   kDaemon},
        Guard_case{"MixedCaseDaemonPasses", "Mailer-Daemon@mx.example.net", "info@example.com",
                   nullptr},
        Guard_case{"DrWebOtherCasePasses", "drweb-daemon@av.example.net", "info@example.com",
                   nullptr},
        Guard_case{"DaemonOnlyInRecipientPasses", "anna@example.org", "MAILER-DAEMON@example.com",
                   nullptr}),
    case_name<Guard_case>);

// --- Clean-up ------------------------------------------------------------------

class CorrectExitTest : public testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "fast");
    std::filesystem::create_directories(std::string(orvik::paths::kRootPrefix) + "/tmp");
  }
  void TearDown() override {
    std::strcpy(mail_file_name, orvik::paths::kMailTemplate);
    std::strcpy(resp_uu_file_name, orvik::paths::kResponseTemplate);
  }
};

TEST_F(CorrectExitTest, RemovesBothFilesAndExitsZero) {
  const int message = mkstemp(mail_file_name);
  const int response = mkstemp(resp_uu_file_name);
  ASSERT_GE(message, 0);
  ASSERT_GE(response, 0);
  close(message);
  close(response);
  EXPECT_EXIT(correct_exit(), testing::ExitedWithCode(0), "");
  EXPECT_FALSE(std::filesystem::exists(mail_file_name));
  EXPECT_FALSE(std::filesystem::exists(resp_uu_file_name));
}

TEST_F(CorrectExitTest, TemplatesNeverCreatedAreIgnored) {
  EXPECT_EXIT(correct_exit(), testing::ExitedWithCode(0), "");
}

// --- Privileged start ----------------------------------------------------------

class SecureEnvironmentTest : public testing::Test {
 protected:
  static constexpr const char* kWatched[] = {"MYSQL_UNIX_PORT",    "MARIADB_UNIX_PORT",
                                             "MYSQL_HOST",         "MYSQL_TCP_PORT",
                                             "MYSQL_PWD",          "LIBMYSQL_PLUGINS",
                                             "MARIADB_PLUGIN_DIR", "MYSQL_HOME",
                                             "MARIADB_HOME",       "HOME",
                                             "RESP_RECIPIENT",     "PATH"};

  void SetUp() override {
    for (const char* name : kWatched) {
      const char* value = std::getenv(name);
      saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
      setenv(name, "/somewhere/else", 1);
    }
  }
  void TearDown() override {
    for (const auto& [name, value] : saved_) {
      if (value) {
        setenv(name, value->c_str(), 1);
      } else {
        unsetenv(name);
      }
    }
  }

 private:
  std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};

TEST_F(SecureEnvironmentTest, PrivilegedStartDropsClientVariablesOnly) {
  drop_privileged_environment(true);
  for (const char* name :
       {"MYSQL_UNIX_PORT", "MARIADB_UNIX_PORT", "MYSQL_HOST", "MYSQL_TCP_PORT", "MYSQL_PWD",
        "LIBMYSQL_PLUGINS", "MARIADB_PLUGIN_DIR", "MYSQL_HOME", "MARIADB_HOME", "HOME"}) {
    EXPECT_EQ(std::getenv(name), nullptr) << name;
  }
  EXPECT_STREQ(std::getenv("RESP_RECIPIENT"), "/somewhere/else");
  EXPECT_STREQ(std::getenv("PATH"), "/somewhere/else");
}

TEST_F(SecureEnvironmentTest, OrdinaryStartKeepsEverything) {
  drop_privileged_environment(false);
  for (const char* name : kWatched) EXPECT_STREQ(std::getenv(name), "/somewhere/else") << name;
}

}  // namespace
