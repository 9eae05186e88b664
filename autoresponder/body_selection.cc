// Selection of the text entity of the incoming message, its transfer
// decoding and its declared charset.
//
// Reads the parsed message (GMime) and the raw header values; decides main
// types and transfer encodings on those raw values rather than on GMime's
// parsed ones, which default and normalise differently. Only the selected
// entity's content is read, in blocks, and decoded into memory. Nothing here
// reports or fails: an unreadable or missing content is an empty body.
#include "autoresponder/body_selection.h"

#include <strings.h>

#include <algorithm>
#include <vector>

#include "autoresponder/gmime_handle.h"

namespace {

// The size of the blocks in which an entity's content is read and decoded.
constexpr std::size_t kDecodeBlockSize = 64 * 1024;

bool is_blank_or_control(unsigned char c) {
  return c <= ' ' || c == 127;
}

// RFC 2045 tspecials: they end the type token.
bool is_tspecial(unsigned char c) {
  static constexpr std::string_view kTspecials = "()<>@,;:\\\"/[]?=";
  return kTspecials.find(static_cast<char>(c)) != std::string_view::npos;
}

bool equals_ignoring_case(std::string_view text, std::string_view expected) {
  return text.size() == expected.size() &&
         strncasecmp(text.data(), expected.data(), expected.size()) == 0;
}

std::string_view trim_field_body(std::string_view raw) {
  const std::size_t first = raw.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const std::size_t last = raw.find_last_not_of(" \t\r\n\v\f");
  if (last == std::string_view::npos || last < first) return {};
  return raw.substr(first, last - first + 1);
}

}  // namespace

std::optional<std::string> FieldBody(GMimeHeaderList* headers, const char* name) {
  if (headers == nullptr) return std::nullopt;
  GMimeHeader* header = g_mime_header_list_get_header(headers, name);
  if (header == nullptr) return std::nullopt;
  const char* raw = g_mime_header_get_raw_value(header);
  return std::string(trim_field_body(raw != nullptr ? raw : ""));
}

std::optional<std::string> FieldBody(GMimeObject* object, const char* name) {
  if (object == nullptr) return std::nullopt;
  return FieldBody(g_mime_object_get_header_list(object), name);
}

Main_type MainType(std::string_view content_type) {
  std::size_t pos = 0;
  // Blanks and comments may precede the type.
  while (pos < content_type.size()) {
    const unsigned char c = static_cast<unsigned char>(content_type[pos]);
    if (is_blank_or_control(c)) {
      ++pos;
    } else if (c == '(') {
      int depth = 0;
      while (pos < content_type.size()) {
        const char inner = content_type[pos++];
        if (inner == '\\') {
          ++pos;  // the quoted byte
        } else if (inner == '(') {
          ++depth;
        } else if (inner == ')' && --depth == 0) {
          break;
        }
      }
      pos = std::min(pos, content_type.size());
    } else {
      break;
    }
  }
  std::size_t end = pos;
  while (end < content_type.size()) {
    const unsigned char c = static_cast<unsigned char>(content_type[end]);
    if (is_blank_or_control(c) || is_tspecial(c)) break;
    ++end;
  }
  const std::string_view type = content_type.substr(pos, end - pos);
  if (equals_ignoring_case(type, "text")) return Main_type::kText;
  if (equals_ignoring_case(type, "multipart")) return Main_type::kMultipart;
  return Main_type::kOther;
}

Transfer_decoding ClassifyTransferEncoding(const std::optional<std::string>& field_body) {
  if (!field_body) return Transfer_decoding::kNone;
  if (equals_ignoring_case(*field_body, "base64")) return Transfer_decoding::kBase64;
  if (equals_ignoring_case(*field_body, "quoted-printable")) {
    return Transfer_decoding::kQuotedPrintable;
  }
  return Transfer_decoding::kNone;
}

