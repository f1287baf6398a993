#include "buildenv/environment_search_paths.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

using Paths = SUPEnvironment::Paths;
using ::testing::ElementsAre;
namespace fs = std::filesystem;

// Real folders: "Frameworks", "My Frameworks", "Lib", "Lib Extra",
// "Vendor/SDKs", and a plain file "notes.txt".
class SearchPathsTest : public ::testing::Test {
 protected:
  SearchPathsTest() {
    for (const char* folder : {"Frameworks", "My Frameworks", "Lib", "Lib Extra", "Vendor/SDKs"})
      fs::create_directories(dir.path() / folder);
    dir.write("notes.txt", "not a folder");
  }
  std::string at(const std::string& relative) const { return (dir.path() / relative).string(); }
  bool valid(const std::string& path, const std::string& workingDirectory = "") const {
    return SUPEnvironment::isValidFrameworkSearchPath(path, workingDirectory, SUPFileManager::defaultManager());
  }
  std::optional<Paths> wellFormed(const std::string& text) const {
    return SUPEnvironment::parseWellFormedFrameworkSearchPathsFromString(text, dir.str(),
                                                                        SUPFileManager::defaultManager());
  }
  Paths mangled(const std::string& text) const {
    return SUPEnvironment::parseMangledFrameworkSearchPathsFromString(text, dir.str(),
                                                                      SUPFileManager::defaultManager());
  }

  symlift::testing::TempDir dir;
};

TEST_F(SearchPathsTest, ValidPathsAreExistingFoldersWithOptionalRecursiveMarker) {
  EXPECT_TRUE(valid(at("Frameworks")));
  EXPECT_TRUE(valid(at("Vendor") + "/**"));
  EXPECT_TRUE(valid(at("Vendor") + "/**/"));
  EXPECT_TRUE(valid("Vendor/SDKs", dir.str()));
  EXPECT_TRUE(valid("**", dir.str()));

  EXPECT_FALSE(valid(""));
  EXPECT_FALSE(valid(at("Missing") + "/**"));
  EXPECT_FALSE(valid(at("notes.txt")));
  EXPECT_FALSE(valid("Vendor/SDKs", at("Frameworks")));
  EXPECT_FALSE(valid(at("Vendor") + "/*"));
}

TEST_F(SearchPathsTest, UnquotingAndUnescaping) {
  EXPECT_EQ(SUPEnvironment::unquotedAndUnescapedPathForPath("\"/a b/c\""), "/a b/c");
  EXPECT_EQ(SUPEnvironment::unquotedAndUnescapedPathForPath("\"\""), "");
  EXPECT_EQ(SUPEnvironment::unquotedAndUnescapedPathForPath("\""), std::nullopt);
  EXPECT_EQ(SUPEnvironment::unquotedAndUnescapedPathForPath("/My\\ Frameworks"), "/My Frameworks");
  EXPECT_EQ(SUPEnvironment::unquotedAndUnescapedPathForPath("C:\\\\dir"), "C:\\dir");
  // Doubled backslashes are halved first, so "\\ " ends as a plain blank.
  EXPECT_EQ(SUPEnvironment::unquotedAndUnescapedPathForPath("a\\\\ b"), "a b");
  // Only a quote at both ends is removed.
  EXPECT_EQ(SUPEnvironment::unquotedAndUnescapedPathForPath("\"/a b"), "\"/a b");
}

TEST_F(SearchPathsTest, WellFormedSettingsKeepEveryWord) {
  std::string text = "\"" + at("My Frameworks") + "\" " + at("Frameworks") + "/** Vendor/SDKs '" + at("Lib Extra") +
                     "' " + dir.str() + "/My\\ Frameworks";
  EXPECT_THAT(wellFormed(text), ::testing::Optional(ElementsAre(at("My Frameworks"), at("Frameworks") + "/**",
                                                                "Vendor/SDKs", at("Lib Extra"), at("My Frameworks"))));
  EXPECT_THAT(wellFormed(""), ::testing::Optional(ElementsAre()));
  EXPECT_EQ(wellFormed(at("Frameworks") + " " + at("Missing")), std::nullopt);
  // Unescaped, the blank splits the folder name into two invalid words.
  EXPECT_EQ(wellFormed(at("My Frameworks")), std::nullopt);
}

TEST_F(SearchPathsTest, MangledSettingsAreRebuiltFromTheirPieces) {
  // A folder name with one unescaped blank is joined back from two pieces.
  EXPECT_THAT(mangled(at("My Frameworks") + " " + at("Frameworks")),
              ElementsAre(at("My Frameworks"), at("Frameworks")));
  // "Lib" alone is a folder, but "Extra" fits nowhere, so the two are joined.
  EXPECT_THAT(mangled(at("Lib Extra") + " Vendor/SDKs"), ElementsAre(at("Lib Extra"), "Vendor/SDKs"));
  // A piece that fits nowhere, even joined to the path before it, is dropped.
  EXPECT_THAT(mangled(at("Frameworks") + " bogus"), ElementsAre(at("Frameworks")));
  // A quoted path is kept while parsing and unquoted at the end.
  EXPECT_THAT(mangled("\"" + at("My Frameworks") + "\" " + at("Missing Folder")), ElementsAre(at("My Frameworks")));
  EXPECT_THAT(mangled(at("Vendor") + "/** " + at("Frameworks")), ElementsAre(at("Vendor") + "/**", at("Frameworks")));
  EXPECT_THAT(mangled(""), ElementsAre());
}

TEST_F(SearchPathsTest, CombinedParseFallsBackToTheMangledParse) {
  auto escaped = SUPEnvironment::parseFrameworkSearchPathsFromString(
      at("Lib") + " " + at("My\\ Frameworks"), dir.str());
  EXPECT_THAT(escaped, ::testing::Optional(ElementsAre(at("Lib"), at("My Frameworks"))));
  auto unescaped = SUPEnvironment::parseFrameworkSearchPathsFromString(at("Lib") + " " + at("My Frameworks"), dir.str());
  EXPECT_THAT(unescaped, ::testing::Optional(ElementsAre(at("Lib"), at("My Frameworks"))));
}

// The file manager is asked, not the disk: folders a fake one claims count.
class ClaimedFolders : public SUPFileManager {
 public:
  bool fileExistsAtPath(const std::string& path, bool& isDirectory) const override {
    isDirectory = true;
    return path == "/Volumes/Build Disk/Frameworks" || path == "/opt/sdk";
  }
};

TEST(SearchPathsFileManagerTest, ParsersAskTheGivenFileManager) {
  ClaimedFolders folders;
  auto paths = SUPEnvironment::parseFrameworkSearchPathsFromString("/Volumes/Build Disk/Frameworks /opt/sdk/**",
                                                                   "", folders);
  EXPECT_THAT(paths, ::testing::Optional(ElementsAre("/Volumes/Build Disk/Frameworks", "/opt/sdk/**")));
}

}  // namespace
}  // namespace symlift::buildenv
