// Text entity selection, transfer decoding and the declared charset, on
// messages parsed by GMime from memory.
#include "autoresponder/body_selection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>

#include "autoresponder/gmime_handle.h"

namespace {

using namespace std::string_literals;

template <typename Case>
std::string case_name(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

GMimeStream* memory_stream(const std::string& bytes) {
  return g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size());
}

// A message parsed from `text`, and its body (after the first blank line) as
// the intake hands it over.
class Parsed {
 public:
  explicit Parsed(const std::string& text) {
    gmime_init_once();
    const GObjectRef<GMimeStream> stream(memory_stream(text));
    const GObjectRef<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    message_.reset(g_mime_parser_construct_message(parser.get(), nullptr));
    const std::size_t blank = text.find("\n\n");
    if (blank != std::string::npos) body_.reset(memory_stream(text.substr(blank + 2)));
  }
  GMimeMessage* message() const { return message_.get(); }
  GMimeObject* top() const { return g_mime_message_get_mime_part(message_.get()); }
  Text_body select() const { return SelectTextBody(message_.get(), body_.get()); }

 private:
  GObjectRef<GMimeMessage> message_;
  GObjectRef<GMimeStream> body_;
};

// --- Main types -----------------------------------------------------------

struct Type_case {
  const char* name;
  const char* value;
  Main_type expected;
};

// Test names and failure messages show the case name, not its bytes.
void PrintTo(const Type_case& value, std::ostream* out) {
  *out << value.name;
}

class MainTypeTest : public testing::TestWithParam<Type_case> {};

TEST_P(MainTypeTest, FirstTokenWithoutCase) {
  EXPECT_EQ(MainType(GetParam().value), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Types, MainTypeTest,
    testing::Values(Type_case{"TextPlain", "text/plain; charset=utf-8", Main_type::kText},
                    Type_case{"UpperCase", "TEXT/HTML", Main_type::kText},
                    Type_case{"TypeAlone", "text", Main_type::kText},
                    Type_case{"TypeThenParameter", "text; charset=koi8-r", Main_type::kText},
                    Type_case{"LeadingComment", "(legacy) text/plain", Main_type::kText},
                    Type_case{"Multipart", "Multipart/Mixed; boundary=x", Main_type::kMultipart},
                    Type_case{"Message", "message/rfc822", Main_type::kOther},
                    Type_case{"Application", "application/octet-stream", Main_type::kOther},
                    Type_case{"Prefix", "textual/plain", Main_type::kOther},
                    Type_case{"Empty", "", Main_type::kOther},
                    Type_case{"SubtypeOnly", "/plain", Main_type::kOther}),
    case_name<Type_case>);

// --- Charsets ---------------------------------------------------------------

struct Charset_case {
  const char* name;
  std::string headers;  // the message's Content-Type header(s), may be none
  std::string expected;
};

void PrintTo(const Charset_case& value, std::ostream* out) {
  *out << value.name;
}

class CharsetTest : public testing::TestWithParam<Charset_case> {};

TEST_P(CharsetTest, FirstCharsetParameterOfFirstContentType) {
  const Parsed parsed("From: a@b\n" + GetParam().headers + "\nbody\n");
  EXPECT_EQ(GetCharset(parsed.top()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Charsets, CharsetTest,
    testing::Values(
        Charset_case{"NoContentType", "", "US-ASCII"},
        Charset_case{"NoParameter", "Content-Type: text/plain\n", "US-ASCII"},
        Charset_case{"Plain", "Content-Type: text/plain; charset=iso-8859-1\n", "iso-8859-1"},
        Charset_case{"UpperCaseNameQuotedValue", "Content-Type: TEXT/HTML; CHARSET=\"KOI8-R\"\n",
                     "KOI8-R"},
        Charset_case{"NotFirstParameter",
                     "Content-Type: text/plain; format=flowed; charset=utf-8\n", "utf-8"},
        Charset_case{"FirstOfTwo", "Content-Type: text/plain; Charset=a; charset=b\n", "a"},
        Charset_case{"EmptyQuotedValue", "Content-Type: text/plain; charset=\"\"\n", ""},
        Charset_case{"Folded", "Content-Type: text/plain;\n charset=windows-1251\n",
                     "windows-1251"},
        Charset_case{"Rfc2231", "Content-Type: text/plain; charset*=utf-8''iso-8859-2\n",
                     "iso-8859-2"},
        Charset_case{"FirstHeaderWins",
                     "Content-Type: text/plain; charset=first\n"
                     "Content-Type: text/plain; charset=second\n",
                     "first"}),
    case_name<Charset_case>);

TEST(GetCharsetTest, NoEntityIsUsAscii) {
  EXPECT_EQ(GetCharset(nullptr), "US-ASCII");
}

// --- Field bodies -------------------------------------------------------------

TEST(FieldBodyTest, FirstHeaderTrimmedFoldingKept) {
  const Parsed parsed(
      "From: a@b\nsubject: \t first\r\n  folded \t\r\nSubject: second\nX-Empty:\n\nbody\n");
  GMimeHeaderList* headers = g_mime_object_get_header_list(GMIME_OBJECT(parsed.message()));
  EXPECT_EQ(FieldBody(headers, "Subject"), "first\r\n  folded");
  EXPECT_EQ(FieldBody(headers, "X-Empty"), "");
  EXPECT_EQ(FieldBody(headers, "Date"), std::nullopt);
  EXPECT_EQ(FieldBody(static_cast<GMimeHeaderList*>(nullptr), "Subject"), std::nullopt);
}

// --- Decoding -----------------------------------------------------------------

struct Decode_case {
  const char* name;
  const char* encoding;  // Content-Transfer-Encoding value, null for none
  std::string content;
  std::string expected;
};

void PrintTo(const Decode_case& value, std::ostream* out) {
  *out << value.name;
}

class DecodeBodyTest : public testing::TestWithParam<Decode_case> {};

TEST_P(DecodeBodyTest, UndoesTheTransferEncoding) {
  std::string headers = "From: a@b\nContent-Type: text/plain\n";
  if (GetParam().encoding != nullptr) {
    headers += "Content-Transfer-Encoding: "s + GetParam().encoding + "\n";
  }
  const Parsed parsed(headers + "\n" + GetParam().content);
  const GObjectRef<GMimeStream> body(memory_stream(GetParam().content));
  std::string out = "previous contents";
  DecodeBody(parsed.top(), body.get(), out);
  EXPECT_EQ(out, GetParam().expected);
}

std::string long_base64_text() {
  // Larger than one read block, so the decoder state crosses blocks.
  std::string text;
  while (text.size() < 200 * 1024) text += "The quick brown fox jumps over the lazy dog.\n";
  return text;
}

gchar* base64_of(const std::string& text) {
  return g_base64_encode(reinterpret_cast<const guchar*>(text.data()), text.size());
}

std::string long_base64_content() {
  gchar* encoded = base64_of(long_base64_text());
  std::string content;
  // Broken into 76-character lines, as mail has it.
  for (const char* p = encoded; *p != '\0'; p += std::min<std::size_t>(76, std::strlen(p))) {
    content.append(p, std::min<std::size_t>(76, std::strlen(p)));
    content += "\n";
  }
  g_free(encoded);
  return content;
}

INSTANTIATE_TEST_SUITE_P(
    Decoding, DecodeBodyTest,
    testing::Values(Decode_case{"NoEncoding", nullptr, "as is =3D\n", "as is =3D\n"},
                    Decode_case{"EightBitUnchanged", "8bit", "caf\xe9 =41\n", "caf\xe9 =41\n"},
                    Decode_case{"Base64", "base64", "SGVsbG8sIHdvcmxkIQo=\n", "Hello, world!\n"},
                    Decode_case{"Base64WithComment", "base64 (comment)", "SGVsbG8=\n",
                                "SGVsbG8=\n"},
                    Decode_case{"Base64Malformed", "base64", "SGV*sb G8=\n", "Hello"},
                    Decode_case{"Base64Long", "base64", long_base64_content(), long_base64_text()},
                    Decode_case{"QuotedPrintable", "quoted-printable", "Caf=E9 =3D soft=\nbreak\n",
                                "Caf\xe9 = softbreak\n"},
                    Decode_case{"QuotedPrintableMalformedKept", "Quoted-Printable",
                                "100=% sure=ZZ\n", "100=% sure=ZZ\n"},
                    Decode_case{"EmptyContent", "base64", "", ""},
                    Decode_case{"Base64Prefix", "base6", "SGVsbG8=\n", "SGVsbG8=\n"},
                    Decode_case{"Abbreviation", "qp", "a=3Db\n", "a=3Db\n"},
                    Decode_case{"CaseIgnored", "BASE64", "SGVsbG8=\n", "Hello"}),
    case_name<Decode_case>);

TEST(DecodeBodyNullTest, NoBodyIsEmpty) {
  std::string out = "previous";
  DecodeBody(nullptr, nullptr, out);
  EXPECT_EQ(out, "");
}

// --- Selection ----------------------------------------------------------------

struct Selection_case {
  const char* name;
  std::string message;
  std::string text;
  std::string charset;
};

void PrintTo(const Selection_case& value, std::ostream* out) {
  *out << value.name;
}

class SelectTextBodyTest : public testing::TestWithParam<Selection_case> {};

TEST_P(SelectTextBodyTest, ChoosesTheTextEntity) {
  const Parsed parsed(GetParam().message);
  ASSERT_NE(parsed.message(), nullptr);
  const Text_body selected = parsed.select();
  EXPECT_EQ(selected.text, GetParam().text);
  EXPECT_EQ(selected.charset, GetParam().charset);
}

INSTANTIATE_TEST_SUITE_P(
    Selection, SelectTextBodyTest,
    testing::Values(
        Selection_case{"MessageTypeNoText",
                       "From: a@b\nContent-Type: message/rfc822\n\nFrom: c@d\n\ninner\n", "",
                       "US-ASCII"},
        Selection_case{"HtmlFirstIsTaken",
                       "From: a@b\nContent-Type: multipart/alternative; boundary=B\n\n"
                       "--B\nContent-Type: text/html; charset=utf-8\n\n<p>html</p>\n"
                       "--B\nContent-Type: text/plain\n\nplain\n--B--\n",
                       "<p>html</p>", "utf-8"},
        Selection_case{"MultipartWithoutParts",
                       "From: a@b\nContent-Type: multipart/mixed; boundary=M\n\nno parts\n", "",
                       "US-ASCII"},
        Selection_case{"CharsetOfTheChosenPart",
                       "From: a@b\nContent-Type: multipart/mixed; boundary=M\n\n"
                       "--M\nContent-Type: image/png; charset=wrong\n\nPNG\n"
                       "--M\nContent-Type: text/plain\n\nno charset\n--M--\n",
                       "no charset", "US-ASCII"},
        Selection_case{"PartContentKeepsCrLf",
                       "From: a@b\nContent-Type: multipart/mixed; boundary=M\n\n"
                       "--M\r\nContent-Type: text/plain\r\n\r\nline\r\nline2\r\n--M--\r\n",
                       "line\r\nline2", "US-ASCII"}),
    case_name<Selection_case>);

}  // namespace
