// The name of the lock that serialises one rule's answer count for one
// sender: within the server's 64-character limit, safe to paste between
// quotes, the same in every process, and distinct per rule and sender.
#include "autoresponder/named_lock.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

bool is_plain(const std::string& name) {
  return name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789:-") == std::string::npos;
}

TEST(AnswerCountLockName, NamesTheRuleAndHashesTheSender) {
  const std::string name = answer_count_lock_name("12", "o'brien@example.com");
  EXPECT_EQ(name.rfind("ovk-resp-freq:12:", 0), 0u) << name;
  EXPECT_EQ(name.size(), std::string("ovk-resp-freq:12:").size() + 16);
  EXPECT_TRUE(is_plain(name)) << name;
}

TEST(AnswerCountLockName, IsStableAndDistinct) {
  EXPECT_EQ(answer_count_lock_name("3", "a@example.com"),
            answer_count_lock_name("3", "a@example.com"));
  EXPECT_NE(answer_count_lock_name("3", "a@example.com"),
            answer_count_lock_name("3", "b@example.com"));
  EXPECT_NE(answer_count_lock_name("3", "a@example.com"),
            answer_count_lock_name("4", "a@example.com"));
  // The known value pins the hash: processes of different builds must agree.
  EXPECT_EQ(answer_count_lock_name("1", ""), "ovk-resp-freq:1:cbf29ce484222325");
}

TEST(AnswerCountLockName, StaysWithinTheLimitForAnyIdOrSender) {
  const std::string long_sender(1000, 'x');
  const std::vector<std::string> ids = {"18446744073709551615", "123456789012345678901", "",
                                        "1' or '1", std::string(200, '9')};
  for (const std::string& id : ids) {
    const std::string name = answer_count_lock_name(id, long_sender);
    EXPECT_LE(name.size(), 64u) << name;
    EXPECT_TRUE(is_plain(name)) << name;
  }
}

}  // namespace
