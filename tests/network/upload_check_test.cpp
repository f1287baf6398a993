#include "upload_check.h"

#include <gtest/gtest.h>

#include "fake_service_process.h"

namespace symlift::fakeservice {
namespace {

using symlift::testing::gzipText;

constexpr const char* kUUID = "0123456789abcdef0123456789abcdef";

TEST(UploadCheckTest, AcceptsOnlyACompleteGzipWhoseHeaderNamesTheUUID) {
  std::string csym = std::string("code_mapping\t1\tmacho\t") + kUUID + "\tarm64\tapp\n0\t10\tmain\n";
  EXPECT_TRUE(checkUpload(gzipText(csym), kUUID).accepted);

  EXPECT_FALSE(checkUpload(gzipText(csym), "ffffffffffffffffffffffffffffffff").accepted);
  EXPECT_FALSE(checkUpload(csym, kUUID).accepted);  // not compressed
  std::string whole = gzipText(csym);
  EXPECT_FALSE(checkUpload(whole.substr(0, whole.size() - 6), kUUID).accepted);  // truncated
  EXPECT_FALSE(checkUpload(gzipText(""), kUUID).accepted);
  EXPECT_FALSE(checkUpload(gzipText(std::string("code_mapping\t2\tmacho\t") + kUUID + "\n"), kUUID).accepted);
  EXPECT_FALSE(checkUpload(gzipText(std::string("mapping\t1\tmacho\t") + kUUID + "\n"), kUUID).accepted);
  EXPECT_FALSE(checkUpload("", kUUID).accepted);
}

TEST(UploadCheckTest, LargeBodyIsReadToTheEnd) {
  std::string csym = std::string("code_mapping\t1\tmacho\t") + kUUID + "\n";
  for (int i = 0; i < 200000; ++i) csym += std::to_string(i * 7919) + "\tsymbol_" + std::to_string(i) + "\n";
  std::string body = gzipText(csym);
  EXPECT_TRUE(checkUpload(body, kUUID).accepted);
  body[body.size() - 3] ^= 0x55;  // the length in the trailer no longer matches
  EXPECT_FALSE(checkUpload(body, kUUID).accepted);
}

}  // namespace
}  // namespace symlift::fakeservice
