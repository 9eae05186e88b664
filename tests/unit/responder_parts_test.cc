// Parts of the responder that need no database: the reply's boundary and subject.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "autoresponder/responder/composition.h"

namespace {

TEST(Boundary, PrefixAnd29LettersDrawnFromAll52) {
  std::set<char> letters;
  for (int i = 0; i < 200; ++i) {
    const std::string boundary = makeBoundaryStr();
    ASSERT_TRUE(std::regex_match(boundary, std::regex("--------=_[A-Za-z]{29}"))) << boundary;
    letters.insert(boundary.begin() + 10, boundary.end());
  }
  EXPECT_EQ(letters.size(), 52u);
}

// The placeholder table is bound to the first message it serves, for the
// whole process, as in a run. A placeholder in a value is not expanded.
TEST(ResponseSubject, ExpandsThePlaceholdersAndCutsAt999) {
  Mail_content mail;
  mail.from = "s@example.com";
  mail.subject = "Hi <request_from>";
  const auto subject = [&](const std::string& rule_subject) {
    Resp_rule rule;
    rule.subject = rule_subject;
    return response_subject(rule, mail);
  };
  EXPECT_EQ(subject(""), "Re: Hi <request_from>");
  EXPECT_EQ(subject("<request_subject>, <incoming_message_subject>, <orig_emails_subj>"),
            "Hi <request_from>, Hi <request_from>, Hi <request_from>");
  EXPECT_EQ(subject("<request_from> <orig_emails_sender_mailname> <x>"),
            "s@example.com s@example.com <x>");
  EXPECT_EQ(subject(std::string(1200, 'x')), std::string(999, 'x'));
  EXPECT_EQ(subject(std::string(990, 'x') + "<request_from>"), std::string(990, 'x') + "s@example");
  mail.subject = std::string(1200, 's');  // not cut without a rule subject
  EXPECT_EQ(subject(""), "Re: " + mail.subject);
}

}  // namespace
