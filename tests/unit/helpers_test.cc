// The utility library and helpers: encodings, logs, configuration, children, templates, paths.
#include <gtest/gtest.h>
#include <mysql.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "autoresponder/pipe_stream.h"
#include "autoresponder/templates.h"
#include "lib/base64.h"
#include "lib/forkexec.h"
#include "lib/idn_error.h"
#include "lib/libcommon.h"
#include "lib/orvik_chch.h"
#include "lib/paths.h"
#include "lib/product_log.h"
#include "lib/put.h"
#include "lib/read_configuration.h"
#include "lib/text_encoding/iconv_recode.h"
#include "lib/text_encoding/idn.h"
#include "lib/text_encoding/rfc1522.h"
#include "lib/text_encoding/rfc1522_internal.h"

using namespace std::string_literals;
using orvik::iconvRecode;

namespace {

const unsigned kGiveUp = ::alarm(300);  // a pipe left open would block a read for ever

std::string Rep(const std::string& text, int times) {
  std::string repeated;
  while (times-- > 0) repeated += text;
  return repeated;
}

const auto A = [](int n) { return std::string(n, 'a'); };
std::string ReadAll(int fd) {
  std::string text;
  char chunk[4096];
  for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) > 0;) text.append(chunk, n);
  ::close(fd);
  return text;
}

// What messlog2 writes on standard output, with that PROGNAME and errno at the call.
std::string Log(const char* progname, int error, const std::string& text) {
  PROGNAME = progname;
  testing::internal::CaptureStdout();
  errno = error;
  messlog2(0, 0, "%s", text.c_str());
  PROGNAME = nullptr;
  return testing::internal::GetCapturedStdout();
}

// The levelled logger, replaced while reading configuration files.
void Record(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "%d:", level);
  std::vfprintf(stderr, format, args);
  va_end(args);
}

// The file's entries as NAME=value; (each looked up by name), or the read's errno text.
std::string ReadConf(const std::string& path) {
  orvik_log = Record;
  conf_data* store = static_cast<conf_data*>(std::calloc(1, sizeof(conf_data)));
  std::string dump = conf_read_file_r(path.c_str(), store) == 0 ? "" : std::strerror(errno);
  for (std::size_t i = 0; i < store->nmemb; ++i) {
    const char* value = conf_get_r(store->data[i].key, store);
    dump += std::string(store->data[i].key) + "=" + (value ? value : "(none)") + ";";
  }
  if (conf_get_r("X", store) != nullptr) dump += "X found;";  // never defined below
  conf_free_r(store);
  orvik_log = _orvik_utility_log;
  return dump;
}

const std::string k32(32, 'n'), k33(33, 'n');
const par_templ kTable[] = {
    // sorted by name
    {"inner", "<request_from>"},
    {k32.c_str(), "32"},
    {k33.c_str(), "33"},
    {"null_value", nullptr},
    {"request_from", "john@example.com"},
    {"request_subject", "Hello there"},
};

// templ_replace's output, "|used N" if it left part of the template, "|status S" if set.
std::string Replace(const std::string& templ, std::uint32_t options) {
  char out[1000];
  std::memset(out, '#', sizeof out);
  repl_ctl ctl{7, 7, options, 7};
  EXPECT_EQ(templ_replace('<', '>', kTable, 6, templ.c_str(), out, 999, &ctl), out);
  // The template's NUL is copied when it fits and no value was stopped before; never past 999.
  EXPECT_EQ(out[ctl.out_len],
            ctl.out_len == 999 || (options & REPL_STOP_BEFORE_VALUE) ? '#' : '\0');
  std::string result(out, ctl.out_len);
  if (ctl.src_used != templ.size()) result += "|used " + std::to_string(ctl.src_used);
  if (ctl.status != 0) result += "|status " + std::to_string(ctl.status);
  return result;
}

