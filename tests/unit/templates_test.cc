// Placeholder substitution: the placeholders of an answer subject, malformed
// and unknown placeholders, cutting at the output size, and the sorted-table
// lookup and sort.
#include "autoresponder/templates.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

const char kSender[] = "john@example.com";  // 16 characters
const char kSubject[] = "Hello there";

// The placeholders of an answer subject, as the responder binds them.
const par_templ kAnswerTable[] = {
    {"incoming_message_subject", kSubject}, {"orig_emails_sender_mailname", kSender},
    {"orig_emails_subj", kSubject},         {"request_from", kSender},
    {"request_subject", kSubject},
};

const std::string k32(32, 'n');
const std::string k33(33, 'n');

// A table for the corner cases: a 32-character name, a 33-character name
// that can never match, a null value and a value that looks like a placeholder.
const par_templ kCornerTable[] = {
    {"inner", "<request_from>"}, {k32.c_str(), "thirty-two"}, {k33.c_str(), "thirty-three"},
    {"null_value", nullptr},     {"request_from", kSender},
};

constexpr unsigned kSize = 999;  // as the responder calls it
constexpr std::uint32_t kKeep = REPL_KEEP_UNKNOWN;
constexpr std::uint32_t kStop = REPL_STOP_BEFORE_VALUE;

struct ReplaceCase {
  const char* name;
  std::string templ;
  std::string expected;
  std::uint32_t options = kKeep;
  std::uint32_t status = 0;
  std::uint32_t src_used = UINT32_MAX;  // UINT32_MAX: the whole template
  bool corner_table = false;
};

class ReplaceTest : public ::testing::TestWithParam<ReplaceCase> {};

TEST_P(ReplaceTest, Substitutes) {
  const ReplaceCase& c = GetParam();
  const par_templ* table = c.corner_table ? kCornerTable : kAnswerTable;
  char out[kSize + 1] = {};
  repl_ctl ctl{77, 77, c.options, 77};
  EXPECT_EQ(templ_replace('<', '>', table, 5, c.templ.c_str(), out, kSize, &ctl), out);
  EXPECT_EQ(std::string(out, ctl.out_len), c.expected);
  EXPECT_EQ(ctl.out_len, c.expected.size());
  EXPECT_EQ(ctl.src_used, c.src_used == UINT32_MAX ? c.templ.size() : c.src_used);
  EXPECT_EQ(ctl.status, c.status);
  EXPECT_EQ(ctl.options, c.options);
}

const std::string kA990(990, 'a');

