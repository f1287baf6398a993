// The command line's lookups and the small parsers of the driver.

#include "cli/options.h"

#include <gtest/gtest.h>

#include "cli/platform_names.h"
#include "cli/process_environment.h"
#include "cli/symbolication_version.h"

namespace symlift::cli {
namespace {

using Words = std::vector<std::string>;

ArgumentList args(Words words) {
  words.insert(words.begin(), "/usr/local/bin/symlift");
  return ArgumentList(std::move(words));
}

// Whole exact words only: no "=" form, no abbreviation, no bundling, no case
// folding. The short key is looked up first, whatever the order on the line;
// the same spelling twice gives the last value; the value is the next word,
// whatever it is.
TEST(OptionsTest, FlagsAndTheirValues) {
  const struct {
    Words words;
    Option option;
    bool given;
    std::optional<std::string> value;
  } rows[] = {
      {{"--platform=ios"}, kPlatformOption, false, std::nullopt},
      {{"-plat", "ios", "---p", "-P", "-PLATFORM", "p", "platform", "-pd"}, kPlatformOption, false, std::nullopt},
      {{"-val", "-ai", "X", "-app-id", "Y"}, kVersionOption, false, std::nullopt},
      {{"-val", "-ai", "X", "-app-id", "Y"}, kAPIKeyOption, false, std::nullopt},
      {{"--platform", "mac", "-p", "ios"}, kPlatformOption, true, "ios"},
      {{"--platform", "mac", "--p", "tvos"}, kPlatformOption, true, "tvos"},
      {{"--platform", "mac", "-platform", "tvos"}, kPlatformOption, true, "tvos"},
      {{"-p", "ios", "-p", "mac"}, kPlatformOption, true, "mac"},
      {{"-p"}, kPlatformOption, true, std::nullopt},
      {{"-p", "-d"}, kPlatformOption, true, "-d"},
      {{"-ai", ""}, kAppIDOption, true, ""},
      {{"-d", "-p", "ios"}, kPlatformOption, true, "ios"},
      {{"-d", "-p", "ios"}, kDebugOption, true, "-p"},
      {{"-ai", "X", "-val"}, kValidateOption, true, std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.words) + " " + std::string(row.option.longName));
    EXPECT_EQ(args(row.words).hasFlag(row.option), row.given);
    EXPECT_EQ(args(row.words).valueForFlag(row.option), row.value);
  }
}

// After "--" every word is a path; before it, every word but the first of a
// run of words not starting with "-" (that one is an option's value).
TEST(OptionsTest, PathArguments) {
  const std::pair<Words, Words> rows[] = {
      {{"-p", "ios", "a.dSYM", "b.dSYM"}, {"a.dSYM", "b.dSYM"}},
      {{"a.dSYM"}, {"a.dSYM"}},
      {{"a.dSYM", "-p", "ios", "b.zip", "-d", "c", "d"}, {"a.dSYM", "b.zip", "d"}},
      {{"-d", "a.dSYM"}, {}},
      {{}, {}},
      {{"-d", "--", "a.dSYM", "-p", "--", "b.dSYM", ""}, {"a.dSYM", "-p", "b.dSYM", ""}},
      {{"--"}, {}},
  };
  for (const auto& [words, paths] : rows) EXPECT_EQ(args(words).pathArguments(), paths) << ::testing::PrintToString(words);
}

TEST(OptionsTest, PlatformNamesAreTheThreeLowerCaseOnes) {
  for (const char* name : {"ios", "mac", "tvos"}) EXPECT_TRUE(isValidPlatform(name)) << name;
  for (const char* name : {"iOS", "watchos", "xros", "unspecified", "", "ios "})
    EXPECT_FALSE(isValidPlatform(name)) << name;
}

TEST(OptionsTest, SymbolicationVersionIsTheDecimalPrefixOrZero) {
  const std::pair<std::optional<std::string>, float> rows[] = {
      {"64.1", 64.1f}, {" 2.25beta", 2.25f}, {"-1", -1.0f}, {".5", 0.5f}, {"1e2", 100.0f}, {"3e", 3.0f},
      {"0x10", 0.0f},  // hexadecimal: its leading zero only
      {"", 0.0f},      {"abc", 0.0f},        {".", 0.0f},   {"-", 0.0f},   {"inf", 0.0f},   {"nan", 0.0f},
      {"v2", 0.0f},    {std::nullopt, 0.0f},
  };
  for (const auto& [text, value] : rows) EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText(text), value) << text.value_or("none");
}

TEST(OptionsTest, EnvironmentEntriesBecomeAMap) {
  const char* entries[] = {"A=1", "B=x=y", "EMPTY=", "NOEQUALS", "A=2", "=bad", nullptr};
  EXPECT_EQ(environmentFromEntries(entries), (buildenv::Environment{{"A", "1"}, {"B", "x=y"}, {"EMPTY", ""}}));
  EXPECT_TRUE(environmentFromEntries(nullptr).empty());
}

}  // namespace
}  // namespace symlift::cli
