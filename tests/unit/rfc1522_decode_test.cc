// Decoding of encoded words in header texts: word splitting, single words,
// Q and base64 data, charset conversion, and the reports about malformed
// input on standard error.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "lib/text_encoding/rfc1522.h"
#include "lib/text_encoding/rfc1522_internal.h"

using namespace std::string_literals;
using orvik::rfc1522::appendQP;
using orvik::rfc1522::decode;
using orvik::rfc1522::rfc1522_decode_word;
using orvik::rfc1522::words_map;

namespace {

template <typename Case>
std::string CaseName(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

// --- Splitting into words -------------------------------------------------

struct Split {
  const char* name;
  std::string text;
  std::string mapped;  // with every word shown as [word]
  std::vector<std::string> words;
};

const Split kSplits[] = {
    {"Empty", "", "", {}},
    {"OneWord", "a", "[a]", {"a"}},
    {"TwoWords", "a b", "[a] [b]", {"a", "b"}},
    {"LeadingBlankGivesEmptyWord", " a", "[] [a]", {"", "a"}},
    {"BlankRunKept", "a  \t b", "[a]  \t [b]", {"a", "b"}},
    {"TrailingBlanksKeptWithoutWord", "a \t", "[a] \t", {"a"}},
    {"LineBreakIsNoBlank", "a\nb c", "[a\nb] [c]", {"a\nb", "c"}},
    {"RunBetweenEncodedWordsDropped", "x?= \t =?y", "[x?=][=?y]", {"x?=", "=?y"}},
    {"RunAtIndexTwoDropped", "?= =?", "[?=][=?]", {"?=", "=?"}},
    {"RunBeforeIndexTwoKept", "= =?", "[=] [=?]", {"=", "=?"}},
    {"OneCharacterAfterRunKept", "?= =", "[?=] [=]", {"?=", "="}},
    {"RunAtEndAfterEncodedWordKept", "?=  ", "[?=]  ", {"?="}},
    {"OnlyStartMarkerAfterKept", "a?= =x", "[a?=] [=x]", {"a?=", "=x"}},
    {"OnlyEndMarkerBeforeKept", "a= =?x", "[a=] [=?x]", {"a=", "=?x"}},
};

class WordsMapTest : public testing::TestWithParam<Split> {};

TEST_P(WordsMapTest, SplitsAndJoins) {
  std::vector<std::string> seen;
  const std::string mapped = words_map(GetParam().text, [&seen](const std::string& word) {
    seen.push_back(word);
    return "[" + word + "]";
  });
  EXPECT_EQ(mapped, GetParam().mapped);
  EXPECT_EQ(seen, GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(Words, WordsMapTest, testing::ValuesIn(kSplits), CaseName<Split>);

// --- Q data ---------------------------------------------------------------

struct QUnit {
  const char* name;
  std::string data;
  std::string bytes;
  std::string report;
};

const QUnit kQUnits[] = {
    {"Empty", "", "", ""},
    {"UnderscoreIsSpace", "a_b", "a b", ""},
    {"HexPair", "=41=42", "AB", ""},
    {"LowerCaseHex", "=e9", "\xE9", ""},
    {"PlainCopied", "a.b", "a.b", ""},
    {"LoneEqualsAtEndIsNul", "a=", "a\0"s, ""},
    {"OneDigitAtEnd", "=4", "\x04", ""},
    {"DigitThenEquals", "=4=", "\x04", ""},
    {"DigitThenNonHex", "=4Gx", "\x04x", ""},
    {"NoDigitReported", "=G4x", "\0x"s, "Bad hex in quoted-printable string: G4\n"},
    {"EqualsPairReported", "==41",
     "\0"s
     "1",
     "Bad hex in quoted-printable string: =4\n"},
    {"SingleBadCharacterAtEndReported", "=Z", "\0"s, "Bad hex in quoted-printable string: Z\n"},
};

class AppendQPTest : public testing::TestWithParam<QUnit> {};

TEST_P(AppendQPTest, DecodesData) {
  std::string bytes;
  long position = 0;
  testing::internal::CaptureStderr();
  while (position != -1) appendQP(&bytes, GetParam().data, &position);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().report);
  EXPECT_EQ(bytes, GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Q, AppendQPTest, testing::ValuesIn(kQUnits), CaseName<QUnit>);

// --- Single words ---------------------------------------------------------

struct Word {
  const char* name;
  std::string word;
  std::string decoded;
  std::string report;
};

const Word kWords[] = {
    {"PlainWordUnchanged", "hello", "hello", ""},
    {"EmptyWordUnchanged", "", "", ""},
    {"QuestionMarkFirstIsPlain", "?=?utf-8?Q?a?=", "?=?utf-8?Q?a?=", ""},
    {"QEncoded", "=?utf-8?Q?a_b?=", "a b", ""},
    {"LowerCaseQ", "=?iso-8859-1?q?caf=E9?=", "caf\xC3\xA9", ""},
    {"BEncoded", "=?utf-8?B?Yw==?=", "c", ""},
    {"LowerCaseB", "=?utf-8?b?w6k=?=", "\xC3\xA9", ""},
    {"UpperCaseCharset", "=?UTF-8?Q?=C3=A9?=", "\xC3\xA9", ""},
    {"Latin2", "=?iso-8859-2?Q?=B1?=", "\xC4\x85", ""},
    {"EmptyData", "=?utf-8?Q?\?=", "", ""},
    {"UnknownEncodingIsEmpty", "=?utf-8?X?abc?=", "", ""},
    {"LongEncodingIsEmpty", "=?utf-8?QQ?abc?=", "", ""},
    {"InvalidUtf8Replaced", "=?utf-8?Q?a=FFb?=", "a?b", ""},
    {"QuestionMarkEqualsEndsData", "=?utf-8?Q?=?=", "\0"s, ""},
    {"StartOnly", "=?", "=?", "wrong rfc1522 sequence (no charset): =?\n"},
    {"NoCharset", "=?utf-8", "=?utf-8", "wrong rfc1522 sequence (no charset): =?utf-8\n"},
    {"NoEncoding", "=?utf-8?Q", "=?utf-8?Q", "wrong rfc1522 sequence (no encoding): =?utf-8?Q\n"},
    {"NoData", "=?utf-8?Q?abc", "=?utf-8?Q?abc",
     "wrong rfc1522 sequence (no data): =?utf-8?Q?abc\n"},
    {"NoDataAfterEmptyEncoding",
     "=?utf-8?\?=", "=?utf-8?\?=", "wrong rfc1522 sequence (no data): =?utf-8?\?=\n"},
    {"TrailingStuffAppended", "=?utf-8?Q?a?=b)", "ab)",
     "wrong rfc1522 sequence (trailing stuff): =?utf-8?Q?a?=b)\n"},
};

class DecodeWordTest : public testing::TestWithParam<Word> {};

TEST_P(DecodeWordTest, Decodes) {
  testing::internal::CaptureStderr();
  const std::string decoded = rfc1522_decode_word(GetParam().word);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().report);
  EXPECT_EQ(decoded, GetParam().decoded);
}

INSTANTIATE_TEST_SUITE_P(Words, DecodeWordTest, testing::ValuesIn(kWords), CaseName<Word>);

// --- Whole texts ----------------------------------------------------------

struct Text {
  const char* name;
  std::string text;
  std::string decoded;
};

const Text kTexts[] = {
    {"Empty", "", ""},
    {"AdjacentWordsJoin", "=?utf-8?Q?a_b?= =?utf-8?B?Yw==?=", "a bc"},
    {"BlankBeforeWordKept", "x =?utf-8?Q?y?=", "x y"},
    {"BlankAfterWordKept", "=?utf-8?Q?y?= x", "y x"},
    {"TrailingBlanksKept", "=?utf-8?Q?y?=  \t", "y  \t"},
    {"LeadingAndRepeatedBlanksKept", "  a   b", "  a   b"},
    {"TabsAreBlanks", "\t=?utf-8?Q?a?=\t\t=?utf-8?Q?b?=\tc", "\tab\tc"},
    {"MixedCharsets", "=?iso-8859-1?Q?=E9?= =?iso-8859-2?Q?=B1?=", "\xC3\xA9\xC4\x85"},
    {"PlainUtf8Copied",
     "Gr\xC3\xBC\xC3\x9F"
     "e",
     "Gr\xC3\xBC\xC3\x9F"
     "e"},
    // RFC 2047 section 8, the examples without comment parentheses: words
    // glued to a parenthesis do not begin with "=?" and stay as they are.
    {"Rfc2047_SingleWord", "=?ISO-8859-1?Q?a?=", "a"},
    {"Rfc2047_WordThenText", "=?ISO-8859-1?Q?a?= b", "a b"},
    {"Rfc2047_TwoWords", "=?ISO-8859-1?Q?a?= =?ISO-8859-1?Q?b?=", "ab"},
    {"Rfc2047_TwoWordsTwoSpaces", "=?ISO-8859-1?Q?a?=  =?ISO-8859-1?Q?b?=", "ab"},
    {"Rfc2047_UnderscoreSpace", "=?ISO-8859-1?Q?a_b?=", "a b"},
    {"Rfc2047_SpaceInSecondWord", "=?ISO-8859-1?Q?a?= =?ISO-8859-2?Q?_b?=", "a b"},
    {"CommentParenthesisNotDecoded", "(=?ISO-8859-1?Q?a?= b)", "(=?ISO-8859-1?Q?a?= b)"},
};

class DecodeTextTest : public testing::TestWithParam<Text> {};

TEST_P(DecodeTextTest, Decodes) {
  testing::internal::CaptureStderr();
  const std::string decoded = decode(GetParam().text);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(decoded, GetParam().decoded);
}

INSTANTIATE_TEST_SUITE_P(Texts, DecodeTextTest, testing::ValuesIn(kTexts), CaseName<Text>);

TEST(Decode, LineBreakJoinsWordsIntoOne) {
  testing::internal::CaptureStderr();
  const std::string decoded = decode("=?utf-8?Q?a?=\n =?utf-8?Q?b?=");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "wrong rfc1522 sequence (trailing stuff): =?utf-8?Q?a?=\n\n");
  EXPECT_EQ(decoded, "a\n b");
}

TEST(Decode, MalformedWordKeptAmongOthers) {
  testing::internal::CaptureStderr();
  const std::string decoded = decode("=?utf-8?Q?a?= =?utf-8?Q?b =?utf-8?Q?c?=");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "wrong rfc1522 sequence (no data): =?utf-8?Q?b\n");
  EXPECT_EQ(decoded, "a=?utf-8?Q?b c");
}

TEST(Decode, UnknownCharsetThrows) {
  try {
    decode("ok =?x-no-such-charset?Q?a?= more");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Cannot convert from x-no-such-charset to utf-8");
  }
}

TEST(Decode, TruncatedCharacterThrows) {
  try {
    decode("=?utf-8?Q?a=C3?=");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Conversion from utf-8 to utf-8");
  }
}

TEST(Decode, LargeTextDecodedWhole) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    text += "=?iso-8859-1?Q?=E9_?= ";
    expected += "\xC3\xA9 ";
  }
  text += "end";
  expected += " end";  // only the blanks between two encoded words vanish
  EXPECT_EQ(decode(text), expected);
}

}  // namespace
