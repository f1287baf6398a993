// Writing fails: a temporary directory that cannot hold files (one below a
// regular file, one that is not there), a full disk (a file-size limit, so
// write returns EFBIG; this works as root too, where permissions would not
// stop a write) and a full disk for the gzip file alone. The run names the
// path and the reason and ends with the status of the step that failed.

#include <gtest/gtest.h>

#include <cstring>

#include "e2e/manual_run.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

// symlift under a file-size limit with SIGXFSZ ignored, as on a full disk
// (unzip inherits both); its output goes through a pipe, which the limit
// does not touch.
RunResult runWithFileSizeLimit(const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& environment,
                               const std::string& workingDirectory, int bytes) {
  std::vector<std::string> argv{"/bin/bash", "-c",
                                "trap '' XFSZ; set -o pipefail; prlimit --fsize=$0 -- \"$@\" 2>&1 | cat",
                                std::to_string(bytes), symliftBinary()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  RunOptions options;
  options.environment = environment;
  options.workingDirectory = workingDirectory;
  return runProgram(argv, options);
}

TEST(WriteErrorTest, EveryFailedWriteNamesThePathAndTheReason) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  enum Tmp { BelowAFile, Missing, Usable };
  struct Case {
    const char* name;
    Tmp tmp;
    bool convertOnly;
    bool archive;       // a zip of the dSYM instead of the dSYM
    int fileSizeLimit;  // bytes; 0: none
    bool gzipFault;     // creating a ".zip" file fails with ENOSPC
    int status;
    std::vector<std::string> printed;  // "{tmp}" is the temporary directory, "{in}" the input
    std::vector<std::string> left;     // endings of what stays in a usable temporary directory
  };
  const std::vector<std::string> notADirectory{
      "error: Could not write cSYM file {tmp}/arm64-", std::string(".csym: ") + std::strerror(ENOTDIR) + "\n",
      "error: Could not complete submission of dSYM at {in}: ", "Failed to generate cSYMs for architectures"};
  const std::vector<std::string> gzipFailed{"error: Could not write compressed cSYM file {tmp}/",
                                            std::string(".zip: ") + std::strerror(ENOSPC),
                                            "Could not compress cSYM data for uuid "};
  const Case cases[] = {
      {"TMPDIR below a file, convert only", BelowAFile, true, false, 0, false, 8, notADirectory, {}},
      {"TMPDIR below a file, upload", BelowAFile, false, false, 0, false, 8, notADirectory, {}},
      {"TMPDIR missing", Missing, true, false, 0, false, 8,
       {"error: Could not write cSYM file {tmp}/x86_64-", std::strerror(ENOENT)}, {}},
      {"full disk while writing a cSYM", Usable, true, false, 100, false, 8,
       {"error: Could not write cSYM file {tmp}/", std::strerror(EFBIG),
        "error: Could not complete submission of dSYM at {in}: "},
       {}},
      // The cSYM files were written before the gzip file failed: kept by -c.
      {"gzip file fails, convert only", Usable, true, false, 0, true, 8, gzipFailed, {".csym", ".csym"}},
      {"gzip file fails, upload", Usable, false, false, 0, true, 8, gzipFailed, {}},
      // unzip inherits the limit; the DWARF file is larger than it.
      {"full disk while unzipping", Usable, false, true, 4096, false, 11,
       {"error: Failed to unzip archive at {in}: ", "write error"}, {}},
      {"unpack folder cannot be made", BelowAFile, true, true, 0, false, 9,
       {"error: Failed to create directory {tmp}/Symbols.zip.unzipped\n",
        "error: Could not create {tmp}: " + std::string(std::strerror(ENOTDIR)) + "\n"},
       {}},
  };
  TempDir work;
  copyFixture("FatApp.dSYM", work.path() / "content/FatApp.dSYM");
  ASSERT_TRUE(zipFolder(work.path() / "content", work.path() / "Symbols.zip"));
  const fs::path file = work.write("not-a-folder", "x");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir usable;
    const std::string tmp = c.tmp == Usable    ? usable.str()
                            : c.tmp == Missing ? (work.path() / "gone").string()
                                               : (file / "tmp").string();
    const std::string input = c.archive ? "Symbols.zip" : fatAppDSYM();
    std::map<std::string, std::string> extra;
    if (c.gzipFault) {
      extra["LD_PRELOAD"] = ZIP_WRITE_FAULT_LIBRARY;
      // A sanitized symlift insists on its runtime coming first; the preloaded
      // library only wraps open, which the runtime does not.
      if (const char* asan = std::getenv("ASAN_OPTIONS"))
        extra["ASAN_OPTIONS"] = std::string(asan) + ":verify_asan_link_order=0";
    }
    std::vector<std::string> options;
    if (c.convertOnly) options.push_back("-c");
    const RunResult result =
        c.fileSizeLimit
            ? runWithFileSizeLimit(byHand(options, {input}), cleanEnvironment(tmp), work.str(), c.fileSizeLimit)
            : runByHand({input}, tmp, work.str(), c.convertOnly, extra);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, c.status) << result.out;
    for (std::string text : c.printed) {
      for (auto [name, value] : {std::pair{"{tmp}", tmp}, std::pair{"{in}", input}})
        if (auto at = text.find(name); at != std::string::npos) text.replace(at, std::strlen(name), value);
      EXPECT_NE(result.out.find(text), std::string::npos) << text << " missing in:\n" << result.out;
    }
    EXPECT_EQ(result.out.find("Retrying"), std::string::npos) << "nothing is sent: " << result.out;
    EXPECT_EQ(readFile(file), "x");
    EXPECT_FALSE(fs::exists(work.path() / "gone"));
    const auto left = entriesBelow(usable.path());
    ASSERT_EQ(left.size(), c.left.size()) << joined(left);
    for (std::size_t i = 0; i < left.size(); ++i) EXPECT_TRUE(left[i].ends_with(c.left[i])) << left[i];
  }
}

}  // namespace
}  // namespace symlift::testing::e2e