INSTANTIATE_TEST_SUITE_P(
    TemplReplace, ReplaceTest,
    ::testing::Values(
        ReplaceCase{"ReSubject", "Re: <request_subject>", "Re: Hello there"},
        ReplaceCase{"SenderTextSubject", "<request_from> wrote: <orig_emails_subj>",
                    "john@example.com wrote: Hello there"},
        ReplaceCase{"SenderMailnameIsWholeAddress", "<orig_emails_sender_mailname>", kSender},
        ReplaceCase{"IncomingSubject", "[<incoming_message_subject>]", "[Hello there]"},
        ReplaceCase{"AdjacentPlaceholders", "<request_from><request_subject>",
                    "john@example.comHello there"},
        ReplaceCase{"NoPlaceholder", "plain text", "plain text"},
        ReplaceCase{"UnknownKept", "a <nope> b", "a <nope> b", kKeep, kKeep},
        ReplaceCase{"OtherLetterCaseIsUnknown", "<Request_From>", "<Request_From>", kKeep, kKeep},
        ReplaceCase{"UnknownKeptBeforeKnown", "<x> <request_from>", "<x> john@example.com", kKeep,
                    kKeep},
        ReplaceCase{"UnknownDroppedWithoutKeep", "a<nope>b", "ab", 0, 0},
        ReplaceCase{"EmptyNameIsLiteral", "a <> b", "a <> b"},
        ReplaceCase{"EmptyNameThenPlaceholder", "<><request_from>", "<>john@example.com"},
        ReplaceCase{"NameOf33IsLiteral", "<" + k33 + ">", "<" + k33 + ">"},
        ReplaceCase{"NameOf32IsLookedUp", "<" + k32 + ">", "<" + k32 + ">", kKeep, kKeep},
        ReplaceCase{"NestedOpeningDelimiters", "<<request_from>>", "<<request_from>>", kKeep,
                    kKeep},
        ReplaceCase{"UnclosedPlaceholder", "Re: <request_from", "Re: <request_from"},
        ReplaceCase{"OpeningDelimiterAtEnd", "abc<", "abc<"},
        ReplaceCase{"ClosingDelimiterAlone", "a>b", "a>b"},
        ReplaceCase{"ScanResumesAfter33Characters", "<" + k33 + "<request_from>",
                    "<" + k33 + kSender},
        ReplaceCase{"DelimiterInsideLongNameIsSwallowed", "<" + k32 + "<request_from>",
                    "<" + k32 + "<request_from>"},
        ReplaceCase{"EmptyTemplate", "", ""},
        ReplaceCase{"CutInLiteralText", std::string(1200, 'a'), std::string(999, 'a'), kKeep, 0,
                    999},
        ReplaceCase{"CutInLiteralBeforePlaceholder", std::string(1000, 'a') + "<request_from>",
                    std::string(999, 'a'), kKeep, 0, 999},
        ReplaceCase{"CutInValue", kA990 + "<request_from>tail", kA990 + "john@exam", kKeep, 0,
                    990 + 14},
        ReplaceCase{"StopBeforeValue", kA990 + "<request_from>tail", kA990, kKeep | kStop, kStop,
                    990},
        ReplaceCase{"StopBeforeValueAfterPlaceholders",
                    "<request_from>" + std::string(980, 'a') + "<request_subject>",
                    kSender + std::string(980, 'a'), kKeep | kStop, kStop, 14 + 980},
        ReplaceCase{"ValueThatFitsExactly", std::string(983, 'a') + "<request_from>",
                    std::string(983, 'a') + kSender},
        ReplaceCase{"UnknownKeptAcrossTheCut", std::string(995, 'a') + "<unknown>",
                    std::string(995, 'a') + "<unk", kKeep, kKeep, 999},
        ReplaceCase{"Name32Replaced", "[<" + k32 + ">]", "[thirty-two]", kKeep, 0, UINT32_MAX,
                    true},
        ReplaceCase{"Name33NeverReplaced", "[<" + k33 + ">]", "[<" + k33 + ">]", kKeep, 0,
                    UINT32_MAX, true},
        ReplaceCase{"NullValueInsertsNothing", "x<null_value>y", "xy", kKeep, 0, UINT32_MAX, true},
        ReplaceCase{"ValueNotScannedAgain", "<inner>", "<request_from>", kKeep, 0, UINT32_MAX,
                    true}),
    [](const ::testing::TestParamInfo<ReplaceCase>& case_info) { return case_info.param.name; });

TEST(TemplReplace, NulCopiedOnlyWithRoomToSpare) {
  char out[kSize + 1];
  repl_ctl ctl{0, 0, kKeep, 0};
  const std::string shorter(998, 'a');
  std::memset(out, '#', sizeof out);
  templ_replace('<', '>', kAnswerTable, 5, shorter.c_str(), out, kSize, &ctl);
  EXPECT_EQ(ctl.out_len, 998u);
  EXPECT_EQ(out[998], '\0');

  const std::string exact(999, 'a');
  std::memset(out, '#', sizeof out);
  templ_replace('<', '>', kAnswerTable, 5, exact.c_str(), out, kSize, &ctl);
  EXPECT_EQ(ctl.out_len, 999u);
  EXPECT_EQ(out[999], '#') << "nothing is written past size";
}

TEST(TemplReplace, NothingToDoGivesEmptyResult) {
  char out[16];
  for (const auto& [table, count, templ, size] :
       {std::tuple{kAnswerTable, 0u, "text", 15u}, std::tuple{kAnswerTable, 5u, "text", 0u},
        std::tuple{kAnswerTable, 5u, static_cast<const char*>(nullptr), 15u}}) {
    std::memset(out, '#', sizeof out);
    repl_ctl ctl{9, 9, kKeep, 9};
    templ_replace('<', '>', table, count, templ, out, size, &ctl);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(ctl.src_used, 0u);
    EXPECT_EQ(ctl.out_len, 0u);
    EXPECT_EQ(ctl.status, 0u);
  }
}

