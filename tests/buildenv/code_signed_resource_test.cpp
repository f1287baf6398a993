#include "buildenv/code_signed_resource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace symlift::buildenv {
namespace {

SUPCodeSignedResource resource() {
  SUPCodeSignedResource value;
  value.path = "/Applications/Example.app";
  value.bundleIdentifier = "com.example.app";
  value.displayVersion = "2.1";
  value.buildVersion = "210";
  value.creationDate = std::chrono::system_clock::time_point(std::chrono::seconds(1700000000));
  value.provisioningProfilePath = "/profiles/example.mobileprovision";
  return value;
}

TEST(CodeSignedResourceTest, EqualityLooksAtDatePathAndIdentifierOnly) {
  SUPCodeSignedResource a = resource(), b = resource();
  b.displayVersion = "9.9";
  b.buildVersion.reset();
  b.provisioningProfilePath.reset();
  EXPECT_TRUE(a.isEqual(b));

  SUPCodeSignedResource movedPath = resource(), otherDate = resource(), noIdentifier = resource();
  movedPath.path = "/tmp/Example.app";
  otherDate.creationDate = *otherDate.creationDate + std::chrono::seconds(1);
  noIdentifier.bundleIdentifier.reset();
  EXPECT_FALSE(a.isEqual(movedPath));
  EXPECT_FALSE(a.isEqual(otherDate));
  EXPECT_FALSE(a.isEqual(noIdentifier));
  EXPECT_EQ(a.displayDate(), a.creationDate);
}

TEST(CodeSignedResourceTest, DescriptionNamesClassAddressVersionsAndDate) {
  SUPCodeSignedResource value = resource();
  EXPECT_THAT(value.description(),
              ::testing::MatchesRegex("<SUPCodeSignedResource: 0x[0-9a-f]+ com\\.example\\.app 2\\.1 210 "
                                      "2023-11-14 22:13:20 \\+0000>"));
  SUPCodeSignedResource empty;
  EXPECT_THAT(empty.description(), ::testing::EndsWith(" (null) (null) (null) (null)>"));
}

}  // namespace
}  // namespace symlift::buildenv
