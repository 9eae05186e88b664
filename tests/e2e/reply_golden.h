// Golden comparison of the mails the fake sendmail received: the command
// line and the input, byte for byte, against tests/data/replies/NAME.expected.
// The reply's boundary is random, so it is the one part matched by pattern.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "lib/paths.h"
#include "tests/harness/harness.h"

namespace reply_golden {

// The first "--------=_" followed by 29 letters, or "".
inline std::string boundary_of(const std::string& text) {
  constexpr std::string_view prefix = "--------=_";
  constexpr std::size_t letters = 29;
  for (std::size_t at = text.find(prefix); at != std::string::npos;
       at = text.find(prefix, at + 1)) {
    const std::size_t start = at + prefix.size();
    if (start + letters > text.size()) break;
    if (std::all_of(text.begin() + start, text.begin() + start + letters,
                    [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; })) {
      return text.substr(at, prefix.size() + letters);
    }
  }
  return "";
}

inline std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// One "arg: " line per argument, the sandbox's sendmail path written as
// SENDMAIL, then "stdin:" and the input as received. The first boundary found
// becomes BOUNDARY wherever it occurs, so a reply that mixed two boundaries
// still shows the second one and fails.
inline std::string render(const e2e::SendmailCall& call) {
  std::string text;
  for (const std::string& arg : call.argv) {
    text += "arg: " + (arg == orvik::paths::kSendmail ? std::string("SENDMAIL") : arg) + "\n";
  }
  text += "stdin:\n" + replace_all(call.input, boundary_of(call.input), "BOUNDARY");
  return text;
}

// On a mismatch the actual rendering is written to replies/NAME.actual under
// the test's working directory (the build tree), for a reviewer to diff.
inline void expect_matches(const std::string& name, const e2e::SendmailCall& call) {
  const std::string expected = e2e::test_data("replies/" + name + ".expected");
  const std::string actual = render(call);
  if (actual == expected) return;
  const std::filesystem::path dir = std::filesystem::current_path() / "replies";
  std::filesystem::create_directories(dir);
  const std::filesystem::path file = dir / (name + ".actual");
  std::ofstream(file, std::ios::binary) << actual;
  ADD_FAILURE() << "the mail differs from tests/data/replies/" << name
                << ".expected; what was received is in " << file.string();
  EXPECT_EQ(expected, actual);
}

}  // namespace reply_golden
