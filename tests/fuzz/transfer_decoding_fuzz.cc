// Fuzz target: the transfer decoders (transfer_decoding.h) against the MIME
// library's, fed the same pieces.
//
// The first byte picks the decoder (low bit) and the first piece size; the
// second byte the size of every other piece, so boundaries fall at varying
// places; the rest is the encoded text. Any difference in the decoded bytes
// is a failure.
#include <cstddef>
#include <cstdint>

#include "tests/fuzz/fuzz_support.h"
#include "tests/unit/decode_both.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const bool base64 = (data[0] & 1) != 0;
  const std::size_t sizes[2] = {static_cast<std::size_t>(data[0] >> 1) + 1,
                                static_cast<std::size_t>(data[1]) + 1};
  const char* const text = reinterpret_cast<const char*>(data + 2);
  const std::size_t length = size - 2;

  const auto [ours, theirs] = decode_both(base64, {text, length}, sizes[0], sizes[1]);
  if (ours != theirs) ovk_fuzz::harness_failure("decoded bytes differ from the MIME library's");
  return 0;
}
