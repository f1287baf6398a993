// Runs at the same time on the same dSYM and the same temporary directory
// (two apps built from one project, two build phases): they share the
// predictable cSYM names, and each must still upload complete cSYMs.

#include <gtest/gtest.h>

#include <future>

#include "e2e/manual_run.h"
#include "operations/pipeline_test_support.h"

namespace symlift::testing::e2e {
namespace {

TEST(ConcurrentRunsTest, RunsSharingTheTemporaryDirectoryEachUploadCompleteCSYMs) {
  constexpr int kRuns = 4;
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  TempDir tmp;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::vector<std::future<RunResult>> runs;
    for (int run = 0; run < kRuns; ++run)
      runs.push_back(std::async(std::launch::async, [&, run] {
        return runClean(byHand({}, {fatAppDSYM()}, "1:" + std::to_string(run) + ":ios:same"), tmp.str(),
                        service.baseURL());
      }));
    for (auto& run : runs) {
      RunResult result = run.get();
      EXPECT_EQ(result.status, 0) << result.out;
    }
    // Every app got both slices, each a complete cSYM.
    const auto bodies = storedUploads(service);
    EXPECT_EQ(bodies.size(), 2u * kRuns);
    for (const auto& [name, gzip] : bodies) {
      auto text = gunzip(gzip);
      ASSERT_TRUE(text) << name;
      EXPECT_EQ(csymProblem(*text), "") << name;
      std::filesystem::remove(std::filesystem::path(service.storePath()) / name);
    }
  }
}

}  // namespace
}  // namespace symlift::testing::e2e
