// Cost of the text-encoding module against input size: header decoding and
// encoding, charset conversion (clean and with invalid bytes) and base64.
// Every benchmark runs from 100 bytes to 10 MB so that the per-byte cost can
// be compared across sizes; it should stay flat (linear total cost).
#include <benchmark/benchmark.h>

#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "lib/base64.h"
#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/rfc1522.h"

namespace {

constexpr int64_t kSmallest = 100;
constexpr int64_t kLargest = 10'000'000;

// Whole copies of `unit` up to at least `size` bytes, so that no character
// or encoded word is cut.
std::string Repeat(const std::string& unit, int64_t size) {
  std::string text;
  text.reserve(static_cast<std::size_t>(size) + unit.size());
  while (text.size() < static_cast<std::size_t>(size)) text += unit;
  return text;
}

void Finish(benchmark::State& state, std::size_t size) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
  state.SetComplexityN(static_cast<int64_t>(size));
}

void BM_Decode(benchmark::State& state) {
  // Encoded words of both kinds between plain words.
  const std::string text = Repeat(
      "=?iso-8859-1?Q?caf=E9_au_lait?= =?utf-8?B?R3LDvMOfZQ==?= plain words ", state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(orvik::rfc1522::decode(text));
  Finish(state, text.size());
}

// Counts the bytes written to it (the decoder's reports on std::cerr).
class CountingBuffer : public std::streambuf {
 public:
  std::size_t bytes = 0;

 protected:
  int_type overflow(int_type c) override {
    ++bytes;
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char*, std::streamsize n) override {
    bytes += static_cast<std::size_t>(n);
    return n;
  }
};

// A megabyte field of encoded words: state.range(0) selects well-formed
// words (0, the baseline), bad base64 symbols in many words (1), or one word
// of bad symbols (2). Reports are counted, not written.
void BM_DecodeMegabyteField(benchmark::State& state) {
  constexpr int64_t kField = 1 << 20;
  const std::string text = state.range(0) == 0   ? Repeat("=?utf-8?B?YWJj?= ", kField)
                           : state.range(0) == 1 ? Repeat("=?utf-8?B?!!!!?= ", kField)
                                                 : "=?utf-8?B?" + std::string(kField, '!') + "?=";
  CountingBuffer reports;
  std::streambuf* const saved = std::cerr.rdbuf(&reports);
  for (auto _ : state) benchmark::DoNotOptimize(orvik::rfc1522::decode(text));
  std::cerr.rdbuf(saved);
  state.counters["report_bytes"] =
      static_cast<double>(reports.bytes) / static_cast<double>(state.iterations());
  state.SetLabel(state.range(0) == 0   ? "good words"
                 : state.range(0) == 1 ? "bad words"
                                       : "bad word");
  Finish(state, text.size());
}

void BM_Encode(benchmark::State& state) {
  const std::string text = "Re: " + Repeat(
                                        "Gr\xC3\xBC\xC3\x9F"
                                        "e aus K\xC3\xB6ln - ",
                                        state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(orvik::rfc1522::encode(text));
  Finish(state, text.size());
}

void BM_IconvLatin1ToUtf8(benchmark::State& state) {
  const std::string text = Repeat(
      "Caf\xE9 cr\xE8me br\xFBl\xE9"
      "e. ",
      state.range(0));
  for (auto _ : state)
    benchmark::DoNotOptimize(orvik::iconvRecode(text, "ISO-8859-1", "utf-8", true));
  Finish(state, text.size());
}

void BM_IconvInvalidUtf8Skipped(benchmark::State& state) {
  // One invalid byte in every 20: each costs its own conversion call.
  const std::string text = Repeat(
      "Gr\xC3\xBC\xC3\x9F"
      "e \xFF aus K\xC3\xB6ln ",
      state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(orvik::iconvRecode(text, "utf-8", "utf-8", true));
  Finish(state, text.size());
}

void BM_Base64Encode(benchmark::State& state) {
  const std::string bytes = Repeat(std::string("\x00\x7F\x80\xFF binary\n", 12), state.range(0));
  std::vector<char> out(4 * ((bytes.size() + 2) / 3) + 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(base64Encode(bytes.data(), bytes.size(), out.data()));
    benchmark::ClobberMemory();
  }
  Finish(state, bytes.size());
}

void BM_Base64Decode(benchmark::State& state) {
  // Encoded text in lines, as in a mail body.
  const std::string text = Repeat(
      "Zm9vYmFyIGJhejAx"
      "QUJDREVGR0hJSktM"
      "TU5PUFFSU1RVVldY"
      "WVphYmNkZWZnaGlq"
      "a2xtbm9wcXJzdHV2"
      "d3h5\n",
      state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(orvik::base64_decode(text));
  Finish(state, text.size());
}

#define SIZES(bm) \
  BENCHMARK(bm)->RangeMultiplier(10)->Range(kSmallest, kLargest)->Complexity(benchmark::oN)

SIZES(BM_Decode);
SIZES(BM_Encode);
SIZES(BM_IconvLatin1ToUtf8);
SIZES(BM_IconvInvalidUtf8Skipped);
SIZES(BM_Base64Encode);
SIZES(BM_Base64Decode);
BENCHMARK(BM_DecodeMegabyteField)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
