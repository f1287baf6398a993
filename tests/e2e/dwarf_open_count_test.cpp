// The real symlift binary on a folder of dSYMs, converting only (-c) with the
// dSYM validator on: path expansion, the conversion and the validator all
// read each DWARF file, and each DWARF file must be opened once in the run
// (one mapping, shared through the run's symbol-file cache). A preloaded
// library logs every open of a file in a DWARF folder.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

TEST(DWARFOpenCount, EachDWARFFileIsOpenedOnceInARunThatConvertsAndValidates) {
  TempDir work, tmp;
  const fs::path folder = work.path() / "Build";
  fs::create_directories(folder);
  for (const std::string name : {"FatApp", "Hello"})
    fs::copy(fixturesDir() / (name + ".dSYM"), folder / (name + ".dSYM"), fs::copy_options::recursive);
  const fs::path log = work.path() / "opens.log";

  RunOptions options;
  options.environment = std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"},
                                                           {"TMPDIR", tmp.str()},
                                                           {"VantrelUploadEndpoint", "http://127.0.0.1:9"},
                                                           {"LD_PRELOAD", OPEN_COUNTER_LIBRARY},
                                                           {"SYMLIFT_OPEN_LOG", log.string()}};
  // A sanitized symlift insists on its runtime coming first.
  if (const char* asan = std::getenv("ASAN_OPTIONS"))
    options.extraEnvironment["ASAN_OPTIONS"] = std::string(asan) + ":verify_asan_link_order=0";
  options.workingDirectory = work.str();
  options.timeoutSeconds = 60;
  const RunResult result = runSymlift({"-ai", "1:99:ios:e2e", "-p", "ios", "-c", "--", folder.string()}, options);
  ASSERT_EQ(result.status, 0) << result.out << result.err;

  std::map<std::string, int> opens;  // DWARF file name → times opened
  std::istringstream lines(fs::exists(log) ? readFile(log) : "");
  for (std::string line; std::getline(lines, line);) ++opens[fs::path(line).filename().string()];
  // The counter sees every DWARF file, so a count of one means one open.
  ASSERT_EQ(opens.size(), 2u) << ::testing::PrintToString(opens);
  EXPECT_EQ(opens, (std::map<std::string, int>{{"FatApp", 1}, {"Hello", 1}}));
}

}  // namespace
}  // namespace symlift::testing::e2e
