// Runs at the same time on the same dSYM and the same temporary directory
// (two apps built from one project, two build phases): they share the
// predictable cSYM names, and each must still upload complete cSYMs.

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/manual_run.h"
#include "network/fake_service_process.h"
#include "operations/pipeline_test_support.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

// Whether text is a whole cSYM: every section holds as many lines as the
// header says.
bool isCompleteCSYM(const std::string& text) {
  std::istringstream lines(text);
  std::string header;
  if (!std::getline(lines, header)) return false;
  std::vector<std::string> fields;
  std::istringstream split(header);
  for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
  if (fields.size() != 8 || fields[0] != "code_mapping") return false;
  for (int section = 0; section < 3; ++section) {
    std::string title;
    if (!std::getline(lines, title)) return false;
    const std::string expected = std::string(section == 0 ? "files" : section == 1 ? "symbols" : "ranges") + "\t" +
                                 fields[5 + static_cast<std::size_t>(section)];
    if (title != expected) return false;
    for (long n = std::stol(fields[5 + static_cast<std::size_t>(section)]); n > 0; --n) {
      std::string line;
      if (!std::getline(lines, line)) return false;
    }
  }
  std::string rest;
  return !std::getline(lines, rest);
}

TEST(ConcurrentRunsTest, RunsSharingTheTemporaryDirectoryEachUploadCompleteCSYMs) {
  constexpr int kRuns = 4;
  constexpr int kRounds = 3;
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  TempDir tmp;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::future<RunResult>> runs;
    for (int run = 0; run < kRuns; ++run) {
      runs.push_back(std::async(std::launch::async, [&, run] {
        RunOptions options;
        options.environment = std::map<std::string, std::string>{
            {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp.str()}, {"VantrelUploadEndpoint", service.baseURL()}};
        options.timeoutSeconds = 120;
        return runSymlift({"-sdv", "-ai", "1:" + std::to_string(run) + ":ios:same", "-p", "ios", "--", fatAppDSYM()},
                          options);
      }));
    }
    for (auto& run : runs) {
      RunResult result = run.get();
      EXPECT_EQ(result.status, 0) << result.out;
    }
    // Every app got both slices, each a complete cSYM.
    std::size_t bodies = 0;
    for (const auto& entry : fs::directory_iterator(service.storePath())) {
      if (!entry.path().string().ends_with(".csym.gz")) continue;
      ++bodies;
      auto text = gunzip(readFile(entry.path()));
      ASSERT_TRUE(text) << entry.path();
      EXPECT_TRUE(isCompleteCSYM(*text)) << entry.path() << " round " << round;
      fs::remove(entry.path());
    }
    EXPECT_EQ(bodies, 2u * kRuns) << "round " << round;
  }
}

}  // namespace
}  // namespace symlift::testing::e2e
