// Input made to hurt: nesting that would exhaust a recursive parser, files
// that block or never end, names with control characters or a leading dash,
// paths past the system's limit, an archive that asks for a password. Every
// run ends by itself, with the status and the message a user can act on.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/manual_run.h"
#include "network/fake_service_process.h"
#include "support/hostile_inputs.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

std::size_t linesEqualTo(const std::string& out, const std::string& line) {
  std::istringstream lines(out);
  std::size_t count = 0;
  for (std::string each; std::getline(lines, each);) count += each == line;
  return count;
}

TEST(HostileInputTest, ServicePlistsThatWouldHangOrCrashAreUnreadable) {
  TempDir work;
  const fs::path fifo = work.path() / "fifo.plist";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  fs::create_symlink("/dev/zero", work.path() / "zero.plist");
  const std::vector<fs::path> plists = {
      work.write("deep-xml.plist", deepXMLPlist(200000)),
      work.write("deep-binary.plist", deepBinaryPlist(100000)),
      fifo,
      work.path() / "zero.plist",
  };
  for (const fs::path& plist : plists) {
    SCOPED_TRACE(plist.filename());
    RunOptions options;
    options.timeoutSeconds = 60;
    RunResult result = runSymlift({"-osp", plist.string(), "-p", "ios", "-c", "--", fatAppDSYM()}, options);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 13) << result.out;
    EXPECT_EQ(result.out, "error: Unable to read Omvara Service plist at path " + plist.string() + "\n");
  }
}

// A dSYM copied into work under name, with its Info.plist replaced.
fs::path dSYMWithInfo(const TempDir& work, const std::string& name, const std::string& info) {
  const fs::path bundle = work.path() / "in" / name;
  fs::create_directories(bundle.parent_path());
  fs::copy(fixturesDir() / "FatApp.dSYM", bundle, fs::copy_options::recursive);
  fs::remove(bundle / "Contents/Info.plist");
  if (!info.empty()) work.write(fs::relative(bundle / "Contents/Info.plist", work.path()).string(), info);
  return bundle;
}

TEST(HostileInputTest, BundlesWithHurtfulInfoPlistsStillConvert) {
  struct Case {
    const char* name;
    std::string info;
    bool fifo;
  };
  const Case cases[] = {
      {"deep XML", deepXMLPlist(200000), false},
      {"deep binary", deepBinaryPlist(100000), false},
      {"a pipe nobody writes to", "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir work, tmp;
    const fs::path bundle = dSYMWithInfo(work, "App.dSYM", c.info);
    if (c.fifo) {
      ASSERT_EQ(::mkfifo((bundle / "Contents/Info.plist").c_str(), 0600), 0);
    }
    ASSERT_TRUE(zipFolder(work.path() / "in", work.path() / "Symbols.zip"));
    RunResult result = runByHand({"Symbols.zip"}, tmp.str(), work.str());
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 0) << result.out;
  }
}

TEST(HostileInputTest, PathsAndNamesAreReportedAsTheyAre) {
  TempDir work, tmp;
  // A DWARF file that cannot be opened: a link to itself.
  const fs::path looping = dSYMWithInfo(work, "Loop.dSYM", "");
  const fs::path loopingDWARF = looping / "Contents/Resources/DWARF/FatApp";
  fs::remove(loopingDWARF);
  fs::create_symlink(loopingDWARF, loopingDWARF);
  RunResult loop = runByHand({looping.string()}, tmp.str(), work.str());
  EXPECT_EQ(loop.status, 8) << loop.out;
  EXPECT_NE(loop.out.find("Could not read DWARF file at " + loopingDWARF.string() + ": " + std::strerror(ELOOP)),
            std::string::npos)
      << loop.out;

  // A path longer than the system takes.
  const std::string tooLong = "/tmp/" + std::string(5000, 'x') + ".dSYM";
  RunResult longPath = runByHand({tooLong}, tmp.str(), work.str());
  EXPECT_EQ(longPath.status, 0);
  EXPECT_EQ(linesEqualTo(longPath.out, "warning: Path is too long: " + tooLong), 3u) << longPath.out;

  // An archive whose name starts with a dash.
  dSYMWithInfo(work, "App.dSYM", "");
  ASSERT_TRUE(zipFolder(work.path() / "in", work.path() / "-Symbols.zip"));
  RunResult dashed = runByHand({"-Symbols.zip"}, tmp.str(), work.str());
  EXPECT_EQ(dashed.status, 0) << dashed.out;
  EXPECT_EQ(linesEqualTo(dashed.out, "Successfully uploaded Vantrel symbols"), 1u) << dashed.out;

  // A folder holding a bundle whose name would print a success line of its
  // own and clear the line before it.
  TempDir folder;
  const std::string faked = "App\nSuccessfully uploaded Vantrel symbols\x1b[2K.dSYM";
  fs::copy(fixturesDir() / "FatApp.dSYM", folder.path() / faked, fs::copy_options::recursive);
  RunOptions options;
  options.environment = std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp.str()}};
  RunResult named = runSymlift({"-sdv", "-d", "-ai", "1:9:ios:name", "-p", "ios", "-c", "--", folder.str()}, options);
  EXPECT_EQ(named.status, 0) << named.out;
  EXPECT_NE(named.out.find("Found dSYM at path: " + folder.str() + "/App\\nSuccessfully uploaded Vantrel symbols\\x1b[2K.dSYM"),
            std::string::npos)
      << named.out;
  EXPECT_EQ(linesEqualTo(named.out, "Successfully uploaded Vantrel symbols"), 1u) << named.out;
  EXPECT_EQ(named.out.find('\x1b'), std::string::npos) << named.out;
}

