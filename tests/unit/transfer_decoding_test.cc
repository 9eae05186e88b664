// The transfer decoders against the MIME library's, fed the same text in
// pieces of every size from one byte up, so that every piece boundary falls
// everywhere: inside quartets, between "=" and its digits, inside a CR LF
// soft line break, among the padding.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/unit/decode_both.h"

namespace {

enum class Kind { kBase64, kQuotedPrintable };

// Every piece size from 1 to 300, and the whole text in one piece.
void expect_same_in_all_pieces(Kind kind, const std::string& text) {
  const std::size_t largest = std::min<std::size_t>(text.size(), 300) + 1;
  for (std::size_t piece = 1; piece <= largest; ++piece) {
    const std::size_t size = piece == largest ? text.size() + 1 : piece;
    const auto [ours, theirs] = decode_both(kind == Kind::kBase64, text, size, size);
    ASSERT_EQ(ours, theirs) << "pieces of " << size << " bytes";
  }
}

struct Decoding_case {
  const char* name;
  Kind kind;
  std::string text;
};

class TransferDecodingTest : public testing::TestWithParam<Decoding_case> {};

TEST_P(TransferDecodingTest, SameAsLibraryAtEveryBoundary) {
  expect_same_in_all_pieces(GetParam().kind, GetParam().text);
}

std::string encoded_lines(std::size_t bytes, const char* line_end) {
  std::string binary;
  for (std::size_t i = 0; i < bytes; ++i) binary += static_cast<char>(i * 7919 % 256);
  gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(binary.data()), binary.size());
  std::string text(encoded);
  g_free(encoded);
  std::string lines;
  for (std::size_t at = 0; at < text.size(); at += 76) lines += text.substr(at, 76) + line_end;
  return lines;
}

const Decoding_case kCases[] = {
    {"Base64Lines", Kind::kBase64, encoded_lines(1000, "\n")},
    {"Base64CrlfLinesOnePad", Kind::kBase64, encoded_lines(1001, "\r\n")},
    {"Base64TwoPads", Kind::kBase64, encoded_lines(1000 - 2, "\n")},
    {"Base64PaddingInTheMiddle", Kind::kBase64, "QQ==QUI=QUJD\nQQ==\n"},
    {"Base64TooMuchPadding", Kind::kBase64, "QUJD====\n====QQ"},
    {"Base64PaddingSpread", Kind::kBase64, "Q U\tI =\r\n= x"},
    {"Base64IncompleteQuartet", Kind::kBase64, "QUJDRA"},
    {"Base64JunkAndEightBit", Kind::kBase64,
     "Q\xffU*J\x80"
     "D-_:;QQ=\xe9="},
    {"Base64OnlyJunk", Kind::kBase64, "!!\n\r\n--"},
    {"QpEscapesEitherCase", Kind::kQuotedPrintable, "caf=C3=a9 =3d=3D\n"},
    {"QpSoftBreaks", Kind::kQuotedPrintable, "long =\nline=\r\nend=\n\n=\r\n"},
    {"QpBadEscapesKept", Kind::kQuotedPrintable, "=XY =4G =G4 == =\r= =\n\n"},
    {"QpEqualsCrThenOther", Kind::kQuotedPrintable, "a=\rb=\r=\rc"},
    {"QpTrailingEqualsLost", Kind::kQuotedPrintable, "text="},
    {"QpTrailingEqualsDigitLost", Kind::kQuotedPrintable, "text=4"},
    {"QpEightBitAndNul", Kind::kQuotedPrintable, std::string("\xe9t\xe9\0=00=\xff\xfe", 10)},
    {"QpLongRunsSoftBreaks", Kind::kQuotedPrintable, encoded_lines(300, "=\r\n") + "caf=C3=A9"},
    {"QpSpacesBeforeBreak", Kind::kQuotedPrintable, "trailing   \nspaces =  \n"},
};

INSTANTIATE_TEST_SUITE_P(Cases, TransferDecodingTest, testing::ValuesIn(kCases),
                         [](const auto& param_info) { return std::string(param_info.param.name); });

// Short texts drawn from the characters that matter to either decoder.
TEST(TransferDecodingTest, SameAsLibraryOnGeneratedTexts) {
  const std::string alphabet("AQUJ+/=4aFg \t\r\n\xe9\0", 17);
  std::mt19937 random(20261124);
  for (int round = 0; round < 3000; ++round) {
    std::string text(random() % 24, ' ');
    for (char& c : text) c = alphabet[random() % alphabet.size()];
    expect_same_in_all_pieces(Kind::kBase64, text);
    expect_same_in_all_pieces(Kind::kQuotedPrintable, text);
  }
}

}  // namespace
