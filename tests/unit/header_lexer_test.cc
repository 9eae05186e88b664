// The shared lexer of structured header text: tokens of both syntaxes,
// delimited pieces cut off by the end of the text, field names and bodies.
#include "autoresponder/intake/header_lexer.h"

#include <gtest/gtest.h>

#include <string>

#include "autoresponder/intake/media_type.h"

namespace {

using namespace std::string_literals;

struct Token_case {
  const char* name;
  Header_syntax syntax;
  std::string text;
  std::string tokens;  // kind letter and text of each token, space-separated
};

std::string lexed(const Token_case& test) {
  static constexpr char kKinds[] = "asqdcun";  // in the order of Header_token_kind
  Header_lexer lexer(test.text, test.syntax);
  std::string out;
  while (const auto token = lexer.next()) {
    if (!out.empty()) out += ' ';
    out += kKinds[static_cast<int>(token->kind)];
    out += token->text;
  }
  return out;
}

class HeaderTokenTest : public testing::TestWithParam<Token_case> {};

TEST_P(HeaderTokenTest, Lexes) {
  EXPECT_EQ(lexed(GetParam()), GetParam().tokens);
}

constexpr auto kAddress = Header_syntax::kAddress;
constexpr auto kMedia = Header_syntax::kMediaType;

const Token_case kTokens[] = {
    {"Mailbox", kAddress, "\"J. D\" <j.d@[1.2]> (x (y) z)",
     "q\"J. D\" s< aj s. ad s@ d[1.2] s> c(x (y) z)"},
    {"EscapesDoNotClose", kAddress, R"("a\"b" (c\)d) [e\]f])", R"(q"a\"b" c(c\)d) d[e\]f])"},
    {"CutOffQuote", kAddress, "a \"b (c", "aa u\"b (c"},
    {"CutOffNestedComment", kAddress, "a (b (c) d", "aa u(b (c) d"},
    {"BackslashAtTheEnd", kAddress, "\"a\\", "u\"a\\"},
    {"ControlsSeparateNulStands", kAddress,
     "a\r\n\tb\x7f"
     "c\0d"s,
     "aa ab ac n\0 ad"s},
    {"EightBitBytesInAtoms", kAddress, "\xC3\xA9t\xC3\xA9@x", "a\xC3\xA9t\xC3\xA9 s@ ax"},
    {"MediaTypeSpecials", kMedia, "text/plain;a.b=[c]", "atext s/ aplain s; aa.b s= s[ ac s]"},
    {"Empty", kAddress, " \t\r\n", ""},
};

INSTANTIATE_TEST_SUITE_P(Tokens, HeaderTokenTest, testing::ValuesIn(kTokens),
                         [](const auto& test) { return std::string(test.param.name); });

// Piece by piece, as the media-type reader goes: past the type, then each
// parameter's name and value.
TEST(HeaderLexerTest, SkipsToSeparatorsOutsideQuotesAndComments) {
  const std::string text = "a/b (;) \"c;\" ; n*0 (x) = \"v\\\"w";
  Header_lexer lexer(text, kMedia);
  lexer.skip_to(';');
  EXPECT_EQ(lexer.position(), text.find(" ; ") + 1);
  lexer.advance();
  lexer.skip_cfws();
  EXPECT_EQ(lexer.atom(true), "n");
  EXPECT_EQ(lexer.peek(), '*');
  lexer.advance();
  EXPECT_EQ(lexer.atom(), "0");
  lexer.skip_cfws();
  lexer.advance();  // "="
  lexer.skip_cfws();
  EXPECT_EQ(lexer.quoted_content(), "v\\\"w");  // cut off: runs to the end
  EXPECT_TRUE(lexer.at_end());
  EXPECT_EQ(lexer.peek(), '\0');
}

// A section number too large to hold is read as the largest one kept, so two
// such sections stay in the order written.
TEST(HeaderLexerTest, HugeSectionNumbersKeepTheirOrder) {
  EXPECT_EQ(MediaTypeParameter("t/p; c*99999999999999999999=b; c*1000000000=c; c*0=a", "c"), "abc");
}

struct Name_case {
  const char* name;
  std::string line;
  decltype(Field_name_scan::kField) result;
  std::size_t length;
};

class FieldNameTest : public testing::TestWithParam<Name_case> {};

TEST_P(FieldNameTest, Scans) {
  const Field_name_scan scan = ScanFieldName(GetParam().line);
  EXPECT_EQ(scan.result, GetParam().result);
  EXPECT_EQ(scan.length, GetParam().length);
}

const Name_case kNames[] = {
    {"Field", "Subject: x\n", Field_name_scan::kField, 7},
    {"BlanksBeforeColon", "Subject \t: x\n", Field_name_scan::kField, 7},
    {"LeadingBlanksEmptyName", " : x\n", Field_name_scan::kField, 0},
    {"ColonFirst", ": x\n", Field_name_scan::kNoField, 0},
    {"BlankInside", "From x@y\n", Field_name_scan::kNoField, 5},
    {"ControlInside", "Sub\x01ject: x\n", Field_name_scan::kNoField, 3},
    {"OpenAtTheEnd", "Subject", Field_name_scan::kOpen, 7},
};

INSTANTIATE_TEST_SUITE_P(Names, FieldNameTest, testing::ValuesIn(kNames),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(HeaderLexerTest, TrimsFieldBodies) {
  EXPECT_EQ(TrimFieldBody(" \t a b \r\n\t\v\f"), "a b");
  EXPECT_EQ(TrimFieldBody("\r\na"), "\r\na");  // only blanks and tabs lead
  EXPECT_EQ(TrimFieldBody(" \t\r\n"), "");
}

}  // namespace
