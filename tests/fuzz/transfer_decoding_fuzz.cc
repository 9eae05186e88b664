// Fuzz target: the transfer decoders (transfer_decoding.h) against the MIME
// library's, fed the same pieces.
//
// The first byte picks the decoder (low bit) and the first piece size; the
// second byte the size of every other piece, so boundaries fall at varying
// places; the rest is the encoded text. Any difference in the decoded bytes
// is a failure.
#include <gmime/gmime.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "autoresponder/intake/transfer_decoding.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const bool base64 = (data[0] & 1) != 0;
  const std::size_t sizes[2] = {static_cast<std::size_t>(data[0] >> 1) + 1,
                                static_cast<std::size_t>(data[1]) + 1};
  const char* const text = reinterpret_cast<const char*>(data + 2);
  const std::size_t length = size - 2;

  transfer_decoding::Base64_decoder ours_base64;
  transfer_decoding::Quoted_printable_decoder ours_quoted_printable;
  GMimeEncoding library;
  g_mime_encoding_init_decode(
      &library, base64 ? GMIME_CONTENT_ENCODING_BASE64 : GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
  std::string ours;
  std::string theirs;
  std::vector<char> out;
  std::size_t turn = 0;
  for (std::size_t at = 0; at < length; at += sizes[turn++ % 2]) {
    const std::size_t piece = std::min(sizes[turn % 2], length - at);
    out.resize(transfer_decoding::MaxDecodedSize(piece));
    ours.append(out.data(), base64 ? ours_base64.step(text + at, piece, out.data())
                                   : ours_quoted_printable.step(text + at, piece, out.data()));
    out.resize(g_mime_encoding_outlen(&library, piece));
    theirs.append(out.data(), g_mime_encoding_step(&library, text + at, piece, out.data()));
  }
  out.resize(g_mime_encoding_outlen(&library, 0) + 1);
  theirs.append(out.data(), g_mime_encoding_flush(&library, nullptr, 0, out.data()));
  if (ours != theirs) ovk_fuzz::harness_failure("decoded bytes differ from the MIME library's");
  return 0;
}
