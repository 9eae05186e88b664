// The one plain text of the incoming message that the rules are matched
// against: which entity gives it, how its transfer encoding is undone and
// which charset it declares.
//
// The text entity is the message itself when it has no Content-Type or its
// main type is text; for a multipart message it is the first top-level part
// that has a Content-Type header of main type text; otherwise there is none.
// Header values are the raw field bodies of the first header of a name, so a
// second Content-Type or Content-Transfer-Encoding never overrides the first.
//
// The intake selects from the stored file (SelectStoredTextBody), reading only
// the message's header block, the header blocks of its top-level parts up to
// the first text part, and that part's content; the content is then decoded
// in pieces (DecodeTextBody), never held whole.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "autoresponder/intake/stored_message.h"

enum class Main_type { kText, kMultipart, kOther };

// The main type of a Content-Type field body: its first token, compared
// without regard to case.
Main_type MainType(std::string_view content_type);

enum class Transfer_decoding { kBase64, kQuotedPrintable, kNone };

// Only a field body of exactly "base64" or "quoted-printable" (any case)
// selects a decoder; none, 7bit, 8bit, binary and anything else leave the
// body as it is.
Transfer_decoding ClassifyTransferEncoding(const std::optional<std::string>& field_body);

// The value of the first "charset" parameter (name without regard to case) of
// an entity's first Content-Type field body, quotes removed and otherwise as
// written; "US-ASCII" without Content-Type or parameter.
std::string CharsetOf(const std::optional<std::string>& content_type);

// Where the text entity's content lies in the stored message and how it is
// read: [start, end) of the file, its transfer decoding, its declared charset.
struct Text_body {
  off_t start = 0;
  off_t end = 0;  // start == end: an empty content
  Transfer_decoding decoding = Transfer_decoding::kNone;
  std::string charset = "US-ASCII";
};

// Selects the text entity of the stored message whose header block `message`
// has been read from `reader`. The parts of a multipart are the stretches
// between the lines of its own boundary ("--" boundary, then only white
// space; the closing one with "--" after the boundary); what lies inside a
// part, nested multiparts included, is never looked at. A part's content ends
// before the line break that precedes the next boundary line.
Text_body SelectStoredTextBody(Stored_message_reader& reader, const Entity_headers& message);

// Hands the transfer-decoded content of `body` to `sink` in pieces of at most
// Stored_message_reader::kWindow decoded bytes (what a block completes of the
// one before may add a few); the sink returns false when it needs no more. The transfer decoders
// take malformed input and decode what they can.
void DecodeTextBody(const Stored_message_reader& reader, const Text_body& body,
                    const std::function<bool(std::string_view)>& sink);
