// The transfer decoders against the MIME library's, fed the same text in
// pieces of every size from one byte up, so that every piece boundary falls
// everywhere: inside quartets, between "=" and its digits, inside a CR LF
// soft line break, among the padding.
#include "autoresponder/intake/transfer_decoding.h"

#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using transfer_decoding::Base64_decoder;
using transfer_decoding::MaxDecodedSize;
using transfer_decoding::Quoted_printable_decoder;

enum class Kind { kBase64, kQuotedPrintable };

std::string decode_ours(Kind kind, const std::string& text, std::size_t piece) {
  Base64_decoder base64;
  Quoted_printable_decoder quoted_printable;
  std::string result;
  for (std::size_t at = 0; at < text.size(); at += piece) {
    const std::size_t size = std::min(piece, text.size() - at);
    std::vector<char> out(MaxDecodedSize(size));
    const std::size_t length = kind == Kind::kBase64
                                   ? base64.step(text.data() + at, size, out.data())
                                   : quoted_printable.step(text.data() + at, size, out.data());
    result.append(out.data(), length);
  }
  return result;
}

std::string decode_library(Kind kind, const std::string& text, std::size_t piece) {
  GMimeEncoding state;
  g_mime_encoding_init_decode(&state, kind == Kind::kBase64
                                          ? GMIME_CONTENT_ENCODING_BASE64
                                          : GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
  std::string result;
  std::vector<char> out;
  for (std::size_t at = 0; at < text.size(); at += piece) {
    const std::size_t size = std::min(piece, text.size() - at);
    out.resize(g_mime_encoding_outlen(&state, size));
    result.append(out.data(), g_mime_encoding_step(&state, text.data() + at, size, out.data()));
  }
  out.resize(g_mime_encoding_outlen(&state, 0) + 1);
  result.append(out.data(), g_mime_encoding_flush(&state, nullptr, 0, out.data()));
  return result;
}

// Every piece size from 1 to the whole text (to 300 for longer texts).
void expect_same_in_all_pieces(Kind kind, const std::string& text) {
  const std::size_t largest = std::max<std::size_t>(1, std::min<std::size_t>(text.size(), 300));
  for (std::size_t piece = 1; piece <= largest; ++piece) {
    ASSERT_EQ(decode_ours(kind, text, piece), decode_library(kind, text, piece))
        << "pieces of " << piece << " bytes";
  }
  ASSERT_EQ(decode_ours(kind, text, text.size() + 1), decode_library(kind, text, text.size() + 1));
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
