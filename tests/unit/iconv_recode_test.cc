// Charset conversion: results, replacement of invalid bytes, failures, and
// texts around the size of one conversion pass.
#include "lib/text_encoding/iconv_recode.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using orvik::iconvRecode;

namespace {

constexpr std::size_t kPass = 4096;  // output bytes per conversion pass

template <typename Case>
std::string CaseName(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

std::string ThrownText(const std::string& text, const std::string& from, const std::string& to,
                       bool skipInvalid) {
  try {
    iconvRecode(text, from, to, skipInvalid);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(no exception)";
}

struct Conversion {
  const char* name;
  std::string text;
  const char* from;
  const char* to;
  std::string converted;
};

const Conversion kConversions[] = {
    {"Empty", "", "utf-8", "utf-8", ""},
    {"Latin1ToUtf8", "caf\xE9", "ISO-8859-1", "utf-8", "caf\xC3\xA9"},
    {"Utf8ToLatin1", "caf\xC3\xA9", "utf-8", "ISO-8859-1", "caf\xE9"},
    {"Latin2ToUtf8", "\xB1", "iso-8859-2", "UTF-8", "\xC4\x85"},
    {"InvalidByteReplaced",
     "a\xFF"
     "b",
     "utf-8", "utf-8", "a?b"},
    {"EachByteOfBadSequenceReplaced", "\xE2\x28\xA1", "utf-8", "utf-8", "?(?"},
    {"OverlongFormReplaced", "\xC0\xAF", "utf-8", "utf-8", "??"},
    {"SurrogateReplaced",
     "\xED\xA0\x80"
     "x",
     "utf-8", "utf-8", "???x"},
    {"StrayContinuationReplaced",
     "\x80"
     "a",
     "utf-8", "utf-8", "?a"},
    {"UnrepresentableBecomesOnePerByte", "\xE2\x82\xAC!", "utf-8", "ISO-8859-1",
     "??"
     "?!"},
    {"EightBitInAsciiReplaced", "\xE9x", "US-ASCII", "utf-8", "?x"},
};

class IconvRecodeTest : public testing::TestWithParam<Conversion> {};

TEST_P(IconvRecodeTest, Converts) {
  const Conversion& c = GetParam();
  EXPECT_EQ(iconvRecode(c.text, c.from, c.to, true), c.converted);
}

INSTANTIATE_TEST_SUITE_P(Conversions, IconvRecodeTest, testing::ValuesIn(kConversions),
                         CaseName<Conversion>);

struct Failure {
  const char* name;
  std::string text;
  const char* from;
  const char* to;
  bool skipInvalid;
  const char* message;
};

const Failure kFailures[] = {
    {"InvalidByteNotSkipped",
     "a\xFF"
     "b",
     "utf-8", "utf-8", false, "Conversion from utf-8 to utf-8"},
    {"UnrepresentableNotSkipped", "\xE2\x82\xAC", "utf-8", "ISO-8859-1", false,
     "Conversion from utf-8 to ISO-8859-1"},
    {"TruncatedEvenWhenSkipping", "a\xC3", "utf-8", "utf-8", true,
     "Conversion from utf-8 to utf-8"},
    {"TruncatedThreeByteCharacter", "\xE2\x82", "utf-8", "UTF-16", true,
     "Conversion from utf-8 to UTF-16"},
    {"UnknownSource", "a", "x-no-such-charset", "utf-8", true,
     "Cannot convert from x-no-such-charset to utf-8"},
    {"UnknownTarget", "a", "utf-8", "x-no-such-charset", true,
     "Cannot convert from utf-8 to x-no-such-charset"},
    {"UnknownCharsetEvenForEmptyText", "", "x-no-such-charset", "utf-8", true,
     "Cannot convert from x-no-such-charset to utf-8"},
};

class IconvRecodeFailureTest : public testing::TestWithParam<Failure> {};

TEST_P(IconvRecodeFailureTest, Throws) {
  const Failure& f = GetParam();
  EXPECT_EQ(ThrownText(f.text, f.from, f.to, f.skipInvalid), f.message);
}

INSTANTIATE_TEST_SUITE_P(Failures, IconvRecodeFailureTest, testing::ValuesIn(kFailures),
                         CaseName<Failure>);

// Output lengths around one pass: ASCII copied, and a two-byte character
// whose bytes straddle the end of the first pass.
TEST(IconvRecodePasses, OutputAroundPassSizeConvertedWhole) {
  for (std::size_t length :
       {kPass - 1, kPass, kPass + 1, 2 * kPass, 2 * kPass + 1, 5 * kPass + 7}) {
    const std::string text(length, 'a');
    EXPECT_EQ(iconvRecode(text, "ISO-8859-1", "utf-8", true), text) << length;
  }
  for (std::size_t ascii : {kPass - 2, kPass - 1, kPass}) {
    const std::string text = std::string(ascii, 'a') + "\xE9\xE9";
    EXPECT_EQ(iconvRecode(text, "ISO-8859-1", "utf-8", true),
              std::string(ascii, 'a') + "\xC3\xA9\xC3\xA9")
        << ascii;
  }
}

TEST(IconvRecodePasses, InvalidByteAtPassBoundaryReplaced) {
  for (std::size_t before : {kPass - 1, kPass, kPass + 1}) {
    const std::string text = std::string(before, 'a') +
                             "\xFF"
                             "b";
    EXPECT_EQ(iconvRecode(text, "utf-8", "utf-8", true), std::string(before, 'a') + "?b") << before;
    EXPECT_EQ(ThrownText(text, "utf-8", "utf-8", false), "Conversion from utf-8 to utf-8")
        << before;
  }
}

TEST(IconvRecodePasses, TruncatedCharacterAtPassBoundaryThrows) {
  const std::string text = std::string(kPass, 'a') + "\xC3";
  EXPECT_EQ(ThrownText(text, "utf-8", "utf-8", true), "Conversion from utf-8 to utf-8");
}

TEST(IconvRecodePasses, LargeTextRoundTrips) {
  std::string latin1;
  for (int i = 0; i < 4000; ++i) {
    for (int byte = 0; byte < 256; ++byte) latin1 += static_cast<char>(byte);
  }
  const std::string utf8 = iconvRecode(latin1, "ISO-8859-1", "utf-8", false);
  EXPECT_EQ(utf8.size(), latin1.size() / 2 * 3);
  EXPECT_EQ(iconvRecode(utf8, "utf-8", "ISO-8859-1", false), latin1);
}

}  // namespace
