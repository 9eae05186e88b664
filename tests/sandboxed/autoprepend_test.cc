// The panel configuration: the configured mailbox root or its default, a missing file retried.
// The loaded configuration is process-wide, so each scenario runs in a child process that exits
// with the number of its first failed check; the sandbox's panel file is put back afterwards.
#include "lib/autoprepend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>

#include "lib/paths.h"

using orvik::paths::kMailnamesDefault;
const char* const kFile = orvik::paths::kPanelConfigFile;

const auto Write = [](const char* text) { return bool(std::ofstream(kFile) << text); };
const auto Root = [](const std::string& want) {
  return want == ovkConfGetDefaultByIndex(_ORVIK_MAILNAMES_D_INDEX);
};
[[noreturn]] void Exit(std::initializer_list<bool> checks) {
  const auto failed = std::find(checks.begin(), checks.end(), false);
  std::exit(failed == checks.end() ? 0 : int(failed - checks.begin()) + 1);
}
#define IN_CHILD(...) EXPECT_EXIT(Exit({__VA_ARGS__}), testing::ExitedWithCode(0), "")

TEST(PanelConfig, MailboxRootConfiguredOrDefaultMissingFileRetried) {
  std::filesystem::create_directories(std::filesystem::path(kFile).parent_path());
  std::stringstream saved;
  const bool existed = bool(std::ifstream(kFile) >> saved.rdbuf());

  Write("# panel\nORVIK_MAILNAMES_D /home/mail\nHTTPD_SERVICE\n");  // loaded once
  IN_CHILD(autoprepend() == 0, Root("/home/mail"), Write("ORVIK_MAILNAMES_D /x\n"),
           autoprepend() == 0, Root("/home/mail"));
  Write("HTTPD_SERVICE httpd\n");
  IN_CHILD(autoprepend() == 0, Root(kMailnamesDefault),
           ovkConfGetByIndex(_ORVIK_MAILNAMES_D_INDEX) == nullptr);
  std::filesystem::remove(kFile);
  IN_CHILD(autoprepend() == -1, Root(kMailnamesDefault), Write("ORVIK_MAILNAMES_D /home/mail\n"),
           Root("/home/mail"));

  std::filesystem::remove(kFile);
  if (existed) Write(saved.str().c_str());
}