using Fn = std::string (*)(const std::string&);
const Fn Dec = [](const std::string& s) { return orvik::rfc1522::decode(s); };
const Fn Enc = [](const std::string& s) { return orvik::rfc1522::encode(s); };
const Fn B64 = [](const std::string& s) { return orvik::base64_decode(s); };
const Fn Field = [](const std::string& s) { return orvik::rfc1522::encode_field_body(s, 9); };
const Fn Idn = [](const std::string& s) { return orvik::idn::toAscii(s); };
const Fn L1 = [](const std::string& s) { return iconvRecode(s, "ISO-8859-1", "utf-8", true); };
const Fn ToL1 = [](const std::string& s) { return iconvRecode(s, "utf-8", "ISO-8859-1", true); };
const Fn U8 = [](const std::string& s) { return iconvRecode(s, "utf-8", "utf-8", true); };
const Fn Strict = [](const std::string& s) { return iconvRecode(s, "utf-8", "LATIN1", false); };
const Fn NoSuch = [](const std::string& s) { return iconvRecode(s, "x-none", "utf-8", true); };
const Fn LogBare = [](const std::string& s) { return Log(nullptr, 0, s); };
const Fn LogErrno = [](const std::string& s) { return Log("/usr/lib/x/resp", ENOENT, s); };
const Fn Keep = [](const std::string& s) { return Replace(s, REPL_KEEP_UNKNOWN); };
const Fn Drop = [](const std::string& s) { return Replace(s, 0); };
const Fn Stop = [](const std::string& s) { return Replace(s, REPL_STOP_BEFORE_VALUE); };
const Fn Level = [](const std::string& s) {
  testing::internal::CaptureStdout();
  orvik_log(std::stoi(s), "level %s", s.c_str());
  return testing::internal::GetCapturedStdout();
};
const Fn Trim = [](const std::string& s) {
  std::string buffer = s;
  const std::string trimmed = orvik_trim(buffer.data());
  return trimmed + "|" + buffer.c_str();  // the result, and the caller's buffer after
};
MYSQL* const kHandle = mysql_init(nullptr);  // escaping needs no connection
const Fn Escape = [](const std::string& s) {
  return std::string(MallocChars(escape_mysql_param(kHandle, s.c_str())).get());
};
const Fn Conf = [](const std::string& text) {
  const std::string path = testing::TempDir() + "ovk" + std::to_string(::getpid()) + ".conf";
  std::ofstream(path, std::ios::binary) << text;
  const std::string dump = ReadConf(path);
  std::remove(path.c_str());
  return dump;
};

// A text through one function: its result ("!" and an exception's text) and its standard error.
struct Case {
  const char* name;
  Fn fn;
  std::string in, out, err = "";
};

// The message log and the levelled logger write the same text on both streams.
Case Both(const char* name, Fn fn, const std::string& in, const std::string& out) {
  return {name, fn, in, out, out};
}

const std::string kWrong = "wrong rfc1522 sequence ";
const std::string kHex = "Bad hex in quoted-printable string: ";
const std::string kBadB64 = "Bad base64 symbol: !\n";
// Words of the folded form: `data` as one Q-encoded word.
std::string W(const std::string& data) {
  return "=?utf-8?Q?" + data + "?=";
}
const std::string kNoEnt = "\nSystem error 2: "s + std::strerror(ENOENT) + "\n";
const std::string kBadLine = "12:Invalid variable definition ";
const std::string kMissing = "/nonexistent/ovk.conf";

