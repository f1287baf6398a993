#include "cli/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/platform_names.h"
#include "cli/process_environment.h"
#include "cli/run_info.h"
#include "cli/symbolication_version.h"

namespace symlift::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

ArgumentList args(std::vector<std::string> words) {
  words.insert(words.begin(), "/usr/local/bin/symlift");
  return ArgumentList(std::move(words));
}

TEST(OptionsTest, OnlyWholeExactWordsMatch) {
  // No "=" form, no abbreviation, no bundling, no case folding.
  for (const char* word : {"--platform=ios", "-plat", "---p", "-P", "-PLATFORM", "p", "platform", "-pd"})
    EXPECT_FALSE(args({word, "ios"}).hasFlag(kPlatformOption)) << word;
  EXPECT_EQ(args({"--platform=ios"}).valueForFlag(kPlatformOption), std::nullopt);
  // -val is not -v, and -app-id is not -a.
  EXPECT_FALSE(args({"-val", "-ai", "X", "-app-id", "Y"}).hasFlag(kVersionOption));
  EXPECT_FALSE(args({"-val", "-ai", "X", "-app-id", "Y"}).hasFlag(kAPIKeyOption));
}

TEST(OptionsTest, ValueLookupOrderAndRepeats) {
  // The short key is looked up first, whatever the order on the line.
  EXPECT_EQ(args({"--platform", "mac", "-p", "ios"}).valueForFlag(kPlatformOption), "ios");
  EXPECT_EQ(args({"--platform", "mac", "--p", "tvos"}).valueForFlag(kPlatformOption), "tvos");
  EXPECT_EQ(args({"--platform", "mac", "-platform", "tvos"}).valueForFlag(kPlatformOption), "tvos");
  // The same spelling twice: the last one wins.
  EXPECT_EQ(args({"-p", "ios", "-p", "mac"}).valueForFlag(kPlatformOption), "mac");
}

TEST(OptionsTest, ValueIsTheNextWordWhateverItIs) {
  EXPECT_EQ(args({"-p"}).valueForFlag(kPlatformOption), std::nullopt);
  EXPECT_EQ(args({"-p", "-d"}).valueForFlag(kPlatformOption), "-d");
  EXPECT_EQ(args({"-ai", ""}).valueForFlag(kAppIDOption), "");
  // An option that is itself a value does not hide the option after it.
  auto list = args({"-d", "-p", "ios"});
  EXPECT_EQ(list.valueForFlag(kPlatformOption), "ios");
  EXPECT_TRUE(list.hasFlag(kDebugOption));
  // Options without a value take none from the line's end.
  EXPECT_EQ(args({"-ai", "X", "-val"}).valueForFlag(kValidateOption), std::nullopt);
}

TEST(OptionsTest, ProgramPathIsSeenByHasFlagButIsNoKey) {
  ArgumentList list(std::vector<std::string>{"-p", "ios"});
  EXPECT_TRUE(list.hasFlag(kPlatformOption));
  EXPECT_EQ(list.valueForFlag(kPlatformOption), std::nullopt);
}

TEST(PathArgumentsTest, PathsAfterValuesAndAfterTheProgramPath) {
  EXPECT_THAT(args({"-p", "ios", "a.dSYM", "b.dSYM"}).pathArguments(), ElementsAre("a.dSYM", "b.dSYM"));
  EXPECT_THAT(args({"a.dSYM"}).pathArguments(), ElementsAre("a.dSYM"));
  EXPECT_THAT(args({"a.dSYM", "-p", "ios", "b.zip", "-d", "c", "d"}).pathArguments(),
              ElementsAre("a.dSYM", "b.zip", "d"));
}

TEST(PathArgumentsTest, PathDirectlyAfterAFlagIsTakenForItsValue) {
  EXPECT_THAT(args({"-ai", "X", "-p", "ios", "-c", "a.dSYM"}).pathArguments(), IsEmpty());
  EXPECT_THAT(args({"-d", "a.dSYM"}).pathArguments(), IsEmpty());
  EXPECT_THAT(args({"-ai", "X", "-p", "ios", "-val", "a.dSYM"}).pathArguments(), IsEmpty());
  EXPECT_THAT(args({}).pathArguments(), IsEmpty());
}

TEST(PathArgumentsTest, EverythingAfterTheSeparatorIsAPath) {
  EXPECT_THAT(args({"-ai", "X", "-p", "ios", "--", "-weird.dSYM"}).pathArguments(), ElementsAre("-weird.dSYM"));
  EXPECT_THAT(args({"-d", "--", "a.dSYM", "-p", "--", "b.dSYM", ""}).pathArguments(),
              ElementsAre("a.dSYM", "-p", "b.dSYM", ""));
  EXPECT_THAT(args({"--"}).pathArguments(), IsEmpty());
}

TEST(PlatformNamesTest, OnlyTheThreeLowerCaseNames) {
  for (const char* name : {"ios", "mac", "tvos"}) EXPECT_TRUE(isValidPlatform(name)) << name;
  for (const char* name : {"iOS", "watchos", "xros", "unspecified", "", "ios "})
    EXPECT_FALSE(isValidPlatform(name)) << name;
  EXPECT_EQ(validPlatformsDescription(), "ios', 'mac', 'tvos");
}

TEST(SymbolicationVersionTest, DecimalPrefixOrZero) {
  EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText("64.1"), 64.1f);
  EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText(" 2.25beta"), 2.25f);
  EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText("-1"), -1.0f);
  EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText(".5"), 0.5f);
  EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText("1e2"), 100.0f);
  EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText("3e"), 3.0f);
  for (const char* text : {"", "abc", ".", "-", "inf", "nan", "v2"})
    EXPECT_EQ(maxSymbolicationVersionFromText(std::string(text)), 0.0f) << text;
  // Hexadecimal is read as its leading zero only.
  EXPECT_EQ(maxSymbolicationVersionFromText("0x10"), 0.0f);
  EXPECT_EQ(maxSymbolicationVersionFromText(std::nullopt), 0.0f);
  EXPECT_EQ(defaultMaxSymbolicationVersion(), 0.0f);
}

TEST(RunInfoTest, VersionLineAndDebugPaths) {
  EXPECT_EQ(versionLine("1.2.3", "45"), "symlift 1.2.3 build 45");
  EXPECT_EQ(versionLine(std::nullopt, "45"), "symlift ? build 45");
  EXPECT_EQ(versionLine("1.2.3", std::nullopt), "symlift 1.2.3 build ?");
  EXPECT_EQ(debugPathsDescription({"/a b/x.dSYM", "y.zip"}), "[\"/a b/x.dSYM\", \"y.zip\"]");
  EXPECT_EQ(debugPathsDescription({"only"}), "[\"only\"]");
}

TEST(ProcessEnvironmentTest, EntriesBecomeAMap) {
  const char* entries[] = {"A=1", "B=x=y", "EMPTY=", "NOEQUALS", "A=2", "=bad", nullptr};
  auto environment = environmentFromEntries(entries);
  EXPECT_EQ(environment, (buildenv::Environment{{"A", "1"}, {"B", "x=y"}, {"EMPTY", ""}}));
  EXPECT_TRUE(environmentFromEntries(nullptr).empty());
  EXPECT_EQ(buildEnvironment(args({"-ai", "X"})), std::nullopt);
  EXPECT_TRUE(buildEnvironment(args({"-lp", "f.json"})).has_value());
}

}  // namespace
}  // namespace symlift::cli
