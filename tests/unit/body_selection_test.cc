// Content-Type field bodies as the intake reads them: the main type, the
// charset of the text entity and the boundary of a multipart, from field
// bodies as mail programs write them, folded, commented, split (RFC 2231) or
// broken.
#include "autoresponder/intake/body_selection.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "autoresponder/intake/media_type.h"

namespace {

struct Parameter_case {
  const char* name;
  std::string content_type;
  const char* parameter;
  std::optional<std::string> expected;
};

class MediaTypeParameterTest : public testing::TestWithParam<Parameter_case> {};

TEST_P(MediaTypeParameterTest, Reads) {
  EXPECT_EQ(MediaTypeParameter(GetParam().content_type, GetParam().parameter), GetParam().expected);
}

const Parameter_case kParameters[] = {
    {"QuotesRemovedCaseKept", "text/plain; format=flowed; CharSet=\"Koi8-R\"", "charset", "Koi8-R"},
    {"FirstOfTwo", "text/plain; charset=utf-8; charset=iso-8859-1", "charset", "utf-8"},
    {"FoldedWithComments", "text/plain (body);\r\n\tcharset (the set) = \"utf-8\" (end)", "charset",
     "utf-8"},
    {"EscapesUndone", R"(multipart/mixed; boundary="a\"b\\c")", "boundary", R"(a"b\c)"},
    {"UnterminatedQuoteRunsToTheEnd", "multipart/mixed; boundary=\"a;b", "boundary", "a;b"},
    {"SeparatorInsideQuotesOrComment", "text/plain; x=\"a;charset=no\" (;charset=no); charset=k",
     "charset", "k"},
    {"TypeWithoutSubtype", "text; charset=koi8-r", "charset", "koi8-r"},
    {"BrokenParameterSkipped", "text/plain; charset; format flowed; charset=ok", "charset", "ok"},
    {"JunkAfterValueSkipped", "text/plain; charset=utf-8 junk; format=flowed", "charset", "utf-8"},
    {"EmptyValueKept", "text/plain; charset=\"\"", "charset", ""},
    {"NotAContentType", "garbage", "charset", std::nullopt},
    {"NoSeparator", "text/plain charset=utf-8", "charset", std::nullopt},
    {"NamePrefixIsNotTheName", "text/plain; charsets=a; xcharset=b", "charset", std::nullopt},
    // RFC 2231: sections joined by number, "%XX" undone where "*" says so,
    // the charset'language' tag dropped, the bytes not converted.
    {"ContinuationsInNumberOrder", "text/plain; charset*1=\"-15\"; CHARSET*0=iso-8859", "charset",
     "iso-8859-15"},
    {"TaggedValue", "text/plain; charset*=us-ascii'en'utf-8", "charset", "utf-8"},
    {"TaggedValueBytesKept", "text/plain; charset*=iso-8859-1''%E9%zz%4", "charset", "\xE9%zz%4"},
    {"TaggedSections", "multipart/mixed; boundary*0*=utf-8''a%20b; boundary*1*=%21; boundary*2=%21",
     "boundary", "a b!%21"},
    {"UnsplitBeforeSections", "text/plain; charset=a; charset*0=b", "charset", "a"},
    {"SectionsBeforeUnsplit", "text/plain; charset*0=b; charset=a; charset*1=c", "charset", "bc"},
    {"EncodedWordNotDecoded", "text/plain; charset=\"=?utf-8?b?dXRmLTg=?=\"", "charset",
     "=?utf-8?b?dXRmLTg=?="},
};

INSTANTIATE_TEST_SUITE_P(Parameters, MediaTypeParameterTest, testing::ValuesIn(kParameters),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(MediaMainTypeTest, FirstTokenAfterBlanksControlsAndComments) {
  EXPECT_EQ(MediaMainType("(legacy (old)) \x01TEXT/plain"), "TEXT");
  EXPECT_EQ(MediaMainType("multipart;boundary=x"), "multipart");
  EXPECT_EQ(MediaMainType("/plain"), "");
  EXPECT_EQ(MediaMainType("(unclosed text"), "");
}

TEST(CharsetOfTest, DefaultsToUsAscii) {
  EXPECT_EQ(CharsetOf(std::nullopt), "US-ASCII");
  EXPECT_EQ(CharsetOf("text/plain"), "US-ASCII");
  EXPECT_EQ(CharsetOf("text/plain; charset=\"\""), "");
}

// A field body of megabytes made of sections: bounded work and memory.
TEST(MediaTypeParameterTest, ManySectionsAreBounded) {
  std::string content_type = "text/plain";
  for (int i = 0; i < 200000; ++i) content_type += "; charset*" + std::to_string(i) + "=x";
  EXPECT_EQ(MediaTypeParameter(content_type, "charset"), std::string(4096, 'x'));
}

}  // namespace
