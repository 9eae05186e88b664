// The program's transfer decoder and the MIME library's, fed the same pieces
// of `text`: `first` bytes, then `second`, alternately. Both results, ours
// first (shared by the unit test and the fuzz target of the decoders).
#pragma once

#include <gmime/gmime.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "autoresponder/intake/transfer_decoding.h"

inline std::pair<std::string, std::string> decode_both(bool base64, std::string_view text,
                                                       std::size_t first, std::size_t second) {
  transfer_decoding::Base64_decoder ours_base64;
  transfer_decoding::Quoted_printable_decoder ours_quoted_printable;
  GMimeEncoding library;
  g_mime_encoding_init_decode(
      &library, base64 ? GMIME_CONTENT_ENCODING_BASE64 : GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
  std::string ours, theirs;
  std::vector<char> out;
  for (std::size_t at = 0, turn = 0; at < text.size(); ++turn) {
    const std::size_t piece = std::min(turn % 2 ? second : first, text.size() - at);
    out.resize(transfer_decoding::MaxDecodedSize(piece));
    ours.append(out.data(), base64
                                ? ours_base64.step(text.data() + at, piece, out.data())
                                : ours_quoted_printable.step(text.data() + at, piece, out.data()));
    out.resize(g_mime_encoding_outlen(&library, piece));
    theirs.append(out.data(), g_mime_encoding_step(&library, text.data() + at, piece, out.data()));
    at += piece;
  }
  out.resize(g_mime_encoding_outlen(&library, 0) + 1);
  theirs.append(out.data(), g_mime_encoding_flush(&library, nullptr, 0, out.data()));
  return {ours, theirs};
}
