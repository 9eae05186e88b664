// The declared charset of a text entity, taken from Content-Type field bodies
// that need GMime's parameter decoding: continuations, charset-tagged values,
// encoded words. Nothing in this process calls g_mime_init(), as in the
// program, so these also check that the partial set-up suffices.
#include "autoresponder/body_selection.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

struct Charset_case {
  const char* name;
  std::optional<std::string> content_type;
  const char* expected;
};

class CharsetOfTest : public testing::TestWithParam<Charset_case> {};

TEST_P(CharsetOfTest, Decodes) {
  EXPECT_EQ(CharsetOf(GetParam().content_type), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Parameters, CharsetOfTest,
    testing::Values(
        Charset_case{"NoContentType", std::nullopt, "US-ASCII"},
        Charset_case{"NoParameter", "text/plain", "US-ASCII"},
        Charset_case{"QuotesRemovedCaseKept", "text/plain; format=flowed; CharSet=\"Koi8-R\"",
                     "Koi8-R"},
        Charset_case{"FirstOfTwo", "text/plain; charset=utf-8; charset=iso-8859-1", "utf-8"},
        Charset_case{"Continuations", "text/plain; charset*0=\"iso-8859\"; charset*1=\"-15\"",
                     "iso-8859-15"},
        // A charset-tagged value is converted through GMime's charset map.
        Charset_case{"TaggedValueConverted", "text/plain; charset*=iso-8859-1''%E9", "\xC3\xA9"},
        Charset_case{"TaggedValueUnknownCharset", "text/plain; charset*=x-none''utf-8", "utf-8"},
        Charset_case{"EncodedWordDecoded", "text/plain; charset=\"=?utf-8?b?dXRmLTg=?=\"", "utf-8"},
        Charset_case{"NotAContentType", "garbage", "US-ASCII"}),
    [](const testing::TestParamInfo<Charset_case>& test) { return test.param.name; });

}  // namespace
