// How the process ends: main returns on every way out the run itself takes
// (success, a failed upload, convert-only, an archive that does not unpack),
// after every thread it started was joined and with nothing leaked.
//
// The real symlift binary on a folder of dSYMs, converting only (-c) with the
// dSYM validator on: path expansion, the conversion and the validator all
// read each DWARF file, and each DWARF file must be opened once in the run
// (one mapping, shared through the run's symbol-file cache). A preloaded
// library logs every open of a file in a DWARF folder.

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "e2e/manual_run.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

struct Ending {
  const char* name;
  bool service;  // else nothing listens at the endpoint
  std::vector<std::string> serviceOptions;
  bool convertOnly;
  bool brokenArchive;
  int status;
};

const Ending kEndings[] = {
    {"upload succeeds", true, {}, false, false, 0},
    {"upload fails after its retries", true, {"--fail-first", "1000"}, false, false, 8},
    {"convert only", false, {}, true, false, 0},
    {"archive does not unpack", false, {}, false, true, 11},
};

class ProcessEndTest : public ::testing::Test {
 protected:
  // The run of one ending, with extra environment and an optional wrapper
  // program (valgrind) in front of the binary.
  RunResult run(const Ending& ending, const std::map<std::string, std::string>& extra,
                const std::vector<std::string>& wrapper = {}) {
    std::optional<FakeServiceProcess> service;
    if (ending.service) {
      EXPECT_TRUE(service.emplace(ending.serviceOptions).started());
    }
    const std::string input =
        ending.brokenArchive ? work_.write("Broken.zip", "not a zip archive").string() : fatAppDSYM();
    std::vector<std::string> argv = wrapper;
    argv.push_back(symliftBinary());
    for (const auto& word :
         byHand(ending.convertOnly ? std::vector<std::string>{"-c"} : std::vector<std::string>{}, {input}))
      argv.push_back(word);
    RunOptions options;
    options.environment = cleanEnvironment(tmp_.str(), service ? service->baseURL() : kNowhere,
                                           {{"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "1"}});
    options.extraEnvironment = extra;
    options.timeoutSeconds = 300;
    return runProgram(argv, options);
  }

  TempDir work_;
  TempDir tmp_;
};

TEST_F(ProcessEndTest, EveryThreadIsJoinedBeforeTheProcessEnds) {
  for (const Ending& ending : kEndings) {
    SCOPED_TRACE(ending.name);
    const std::string audit = (work_.path() / "threads").string();
    std::map<std::string, std::string> environment{{"LD_PRELOAD", THREAD_AUDIT_LIBRARY},
                                                   {"SYMLIFT_THREAD_AUDIT", audit}};
    // A sanitized symlift insists on its runtime coming first; the audit
    // only wraps the thread calls, which it passes on to the runtime.
    if (const char* asan = std::getenv("ASAN_OPTIONS"))
      environment["ASAN_OPTIONS"] = std::string(asan) + ":verify_asan_link_order=0";
    std::remove(audit.c_str());
    RunResult result = run(ending, environment);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, ending.status) << result.out;
    std::ifstream counts(audit);
    long created = -1, joined = -1, detached = -1;
    ASSERT_TRUE(counts >> created >> joined >> detached) << "no counts: the process did not end by returning";
    EXPECT_GT(created, 0);
    EXPECT_EQ(joined, created);
    EXPECT_EQ(detached, 0);
  }
}

TEST_F(ProcessEndTest, NothingLeaksUnderValgrind) {
  if (std::getenv("ASAN_OPTIONS") || std::getenv("TSAN_OPTIONS")) GTEST_SKIP() << "a sanitized build checks itself";
  if (!haveProgram("valgrind")) GTEST_SKIP() << "needs valgrind";
  const std::vector<std::string> valgrind{"/usr/bin/valgrind", "--quiet", "--leak-check=full",
                                          "--errors-for-leak-kinds=definite,possible", "--error-exitcode=99"};
  for (const Ending& ending : {kEndings[0], kEndings[1]}) {
    SCOPED_TRACE(ending.name);
    RunResult result = run(ending, {}, valgrind);
    EXPECT_EQ(result.status, ending.status) << result.err;
    EXPECT_EQ(result.err.find("lost"), std::string::npos) << result.err;
  }
}

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