const Case kCases[] = {
    {"DecodeAdjacentWordsJoin", Dec, "=?utf-8?Q?a_b?= \t =?utf-8?B?Yw==?=", "a bc"},
    {"DecodeBlanksNextToTextKept", Dec, "x =?utf-8?Q?y?=\tz =?utf-8?Q?y?=  \t", "x y\tz y  \t"},
    {"DecodeShortWordsBeforeRun", Dec, "?= =?utf-8?Q?b?= = =?utf-8?Q?c?=", "?=b = c"},
    {"DecodeMarkersOnPlainWords", Dec, "a?= =x a= =?utf-8?Q?b?=", "a?= =x a= b"},
    {"DecodeLowerCaseQAndB", Dec, "=?iso-8859-1?q?caf=e9?= =?utf-8?b?w6k=?=", "caféé"},
    {"DecodeUnknownEncodingEmpty", Dec, "=?utf-8?X?abc?= x =?utf-8?QQ?a?=", " x "},
    {"DecodeInvalidUtf8Replaced", Dec, "=?utf-8?Q?a=FFb?=", "a?b"},
    {"DecodeNoCharset", Dec, "=?utf-8", "=?utf-8", kWrong + "(no charset): =?utf-8\n"},
    {"DecodeNoEncoding", Dec, "=?a?Q", "=?a?Q", kWrong + "(no encoding): =?a?Q\n"},
    {"DecodeNoData", Dec, "=?a?Q?b =?utf-8?Q?c?=", "=?a?Q?b c", kWrong + "(no data): =?a?Q?b\n"},
    {"DecodeLineBreakIsNoBlank", Dec, "=?utf-8?Q?a?=\n =?utf-8?Q?b?=", "a\n b",
     kWrong + "(trailing stuff): =?utf-8?Q?a?=\n\n"},
    {"DecodeQOneHexDigit", Dec, "=?utf-8?Q?=4Gx=4?=", "\x04x\x04"},
    {"DecodeQLoneEqualsIsNul", Dec, "=?utf-8?Q?a=?=", "a\0"s},
    {"DecodeQBadHex", Dec, "=?utf-8?Q?=G4x==41?=", "\0x\0001"s, kHex + "G4\n" + kHex + "=4\n"},
    {"DecodeQBadHexAtEnd", Dec, "=?utf-8?Q?=Z?=", "\0"s, kHex + "Z\n"},
    {"DecodeUnknownCharset", Dec, "=?x-none?Q?a?=", "!Cannot convert from x-none to utf-8"},
    {"DecodeTruncatedCharacter", Dec, "=?utf-8?Q?a=C3?=", "!Conversion from utf-8 to utf-8"},
    // Reports of one field: the first kMaxReportsPerField, then their number.
    {"DecodeReportsOfAFieldBounded", Dec, "=?utf-8?B?" + Rep("!", 12) + "?=", "\0\0\0"s,
     Rep(kBadB64, 10) + kWrong.substr(0, 22) + ": 2 more reports left out\n"},
    {"DecodeReportsAtTheBound", Dec, "=?utf-8?B?" + Rep("!", 10) + "?=", "\0\0\0"s,
     Rep(kBadB64, 10)},
    {"DecodeLongWordShownCut", Dec, "=?" + A(300), "=?" + A(300),
     kWrong + "(no charset): =?" + A(254) + "...\n"},
    {"FieldShortKeptAsIs", Field, Rep("é", 449), W(Rep("=C3=A9", 449))},
    {"FieldLongThatFitsKept", Field, A(989), A(989)},
    {"FieldLongFolded", Field, A(990), Rep(W(A(63)) + "\n ", 15) + W(A(45))},
    {"FieldCharactersNotSplit", Field, "x" + Rep("é", 500),
     W("x" + Rep("=C3=A9", 10)) + Rep("\n " + W(Rep("=C3=A9", 10)), 49)},
    // The examples of the encoded-word standard where our blank rules agree with it.
    {"Rfc2047TwoBlanks", Dec, "=?ISO-8859-1?Q?a?=  =?ISO-8859-1?Q?b?=", "ab"},
    {"Rfc2047SpaceInWord", Dec, "=?ISO-8859-1?Q?a?= =?ISO-8859-2?Q?_b?=", "a b"},
    {"Rfc2047Comment", Dec, "(=?ISO-8859-1?Q?a?= b)", "(=?ISO-8859-1?Q?a?= b)"},
    {"EncodePlain", Enc, "Re: [a] 50% & #1, ok;", "Re: [a] 50% & #1, ok;"},
    {"EncodeHyphen", Enc, "Re: hello-world", "Re: =?utf-8?Q?hello=2Dworld?="},
    {"EncodeNoBlankBefore", Enc, "Grüße aus Köln", "=?utf-8?Q?Gr=C3=BC=C3=9Fe_aus_K=C3=B6ln?="},
    {"EncodeLastOfBlanks", Enc, "Re:  Grüße", "Re:  =?utf-8?Q?Gr=C3=BC=C3=9Fe?="},
    {"EncodeEscapeAfterBlank", Enc, "a ?", "a =?utf-8?Q?=3F?="},
    {"EncodeTabAsTheBlank", Enc, "Re:\tnext?", "Re:\t=?utf-8?Q?next=3F?="},
    {"EncodeTabAsFirstEscape", Enc, "Re: a\tb", "Re: a\t=?utf-8?Q?b?="},
    {"EncodeLaterTab", Enc, "é\tx ", "=?utf-8?Q?=C3=A9=09x_?="},
    {"EncodeControlsAndSpecials", Enc, "é\n\0=?_\x7F"s, "=?utf-8?Q?=C3=A9=0A=00=3D=3F=5F\x7F?="},
    {"EncodeLong", Enc, "S " + Rep("é ", 500), "S =?utf-8?Q?" + Rep("=C3=A9_", 500) + "?="},
    {"Base64LineBreaksSkipped", B64, "Zm9v\r\nYmFy", "foobar"},
    {"Base64Unpadded", B64, "Zg", "f"},
    {"Base64StopsAtPad", B64, "Zm=9v", "f"},
    {"Base64BadSymbols", B64, "*Zm9v.", "foo\0"s, "Bad base64 symbol: *\nBad base64 symbol: .\n"},
    {"Base64SkippedBlankCounts", B64, "Z g==", "f\0"s},
    {"IconvLatin1", L1, "caf\xE9", "café"},
    {"IconvUnrepresentable", ToL1, "€!", "\?\?\?!"},
    {"IconvInvalidReplaced", U8, "a\377b\xE2(\xA1", "a?b?(?"},
    {"IconvInvalidNotSkipped", Strict, "a\377b", "!Conversion from utf-8 to LATIN1"},
    {"IconvTruncated", U8, "a\xC3", "!Conversion from utf-8 to utf-8"},
    {"IconvUnknownCharset", NoSuch, "", "!Cannot convert from x-none to utf-8"},
    {"IdnDomain", Idn, "bücher.example", "xn--bcher-kva.example"},
    {"IdnAddressIsOneLabel", Idn, "a@bücher.example", "xn--a@bcher-p2a.example"},
    {"IdnEmpty", Idn, "", ""},
    {"IdnLabelOf63", Idn, A(63) + ".example", A(63) + ".example"},
    {"IdnLabelOf64", Idn, A(64) + ".example", "!Invalid length"},
    Both("LogEmptyIsEmptyLine", LogBare, "", "\n"),
    Both("LogNoPrefixNoSecondLineFeed", LogBare, "hi\n", "hi\n"),
    Both("LogLongWhole", LogBare, Rep("x", 5000), Rep("x", 5000) + "\n"),
    Both("LogBasenameStaleErrno", LogErrno, "hello", "resp: hello" + kNoEnt),
    Both("LogSystemErrorPastBuffer", LogErrno, Rep("y", 4090), "resp: " + Rep("y", 4090) + kNoEnt),
    Both("LoggerAtThreshold", Level, "6", "level 6\n"),
    Both("LoggerAboveThreshold", Level, "7", ""),
    {"TrimBlanks", Trim, "\t\v\f a  b \r\n", "a  b|\t\v\f a  b"},
    {"TrimOnlyBlanks", Trim, " \t\r\n ", "|"},
    {"TrimEmpty", Trim, "", "|"},
    {"EscapeSpecials", Escape, "O'Brien \"x\" \\ \n\r\x1a!", "O\\'Brien \\\"x\\\" \\\\ \\n\\r\\Z!"},
    {"EscapeWorstCase", Escape, Rep("'", 1000), Rep("\\'", 1000)},
    {"ConfComments", Conf, "# A x\n   # B y\n\nC z # note\nD w#x\n", "C=z;D=w;"},
    {"ConfCarriageReturns", Conf, "A 1\r\nB 2\r\n", "A=1;B=2;"},
    {"ConfInnerBlanks", Conf, " \tA\t one two  three \n", "A=one two  three;"},
    {"ConfNameAlone", Conf, "A\nB 2", "B=2;", kBadLine + "A\n\nExpected a value"},
    {"ConfNameEqualsValue", Conf, "A=1\n", "",
     kBadLine + "A=1\n\nExpected a space after variable name\n"},
    {"ConfSecondWins", Conf, "A 1\nB x\nA 2\n", "A=2;B=x;"},
    {"ConfMissingFile", ReadConf, kMissing, std::strerror(ENOENT),
     "12:unable to open configuration file " + kMissing + ": " + std::strerror(ENOENT) + "\n"},
    {"TemplSubject", Keep, "Re: <request_subject>, <request_from>",
     "Re: Hello there, john@example.com"},
    {"TemplAdjacent", Keep, "<request_from><request_subject>", "john@example.comHello there"},
    {"TemplUnknownKept", Keep, "a <Request_From> b", "a <Request_From> b|status 2"},
    {"TemplUnknownDropped", Drop, "a<nope>b", "ab"},
    {"TemplEmptyNameIsLiteral", Keep, "<><request_from>", "<>john@example.com"},
    {"TemplNameOf32", Keep, "[<" + k32 + ">]", "[32]"},
    {"TemplNameOf33IsLiteral", Keep, "[<" + k33 + ">]", "[<" + k33 + ">]"},
    {"TemplScanResumesAfter33", Keep, "<" + k33 + "<request_from>", "<" + k33 + "john@example.com"},
    {"TemplDelimiterInLongName", Keep, "<" + k32 + "<request_from>", "<" + k32 + "<request_from>"},
    {"TemplNestedOpenings", Keep, "<<request_from>>", "<<request_from>>|status 2"},
    {"TemplUnclosed", Keep, "Re: <request_from", "Re: <request_from"},
    {"TemplNullValue", Keep, "x<null_value>y", "xy"},
    {"TemplValueNotScanned", Keep, "<inner>", "<request_from>"},
    {"TemplCutInLiteral", Keep, A(1000) + "<request_from>", A(999) + "|used 999"},
    {"TemplCutInValue", Keep, A(990) + "<request_from>x", A(990) + "john@exam|used 1004"},
    {"TemplStopBeforeValue", Stop, A(990) + "<request_from>", A(990) + "|used 990|status 1"},
    {"TemplValueFitsExactly", Keep, A(983) + "<request_from>", A(983) + "john@example.com"},
    {"TemplUnknownAcrossCut", Keep, A(995) + "<unknown>", A(995) + "<unk|used 999|status 2"},
};

