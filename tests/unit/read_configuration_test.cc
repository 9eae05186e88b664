// The key-value store and the configuration file reader: line syntax, the
// store's growth and sorting, and the messages of the levelled logger.
#include "lib/read_configuration.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lib/product_log.h"

namespace {

struct StoreDeleter {
  void operator()(conf_data* store) const { conf_free_r(store); }
};
using Store = std::unique_ptr<conf_data, StoreDeleter>;

// conf_free_r releases the record itself, so stores come from calloc.
Store new_store() {
  return Store(static_cast<conf_data*>(std::calloc(1, sizeof(conf_data))));
}

// Records what the store reports through the levelled logger.
std::vector<std::pair<int, std::string>> g_logged;
void recording_log(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char text[1024];
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  g_logged.emplace_back(level, text);
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::path(::testing::TempDir()) /
           ("read_configuration_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    g_logged.clear();
    orvik_log = recording_log;
  }
  void TearDown() override {
    orvik_log = _orvik_utility_log;
    std::filesystem::remove_all(dir_);
  }
  std::string write_file(const std::string& content) {
    const std::string path = (dir_ / "ovk.conf").string();
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  // The store read from `content`; the read must succeed.
  Store read(const std::string& content) {
    Store store = new_store();
    const std::string path = write_file(content);
    EXPECT_EQ(conf_read_file_r(path.c_str(), store.get()), 0);
    return store;
  }
  std::filesystem::path dir_;
};

struct LineCase {
  const char* name;
  std::string content;
  std::map<std::string, std::string> present;  // name -> value
  std::vector<std::string> absent;
};

class LineSyntaxTest : public ConfigTest, public ::testing::WithParamInterface<LineCase> {};

TEST_P(LineSyntaxTest, ReadsTheExpectedPairs) {
  const LineCase& c = GetParam();
  Store store = read(c.content);
  EXPECT_EQ(store->nmemb, c.present.size());
  for (const auto& [name, value] : c.present) {
    const char* found = conf_get_r(name.c_str(), store.get());
    ASSERT_NE(found, nullptr) << name;
    EXPECT_EQ(std::string(found), value) << name;
  }
  for (const std::string& name : c.absent) {
    EXPECT_EQ(conf_get_r(name.c_str(), store.get()), nullptr) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    ConfReadFile, LineSyntaxTest,
    ::testing::Values(
        LineCase{"NameAndValue",
                 "ORVIK_MAILNAMES_D /home/mail\n",
                 {{"ORVIK_MAILNAMES_D", "/home/mail"}},
                 {}},
        LineCase{"NoFinalLineFeed", "A value", {{"A", "value"}}, {}},
        LineCase{"TabSeparated", "A\t\tvalue\n", {{"A", "value"}}, {}},
        LineCase{"LeadingBlanks", "   \tA value\n", {{"A", "value"}}, {}},
        LineCase{"TrailingBlanksDropped", "A value  \t \n", {{"A", "value"}}, {}},
        LineCase{"CarriageReturnDropped",
                 "A value\r\nB other\r\n",
                 {{"A", "value"}, {"B", "other"}},
                 {}},
        LineCase{"InlineCommentDropped", "A value # the mail root\n", {{"A", "value"}}, {}},
        LineCase{"InlineCommentWithoutBlank", "A value#x\n", {{"A", "value"}}, {}},
        LineCase{"InnerBlanksKept", "A one two  three \n", {{"A", "one two  three"}}, {}},
        LineCase{"DigitsAndUnderscores", "_A_1 x\n", {{"_A_1", "x"}}, {}},
        LineCase{"NamesAreCaseSensitive",
                 "name lower\nNAME upper\n",
                 {{"name", "lower"}, {"NAME", "upper"}},
                 {"Name"}},
        LineCase{"CommentLine", "# A value\n", {}, {"A"}},
        LineCase{"CommentAfterBlanks", "   # A value\n", {}, {"A"}},
        LineCase{"BlankLines", "\n  \n\t\nA value\n\n", {{"A", "value"}}, {}},
        LineCase{"NameAlone", "A\nB   \nC # note\n", {}, {"A", "B", "C"}},
        LineCase{"EqualsWithoutBlank", "A=value\n", {}, {"A", "A=value"}},
        LineCase{"OtherCharacterInName", "A-B value\n", {}, {"A", "A-B"}},
        LineCase{"NoNameAtAll", "=value\n-x y\n", {}, {""}},
        LineCase{
            "MalformedLinesSkipped", "A=1\nB 2\nC\nD 4\n", {{"B", "2"}, {"D", "4"}}, {"A", "C"}},
        LineCase{
            "SecondDefinitionWins", "A first\nB x\nA second\n", {{"A", "second"}, {"B", "x"}}, {}},
        LineCase{"EmptyFile", "", {}, {"A"}},
        LineCase{"LongLine",
                 "A " + std::string(10000, 'v') + "\n",
                 {{"A", std::string(10000, 'v')}},
                 {}}),
    [](const ::testing::TestParamInfo<LineCase>& case_info) { return case_info.param.name; });

TEST_F(ConfigTest, MalformedLinesAreLoggedAtLevelTwelve) {
  Store store = read("A=1\nB\n");
  ASSERT_EQ(g_logged.size(), 2u);
  EXPECT_EQ(g_logged[0].first, 12);
  EXPECT_EQ(g_logged[0].second,
            "Invalid variable definition A=1\n\nExpected a space after variable name\n");
  EXPECT_EQ(g_logged[1].first, 12);
  EXPECT_EQ(g_logged[1].second, "Invalid variable definition B\n\nExpected a value");
}

TEST_F(ConfigTest, MissingFileFailsWithOpenErrno) {
  Store store = new_store();
  const std::string path = (dir_ / "absent.conf").string();
  errno = 0;
  EXPECT_EQ(conf_read_file_r(path.c_str(), store.get()), -1);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(g_logged.size(), 1u);
  EXPECT_EQ(g_logged[0].second,
            "unable to open configuration file " + path + ": " + std::strerror(ENOENT) + "\n");
}

TEST_F(ConfigTest, ReadErrorFails) {
  Store store = new_store();
  // A directory opens for reading, but reading it fails.
  errno = 0;
  EXPECT_EQ(conf_read_file_r(dir_.c_str(), store.get()), -1);
  EXPECT_EQ(errno, EISDIR);
  ASSERT_FALSE(g_logged.empty());
  EXPECT_EQ(g_logged.back().second,
            std::string("Unable to read configuration file: ") + std::strerror(EISDIR));
}

TEST_F(ConfigTest, FileIsSortedAfterReading) {
  Store store = read("C 3\nA 1\nB 2\n");
  EXPECT_EQ(store->finalized, 1);
  ASSERT_EQ(store->nmemb, 3u);
  EXPECT_STREQ(store->data[0].key, "A");
  EXPECT_STREQ(store->data[1].key, "B");
  EXPECT_STREQ(store->data[2].key, "C");
}

TEST_F(ConfigTest, FirstInitAllocatesTwentySortedEntries) {
  Store store = new_store();
  ASSERT_EQ(conf_init_r(store.get()), 0);
  EXPECT_NE(store->data, nullptr);
  EXPECT_EQ(store->size, 20u);
  EXPECT_EQ(store->nmemb, 0u);
  EXPECT_EQ(store->finalized, 1);
  EXPECT_EQ(conf_get_r("A", store.get()), nullptr);
}

TEST_F(ConfigTest, GrowsPastTwentyAndFindsEveryEntry) {
  Store store = new_store();
  std::vector<std::string> names;
  // Inserted in descending order so that sorting has work to do.
  for (int i = 99; i >= 55; --i) names.push_back("VAR_" + std::to_string(i));
  for (const std::string& name : names) {
    ASSERT_EQ(conf_set_r(name.c_str(), ("v" + name).c_str(), store.get()), 0);
  }
  EXPECT_EQ(store->nmemb, names.size());
  EXPECT_EQ(store->size, 80u);  // 20, 40, 80
  EXPECT_EQ(store->finalized, 0);
  for (const std::string& name : names) {  // linear search
    ASSERT_NE(conf_get_r(name.c_str(), store.get()), nullptr) << name;
  }
  ASSERT_EQ(conf_finalize_r(store.get()), 0);
  EXPECT_EQ(store->finalized, 1);
  for (const std::string& name : names) {  // binary search
    const char* value = conf_get_r(name.c_str(), store.get());
    ASSERT_NE(value, nullptr) << name;
    EXPECT_EQ(std::string(value), "v" + name);
  }
  EXPECT_EQ(conf_get_r("VAR_54", store.get()), nullptr);
  EXPECT_EQ(conf_get_r("VAR_999", store.get()), nullptr);
}

TEST_F(ConfigTest, ReplacingKeepsCountAndSortedness) {
  Store store = new_store();
  ASSERT_EQ(conf_set_r("A", "1", store.get()), 0);
  ASSERT_EQ(conf_finalize_r(store.get()), 0);
  ASSERT_EQ(conf_set_r("A", "2", store.get()), 0);
  EXPECT_EQ(store->nmemb, 1u);
  EXPECT_EQ(store->finalized, 1);
  EXPECT_STREQ(conf_get_r("A", store.get()), "2");
}

TEST_F(ConfigTest, GrowthStopsAtTheCapacityLimit) {
  // A store pretending to be full at half the limit: doubling would reach
  // the limit, so it must refuse before touching the array.
  conf_entry dummy{};
  conf_data store{&dummy, 268435456, 268435456, 1};
  errno = 0;
  EXPECT_EQ(conf_init_r(&store), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(store.data, &dummy);
  EXPECT_EQ(store.size, 268435456u);
  ASSERT_EQ(g_logged.size(), 1u);
  EXPECT_EQ(g_logged[0].second,
            std::string("Unable to read configuration: ") + std::strerror(ENOMEM));
}

TEST_F(ConfigTest, NullArgumentsAreHarmless) {
  EXPECT_EQ(conf_get_r("A", nullptr), nullptr);
  Store store = new_store();
  EXPECT_EQ(conf_get_r(nullptr, store.get()), nullptr);
  EXPECT_EQ(conf_get_r("A", store.get()), nullptr);  // no array yet
  conf_free_r(nullptr);
}

}  // namespace
