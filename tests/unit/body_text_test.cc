// The text body in pieces: the streamed charset conversion against the whole
// one, and the search of the body file across its read blocks.
#include "autoresponder/intake/body_text.h"

#include <gtest/gtest.h>
#include <iconv.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>

#include "lib/text_encoding/iconv_recode.h"

namespace {

// iconv on the whole text at once, each invalid byte made "?": what the
// conversion gives (reports shortened to "error").
std::string whole(const std::string& text, const std::string& from) {
  const iconv_t cd = iconv_open("UTF-8", from.c_str());
  if (cd == reinterpret_cast<iconv_t>(-1)) return "Cannot convert from " + from + " to UTF-8";
  std::string out(4 * text.size() + 16, '\0');
  char* in = const_cast<char*>(text.data());
  std::size_t in_left = text.size();
  char* put = out.data();
  std::size_t out_left = out.size();
  while (in_left > 0) {
    if (iconv(cd, &in, &in_left, &put, &out_left) != static_cast<std::size_t>(-1)) break;
    if (errno != EILSEQ) {
      iconv_close(cd);
      return "Conversion from " + from + " to UTF-8";
    }
    ++in, --in_left, *put++ = '?', --out_left;
  }
  iconv_close(cd);
  return out.substr(0, out.size() - out_left);
}

std::string in_pieces(const std::string& text, const std::string& from, std::size_t piece) {
  try {
    orvik::Iconv_stream stream(from, "UTF-8", true);
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += piece) {
      stream.feed(std::string_view(text).substr(at, piece), [&](std::string_view p) { out += p; });
    }
    stream.finish();
    return out;
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
}

const std::string kEveryByte = [] {
  std::string all(256, '\0');
  for (int i = 0; i < 256; ++i) all[i] = static_cast<char>(i);
  return all;
}();

// name, charset, text
using Recode_case = std::tuple<const char*, const char*, std::string>;
class StreamedRecode : public testing::TestWithParam<Recode_case> {};

// Every cut, a character's bytes split between pieces included, gives the
// whole conversion's result or report.
TEST_P(StreamedRecode, EqualsTheWholeConversionForEveryPieceSize) {
  const auto& [name, charset, text] = GetParam();
  const std::string expected = whole(text, charset);
  for (const std::size_t piece : {1, 2, 3, 5, 4096}) {
    EXPECT_EQ(in_pieces(text, charset, piece), expected) << "pieces of " << piece;
  }
  EXPECT_EQ(in_pieces(text, charset, 4096), [&] {
    try {
      return orvik::iconvRecode(text, charset, "UTF-8", true);
    } catch (const std::runtime_error& failure) {
      return std::string(failure.what());
    }
  }());
}

INSTANTIATE_TEST_SUITE_P(
    , StreamedRecode,
    testing::Values(
        Recode_case{"Utf8WithInvalidBytes", "UTF-8",
                    "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xff"
                    "b\xc3(\xe2\x82z\xed\xa0\x80"},
        Recode_case{"Utf8EndingInsideACharacter", "UTF-8", "ok \xe2\x82"},
        Recode_case{"Utf8CutByAnAsciiByte", "utf8",
                    "\xe2\x82z\xf0\x9f\x98\x80\xf0\x9f"
                    "a\xc3\xa9"},
        Recode_case{"Utf8EdgesOfWellFormed", "UTF-8",
                    "\xc2\x80\xc1\xbf\xe0\xa0\x80\xe0\x9f\xbf\xed\x9f\xbf\xed\xa0\x80"
                    "\xef\xbf\xbf\xf0\x90\x80\x80\xf0\x8f\xbf\xbf\xf4\x8f\xbf\xbf"
                    "\xf4\x90\x80\x80\xf5\x80\x80\x80\xc0\x80"},
        Recode_case{"Windows1252Undefined", "WINDOWS-1252",
                    "a\x81\x80"
                    "b\x9d"},
        // A run of ASCII long enough to pass by, and more output than one pass.
        Recode_case{"Windows1252LongAsciiRun", "windows-1252",
                    "\x80\x81" + std::string(300, 'a') + "\xe9" + std::string(5000, '\x80')},
        Recode_case{"Latin1EveryByte", "latin1", kEveryByte},
        Recode_case{"AsciiEveryByte", "us-ascii", {kEveryByte.rbegin(), kEveryByte.rend()}},
        Recode_case{"AsciiWithHighBytes", "US-ASCII", "a\x80\xff z"},
        Recode_case{"Iso2022JpEscapes", "ISO-2022-JP", "a\x1b$B$3$s\x1b(Bb\x1b$B$K\x1b(B"},
        Recode_case{"Utf16WithBom", "UTF-16", std::string("\xff\xfe\x61\x00\x3d\xd8\x00\xde", 8)},
        Recode_case{"Utf7", "UTF-7", "Hi +AOkA6Q- and +2D3eAA-."},
        Recode_case{"UnknownCharset", "x-no-such", "text"}),
    [](const auto& p) { return std::get<0>(p.param); });

// A body file holding `text`.
Body_text body_of(const std::string& text) {
  std::string path = (std::filesystem::temp_directory_path() / "body-text-XXXXXX").string();
  const int fd = mkstemp(path.data());
  EXPECT_GE(fd, 0);
  unlink(path.c_str());
  EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  return Body_text(fd);
}

constexpr std::size_t kBlock = Body_text::kReadBlock;

// name, text, key, whether a line holds the key
using Search_case = std::tuple<const char*, std::string, std::string, bool>;
class BodySearch : public testing::TestWithParam<Search_case> {};

TEST_P(BodySearch, FindsTheKeyWithinOneLine) {
  const auto& [name, text, key, found] = GetParam();
  EXPECT_EQ(body_of(text).line_contains(key), found);
}

INSTANTIATE_TEST_SUITE_P(
    , BodySearch,
    testing::Values(Search_case{"AcrossTheReadBlockBoundary",
                                std::string(kBlock - 3, 'x') + "key-word", "key-word", true},
                    Search_case{"AtTheEndOfALineOfThreeBlocks",
                                std::string(3 * kBlock, 'x') + "key\nz", "xkey", true},
                    Search_case{"SpanningALineFeed", std::string(kBlock, 'x') + "key\nword",
                                "key\nword", false},
                    Search_case{"SplitByALineFeed", "key\nword", "keyword", false},
                    Search_case{"EmptyKeyInAnEmptyBody", "", "", true},
                    Search_case{"NotThere", std::string(2 * kBlock, 'k') + "ey-wor", "key-word",
                                false}),
    [](const auto& p) { return std::get<0>(p.param); });

TEST(BodyTextTest, LinesArePiecesBetweenLineFeeds) {
  const Body_text body = body_of("a\r\n\n" + std::string(kBlock + 1, 'b') + "\n");
  EXPECT_EQ(body.size(), 4u);
  EXPECT_TRUE(body == (std::vector<std::string>{"a\r", "", std::string(kBlock + 1, 'b'), ""}));
  EXPECT_FALSE(Body_text().line_contains(""));  // no body at all: not even an empty line
}

}  // namespace
