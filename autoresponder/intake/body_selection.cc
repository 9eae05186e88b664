// Selection of the text entity of the incoming message, its transfer
// decoding and its declared charset.
//
// Reads raw header values and decides main types, transfer encodings and
// parameters on them itself; the transfer decoders are our own
// (transfer_decoding.h). From the
// stored message only the selected entity's content is read, in blocks, each
// decoded and handed on before the next is read; a multipart is walked by its
// own boundary lines alone,
// so neither its preface, its epilogue, the number of its parts nor their
// nesting costs memory. Nothing here reports or fails: an
// unreadable or missing content is an empty body.
#include "autoresponder/intake/body_selection.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "autoresponder/intake/media_type.h"
#include "autoresponder/intake/transfer_decoding.h"
#include "lib/ascii.h"

namespace {

// Undoes a transfer encoding block by block.
class Transfer_decoder {
 public:
  explicit Transfer_decoder(Transfer_decoding decoding) : decoding_(decoding) {}

  // The decoded bytes of the block, valid until the next call.
  std::string_view feed(const char* data, std::size_t size) {
    if (decoding_ == Transfer_decoding::kNone) return {data, size};
    decoded_.resize(transfer_decoding::MaxDecodedSize(size));
    const std::size_t length = decoding_ == Transfer_decoding::kBase64
                                   ? base64_.step(data, size, decoded_.data())
                                   : quoted_printable_.step(data, size, decoded_.data());
    return {decoded_.data(), length};
  }

 private:
  Transfer_decoding decoding_;
  transfer_decoding::Base64_decoder base64_;
  transfer_decoding::Quoted_printable_decoder quoted_printable_;
  std::vector<char> decoded_;
};

}  // namespace

Main_type MainType(std::string_view content_type) {
  const std::string_view type = MediaMainType(content_type);
  if (EqualsIgnoringCase(type, "text")) return Main_type::kText;
  if (EqualsIgnoringCase(type, "multipart")) return Main_type::kMultipart;
  return Main_type::kOther;
}

Transfer_decoding ClassifyTransferEncoding(const std::optional<std::string>& field_body) {
  if (!field_body) return Transfer_decoding::kNone;
  if (EqualsIgnoringCase(*field_body, "base64")) return Transfer_decoding::kBase64;
  if (EqualsIgnoringCase(*field_body, "quoted-printable")) {
    return Transfer_decoding::kQuotedPrintable;
  }
  return Transfer_decoding::kNone;
}

std::string CharsetOf(const std::optional<std::string>& content_type) {
  if (!content_type) return "US-ASCII";
  return MediaTypeParameter(*content_type, "charset").value_or("US-ASCII");
}

Text_body SelectStoredTextBody(Stored_message_reader& reader, const Entity_headers& message) {
  Text_body result;
  const Main_type main_type =
      message.content_type ? MainType(*message.content_type) : Main_type::kText;
  if (main_type == Main_type::kText) {
    result.charset = CharsetOf(message.content_type);
    if (message.content_start) {
      result.start = *message.content_start;
      result.end = std::numeric_limits<off_t>::max();
      result.decoding = ClassifyTransferEncoding(message.transfer_encoding);
    }
    return result;
  }
  if (main_type != Main_type::kMultipart || !message.content_start) return result;
  const std::optional<std::string> boundary = MediaTypeParameter(*message.content_type, "boundary");
  if (!boundary) return result;

  const std::string delimiter = "--" + *boundary;
  reader.seek(*message.content_start);
  Boundary_hit hit = NextBoundary(reader, delimiter);  // past the preface
  while (hit.kind == Boundary_kind::kDelimiter) {
    reader.consume_line();
    const Entity_headers part = ReadHeaderBlock(reader, Header_block_kind::kPart, delimiter);
    if (!part.readable) break;
    const off_t start = reader.offset();
    hit = NextBoundary(reader, delimiter);
    // A part without its own Content-Type is not text here, whatever the
    // MIME default says.
    if (part.content_type && MainType(*part.content_type) == Main_type::kText) {
      result.charset = CharsetOf(part.content_type);
      result.start = start;
      result.end = hit.content_end;
      result.decoding = ClassifyTransferEncoding(part.transfer_encoding);
      break;
    }
  }
  return result;
}

void DecodeTextBody(const Stored_message_reader& reader, const Text_body& body,
                    const std::function<bool(std::string_view)>& sink) {
  Transfer_decoder decoder(body.decoding);
  reader.read_range(body.start, body.end, [&](const char* data, std::size_t size) {
    return sink(decoder.feed(data, size));
  });
}
