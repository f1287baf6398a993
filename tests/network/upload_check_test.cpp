// The stand-in service's check of an upload, on which the e2e runs rely to
// tell a right upload from a wrong one.

#include "upload_check.h"

#include <gtest/gtest.h>

#include "fake_service_process.h"

namespace symlift::fakeservice {
namespace {

using symlift::testing::gzipText;

TEST(UploadCheckTest, AcceptsOnlyACompleteGzipWhoseHeaderNamesTheUUID) {
  const std::string uuid = "0123456789abcdef0123456789abcdef";
  const std::string csym = "code_mapping\t1\tmacho\t" + uuid + "\tarm64\tapp\n0\t10\tmain\n";
  std::string large = "code_mapping\t1\tmacho\t" + uuid + "\n";
  for (int i = 0; i < 200000; ++i) large += std::to_string(i * 7919) + "\tsymbol_" + std::to_string(i) + "\n";
  std::string largeGzip = gzipText(large), damaged = largeGzip;
  damaged[damaged.size() - 3] ^= 0x55;  // the length in the trailer no longer matches
  const std::string whole = gzipText(csym);
  const std::pair<std::string, bool> cases[] = {
      {whole, true},
      {largeGzip, true},
      {damaged, false},
      {csym, false},                               // not compressed
      {whole.substr(0, whole.size() - 6), false},  // truncated
      {gzipText(""), false},
      {"", false},
      {gzipText("code_mapping\t2\tmacho\t" + uuid + "\n"), false},
      {gzipText("mapping\t1\tmacho\t" + uuid + "\n"), false},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(checkUpload(cases[i].first, uuid).accepted, cases[i].second) << "case " << i;
  EXPECT_FALSE(checkUpload(whole, "ffffffffffffffffffffffffffffffff").accepted);
}

}  // namespace
}  // namespace symlift::fakeservice
