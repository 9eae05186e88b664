// Encoded words, charset recoding, IDN conversion and base64: table rows of
// inputs with their output and reports, and the boundaries of each coder.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lib/base64.h"
#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/idn.h"
#include "lib/text_encoding/rfc1522.h"
#include "lib/text_encoding/rfc1522_internal.h"
#include "tests/unit/text_case.h"

using namespace std::string_literals;
using orvik::iconvRecode;
using text_case::Case;
using text_case::Fn;
using text_case::repeat;

namespace {

std::string a_run(int n) {
  return std::string(n, 'a');
}

const Fn Dec = [](const std::string& s) { return orvik::rfc1522::decode(s); };
const Fn Enc = [](const std::string& s) { return orvik::rfc1522::encode(s); };
const Fn B64 = [](const std::string& s) { return orvik::base64_decode(s); };
const Fn Field = [](const std::string& s) { return orvik::rfc1522::encode_field_body(s, 9); };
const Fn Idn = [](const std::string& s) { return orvik::idn::toAscii(s); };
const Fn L1 = [](const std::string& s) { return iconvRecode(s, "ISO-8859-1", "utf-8", true); };
const Fn ToL1 = [](const std::string& s) { return iconvRecode(s, "utf-8", "ISO-8859-1", true); };
const Fn U8 = [](const std::string& s) { return iconvRecode(s, "utf-8", "utf-8", true); };
const Fn Strict = [](const std::string& s) { return iconvRecode(s, "utf-8", "LATIN1", false); };
const Fn NoSuch = [](const std::string& s) { return iconvRecode(s, "x-none", "utf-8", true); };

const std::string kWrong = "wrong rfc1522 sequence ";
const std::string kHex = "Bad hex in quoted-printable string: ";
const std::string kBadB64 = "Bad base64 symbol: !\n";
// Words of the folded form: `data` as one Q-encoded word.
std::string W(const std::string& data) {
  return "=?utf-8?Q?" + data + "?=";
}

const Case kCases[] = {
    {"DecodeAdjacentWordsJoin", Dec, "=?utf-8?Q?a_b?= \t =?utf-8?B?Yw==?=", "a bc"},
    {"DecodeBlanksNextToTextKept", Dec, "x =?utf-8?Q?y?=\tz =?utf-8?Q?y?=  \t", "x y\tz y  \t"},
    {"DecodeShortWordsBeforeRun", Dec, "?= =?utf-8?Q?b?= = =?utf-8?Q?c?=", "?=b = c"},
    {"DecodeMarkersOnPlainWords", Dec, "a?= =x a= =?utf-8?Q?b?=", "a?= =x a= b"},
    {"DecodeLowerCaseQAndB", Dec, "=?iso-8859-1?q?caf=e9?= =?utf-8?b?w6k=?=", "caféé"},
    {"DecodeUnknownEncodingEmpty", Dec, "=?utf-8?X?abc?= x =?utf-8?QQ?a?=", " x "},
    {"DecodeInvalidUtf8Replaced", Dec, "=?utf-8?Q?a=FFb?=", "a?b"},
    {"DecodeNoCharset", Dec, "=?utf-8", "=?utf-8", kWrong + "(no charset): =?utf-8\n"},
    {"DecodeNoEncoding", Dec, "=?a?Q", "=?a?Q", kWrong + "(no encoding): =?a?Q\n"},
    {"DecodeNoData", Dec, "=?a?Q?b =?utf-8?Q?c?=", "=?a?Q?b c", kWrong + "(no data): =?a?Q?b\n"},
    {"DecodeLineBreakIsNoBlank", Dec, "=?utf-8?Q?a?=\n =?utf-8?Q?b?=", "a\n b",
     kWrong + "(trailing stuff): =?utf-8?Q?a?=\n\n"},
    {"DecodeQOneHexDigit", Dec, "=?utf-8?Q?=4Gx=4?=", "\x04x\x04"},
    {"DecodeQLoneEqualsIsNul", Dec, "=?utf-8?Q?a=?=", "a\0"s},
    {"DecodeQBadHex", Dec, "=?utf-8?Q?=G4x==41?=", "\0x\0001"s, kHex + "G4\n" + kHex + "=4\n"},
    {"DecodeQBadHexAtEnd", Dec, "=?utf-8?Q?=Z?=", "\0"s, kHex + "Z\n"},
    {"DecodeUnknownCharset", Dec, "=?x-none?Q?a?=", "!Cannot convert from x-none to utf-8"},
    {"DecodeTruncatedCharacter", Dec, "=?utf-8?Q?a=C3?=", "!Conversion from utf-8 to utf-8"},
    // Reports of one field: the first kMaxReportsPerField, then their number.
    {"DecodeReportsOfAFieldBounded", Dec, "=?utf-8?B?" + repeat("!", 12) + "?=", "\0\0\0"s,
     repeat(kBadB64, 10) + kWrong.substr(0, 22) + ": 2 more reports left out\n"},
    {"DecodeReportsAtTheBound", Dec, "=?utf-8?B?" + repeat("!", 10) + "?=", "\0\0\0"s,
     repeat(kBadB64, 10)},
    {"DecodeLongWordShownCut", Dec, "=?" + a_run(300), "=?" + a_run(300),
     kWrong + "(no charset): =?" + a_run(254) + "...\n"},
    {"FieldShortKeptAsIs", Field, repeat("é", 449), W(repeat("=C3=A9", 449))},
    {"FieldLongThatFitsKept", Field, a_run(989), a_run(989)},
    {"FieldLongFolded", Field, a_run(990), repeat(W(a_run(63)) + "\n ", 15) + W(a_run(45))},
    {"FieldCharactersNotSplit", Field, "x" + repeat("é", 500),
     W("x" + repeat("=C3=A9", 10)) + repeat("\n " + W(repeat("=C3=A9", 10)), 49)},
    // The examples of the encoded-word standard where our blank rules agree with it.
    {"Rfc2047TwoBlanks", Dec, "=?ISO-8859-1?Q?a?=  =?ISO-8859-1?Q?b?=", "ab"},
    {"Rfc2047SpaceInWord", Dec, "=?ISO-8859-1?Q?a?= =?ISO-8859-2?Q?_b?=", "a b"},
    {"Rfc2047Comment", Dec, "(=?ISO-8859-1?Q?a?= b)", "(=?ISO-8859-1?Q?a?= b)"},
    {"EncodePlain", Enc, "Re: [a] 50% & #1, ok;", "Re: [a] 50% & #1, ok;"},
    {"EncodeHyphen", Enc, "Re: hello-world", "Re: =?utf-8?Q?hello=2Dworld?="},
    {"EncodeNoBlankBefore", Enc, "Grüße aus Köln", "=?utf-8?Q?Gr=C3=BC=C3=9Fe_aus_K=C3=B6ln?="},
    {"EncodeLastOfBlanks", Enc, "Re:  Grüße", "Re:  =?utf-8?Q?Gr=C3=BC=C3=9Fe?="},
    {"EncodeEscapeAfterBlank", Enc, "a ?", "a =?utf-8?Q?=3F?="},
    {"EncodeTabAsTheBlank", Enc, "Re:\tnext?", "Re:\t=?utf-8?Q?next=3F?="},
    {"EncodeTabAsFirstEscape", Enc, "Re: a\tb", "Re: a\t=?utf-8?Q?b?="},
    {"EncodeLaterTab", Enc, "é\tx ", "=?utf-8?Q?=C3=A9=09x_?="},
    {"EncodeControlsAndSpecials", Enc, "é\n\0=?_!\"()*+/\x7F"s,
     "=?utf-8?Q?=C3=A9=0A=00=3D=3F=5F=21=22=28=29=2A=2B=2F\x7F?="},
    {"EncodeLong", Enc, "S " + repeat("é ", 500), "S =?utf-8?Q?" + repeat("=C3=A9_", 500) + "?="},
    {"Base64LineBreaksSkipped", B64, "Zm9v\r\nYmFy", "foobar"},
    {"Base64Unpadded", B64, "Zg", "f"},
    {"Base64StopsAtPad", B64, "Zm=9v", "f"},
    {"Base64BadSymbols", B64, "*Zm9v.", "foo\0"s, "Bad base64 symbol: *\nBad base64 symbol: .\n"},
    {"Base64SkippedBlankCounts", B64, "Z g==", "f\0"s},
    {"IconvLatin1", L1, "caf\xE9", "café"},
    {"IconvUnrepresentable", ToL1, "€!", "\?\?\?!"},
    {"IconvInvalidReplaced", U8, "a\377b\xE2(\xA1", "a?b?(?"},
    {"IconvInvalidNotSkipped", Strict, "a\377b", "!Conversion from utf-8 to LATIN1"},
    {"IconvTruncated", U8, "a\xC3", "!Conversion from utf-8 to utf-8"},
    {"IconvUnknownCharset", NoSuch, "", "!Cannot convert from x-none to utf-8"},
    {"IdnDomain", Idn, "bücher.example", "xn--bcher-kva.example"},
    {"IdnAddressIsOneLabel", Idn, "a@bücher.example", "xn--a@bcher-p2a.example"},
    {"IdnEmpty", Idn, "", ""},
    {"IdnLabelOf63", Idn, a_run(63) + ".example", a_run(63) + ".example"},
    {"IdnLabelOf64", Idn, a_run(64) + ".example", "!Invalid length"},
};

class TextEncoding : public text_case::TextCaseTest {};
TEXT_CASE_TESTS(TextEncoding, kCases);

// Long texts: every line within the bound, the text back after unfolding.
TEST(Rfc1522, FieldBodyLinesBounded) {
  for (const std::string& text : {repeat("a\xC3\xA9 ", 300), repeat("\xF0\x9F\x98\x80", 250),
                                  repeat("=", 400) + a_run(600)}) {
    std::string body = "Subject: " + orvik::rfc1522::encode_field_body(text, 9);
    std::size_t line_start = 0;
    for (std::size_t lf = body.find('\n'); lf != std::string::npos; lf = body.find('\n', lf + 1)) {
      EXPECT_LE(lf - line_start, orvik::rfc1522::kMaxLineOctets);
      line_start = lf + 1;
    }
    EXPECT_LE(body.size() - line_start, orvik::rfc1522::kMaxLineOctets);
    std::erase(body, '\n');
    EXPECT_EQ(orvik::rfc1522::decode(body.substr(9)), text);
  }
}

// Output around one conversion pass of 4096 bytes, a character straddling its end, a bad byte.
TEST(IconvRecode, PassBoundary) {
  for (std::size_t n : {4095u, 4096u, 4097u, 5 * 4096u + 7}) {
    const std::string a(n, 'a'), a2(n - 2, 'a');
    EXPECT_EQ(L1(a), a);
    EXPECT_EQ(L1(a2 + "\xE9\xE9"), a2 + "éé");
    EXPECT_EQ(U8(a + "\377b"), a + "?b");
    EXPECT_THROW(Strict(a + "\377b"), std::runtime_error);
    std::string mixed, mixed_utf8;  // Latin-1 letters among ASCII runs of every length
    for (std::size_t i = 0, run = 0; i < n; ++i) {
      const bool letter = i % 97 == run % 97 || i % 11 == 0;
      if (letter) ++run;
      mixed += letter ? '\xE9' : 'a';
      mixed_utf8 += letter ? "\xC3\xA9" : "a";
    }
    EXPECT_EQ(L1(mixed), mixed_utf8) << n;
  }
  EXPECT_THROW(U8(std::string(4096, 'a') + "\xC3"), std::runtime_error);
}

std::string Base64(const std::string& bytes) {  // into a buffer of its own
  std::vector<char> out(4 * ((bytes.size() + 2) / 3) + 8, 'x');
  const std::size_t n = base64Encode(bytes.data(), bytes.size(), out.data());
  EXPECT_EQ(out[n], '\0');
  return std::string(out.data(), n);
}

TEST(Base64, Rfc4648VectorsInPlaceEveryByte) {
  const char* const v[] = {
      "",     "",         "f",     "Zg==",     "fo",     "Zm8=",     "foo",      "Zm9v",
      "foob", "Zm9vYg==", "fooba", "Zm9vYmE=", "foobar", "Zm9vYmFy", "\xFB\xFF", "+/8="};
  for (std::size_t i = 0; i < std::size(v); i += 2) {
    EXPECT_EQ(Base64(v[i]), v[i + 1]);
    EXPECT_EQ(orvik::base64_decode(v[i + 1]), v[i]);
  }
  for (std::size_t n : {1u, 2u, 3u, 4u, 45u, 46u, 1000u}) {
    std::string bytes(n, '\0');
    for (std::size_t i = 0; i < n; ++i) bytes[i] = char(i * 37 + 11);
    std::vector<char> buffer(bytes.begin(), bytes.end());
    buffer.resize(4 * ((n + 2) / 3) + 1);
    const std::string encoded(buffer.data(), base64Encode(buffer.data(), n, buffer.data()));
    EXPECT_EQ(encoded, Base64(bytes)) << n;
    EXPECT_EQ(orvik::base64_decode(encoded), bytes) << n;
  }
}

}  // namespace
