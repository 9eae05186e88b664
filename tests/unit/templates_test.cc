// Subject templates and the sendmail pipe stream.
#include "autoresponder/templates.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "autoresponder/pipe_stream.h"
#include "tests/unit/read_all.h"
#include "tests/unit/text_case.h"

using text_case::Case;
using text_case::Fn;
using text_case::repeat;

namespace {

std::string a_run(int n) {
  return std::string(n, 'a');
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

const Fn Keep = [](const std::string& s) { return Replace(s, REPL_KEEP_UNKNOWN); };
const Fn Drop = [](const std::string& s) { return Replace(s, 0); };
const Fn Stop = [](const std::string& s) { return Replace(s, REPL_STOP_BEFORE_VALUE); };

const Case kCases[] = {
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
    {"TemplCutInLiteral", Keep, a_run(1000) + "<request_from>", a_run(999) + "|used 999"},
    {"TemplCutInValue", Keep, a_run(990) + "<request_from>x", a_run(990) + "john@exam|used 1004"},
    {"TemplStopBeforeValue", Stop, a_run(990) + "<request_from>",
     a_run(990) + "|used 990|status 1"},
    {"TemplValueFitsExactly", Keep, a_run(983) + "<request_from>", a_run(983) + "john@example.com"},
    {"TemplUnknownAcrossCut", Keep, a_run(995) + "<unknown>",
     a_run(995) + "<unk|used 999|status 2"},

};

class Templates : public text_case::TextCaseTest {};
TEXT_CASE_TESTS(Templates, kCases);

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

TEST(PipeStream, FailsOnMinusOneFlushesAndClosesWhenDestroyed) {
  EXPECT_TRUE(ofd_pipestream(-1).fail());
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  {
    ofd_pipestream stream(fds[1]);
    for (int i = 0; i < 2000; ++i) stream << "0123456789";  // more than its buffer
    stream << "unflushed";
  }
  EXPECT_EQ(read_all(fds[0]), repeat("0123456789", 2000) + "unflushed");  // and end of file
}

}  // namespace
