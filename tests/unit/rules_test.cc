// Rules read from mail_resp rows: NULL columns take their defaults while empty
// strings stay empty, the switch and the key place compare exactly, and the
// key is searched in the subject or line by line in the body.
#include "autoresponder/rules.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

// A row of the rule statement: eleven columns, null pointers for NULL.
using Row = std::array<const char*, 11>;

Resp_rule rule_of(Row row) {
  std::array<char*, 11> columns;
  for (std::size_t i = 0; i < row.size(); ++i) columns[i] = const_cast<char*>(row[i]);
  return rule_from_row(columns.data());
}

TEST(RuleFromRow, NullColumnsTakeTheirDefaults) {
  const Resp_rule rule = rule_of({});
  EXPECT_EQ(rule.id, "0");
  EXPECT_EQ(rule.keystr, "");
  EXPECT_EQ(rule.key_where, "no");
  EXPECT_EQ(rule.text, "");
  EXPECT_EQ(rule.resp_on, "false");
  EXPECT_EQ(rule.ans_freq, "10");
  EXPECT_EQ(rule.mem_limit, "1000");
  EXPECT_EQ(rule.subject, "");
  EXPECT_EQ(rule.reply_to, "");
  EXPECT_EQ(rule.charset, "UTF-8");
  EXPECT_EQ(rule.content_type, "text/plain");
}

TEST(RuleFromRow, EmptyColumnsStayEmpty) {
  const Resp_rule rule = rule_of({"", "", "", "", "", "", "", "", "", "", ""});
  for (const std::string* field :
       {&rule.id, &rule.keystr, &rule.key_where, &rule.text, &rule.resp_on, &rule.ans_freq,
        &rule.mem_limit, &rule.subject, &rule.reply_to, &rule.charset, &rule.content_type}) {
    EXPECT_EQ(*field, "");
  }
  EXPECT_TRUE(rule_is_on(rule));
}

TEST(RuleFromRow, ColumnsAreReadInStatementOrder) {
  const Resp_rule rule = rule_of({"7", "key", "subj", "Hello", "true", "3", "50", "Re: %s",
                                  "help@example.com", "ISO-8859-1", "text/html"});
  EXPECT_EQ(rule.id, "7");
  EXPECT_EQ(rule.keystr, "key");
  EXPECT_EQ(rule.key_where, "subj");
  EXPECT_EQ(rule.text, "Hello");
  EXPECT_EQ(rule.resp_on, "true");
  EXPECT_EQ(rule.ans_freq, "3");
  EXPECT_EQ(rule.mem_limit, "50");
  EXPECT_EQ(rule.subject, "Re: %s");
  EXPECT_EQ(rule.reply_to, "help@example.com");
  EXPECT_EQ(rule.charset, "ISO-8859-1");
  EXPECT_EQ(rule.content_type, "text/html");
}

struct SwitchCase {
  const char* name;
  const char* resp_on;  // null: the column is NULL
  bool on;
};

class RuleSwitch : public ::testing::TestWithParam<SwitchCase> {};

TEST_P(RuleSwitch, OnlyExactlyFalseIsOff) {
  Row row{};
  row[4] = GetParam().resp_on;
  EXPECT_EQ(rule_is_on(rule_of(row)), GetParam().on);
}

INSTANTIATE_TEST_SUITE_P(
    , RuleSwitch,
    ::testing::Values(SwitchCase{"False", "false", false}, SwitchCase{"Null", nullptr, false},
                      SwitchCase{"True", "true", true}, SwitchCase{"Empty", "", true},
                      SwitchCase{"CapitalisedFalse", "False", true},
                      SwitchCase{"UpperCaseFalse", "FALSE", true},
                      SwitchCase{"FalseWithBlank", "false ", true}, SwitchCase{"No", "no", true},
                      SwitchCase{"Zero", "0", true}),
    [](const auto& test) { return std::string(test.param.name); });

struct MatchCase {
  const char* name;
  const char* key_where;  // null: the column is NULL
  const char* keystr;     // null: the column is NULL
  std::string subject;
  std::vector<std::string> body;
  bool matches;
};

class RuleMatching : public ::testing::TestWithParam<MatchCase> {};

TEST_P(RuleMatching, FindsTheKeyWhereTheRuleSays) {
  const MatchCase& c = GetParam();
  Row row{};
  row[1] = c.keystr;
  row[2] = c.key_where;
  row[4] = "true";
  Mail_content mail;
  mail.subject = c.subject;
  mail.body = c.body;
  EXPECT_EQ(rule_matches(rule_of(row), mail), c.matches);
}

const std::vector<std::string> kLetter = {"Dear team,", "please send the invoice", "",
                                          "for order 42.", "Regards"};

INSTANTIATE_TEST_SUITE_P(
    , RuleMatching,
    ::testing::Values(
        // The subject, as a plain case-sensitive substring.
        MatchCase{"SubjKeyInSubject", "subj", "invoice", "Your invoice 42", {}, true},
        MatchCase{"SubjKeyIsWholeSubject", "subj", "Invoice", "Invoice", {}, true},
        MatchCase{"SubjKeyAtEnd", "subj", "42", "Your invoice 42", {}, true},
        MatchCase{"SubjKeyMissing", "subj", "order", "Your invoice 42", kLetter, false},
        MatchCase{"SubjIsCaseSensitive", "subj", "Invoice", "your invoice", {}, false},
        MatchCase{"SubjNoWildcards", "subj", "in*ce", "Your invoice", {}, false},
        MatchCase{"SubjKeyOnlyInBodyDoesNotCount", "subj", "Regards", "Hello", kLetter, false},
        MatchCase{"SubjEmptyKeyMatchesAnything", "subj", "", "", {}, true},
        MatchCase{"SubjNullKeyIsEmpty", "subj", nullptr, "", {}, true},
        MatchCase{"SubjLongerThanSubject", "subj", "invoices", "invoice", {}, false},
        // The body, one line at a time.
        MatchCase{"BodyKeyInOneLine", "body", "the invoice", "", kLetter, true},
        MatchCase{"BodyKeyInLastLine", "body", "Regards", "", kLetter, true},
        MatchCase{"BodyIsCaseSensitive", "body", "Please", "", kLetter, false},
        MatchCase{"BodyNeverAcrossLines", "body", "invoice\nfor", "", kLetter, false},
        MatchCase{"BodyNeverAcrossLinesJoined", "body", "invoicefor", "", kLetter, false},
        MatchCase{"BodyKeyOnlyInSubjectDoesNotCount", "body", "Hello", "Hello", kLetter, false},
        MatchCase{"BodyEmptyKeyMatchesAnEmptyLine", "body", "", "", {""}, true},
        MatchCase{"BodyWithoutLinesNeverMatches", "body", "", "anything", {}, false},
        // Any other place applies to every message, whatever the key.
        MatchCase{"NullPlaceMatchesEverything", nullptr, "absent", "x", {}, true},
        MatchCase{"NoMatchesEverything", "no", "absent", "", {}, true},
        MatchCase{"UpperCaseSubjMatchesEverything", "SUBJ", "absent", "x", {}, true},
        MatchCase{"SubjectSpelledOutMatchesEverything", "subject", "absent", "x", {}, true},
        MatchCase{"CapitalisedBodyMatchesEverything", "Body", "absent", "", {"x"}, true},
        MatchCase{"EmptyPlaceMatchesEverything", "", "absent", "", {}, true}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
