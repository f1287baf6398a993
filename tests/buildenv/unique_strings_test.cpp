// Unique names: version-4 UUID text. (MD5 digests are checked by the upload
// store's folder name in records/.)

#include "support/unique_strings.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "support/path_component.h"

namespace symlift::support {
namespace {

// Version 4 and the RFC 4122 variant in their own nibbles, every other bit
// random: no byte's free bits repeat its neighbour's in every UUID.
TEST(UniqueStringsTest, VersionFourUUIDTextsThatNeverRepeat) {
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  int sameAsNext[15] = {};
  for (int i = 0; i < 1000; ++i) {
    std::string text = SUPStrings::uniqueString();
    ASSERT_TRUE(std::regex_match(text, uuid)) << text;
    seen.insert(text);
    text = std::regex_replace(text, std::regex("-"), "");
    for (int b = 0; b < 15; ++b) sameAsNext[b] += text[2 * b + 1] == text[2 * b + 3];  // low nibbles
  }
  EXPECT_EQ(seen.size(), 1000u);
  for (int b = 0; b < 15; ++b) EXPECT_LT(sameAsNext[b], 200) << "byte " << b;  // about 62 expected
  EXPECT_TRUE(std::regex_match(SUPStrings::uniqueGZipFileName(), std::regex("[0-9A-F-]{36}/gz")));
}

}  // namespace
}  // namespace symlift::support
