// Framework search paths from a build setting: which words are folders, and
// settings whose blanks were not escaped rebuilt from their pieces.

#include "buildenv/environment_search_paths.h"
#include "buildenv/task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

using Paths = SUPEnvironment::Paths;
using ::testing::ElementsAre;
using ::testing::Optional;

// Real folders "Frameworks", "My Frameworks", "Lib", "Lib Extra" and
// "Vendor/SDKs", and a plain file "notes.txt".
class SearchPathsTest : public ::testing::Test {
 protected:
  SearchPathsTest() {
    for (const char* folder : {"Frameworks", "My Frameworks", "Lib", "Lib Extra", "Vendor/SDKs"})
      std::filesystem::create_directories(dir.path() / folder);
    dir.write("notes.txt", "not a folder");
  }
  std::string at(const std::string& relative) const { return (dir.path() / relative).string(); }
  const SUPFileManager& files = SUPFileManager::defaultManager();
  symlift::testing::TempDir dir;
};

TEST_F(SearchPathsTest, ValidPathsAreExistingFoldersWithOptionalRecursiveMarker) {
  const std::tuple<std::string, std::string, bool> rows[] = {
      {at("Frameworks"), "", true},         {at("Vendor") + "/**", "", true}, {at("Vendor") + "/**/", "", true},
      {"Vendor/SDKs", dir.str(), true},     {"**", dir.str(), true},          {"", "", false},
      {at("Missing") + "/**", "", false},   {at("notes.txt"), "", false},     {"Vendor/SDKs", at("Frameworks"), false},
      {at("Vendor") + "/*", "", false},
  };
  for (const auto& [path, workingDirectory, valid] : rows)
    EXPECT_EQ(SUPEnvironment::isValidFrameworkSearchPath(path, workingDirectory, files), valid) << path;
}

TEST_F(SearchPathsTest, MangledSettingsAreRebuiltFromTheirPieces) {
  const std::pair<std::string, Paths> rows[] = {
      // A folder name with one unescaped blank is joined back from two pieces.
      {at("My Frameworks") + " " + at("Frameworks"), {at("My Frameworks"), at("Frameworks")}},
      // "Lib" alone is a folder, but "Extra" fits nowhere, so the two are joined.
      {at("Lib Extra") + " Vendor/SDKs", {at("Lib Extra"), "Vendor/SDKs"}},
      // A piece that fits nowhere, even joined to the path before it, is dropped.
      {at("Frameworks") + " bogus", {at("Frameworks")}},
      // A quoted path is kept while parsing and unquoted at the end.
      {"\"" + at("My Frameworks") + "\" " + at("Missing Folder"), {at("My Frameworks")}},
      {at("Vendor") + "/** " + at("Frameworks"), {at("Vendor") + "/**", at("Frameworks")}},
      {"", {}},
  };
  for (const auto& [text, paths] : rows)
    EXPECT_EQ(SUPEnvironment::parseMangledFrameworkSearchPathsFromString(text, dir.str(), files), paths) << text;
  // The combined parse falls back to this one.
  for (const char* blank : {"\\ ", " "})
    EXPECT_THAT(SUPEnvironment::parseFrameworkSearchPathsFromString(at("Lib") + " " + dir.str() + "/My" + blank +
                                                                        "Frameworks", dir.str()),
                Optional(ElementsAre(at("Lib"), at("My Frameworks"))));
}

// Words of a setting: blanks split, quotes group, backslashes escape.
TEST(SearchPathsWordsTest, BlanksQuotesAndEscapes) {
  const std::pair<std::string, Paths> rows[] = {
      {" \t\n ", {}},
      {"-F/a  -F\t/b\n-framework\r\nUIKit ", {"-F/a", "-F", "/b", "-framework", "UIKit"}},
      {"\"/My Frameworks\" '/Other Place' -F\"$(SRCROOT)/V L\"/x", {"/My Frameworks", "/Other Place", "-F$(SRCROOT)/V L/x"}},
      {"a \"\" '' b", {"a", "", "", "b"}},
      {"'it\"s' \"it's\"", {"it\"s", "it's"}},
      {"/My\\ Frameworks \\\"q\\\"", {"/My Frameworks", "\"q\""}},
      {"\"a\\\"b\\\\c\\d\" 'a\\ b'", {"a\"b\\c\\d", "a\\ b"}},
      {"one\\\ntwo three end\\", {"onetwo", "three", "end\\"}},
      {"a \"b c", {"a", "b c"}},  // an unterminated quote runs to the end
  };
  for (const auto& [text, words] : rows) EXPECT_EQ(SUPTask::parsedArgumentsFromString(text), words) << text;
}

}  // namespace
}  // namespace symlift::buildenv
