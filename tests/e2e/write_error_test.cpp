// Writing fails: a temporary directory that cannot hold files (a path below
// a regular file, a folder that does not exist) and a full disk (a file-size
// limit, so write returns EFBIG; this works as root too, where permissions
// would not stop a write). The run must name the path and the reason and end
// with the status of the step that failed.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "e2e/manual_run.h"
#include "e2e/output_lines.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
const Lines kPlain{false};

// Runs symlift with a limit on the size of files it may write and SIGXFSZ
// ignored, as a full disk would look; output through a pipe, which the
// limit does not touch.
RunResult runWithFileSizeLimit(const std::vector<std::string>& arguments, const fs::path& tmp, rlim_t limit) {
  RunResult result;
  int pipeFDs[2];
  if (::pipe(pipeFDs) != 0) return result;
  std::vector<std::string> argv{symliftBinary()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  std::string tmpdir = "TMPDIR=" + tmp.string();
  std::string path = "PATH=/usr/bin:/bin";
  std::string endpoint = "VantrelUploadEndpoint=http://127.0.0.1:9";
  char* envp[] = {tmpdir.data(), path.data(), endpoint.data(), nullptr};

  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(pipeFDs[1], STDOUT_FILENO);
    ::dup2(pipeFDs[1], STDERR_FILENO);
    ::close(pipeFDs[0]);
    ::signal(SIGXFSZ, SIG_IGN);  // ignored signals stay ignored across exec
    struct rlimit rl {limit, limit};
    ::setrlimit(RLIMIT_FSIZE, &rl);
    ::execve(args[0], args.data(), envp);
    ::_exit(127);
  }
  ::close(pipeFDs[1]);
  char buffer[4096];
  for (ssize_t n; (n = ::read(pipeFDs[0], buffer, sizeof buffer)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    result.out.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(pipeFDs[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

class WriteErrorTest : public ::testing::Test {
 protected:
  RunResult run(const std::vector<std::string>& paths, const std::string& tmpdir, bool convertOnly = true) {
    return runByHand(paths, tmpdir, work_.str(), convertOnly);
  }
  std::string fatApp() const { return fatAppDSYM(); }

  TempDir work_;
};

TEST_F(WriteErrorTest, TemporaryDirectoryBelowARegularFileFailsTheGenerationWithTheReason) {
  const fs::path file = work_.write("not-a-folder", "x");
  const std::string tmp = (file / "tmp").string();
  for (bool convertOnly : {true, false}) {
    RunResult result = run({fatApp()}, tmp, convertOnly);
    EXPECT_EQ(result.status, 8) << result.out;
    EXPECT_EQ(result.signal, 0);
    EXPECT_NE(result.out.find("error: Could not write cSYM file " + tmp + "/arm64-"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(".csym: " + std::string(std::strerror(ENOTDIR)) + "\n"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("error: Could not complete submission of dSYM at " + fatApp() + ": "), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("Failed to generate cSYMs for architectures"), std::string::npos) << result.out;
  }
  EXPECT_EQ(readFile(file), "x");
}

TEST_F(WriteErrorTest, MissingTemporaryDirectoryIsReportedWithThePath) {
  const std::string tmp = (work_.path() / "gone").string();
  RunResult result = run({fatApp()}, tmp);
  EXPECT_EQ(result.status, 8) << result.out;
  EXPECT_NE(result.out.find("error: Could not write cSYM file " + tmp + "/x86_64-"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(std::strerror(ENOENT)), std::string::npos) << result.out;
  EXPECT_FALSE(fs::exists(tmp));
}

TEST_F(WriteErrorTest, FullDiskWhileWritingACSYMLeavesNoPartialFile) {
  TempDir tmp;
  RunResult result =
      runWithFileSizeLimit({"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "-c", "--", fatApp()}, tmp.path(), 100);
  EXPECT_EQ(result.signal, 0) << "SIGXFSZ reached the run";
  EXPECT_EQ(result.status, 8) << result.out;
  EXPECT_NE(result.out.find("error: Could not write cSYM file " + tmp.str() + "/"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(std::strerror(EFBIG)), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("error: Could not complete submission of dSYM at "), std::string::npos) << result.out;
  for (const auto& entry : fs::directory_iterator(tmp.path()))
    ADD_FAILURE() << "left behind: " << entry.path().filename();
}

TEST_F(WriteErrorTest, FullDiskForTheGzipFileAloneFailsTheCompressionOfEverySlice) {
  std::map<std::string, std::string> fault{{"LD_PRELOAD", ZIP_WRITE_FAULT_LIBRARY}};
  // A sanitized symlift insists on its runtime coming first; the preloaded
  // library only wraps open, which the runtime does not.
  if (const char* asan = std::getenv("ASAN_OPTIONS"))
    fault["ASAN_OPTIONS"] = std::string(asan) + ":verify_asan_link_order=0";
  for (bool convertOnly : {true, false}) {
    TempDir tmp;
    RunResult result = runByHand({fatApp()}, tmp.str(), work_.str(), convertOnly, fault);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 8) << result.out;
    EXPECT_NE(result.out.find("error: Could not write compressed cSYM file " + tmp.str() + "/"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find(".zip: " + std::string(std::strerror(ENOSPC))), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("Could not compress cSYM data for uuid "), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("Retrying"), std::string::npos) << "nothing is sent: " << result.out;
    const std::vector<std::string> left = entryNames(tmp.path());
    if (convertOnly) {
      // The cSYM files were written before the gzip file failed: kept.
      EXPECT_EQ(left.size(), 2u) << ::testing::PrintToString(left);
      for (const auto& name : left) EXPECT_TRUE(name.ends_with(".csym")) << name;
    } else {
      EXPECT_TRUE(left.empty()) << "left behind: " << ::testing::PrintToString(left);
    }
  }
}

TEST_F(WriteErrorTest, FullDiskWhileUnzippingEndsWithStatusElevenAndUnzipsReason) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  fs::create_directories(work_.path() / "content");
  fs::copy(fixturesDir() / "FatApp.dSYM", work_.path() / "content/FatApp.dSYM", fs::copy_options::recursive);
  const std::string archive = (work_.path() / "Symbols.zip").string();
  ASSERT_TRUE(zipFolder(work_.path() / "content", archive));
  TempDir tmp;
  // unzip inherits the limit; the DWARF file is larger than it.
  RunResult result =
      runWithFileSizeLimit({"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "--", archive}, tmp.path(), 4096);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 11) << result.out;
  EXPECT_NE(result.out.find("error: Failed to unzip archive at " + archive + ": "), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("write error"), std::string::npos) << result.out;
  // Not a convert-only run: the half-unpacked folder is gone.
  EXPECT_FALSE(fs::exists(tmp.path() / (archive.substr(1) + ".unzipped"))) << result.out;
}

TEST_F(WriteErrorTest, UnpackFolderThatCannotBeMadeEndsWithStatusNineAndTheReason) {
  if (!haveProgram("zip")) GTEST_SKIP() << "zip is needed to make the archive";
  work_.write("content/readme.txt", "hello");
  RunOptions zipOptions;
  zipOptions.workingDirectory = (work_.path() / "content").string();
  ASSERT_EQ(runProgram({"/usr/bin/zip", "-q", (work_.path() / "Symbols.zip").string(), "readme.txt"}, zipOptions).status,
            0);
  const fs::path file = work_.write("not-a-folder", "x");
  const std::string tmp = (file / "tmp").string();
  RunResult result = run({"Symbols.zip"}, tmp);
  EXPECT_EQ(result.status, 9) << result.out;
  EXPECT_NE(result.out.find(kPlain.error("Failed to create directory " + tmp + "/Symbols.zip.unzipped")), std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find(kPlain.error("Could not create " + tmp + ": " + std::strerror(ENOTDIR))), std::string::npos)
      << result.out;
}

}  // namespace
}  // namespace symlift::testing::e2e
