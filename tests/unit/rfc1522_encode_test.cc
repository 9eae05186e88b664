// Encoding of outgoing header texts into one Q-encoded word: the escape set,
// the Q-encoding of a text, and where the encoded tail begins.
#include <gtest/gtest.h>

#include <string>

#include "lib/text_encoding/rfc1522.h"
#include "lib/text_encoding/rfc1522_internal.h"

using namespace std::string_literals;
using orvik::rfc1522::encode;
using orvik::rfc1522::qp_encode;
using orvik::rfc1522::rfc1522_nonprintable;

namespace {

template <typename Case>
std::string CaseName(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

// The printable ASCII characters split into those that stay plain and those
// that are escaped inside an encoded word.
const std::string kPlainPrintable =
    " ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789#$%&',.:;<>@[\\]^`{|}~";
const std::string kEscapedPrintable = "!\"()*+-/=?_";

TEST(Rfc1522Nonprintable, EscapeSet) {
  EXPECT_EQ(kPlainPrintable.size() + kEscapedPrintable.size(), 0x7Fu - 0x20u);
  for (const char c : kPlainPrintable) EXPECT_FALSE(rfc1522_nonprintable(c)) << c;
  for (const char c : kEscapedPrintable) EXPECT_TRUE(rfc1522_nonprintable(c)) << c;
  for (int byte = 0; byte < 0x100; ++byte) {
    if (byte < 0x20 || byte >= 0x80) {
      EXPECT_TRUE(rfc1522_nonprintable(char(byte))) << byte;
    }
  }
  EXPECT_FALSE(rfc1522_nonprintable('\x7F'));
}

struct Case {
  const char* name;
  std::string text;
  std::string encoded;
};

const Case kQEncodings[] = {
    {"Empty", "", ""},
    {"SpaceIsUnderscore", "a b", "a_b"},
    {"EightBitUpperCaseHex", "\xC3\xA9", "=C3=A9"},
    {"Specials", "=?_", "=3D=3F=5F"},
    {"ControlBytes", "\t\n"s + '\0', "=09=0A=00"},
    {"DeleteStaysPlain", "\x7F", "\x7F"},
};

class QpEncodeTest : public testing::TestWithParam<Case> {};

TEST_P(QpEncodeTest, Encodes) {
  EXPECT_EQ(qp_encode(GetParam().text), GetParam().encoded);
}

INSTANTIATE_TEST_SUITE_P(Q, QpEncodeTest, testing::ValuesIn(kQEncodings), CaseName<Case>);

const Case kTexts[] = {
    {"Empty", "", ""},
    {"PlainUnchanged", "Hello world", "Hello world"},
    {"PlainPunctuationUnchanged", "Re: [list] 50% off, #1 & more; ok.",
     "Re: [list] 50% off, #1 & more; ok."},
    {"HyphenEscaped", "Re: hello-world", "Re: =?utf-8?Q?hello=2Dworld?="},
    {"NoBlankEncodesAll",
     "Gr\xC3\xBC\xC3\x9F"
     "e aus K\xC3\xB6ln",
     "=?utf-8?Q?Gr=C3=BC=C3=9Fe_aus_K=C3=B6ln?="},
    {"LeadingWordStaysPlain",
     "Re: Gr\xC3\xBC\xC3\x9F"
     "e",
     "Re: =?utf-8?Q?Gr=C3=BC=C3=9Fe?="},
    {"QuestionMark", "Is it? yes", "Is =?utf-8?Q?it=3F_yes?="},
    {"UnderscoreAlone", "a_b", "=?utf-8?Q?a=5Fb?="},
    {"EscapeRightAfterBlank", "a ?", "a =?utf-8?Q?=3F?="},
    {"LastOfSeveralBlanks", "a  \xC3\xA9", "a  =?utf-8?Q?=C3=A9?="},
    {"TabBeforeWordStaysPlain", "Re:\tnext?", "Re:\t=?utf-8?Q?next=3F?="},
    {"TabAsFirstEscapeStaysPlain", "Re: a\tb", "Re: a\t=?utf-8?Q?b?="},
    {"LeadingTab", "\tx", "\t=?utf-8?Q?x?="},
    {"LaterTabEscaped", "\xC3\xA9\tx", "=?utf-8?Q?=C3=A9=09x?="},
    {"TrailingBlankEncoded", "\xC3\xA9 ", "=?utf-8?Q?=C3=A9_?="},
    {"DeleteNeedsNoEncoding", "a\x7F", "a\x7F"},
};

class EncodeTest : public testing::TestWithParam<Case> {};

TEST_P(EncodeTest, Encodes) {
  EXPECT_EQ(encode(GetParam().text), GetParam().encoded);
}

INSTANTIATE_TEST_SUITE_P(Texts, EncodeTest, testing::ValuesIn(kTexts), CaseName<Case>);

TEST(Encode, LongTextGivesOneEncodedWord) {
  std::string text = "Subject ";
  for (int i = 0; i < 500; ++i) text += "\xC3\xA9 ";
  const std::string encoded = encode(text);
  const std::string prefix = "Subject =?utf-8?Q?";
  EXPECT_EQ(encoded.rfind(prefix, 0), 0u);
  EXPECT_EQ(encoded.size(), prefix.size() + 500 * 7 + 2);
  EXPECT_EQ(encoded.find("?=", prefix.size()), encoded.size() - 2);
}

TEST(Encode, DecodesBackToTheText) {
  for (const std::string text : {"Re: Gr\xC3\xBC\xC3\x9F"
                                 "e aus K\xC3\xB6ln",
                                 "a_b = c?", "Re:  two  blanks - here", "\xE2\x82\xAC 100"}) {
    EXPECT_EQ(orvik::rfc1522::decode(encode(text)), text);
  }
}

}  // namespace
