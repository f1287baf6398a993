#include "support/unique_strings.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <regex>
#include <set>

#include "support/path_component.h"
#include "support/temporary_directory.h"

namespace symlift::support {
namespace {

// Sets TMPDIR (nullptr: unsets it) for one scope.
class ScopedTMPDIR {
 public:
  explicit ScopedTMPDIR(const char* value) {
    if (const char* old = std::getenv("TMPDIR")) saved_ = old;
    value ? ::setenv("TMPDIR", value, 1) : ::unsetenv("TMPDIR");
  }
  ~ScopedTMPDIR() { saved_ ? ::setenv("TMPDIR", saved_->c_str(), 1) : ::unsetenv("TMPDIR"); }

 private:
  std::optional<std::string> saved_;
};

TEST(SUPStringsUnique, VersionFourUUIDTextsThatNeverRepeat) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    std::string text = SUPStrings::uniqueString();
    EXPECT_TRUE(std::regex_match(text, uuid)) << text;
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 1000u);
  EXPECT_TRUE(std::regex_match(SUPStrings::uniqueGZipFileName(), std::regex("[0-9A-F-]{36}/gz")));
}

TEST(SUPStringsUnique, ZipPathInTheTemporaryDirectory) {
  {
    ScopedTMPDIR tmp("/work/tmp/");
    std::string first = SUPStrings::uniqueZipFilePath();
    EXPECT_TRUE(std::regex_match(first, std::regex("/work/tmp/[0-9A-F-]{36}\\.zip"))) << first;
    EXPECT_NE(first, SUPStrings::uniqueZipFilePath());
  }
  for (const char* unset : {static_cast<const char*>(nullptr), ""}) {
    ScopedTMPDIR tmp(unset);
    EXPECT_EQ(support::temporaryDirectory(), "/tmp");
    EXPECT_EQ(SUPStrings::uniqueZipFilePath().rfind("/tmp/", 0), 0u);
  }
}

TEST(SUPStringsMD5, KnownDigests) {
  EXPECT_EQ(SUPStrings::MD5HashForString(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(SUPStrings::MD5HashForString("The quick brown fox jumps over the lazy dog"),
            "9e107d9d372bb6826bd81d3542a419d6");
  // All the bytes count: a NUL inside the string, and the UTF-8 of "é".
  EXPECT_EQ(SUPStrings::MD5HashForString(std::string("a\0b", 3)), "70350f6027bce3713f6b76473084309b");
  EXPECT_EQ(SUPStrings::MD5HashForString("\xC3\xA9"), "66ddcd97cfdeabb2f6fb8a999b4bc76f");
}

TEST(AppendingPathComponent, JoinsWithoutDoubledSlashes) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"/a/b", "c.dSYM", "/a/b/c.dSYM"}, {"/a/b/", "/c.dSYM/", "/a/b/c.dSYM"}, {"/", "tmp", "/tmp"},
      {"", "c.dSYM", "c.dSYM"},         {"/a", "", "/a"},                      {"rel", "x/y", "rel/x/y"}};
  for (const auto& [base, component, joined] : cases) EXPECT_EQ(appendingPathComponent(base, component), joined);
}

}  // namespace
}  // namespace symlift::support