// Finder leaves a .DS_Store wherever a folder was looked at.
TEST(HostileInputTest, AStrayFileInTheDWARFFolderIsLeftOutWithAWarning) {
  TempDir work, tmp;
  const fs::path bundle = dSYMWithInfo(work, "App.dSYM", "");
  const fs::path stray = bundle / "Contents/Resources/DWARF/.DS_Store";
  std::string finder("\0\0\0\1Bud1", 8);
  finder.resize(6148, '\0');
  work.write(fs::relative(stray, work.path()).string(), finder);
  RunResult result = runByHand({bundle.string()}, tmp.str(), work.str());
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(result.out, "warning: No architecture slices in dSYM at " + stray.string() +
                            "\nSuccessfully uploaded Vantrel symbols\n");
}

TEST(HostileInputTest, AnArchiveAtAnAbsolutePathLeavesNoFoldersBehind) {
  FakeServiceProcess service;
  ASSERT_TRUE(service.started());
  TempDir work, tmp;
  dSYMWithInfo(work, "App.dSYM", "");
  ASSERT_TRUE(zipFolder(work.path() / "in", work.path() / "Symbols.zip"));
  RunOptions options;
  options.environment = std::map<std::string, std::string>{
      {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp.str()}, {"VantrelUploadEndpoint", service.baseURL()}};
  RunResult result =
      runSymlift({"-sdv", "-ai", "1:9:ios:abs", "-p", "ios", "--", (work.path() / "Symbols.zip").string()}, options);
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(entryNames(tmp.path()), std::vector<std::string>{}) << "the unpack folder's parents stayed";
}

// unzip of an encrypted archive asks the terminal for the password. With a
// terminal as symlift's controlling terminal, nothing may wait for an
// answer that never comes.
TEST(HostileInputTest, AnEncryptedArchiveNeverWaitsForAPassword) {
  if (!haveProgram("zip")) GTEST_SKIP() << "needs zip";
  TempDir work, tmp;
  dSYMWithInfo(work, "App.dSYM", "");
  RunOptions zipIn;
  zipIn.workingDirectory = (work.path() / "in").string();
  ASSERT_EQ(runProgram({"/usr/bin/zip", "-qr", "-P", "secret", (work.path() / "Locked.zip").string(), "."}, zipIn)
                .status,
            0);
  int terminal = -1;
  const pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::setenv("TMPDIR", tmp.str().c_str(), 1);
    ::chdir(work.str().c_str());
    const std::string binary = symliftBinary();
    ::execl(binary.c_str(), binary.c_str(), "-sdv", "-ai", "1:9:ios:lock", "-p", "ios", "-c", "--", "Locked.zip",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::fcntl(terminal, F_SETFL, O_NONBLOCK);
  std::string seen;
  int status = 0;
  bool ended = false;
  for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
       !ended && std::chrono::steady_clock::now() < until;) {
    char buffer[256];
    for (ssize_t n; (n = ::read(terminal, buffer, sizeof buffer)) > 0;) seen.append(buffer, static_cast<std::size_t>(n));
    ended = ::waitpid(child, &status, WNOHANG) == child;
    if (!ended) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!ended) {
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
  }
  ::close(terminal);
  EXPECT_TRUE(ended) << "still waiting: " << seen;
  EXPECT_EQ(seen.find("password:"), std::string::npos) << seen;
}

}  // namespace
}  // namespace symlift::testing::e2e