TEST(TemplReplace, NullTableFindsNothing) {
  char out[32] = {};
  repl_ctl ctl{0, 0, 0, 0};
  templ_replace('<', '>', nullptr, 5, "a<request_from>b", out, 31, &ctl);
  EXPECT_EQ(std::string(out, ctl.out_len), "ab");
}

TEST(TemplFound, FindsEveryEntryOfTheAnswerTable) {
  for (int i = 0; i < 5; ++i) EXPECT_EQ(templ_found(kAnswerTable[i].name, kAnswerTable, 5), i);
}

TEST(TemplFound, MissesAndInvalidArguments) {
  for (const char* name :
       {"a", "inc", "orig_emails", "request_fro", "request_subjects", "zzz", ""}) {
    EXPECT_EQ(templ_found(name, kAnswerTable, 5), -1) << name;
  }
  EXPECT_EQ(templ_found(nullptr, kAnswerTable, 5), -1);
  EXPECT_EQ(templ_found("request_from", nullptr, 5), -1);
  EXPECT_EQ(templ_found("request_from", kAnswerTable, 0), -1);
}

TEST(TemplFound, SmallTables) {
  EXPECT_EQ(templ_found("request_from", kAnswerTable + 3, 1), 0);
  EXPECT_EQ(templ_found("request_subject", kAnswerTable + 3, 1), -1);
  EXPECT_EQ(templ_found("request_subject", kAnswerTable + 3, 2), 1);
  EXPECT_EQ(templ_found("request_from", kAnswerTable + 3, 2), 0);
  EXPECT_EQ(templ_found("a", kAnswerTable + 3, 2), -1);
}

TEST(TemplQuickSort, SortsByNameAndKeepsValuesWithTheirNames) {
  std::vector<std::string> names;
  for (int i = 0; i < 200; ++i) names.push_back("name_" + std::to_string(i * 7919 % 1000));
  names.push_back("name_5");  // a duplicate
  std::vector<std::string> values;
  for (const std::string& name : names) values.push_back("value of " + name);
  std::vector<par_templ> table;
  for (std::size_t i = 0; i < names.size(); ++i)
    table.push_back({names[i].c_str(), values[i].c_str()});
  std::shuffle(table.begin(), table.end(), std::mt19937(42));

  templ_quick_sort(table.data(), static_cast<int>(table.size()));
  for (std::size_t i = 1; i < table.size(); ++i) {
    ASSERT_LE(std::strcmp(table[i - 1].name, table[i].name), 0) << i;
  }
  for (const par_templ& entry : table) {
    EXPECT_EQ(std::string("value of ") + entry.name, entry.value);
  }
  for (const std::string& name : names) {
    const int found = templ_found(name.c_str(), table.data(), static_cast<int>(table.size()));
    ASSERT_GE(found, 0) << name;
    EXPECT_EQ(name, table[found].name);
  }
}

TEST(TemplQuickSort, SmallAndDegenerateTables) {
  par_templ two[] = {{"b", "2"}, {"a", "1"}};
  templ_quick_sort(two, 2);
  EXPECT_STREQ(two[0].name, "a");
  EXPECT_STREQ(two[0].value, "1");
  templ_quick_sort(two, 0);
  templ_quick_sort(two, -1);
  templ_quick_sort(nullptr, 3);
  par_templ same[] = {{"x", "1"}, {"x", "2"}, {"x", "3"}};
  templ_quick_sort(same, 3);
  EXPECT_STREQ(same[1].name, "x");
  par_templ sorted[] = {{"a", nullptr}, {"b", nullptr}, {"c", nullptr}, {"d", nullptr}};
  templ_quick_sort(sorted, 4);
  EXPECT_STREQ(sorted[0].name, "a");
  EXPECT_STREQ(sorted[3].name, "d");
}

}  // namespace
