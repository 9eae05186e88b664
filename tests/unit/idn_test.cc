// Conversion of addresses to their ASCII form, and the texts of libidn's
// result codes.
#include "lib/text_encoding/idn.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>

#include "lib/idn_error.h"

using orvik::idn::IdnaError;
using orvik::idn::toAscii;

namespace {

template <typename Case>
std::string CaseName(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

struct Conversion {
  const char* name;
  std::string input;
  std::string ascii;
};

const Conversion kConversions[] = {
    {"Empty", "", ""},
    {"Domain",
     "b\xC3\xBC"
     "cher.example",
     "xn--bcher-kva.example"},
    {"AsciiAddressUnchanged", "User@Example.COM", "User@Example.COM"},
    // Labels are split at dots only: the local part, the at sign and the
    // first label of the domain are converted as one label.
    {"AddressIsOneLabelUpToTheFirstDot",
     "a@b\xC3\xBC"
     "cher.example",
     "xn--a@bcher-p2a.example"},
    {"UnicodeLabelCaseFolded",
     "B\xC3\xBC"
     "cher.example",
     "xn--bcher-kva.example"},
    {"AceLabelUnchanged", "xn--bcher-kva.example", "xn--bcher-kva.example"},
    {"LabelOf63", std::string(63, 'a') + ".example", std::string(63, 'a') + ".example"},
};

class ToAsciiTest : public testing::TestWithParam<Conversion> {};

TEST_P(ToAsciiTest, Converts) {
  EXPECT_EQ(toAscii(GetParam().input), GetParam().ascii);
}

INSTANTIATE_TEST_SUITE_P(Conversions, ToAsciiTest, testing::ValuesIn(kConversions),
                         CaseName<Conversion>);

struct Refusal {
  const char* name;
  std::string input;
  int code;
  const char* text;
};

const Refusal kRefusals[] = {
    {"LabelOf64", std::string(64, 'a') + ".example", 5, "Invalid length"},
    {"LongLocalPartCountsInFirstLabel", std::string(60, 'u') + "@host.example", 5,
     "Invalid length"},
    {"EmptyLabel", "a..example", 5, "Invalid length"},
};

class ToAsciiRefusalTest : public testing::TestWithParam<Refusal> {};

TEST_P(ToAsciiRefusalTest, ThrowsIdnaError) {
  try {
    toAscii(GetParam().input);
    FAIL() << "no exception";
  } catch (const IdnaError& e) {
    EXPECT_EQ(e.code(), GetParam().code);
    EXPECT_STREQ(e.what(), GetParam().text);
  }
}

INSTANTIATE_TEST_SUITE_P(Refusals, ToAsciiRefusalTest, testing::ValuesIn(kRefusals),
                         CaseName<Refusal>);

struct Code {
  const char* name;
  int code;
  const char* text;
};

const Code kCodes[] = {
    {"Success", 0, "Success"},
    {"Stringprep", 1, "Stringprep error"},
    {"Punycode", 2, "Punycode error"},
    {"NonLdh", 3, "Contains non-LDH characters"},
    {"Minus", 4, "Contains minus"},
    {"Length", 5, "Invalid length"},
    {"NoAcePrefix", 6, "ACE prefix not found"},
    {"Verify", 7, "Verify error"},
    {"AcePrefix", 8, "ACE prefix found"},
    {"Iconv", 9, "Iconv error"},
    {"Malloc", 201, "Cannot allocate buffer"},
    {"AfterTable", 10, "Unknown error"},
    {"AfterMalloc", 202, "Unknown error"},
    {"Negative", -1, "Unknown error"},
};

class IdnCodeTest : public testing::TestWithParam<Code> {};

TEST_P(IdnCodeTest, TextOfCode) {
  EXPECT_STREQ(idn_strerror(GetParam().code), GetParam().text);
}

TEST_P(IdnCodeTest, ErrorWhatIsTextOfCode) {
  const IdnaError error(GetParam().code);
  const std::exception& base = error;
  EXPECT_STREQ(base.what(), GetParam().text);
  EXPECT_EQ(error.code(), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Codes, IdnCodeTest, testing::ValuesIn(kCodes), CaseName<Code>);

}  // namespace