class Convert : public testing::TestWithParam<Case> {};

TEST_P(Convert, Output) {
  testing::internal::CaptureStderr();
  std::string out;
  try {
    out = GetParam().fn(GetParam().in);
  } catch (const std::exception& e) {
    out = "!"s + e.what();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().err);
  EXPECT_EQ(out, GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(All, Convert, testing::ValuesIn(kCases),
                         [](const auto& p) { return std::string(p.param.name); });

// Long texts: every line within the bound, the text back after unfolding.
TEST(Rfc1522, FieldBodyLinesBounded) {
  for (const std::string& text :
       {Rep("a\xC3\xA9 ", 300), Rep("\xF0\x9F\x98\x80", 250), Rep("=", 400) + A(600)}) {
    std::string body = "Subject: " + orvik::rfc1522::encode_field_body(text, 9);
    std::size_t line_start = 0;
    for (std::size_t lf = body.find('\n'); lf != std::string::npos; lf = body.find('\n', lf + 1)) {
      EXPECT_LE(lf - line_start, orvik::rfc1522::kMaxLineOctets);
      line_start = lf + 1;
    }
    EXPECT_LE(body.size() - line_start, orvik::rfc1522::kMaxLineOctets);
    std::erase(body, '\n');
    EXPECT_EQ(orvik::rfc1522::decode(body.substr(9)), text);
  }
}

TEST(Rfc1522, EscapeSet) {
  const std::string escaped = "!\"()*+-/=?_";
  for (int c = 0; c < 256; ++c) {
    const bool expected = c < 0x20 || c >= 0x80 || escaped.find(char(c)) != std::string::npos;
    EXPECT_EQ(orvik::rfc1522::rfc1522_nonprintable(char(c)), expected) << c;
  }
}

// Output around one conversion pass of 4096 bytes, a character straddling its end, a bad byte.
TEST(IconvRecode, PassBoundary) {
  for (std::size_t n : {4095u, 4096u, 4097u, 5 * 4096u + 7}) {
    const std::string a(n, 'a'), a2(n - 2, 'a');
    EXPECT_EQ(L1(a), a);
    EXPECT_EQ(L1(a2 + "\xE9\xE9"), a2 + "éé");
    EXPECT_EQ(U8(a + "\377b"), a + "?b");
    EXPECT_THROW(Strict(a + "\377b"), std::runtime_error);
  }
  EXPECT_THROW(U8(std::string(4096, 'a') + "\xC3"), std::runtime_error);
}

TEST(Idn, ErrorTexts) {
  const char* texts[] = {
      "Success",          "Stringprep error", "Punycode error",       "Contains non-LDH characters",
      "Contains minus",   "Invalid length",   "ACE prefix not found", "Verify error",
      "ACE prefix found", "Iconv error"};
  for (int code = 0; code < 10; ++code) EXPECT_STREQ(idn_strerror(code), texts[code]);
  for (int code : {10, 202, -1}) EXPECT_STREQ(idn_strerror(code), "Unknown error");
  EXPECT_STREQ(idn_strerror(201), "Cannot allocate buffer");
}

std::string Base64(const std::string& bytes) {  // into a buffer of its own
  std::vector<char> out(4 * ((bytes.size() + 2) / 3) + 8, 'x');
  const std::size_t n = base64Encode(bytes.data(), bytes.size(), out.data());
  EXPECT_EQ(out[n], '\0');
  return std::string(out.data(), n);
}

TEST(Base64, Rfc4648VectorsInPlaceEveryByte) {
  const char* const v[] = {
      "",     "",         "f",     "Zg==",     "fo",     "Zm8=",     "foo",      "Zm9v",
      "foob", "Zm9vYg==", "fooba", "Zm9vYmE=", "foobar", "Zm9vYmFy", "\xFB\xFF", "+/8="};
  for (std::size_t i = 0; i < std::size(v); i += 2) {
    EXPECT_EQ(Base64(v[i]), v[i + 1]);
    EXPECT_EQ(orvik::base64_decode(v[i + 1]), v[i]);
  }
  for (std::size_t n : {1u, 2u, 3u, 4u, 45u, 46u, 1000u}) {
    std::string bytes(n, '\0');
    for (std::size_t i = 0; i < n; ++i) bytes[i] = char(i * 37 + 11);
    std::vector<char> buffer(bytes.begin(), bytes.end());
    buffer.resize(4 * ((n + 2) / 3) + 1);
    const std::string encoded(buffer.data(), base64Encode(buffer.data(), n, buffer.data()));
    EXPECT_EQ(encoded, Base64(bytes)) << n;
    EXPECT_EQ(orvik::base64_decode(encoded), bytes) << n;
  }
}

TEST(MessageLog, NonZeroStatusExitsAndReallocSafe) {
  PROGNAME = "/x/resp";
  EXPECT_EXIT((errno = ENOMEM, messlog2(1, 0, "alloc(%d)", 64)), testing::ExitedWithCode(1),
              "^resp: alloc\\(64\\)\nSystem error 12: "s + std::strerror(ENOMEM));
#ifndef __SANITIZE_ADDRESS__  // which aborts on impossible allocations instead
  EXPECT_EXIT(realloc_safe(nullptr, SIZE_MAX), testing::ExitedWithCode(1),
              "^resp: alloc\\(-1\\)\n");
#endif
  PROGNAME = nullptr;
  MallocChars block(static_cast<char*>(realloc_safe(nullptr, 4)));
  std::memcpy(block.get(), "abc", 4);
  block.reset(static_cast<char*>(realloc_safe(block.release(), 100000)));
  EXPECT_STREQ(block.get(), "abc");
  block.reset(static_cast<char*>(realloc_safe(block.release(), 0)));
  EXPECT_NE(block.get(), nullptr);
  EXPECT_EQ(orvik_trim(nullptr), nullptr);
  EXPECT_EQ(escape_mysql_param(nullptr, nullptr), nullptr);
}

TEST(Conf, MoreThanTwentyEntries) {
  std::string text, dump;
  for (int i = 99; i >= 55; --i) text += "V" + std::to_string(i) + " " + std::to_string(i) + "\n";
  for (int i = 55; i <= 99; ++i) dump += "V" + std::to_string(i) + "=" + std::to_string(i) + ";";
  EXPECT_EQ(Conf(text), dump);
}

int ExitStatus(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The shell shows its argv and that it has the given pipes and fd 2, and no other descriptor.
TEST(ForkExec, GivenDescriptorsExactArgvNothingElse) {
  int in[2], out[2];
  ASSERT_EQ(::pipe(in) | ::pipe(out), 0);
  ASSERT_EQ(::dup2(in[0], 100), 100);
  const char script[] = "cat /proc/$$/cmdline; ls /proc/$$/fd; cat";
  const pid_t pid =
      fork_execl_pipes(in[0], out[1], 2, "/bin/sh", "/usr/sbin/sendmail", "-c", script, nullptr);
  for (int fd : {in[0], out[1], 100}) ::close(fd);
  ASSERT_EQ(::write(in[1], "hi\n", 3), 3);
  ::close(in[1]);
  EXPECT_EQ(ReadAll(out[0]), "/usr/sbin/sendmail\0-c\0"s + script + "\0"s + "0\n1\n2\nhi\n");
  EXPECT_EQ(ExitStatus(pid), 0);
}

TEST(ForkExec, MinusOneIsNullDeviceMissingProgramExits255) {
  const char script[] = "[ $(readlink /proc/$$/fd/[012] | grep -cx /dev/null) = 3 ]";
  EXPECT_EQ(ExitStatus(fork_execl_pipes(-1, -1, -1, "/bin/sh", "sh", "-c", script, nullptr)), 0);
  int err[2];
  ASSERT_EQ(::pipe(err), 0);
  const char* const args[] = {"prog", nullptr};
  const pid_t pid = fork_execv_pipes(-1, -1, err[1], "/nonexistent/prog", args);
  ::close(err[1]);
  EXPECT_EQ(ReadAll(err[0]),
            "fork_execv: execv(\"/nonexistent/prog\") failed: "s + std::strerror(ENOENT) + "\n");
  EXPECT_EQ(ExitStatus(pid), 255);
}

TEST(PipeStream, FailsOnMinusOneFlushesAndClosesWhenDestroyed) {
  EXPECT_TRUE(ofd_pipestream(-1).fail());
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  {
    ofd_pipestream stream(fds[1]);
    for (int i = 0; i < 2000; ++i) stream << "0123456789";  // more than its buffer
    stream << "unflushed";
  }
  EXPECT_EQ(ReadAll(fds[0]), Rep("0123456789", 2000) + "unflushed");  // and end of file
}

// The paths themselves are those of the installed build (installed_paths_test).
TEST(Paths, RelocatedUnderRootPrefix) {
  namespace p = orvik::paths;
  const std::string root = p::kRootPrefix + "/"s;
  ASSERT_NE(root, "/");
  for (const std::string path :
       {p::kPanelConfigFile, p::kPasswordFile, p::kSendmail, p::kQmailDir, p::kDatabytesFile,
        p::kMailnamesDefault, p::kMailTemplate, p::kResponseTemplate}) {
    EXPECT_EQ(path.rfind(root, 0), 0u) << path;
  }
  EXPECT_STREQ(mail_file_name, p::kMailTemplate);
  EXPECT_STREQ(resp_uu_file_name, p::kResponseTemplate);
  EXPECT_STREQ(p::kDevNull, "/dev/null");
}

TEST(Templates, QuickSortAndFound) {
  std::vector<par_templ> table(std::begin(kTable), std::end(kTable));
  for (unsigned seed = 0; seed < 20; ++seed) {
    std::shuffle(table.begin(), table.end(), std::mt19937(seed));
    templ_quick_sort(table.data(), 6);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(templ_found(kTable[i].name, table.data(), 6), i);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(table[i].value, kTable[i].value);
  }
  for (const char* name : {"a", "request_fro", "request_subjects", "zzz", ""}) {
    EXPECT_EQ(templ_found(name, kTable, 6), -1) << name;
  }
  templ_quick_sort(nullptr, 3);
}

}  // namespace
