// The command line's lookups and the small parsers behind the driver: option
// words, path arguments, the app identifier's sources and their precedence.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "cli/app_id.h"
#include "cli/options.h"
#include "cli/symbolication_version.h"
#include "support/captured_output.h"

namespace symlift::cli {
namespace {

using symlift::testing::binaryPlist;
using symlift::testing::TempDir;
using Words = std::vector<std::string>;

ArgumentList args(Words words) {
  words.insert(words.begin(), "/usr/local/bin/symlift");
  return ArgumentList(std::move(words));
}

// Whole exact words only: no "=" form, no abbreviation, no bundling, no case
// folding. The short key is looked up first, whatever the order on the line;
// the same spelling twice gives the last value; the value is the next word.
TEST(CliTest, FlagsAndTheirValues) {
  const struct {
    Words words;
    Option option;
    bool given;
    std::optional<std::string> value;
  } rows[] = {
      {{"-plat", "ios", "---p", "-P", "-PLATFORM", "p", "platform", "-pd"}, kPlatformOption, false, std::nullopt},
      {{"-val", "-ai", "X", "-app-id", "Y"}, kVersionOption, false, std::nullopt},
      {{"--platform", "mac", "-p", "ios"}, kPlatformOption, true, "ios"},
      {{"--platform", "mac", "--p", "tvos"}, kPlatformOption, true, "tvos"},
      {{"--platform", "mac", "-platform", "tvos"}, kPlatformOption, true, "tvos"},
      {{"-p", "ios", "-p", "mac"}, kPlatformOption, true, "mac"},
      {{"-p", "-d"}, kPlatformOption, true, "-d"},
      {{"-ai", ""}, kAppIDOption, true, ""},
      {{"-d", "-p", "ios"}, kPlatformOption, true, "ios"},
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
TEST(CliTest, PathArguments) {
  const std::pair<Words, Words> rows[] = {
      {{"-p", "ios", "a.dSYM", "b.dSYM"}, {"a.dSYM", "b.dSYM"}},
      {{"a.dSYM", "-p", "ios", "b.zip", "-d", "c", "d"}, {"a.dSYM", "b.zip", "d"}},
      {{"-d", "a.dSYM"}, {}},
      {{"-d", "--", "a.dSYM", "-p", "--", "b.dSYM", ""}, {"a.dSYM", "-p", "b.dSYM", ""}},
      {{"--"}, {}},
  };
  for (const auto& [words, paths] : rows) EXPECT_EQ(args(words).pathArguments(), paths) << ::testing::PrintToString(words);
}

TEST(CliTest, SymbolicationVersionIsTheDecimalPrefixOrZero) {
  const std::pair<std::optional<std::string>, float> rows[] = {
      {"64570.35.1", 64570.35f}, {" 2.25beta", 2.25f}, {"-1", -1.0f}, {".5", 0.5f}, {"1e2", 100.0f}, {"3e", 3.0f},
      {"0x10", 0.0f}, {"", 0.0f}, {"abc", 0.0f}, {".", 0.0f}, {"-", 0.0f}, {"inf", 0.0f}, {"nan", 0.0f},
      {"v2", 0.0f}, {std::nullopt, 0.0f},
  };
  for (const auto& [text, value] : rows)
    EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText(text), value) << text.value_or("none");
}

// What a lookup gave, and what it printed.
using Outcome = std::pair<std::optional<std::string>, std::string>;
template <typename F>
Outcome outcome(F&& f) {
  Outcome result;
  result.second = symlift::testing::consoleOutput(console::kLogLevelInfo, [&] { result.first = f(); });
  return result;
}
Outcome failure(const std::string& message) { return {std::nullopt, "error: " + message + "\n"}; }

// The first source given decides, and its failure is final: -ai, then a
// service plist (binary here), then the built products, then a Lumo file.
TEST(CliTest, FirstAppIDSourceGivenDecides) {
  TempDir dir;
  const std::string plist = dir.write("named.plist", binaryPlist("OMVARA_APP_ID", "from-named")).string();
  const std::string lumo = dir.write("lumo.json", "{\"OMVARA_APP_ID\": \"from-lumo\"}").string();
  const std::string missing = dir.str() + "/missing.plist";
  dir.write("Products/Res/OmvaraService-Info.plist", binaryPlist("OMVARA_APP_ID", " from-products "));
  const buildenv::Environment products{{"BUILT_PRODUCTS_DIR", dir.str() + "/Products"},
                                       {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "Res"}};
  const buildenv::Environment noResources{{"BUILT_PRODUCTS_DIR", dir.str() + "/Products"}};
  const struct {
    Words words;
    std::optional<buildenv::Environment> environment;
    Outcome expected;
  } rows[] = {
      {{"-osp", missing, "--app-id", "X", "-bp"}, products, {"X", ""}},  // the plist is not read
      {{"-bp", "-lp", lumo, "-omvara-service-plist", plist}, products, {"from-named", ""}},
      {{"-lp", lumo, "--bp"}, products, {" from-products ", ""}},  // a plist's value is not trimmed
      {{"--lumo-project", lumo}, products, {"from-lumo", ""}},
      {{"-bp", "-lp", lumo}, noResources,
       failure("Could not get OMVARA_APP_ID in Omvara Services file from build environment")},
      {{"-lp", lumo, "-osp", missing}, std::nullopt, failure("Unable to read Omvara Service plist at path " + missing)},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcome([&] { return resolveAppID(args(row.words), row.environment); }), row.expected)
        << ::testing::PrintToString(row.words);
}

TEST(CliTest, LumoFilesThatGiveNoAppID) {
  TempDir dir;
  const std::string fifo = (dir.path() / "fifo.json").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, std::string("/dev/zero")})  // never read
    EXPECT_EQ(outcome([&] { return appIDFromLumoProject(path); }), failure("Unable to read file at path " + path));
  const std::pair<std::string, std::string> rows[] = {
      {"{\"OMVARA_APP_ID\": ", "Unable to create json from file at path "},
      {"", "Unable to create json from file at path "},
      {"{\"a\":" + std::string(300, '[') + std::string(300, ']') + "}", "Unable to create json from file at path "},
      {"{\"OMVARA_APP_ID\": 12}", "Unable to read valid app ID from path "},
      {"{\"omvara_app_id\": \"x\"}", "Unable to read valid app ID from path "},
  };
  for (const auto& [text, error] : rows) {
    const std::string path = dir.write("app.json", text).string();
    EXPECT_EQ(outcome([&] { return appIDFromLumoProject(path); }), failure(error + path)) << text;
  }
}

TEST(CliTest, TrimTakesWhiteSpaceAndLineBreaksAtBothEndsOnly) {
  const std::pair<std::string, std::string> rows[] = {
      {" \t\r\n\v\fa b\n\t ", "a b"},
      // No-break, ideographic and line-separator spaces count; a zero-width space does not.
      {"\xC2\xA0\xE3\x80\x80id\xE2\x80\xA8\xC2\x85", "id"},
      {"id\xE2\x80\x8B", "id\xE2\x80\x8B"},
      {"caf\xC3\xA9 ", "caf\xC3\xA9"},  // a multi-byte letter at the end is not a space
      {" \n ", ""},
  };
  for (const auto& [text, trimmed] : rows) EXPECT_EQ(trimWhitespaceAndNewlines(text), trimmed);
}

}  // namespace
}  // namespace symlift::cli
