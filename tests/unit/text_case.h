// One text through one function, as a table row: the function's result ("!"
// and the exception's text when it throws) and what it wrote on standard
// error. The module tests instantiate TextCaseTest with their own rows.
#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace text_case {

using Fn = std::string (*)(const std::string&);

struct Case {
  const char* name;
  Fn fn;
  std::string in, out, err = "";
};

class TextCaseTest : public testing::TestWithParam<Case> {};

inline std::string case_name(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

// Sized at once, so a large result leaves no grown-and-freed heap behind (the
// end-to-end tests measure the peak memory of children forked after it).
inline std::string repeat(const std::string& text, std::size_t times) {
  std::string repeated;
  repeated.reserve(text.size() * times);
  while (times-- > 0) repeated += text;
  return repeated;
}

}  // namespace text_case

#define TEXT_CASE_TESTS(suite, cases)                                  \
  TEST_P(suite, Output) {                                              \
    testing::internal::CaptureStderr();                                \
    std::string out;                                                   \
    try {                                                              \
      out = GetParam().fn(GetParam().in);                              \
    } catch (const std::exception& e) {                                \
      out = std::string("!") + e.what();                               \
    }                                                                  \
    EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().err); \
    EXPECT_EQ(out, GetParam().out);                                    \
  }                                                                    \
  INSTANTIATE_TEST_SUITE_P(All, suite, testing::ValuesIn(cases), text_case::case_name)
