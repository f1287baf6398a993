// SIGINT, SIGTERM, SIGHUP and SIGPIPE in the middle of a run: the binary
// removes the cSYM, gzip and unpack files it made (and the folders it made
// for them) and exits with 128 + the signal's number. Each test waits until
// the run's temporary files are there, signals it and looks at what is left.

#include <gtest/gtest.h>

#include <signal.h>

#include <thread>

#include "e2e/manual_run.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Whether the process has a child (Linux: its threads' children lists).
bool hasChildProcess(pid_t pid) {
  std::error_code error;
  for (const auto& task : fs::directory_iterator(fs::path("/proc") / std::to_string(pid) / "task", error))
    if (!readFile(task.path() / "children").empty()) return true;
  return false;
}

class InterruptionTest : public ::testing::Test {
 protected:
  // The run ends by itself, with exit status 128 + signal, and nothing is
  // left in its temporary directory.
  void expectInterrupted(BackgroundRun& run, int signal, bool toldSo = true) {
    const RunResult result = run.finish(30s);
    ASSERT_FALSE(result.timedOut) << "did not end after the signal";
    ASSERT_EQ(result.signal, 0) << "ended by the signal\n" << result.out;
    EXPECT_EQ(result.status, 128 + signal) << result.out;
    if (toldSo) {
      EXPECT_NE(result.out.find("error: Interrupted by "), std::string::npos) << result.out;
    }
    EXPECT_EQ(joined(entriesBelow(tmp_.path()), "\n"), "");
  }

  TempDir work_;
  TempDir tmp_;
};

// An archive given by a path of several folders, so that the unpack folder
// needs parents of its own below TMPDIR: they go too.
TEST_F(InterruptionTest, EverySignalWhileAnUploadWaitsRemovesTheUnpackedArchive) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  for (int i = 0; i < 3; ++i)
    copyFixture("FatApp.dSYM", work_.path() / "content" / ("App" + std::to_string(i) + ".dSYM"));
  fs::create_directories(work_.path() / "drop/box");
  ASSERT_TRUE(zipFolder(work_.path() / "content", work_.path() / "drop/box/Symbols.zip"));
  const fs::path unpacked = tmp_.path() / "drop/box/Symbols.zip.unzipped";
  const auto fatAppSize = fs::file_size(fixturesDir() / "FatApp.dSYM/Contents/Resources/DWARF/FatApp");
  // 0: the reader of standard output goes away (the next line meets a
  // closed pipe), rather than a signal from outside.
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, 0}) {
    SCOPED_TRACE(signal);
    FakeServiceProcess service({"--delay-ms", signal ? "20000" : "1500"});
    ASSERT_TRUE(service.started());
    BackgroundRun run(byHand({}, {"drop/box/Symbols.zip"}), cleanEnvironment(tmp_.str(), service.baseURL()),
                      work_.str());
    ASSERT_TRUE(run.started());
    // Unpacked completely and unzip gone: the first slices are then on their
    // way to the service, which holds every answer back.
    ASSERT_TRUE(run.waitUntil(
        [&] {
          for (const char* app : {"App0", "App1", "App2"}) {
            std::error_code error;
            if (fs::file_size(unpacked / (std::string(app) + ".dSYM") / "Contents/Resources/DWARF/FatApp", error) !=
                fatAppSize)
              return false;
          }
          return !hasChildProcess(run.pid());
        },
        60s))
        << run.out;
    const auto signalled = std::chrono::steady_clock::now();
    if (signal) {
      run.signal(signal);
    } else {
      run.closeOutput();
    }
    expectInterrupted(run, signal ? signal : SIGPIPE, /*toldSo=*/signal != 0 && signal != SIGPIPE);
    EXPECT_LT(std::chrono::steady_clock::now() - signalled, 10s) << "waited for the service";
  }
}

TEST_F(InterruptionTest, SIGTERMStopsAnUnzipStillWritingBeforeRemovingItsFolder) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  // An unzip that unpacks and then keeps writing into the unpack folder, as
  // a slow unzip of a large archive would.
  const fs::path fakeUnzip = work_.write("bin/unzip",
                                         "#!/bin/sh\n"
                                         "/usr/bin/unzip \"$@\" || exit $?\n"
                                         "while :; do mkdir -p \"$5/late/more\"; sleep 0.02; done\n");
  fs::permissions(fakeUnzip, fs::perms::owner_all);
  copyFixture("FatApp.dSYM", work_.path() / "content/App.dSYM");
  ASSERT_TRUE(zipFolder(work_.path() / "content", work_.path() / "Symbols.zip"));
  BackgroundRun run(
      byHand({"-c"}, {"Symbols.zip"}),
      cleanEnvironment(tmp_.str(), kNowhere, {{"PATH", fakeUnzip.parent_path().string() + ":/usr/bin:/bin"}}),
      work_.str());
  ASSERT_TRUE(run.started());
  ASSERT_TRUE(run.waitUntil([&] { return fs::exists(tmp_.path() / "Symbols.zip.unzipped/late/more"); }, 60s))
      << run.out;
  run.signal(SIGTERM);
  expectInterrupted(run, SIGTERM);
  // Were the writer still alive, the folder would be back within moments.
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(joined(entriesBelow(tmp_.path()), "\n"), "");
}

}  // namespace
}  // namespace symlift::testing::e2e
