// How the process ends: main returns on every way out the run itself takes
// (success, a failed upload, convert-only, an archive that does not unpack),
// after every thread it started was joined and with nothing leaked.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "e2e/manual_run.h"

namespace symlift::testing::e2e {
namespace {

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

}  // namespace
}  // namespace symlift::testing::e2e