std::string GetCharset(GMimeObject* entity) {
  const std::optional<std::string> content_type = FieldBody(entity, "Content-Type");
  if (!content_type) return "US-ASCII";
  const GObjectRef<GMimeContentType> parsed(
      g_mime_content_type_parse(nullptr, content_type->c_str()));
  if (!parsed) return "US-ASCII";
  GMimeParamList* params = g_mime_content_type_get_parameters(parsed.get());
  const int count = params != nullptr ? g_mime_param_list_length(params) : 0;
  for (int i = 0; i < count; ++i) {
    GMimeParam* param = g_mime_param_list_get_parameter_at(params, i);
    const char* name = g_mime_param_get_name(param);
    if (name != nullptr && strcasecmp(name, "charset") == 0) {
      const char* value = g_mime_param_get_value(param);
      return value != nullptr ? value : "";
    }
  }
  return "US-ASCII";
}

void DecodeBody(GMimeObject* entity, GMimeStream* body, std::string& out) {
  out.clear();
  if (body == nullptr) return;
  const Transfer_decoding decoding =
      ClassifyTransferEncoding(FieldBody(entity, "Content-Transfer-Encoding"));
  GMimeEncoding state;
  if (decoding == Transfer_decoding::kBase64) {
    g_mime_encoding_init_decode(&state, GMIME_CONTENT_ENCODING_BASE64);
  } else if (decoding == Transfer_decoding::kQuotedPrintable) {
    g_mime_encoding_init_decode(&state, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
  }

  std::vector<char> block(kDecodeBlockSize);
  std::vector<char> decoded;
  g_mime_stream_reset(body);
  for (;;) {
    // A read error ends the content like its end does.
    const gssize got = g_mime_stream_read(body, block.data(), block.size());
    if (got <= 0) break;
    const std::size_t length = static_cast<std::size_t>(got);
    if (decoding == Transfer_decoding::kNone) {
      out.append(block.data(), length);
      continue;
    }
    decoded.resize(g_mime_encoding_outlen(&state, length));
    out.append(decoded.data(), g_mime_encoding_step(&state, block.data(), length, decoded.data()));
  }
  if (decoding != Transfer_decoding::kNone) {
    decoded.resize(g_mime_encoding_outlen(&state, 0));
    out.append(decoded.data(), g_mime_encoding_flush(&state, block.data(), 0, decoded.data()));
  }
}

Text_body SelectTextBody(GMimeMessage* message, GMimeStream* message_body) {
  Text_body result;
  GMimeObject* top = g_mime_message_get_mime_part(message);
  const std::optional<std::string> content_type = FieldBody(top, "Content-Type");
  const Main_type main_type = content_type ? MainType(*content_type) : Main_type::kText;

  if (main_type == Main_type::kText) {
    result.charset = GetCharset(top);
    DecodeBody(top, message_body, result.text);
    return result;
  }
  // A multipart whose first Content-Type GMime did not build as one (a later
  // Content-Type overrode it) has no parts to look at.
  if (main_type != Main_type::kMultipart || !GMIME_IS_MULTIPART(top)) return result;

  GMimeMultipart* multipart = GMIME_MULTIPART(top);
  const int count = g_mime_multipart_get_count(multipart);
  for (int i = 0; i < count; ++i) {
    GMimeObject* part = g_mime_multipart_get_part(multipart, i);
    // A part without its own Content-Type is not text here, whatever the
    // MIME default says.
    const std::optional<std::string> part_type = FieldBody(part, "Content-Type");
    if (!part_type || MainType(*part_type) != Main_type::kText) continue;

    result.charset = GetCharset(part);
    // A part that GMime built as something else (a later Content-Type of
    // another type) still ends the walk, with an empty body.
    GMimeStream* content = nullptr;
    if (GMIME_IS_PART(part)) {
      GMimeDataWrapper* wrapper = g_mime_part_get_content(GMIME_PART(part));
      if (wrapper != nullptr) content = g_mime_data_wrapper_get_stream(wrapper);
    }
    DecodeBody(part, content, result.text);
    return result;
  }
  return result;
}
