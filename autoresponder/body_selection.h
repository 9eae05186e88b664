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
// the first text part, and that part's content; the functions on GMime
// objects select the same way from a message parsed whole.
#pragma once

#include <gmime/gmime.h>

#include <optional>
#include <string>
#include <string_view>

#include "autoresponder/stored_message.h"

// A raw header value as a field body: leading blanks and tabs and trailing
// white space removed.
std::string_view TrimFieldBody(std::string_view raw);

// The field body of the first header named `name` (without regard to case):
// the raw text after the colon, leading blanks and tabs and trailing white
// space removed, folding kept, no decoding. nullopt when there is none.
std::optional<std::string> FieldBody(GMimeHeaderList* headers, const char* name);
std::optional<std::string> FieldBody(GMimeObject* object, const char* name);

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
// the entity's first Content-Type, quotes removed and otherwise as written;
// "US-ASCII" without Content-Type or parameter. `entity` holds the headers
// and may be null (no headers at all).
std::string GetCharset(GMimeObject* entity);
// The same from the entity's first Content-Type field body, if it has one.
std::string CharsetOf(const std::optional<std::string>& content_type);

// Replaces `out` with `body` read from its start, transfer-decoded as the
// entity's Content-Transfer-Encoding says. A null body is empty. The decoders
// take malformed input and decode what they can.
void DecodeBody(GMimeObject* entity, GMimeStream* body, std::string& out);

struct Text_body {
  std::string text;  // transfer-decoded, still in `charset`
  std::string charset = "US-ASCII";
};

// Selects and decodes the text entity of `message`. GMime keeps the
// message's Content-* headers on its top part, so those are looked up there;
// `message_body` is the message's own body (everything after its header
// block), used when the message itself is the text entity.
Text_body SelectTextBody(GMimeMessage* message, GMimeStream* message_body);

// Selects and decodes the text entity of the stored message whose header
// block `message` has been read from `reader`. The parts of a multipart are
// the stretches between the lines of its own boundary ("--" boundary, then
// only white space; the closing one with "--" after the boundary); what lies
// inside a part, nested multiparts included, is never looked at. A part's
// content ends before the line break that precedes the next boundary line.
Text_body SelectStoredTextBody(Stored_message_reader& reader, const Entity_headers& message);
