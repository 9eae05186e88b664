// Base64: the encoder into a caller's buffer (also in place) and the lenient
// decoder used for B-encoded words.
#include "lib/base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lib/text_encoding/rfc1522.h"
#include "lib/text_encoding/rfc1522_internal.h"

using namespace std::string_literals;

namespace {

template <typename Case>
std::string CaseName(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

std::string Encode(const std::string& bytes) {
  std::vector<char> out(4 * ((bytes.size() + 2) / 3) + 8, 'x');
  const std::size_t n = base64Encode(bytes.data(), bytes.size(), out.data());
  EXPECT_EQ(out[n], '\0');
  EXPECT_EQ(std::strlen(out.data()), n);
  return std::string(out.data(), n);
}

struct Vector {
  const char* name;
  std::string bytes;
  std::string encoded;
};

// RFC 4648 section 10, the three padding shapes, and bytes that use the
// last symbols of the alphabet.
const Vector kVectors[] = {
    {"Empty", "", ""},
    {"Rfc_f", "f", "Zg=="},
    {"Rfc_fo", "fo", "Zm8="},
    {"Rfc_foo", "foo", "Zm9v"},
    {"Rfc_foob", "foob", "Zm9vYg=="},
    {"Rfc_fooba", "fooba", "Zm9vYmE="},
    {"Rfc_foobar", "foobar", "Zm9vYmFy"},
    {"OneByte", "M", "TQ=="},
    {"TwoBytes", "Ma", "TWE="},
    {"ThreeBytes", "Man", "TWFu"},
    {"AllOnes", "\xFF\xFF\xFF", "////"},
    {"PlusAndSlash", "\xFB\xFF", "+/8="},
};

class Base64VectorTest : public testing::TestWithParam<Vector> {};

TEST_P(Base64VectorTest, Encodes) {
  EXPECT_EQ(Encode(GetParam().bytes), GetParam().encoded);
}

TEST_P(Base64VectorTest, Decodes) {
  EXPECT_EQ(orvik::base64_decode(GetParam().encoded), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Vectors, Base64VectorTest, testing::ValuesIn(kVectors), CaseName<Vector>);

TEST(Base64Encode, ZeroBytesWriteOnlyTheTerminator) {
  char out[2] = {'x', 'x'};
  EXPECT_EQ(base64Encode("", 0, out), 0u);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(out[1], 'x');
}

TEST(Base64Encode, InPlaceMatchesSeparateBuffer) {
  for (std::size_t length : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 44u, 45u, 46u, 1000u, 1001u, 1002u}) {
    std::string source(length, '\0');
    for (std::size_t i = 0; i < length; ++i) source[i] = static_cast<char>(i * 37 + 11);
    std::vector<char> buffer(4 * ((length + 2) / 3) + 1);
    std::memcpy(buffer.data(), source.data(), length);
    const std::size_t n = base64Encode(buffer.data(), length, buffer.data());
    EXPECT_EQ(std::string(buffer.data(), n), Encode(source)) << "length " << length;
    EXPECT_EQ(buffer[n], '\0');
  }
}

TEST(Base64, EveryByteValueRoundTrips) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (std::size_t cut = 0; cut < 3; ++cut) {
    const std::string bytes = all.substr(cut);
    EXPECT_EQ(orvik::base64_decode(Encode(bytes)), bytes) << "cut " << cut;
  }
}

struct Lenient {
  const char* name;
  std::string text;
  std::string bytes;
  std::string report;
};

// The decoder reads on over blanks and bad symbols and stops at the first
// "="; a group's output length follows the characters it consumed, skipped
// ones included.
const Lenient kLenient[] = {
    {"LineBreaksSkipped", "Zm9v\r\nYmFy", "foobar", ""},
    {"BlanksSkipped", " Zm9v\tYmFy", "foobar", ""},
    {"UnpaddedTwo", "Zg", "f", ""},
    {"StopsAtFirstPad", "Zg==Zm9v", "f", ""},
    {"StopsAtPadInsideGroup", "Zm=9v", "f", ""},
    {"BadSymbolReportedAndSkipped", "Zm9!v", "foo", "Bad base64 symbol: !\n"},
    {"EachBadSymbolReported", "*Zm9v.", "foo\0"s, "Bad base64 symbol: *\nBad base64 symbol: .\n"},
    {"SkippedBlankCountsInShortGroup", "Z g==", "f\0"s, ""},
    {"BlanksOnly", "  \n", "\0\0"s, ""},
};

class Base64LenientTest : public testing::TestWithParam<Lenient> {};

TEST_P(Base64LenientTest, Decodes) {
  testing::internal::CaptureStderr();
  const std::string bytes = orvik::base64_decode(GetParam().text);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().report);
  EXPECT_EQ(bytes, GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Decode, Base64LenientTest, testing::ValuesIn(kLenient), CaseName<Lenient>);

TEST(Base64Take, ReadsSymbolsAndAdvances) {
  const std::string text = "Az\t09+/";
  std::size_t position = 0;
  std::vector<int> values;
  for (int i = 0; i < 6; ++i) values.push_back(orvik::rfc1522::base64Take(text, position));
  EXPECT_EQ(values, (std::vector<int>{0, 51, 52, 61, 62, 63}));
  EXPECT_EQ(position, text.size());
  EXPECT_EQ(orvik::rfc1522::base64Take(text, position), 0);
  EXPECT_EQ(position, text.size());
}

}  // namespace
