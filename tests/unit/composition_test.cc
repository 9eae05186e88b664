// The reply's boundary and subject.
#include "autoresponder/composition.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

// The placeholder table is bound to the first message it is used with, for
// the whole process, as it is for a run: every case uses this one message.
// Its subject holds a placeholder, to show that values are not expanded.
const Mail_content& run_message() {
  static const Mail_content mail = [] {
    Mail_content m;
    m.from = "sender@example.com";
    m.to = "info@example.org";
    m.subject = "Hi <request_from>";
    return m;
  }();
  return mail;
}

TEST(BoundaryTest, PrefixAnd29Letters) {
  std::set<char> letters;
  for (int i = 0; i < 200; ++i) {
    const std::string boundary = makeBoundaryStr();
    ASSERT_EQ(boundary.size(), 39u);
    ASSERT_EQ(boundary.substr(0, 10), "--------=_");
    for (char c : boundary.substr(10)) {
      ASSERT_TRUE((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) << boundary;
      letters.insert(c);
    }
  }
  // 5800 draws from 52 letters: every letter, both ends of both halves.
  EXPECT_EQ(letters.size(), 52u);
}

TEST(BoundaryTest, SuccessiveBoundariesDiffer) {
  EXPECT_NE(makeBoundaryStr(), makeBoundaryStr());
}

TEST(PlaceholderTableTest, SortedSoEveryNameIsFound) {
  const par_templ* table = autoresp_templs(run_message());
  for (int i = 0; i < static_cast<int>(kAutorespTemplCount); ++i) {
    EXPECT_EQ(templ_found(table[i].name, table, kAutorespTemplCount), i) << table[i].name;
  }
}

struct SubjectCase {
  const char* name;
  std::string rule_subject;
  std::string expected;
};

void PrintTo(const SubjectCase& c, std::ostream* os) {
  *os << c.name;
}

class ResponseSubjectTest : public ::testing::TestWithParam<SubjectCase> {};

TEST_P(ResponseSubjectTest, Expands) {
  Resp_rule rule;
  rule.subject = GetParam().rule_subject;
  EXPECT_EQ(response_subject(rule, run_message()), GetParam().expected);
}

const std::string kLongName(33, 'n');

INSTANTIATE_TEST_SUITE_P(
    Templates, ResponseSubjectTest,
    ::testing::Values(
        SubjectCase{"NoRuleSubject", "", "Re: Hi <request_from>"},
        SubjectCase{"PlainText", "Out of office", "Out of office"},
        SubjectCase{"RequestSubject", "Re: <request_subject>", "Re: Hi <request_from>"},
        SubjectCase{"SubjectAndSender", "Auto: <request_subject> from <request_from>",
                    "Auto: Hi <request_from> from sender@example.com"},
        SubjectCase{"IncomingMessageSubject", "<incoming_message_subject>", "Hi <request_from>"},
        SubjectCase{"OrigEmailsSubj", "<orig_emails_subj>!", "Hi <request_from>!"},
        SubjectCase{"SenderMailnameIsWholeAddress", "<orig_emails_sender_mailname>",
                    "sender@example.com"},
        SubjectCase{"UnknownKept", "About <your_order>", "About <your_order>"},
        SubjectCase{"OtherCaseIsUnknown", "<Request_From>", "<Request_From>"},
        SubjectCase{"EmptyNameKept", "a <> b", "a <> b"},
        SubjectCase{"LongNameKept", "<" + kLongName + ">", "<" + kLongName + ">"},
        SubjectCase{"NestedOpenKept", "<<request_from>>", "<<request_from>>"},
        SubjectCase{"UnclosedKept", "Re: <request_from", "Re: <request_from"},
        SubjectCase{"LiteralCutAt999", std::string(1200, 'x'), std::string(999, 'x')},
        SubjectCase{"ValueCutAt999", std::string(990, 'x') + "<request_from>",
                    std::string(990, 'x') + "sender@ex"},
        SubjectCase{"Exactly999", std::string(999, 'x'), std::string(999, 'x')}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

struct IncomingSubjectCase {
  const char* name;
  std::string incoming;
  std::string expected;
};

void PrintTo(const IncomingSubjectCase& c, std::ostream* os) {
  *os << c.name;
}

class ReSubjectTest : public ::testing::TestWithParam<IncomingSubjectCase> {};

// Without a rule subject the table is not used, so any message will do.
TEST_P(ReSubjectTest, PrefixedUnconditionally) {
  Mail_content mail;
  mail.subject = GetParam().incoming;
  EXPECT_EQ(response_subject(Resp_rule{}, mail), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Incoming, ReSubjectTest,
    ::testing::Values(
        IncomingSubjectCase{"Plain", "Hello", "Re: Hello"},
        IncomingSubjectCase{"AlreadyRe", "Re: Hello", "Re: Re: Hello"},
        IncomingSubjectCase{"Empty", "", "Re: "},
        IncomingSubjectCase{"PlaceholderNotExpanded", "<request_from>", "Re: <request_from>"},
        IncomingSubjectCase{"LongNotCut", std::string(1200, 's'), "Re: " + std::string(1200, 's')}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

}  // namespace
