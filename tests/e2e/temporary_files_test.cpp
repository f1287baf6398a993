// Temporary files and archives: cSYM and gzip files private to the user, unpack
// folders mode 0700, links planted at predictable names never followed, and
// crafted zip archives (paths with "..", absolute paths, links leading out)
// never writing or reading outside their unpack folder.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

#include "e2e/manual_run.h"
#include "e2e/output_lines.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
const Lines kPlain{false};

mode_t permissionsOf(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

class TemporaryFilesTest : public ::testing::Test {
 protected:
  RunResult run(const std::vector<std::string>& paths, bool convertOnly = true) {
    return runByHand(paths, tmp_.str(), work_.str(), convertOnly);
  }
  std::string fatApp() const { return fatAppDSYM(); }

  // The names of the cSYM files a convert-only run of FatApp writes.
  std::vector<std::string> fatAppCSYMNames() {
    TempDir scratch;
    runByHand({fatApp()}, scratch.str(), scratch.str());
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(scratch.path()))
      if (entry.path().extension() == ".csym") names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  // A zip archive made by Python's zipfile from a script that adds entries
  // to the archive object z (zip(1) cannot write names such as "../x").
  fs::path craftArchive(const std::string& name, const std::string& entries) {
    const fs::path archive = work_.path() / name;
    const std::string script = "import stat, sys, zipfile\n"
                               "z = zipfile.ZipFile(sys.argv[1], 'w')\n"
                               "def link(name, target):\n"
                               "    info = zipfile.ZipInfo(name)\n"
                               "    info.create_system = 3\n"
                               "    info.external_attr = (stat.S_IFLNK | 0o777) << 16\n"
                               "    z.writestr(info, target)\n" +
                               entries + "z.close()\n";
    const fs::path scriptPath = work_.write(name + ".py", script);
    RunResult made = runProgram({"/usr/bin/python3", scriptPath.string(), archive.string()});
    EXPECT_EQ(made.status, 0) << made.err;
    return archive;
  }

  TempDir work_;
  TempDir tmp_;
  TempDir outside_;  // where a hostile archive would like to write
};

TEST_F(TemporaryFilesTest, CSYMAndGzipFilesAreReadableByTheUserOnly) {
  RunResult result = run({fatApp()});
  ASSERT_EQ(result.status, 0) << result.out;
  std::size_t csyms = 0, gzips = 0;
  for (const auto& entry : fs::directory_iterator(tmp_.path())) {
    const std::string name = entry.path().filename().string();
    EXPECT_TRUE(entry.is_regular_file()) << name;
    EXPECT_EQ(permissionsOf(entry.path()), 0600u) << name;
    csyms += name.ends_with(".csym");
    gzips += name.ends_with(".zip");
  }
  EXPECT_EQ(csyms, 2u);
  EXPECT_EQ(gzips, 2u);
}

TEST_F(TemporaryFilesTest, UnpackFolderIsPrivateEvenWhenTheArchiveSaysOtherwise) {
  if (!haveProgram("unzip")) GTEST_SKIP() << "unzip is needed";
  // The archive lists its top folder as readable by everyone.
  const fs::path archive = craftArchive("Symbols.zip", R"(
info = zipfile.ZipInfo('App.dSYM/')
info.create_system = 3
info.external_attr = (stat.S_IFDIR | 0o777) << 16
z.writestr(info, '')
z.writestr('App.dSYM/Contents/Info.plist', '<plist/>')
)");
  RunResult result = run({"Symbols.zip"});
  EXPECT_EQ(result.status, 0) << result.out;
  const fs::path folder = tmp_.path() / "Symbols.zip.unzipped";
  ASSERT_TRUE(fs::is_directory(folder)) << result.out;
  EXPECT_EQ(permissionsOf(folder), 0700u);
}

TEST_F(TemporaryFilesTest, LinkPlantedAtACSYMNameIsReplacedAndItsTargetUntouched) {
  const auto names = fatAppCSYMNames();
  ASSERT_EQ(names.size(), 2u);
  const fs::path victim = outside_.write("victim.txt", "precious");
  for (const auto& name : names) fs::create_symlink(victim, tmp_.path() / name);
  // A link at the name of a partial file is no better: it is never opened.
  RunResult result = run({fatApp()});
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(readFile(victim), "precious");
  EXPECT_EQ(permissionsOf(victim), permissionsOf(outside_.path() / "victim.txt"));
  for (const auto& name : names) {
    const fs::path csym = tmp_.path() / name;
    EXPECT_FALSE(fs::is_symlink(csym)) << name;
    EXPECT_TRUE(readFile(csym).starts_with("code_mapping\t1\t")) << name;
    EXPECT_EQ(permissionsOf(csym), 0600u) << name;
  }
}

TEST_F(TemporaryFilesTest, FailedRunRemovesTheCSYMsItWroteUnlessConvertOnly) {
  const auto names = fatAppCSYMNames();
  ASSERT_EQ(names.size(), 2u);
  // A folder at one slice's name stops that cSYM; the other one is written.
  const fs::path occupied = tmp_.path() / names[0] / "occupied";
  fs::create_directories(occupied);
  for (bool convertOnly : {true, false}) {
    RunResult result = run({fatApp()}, convertOnly);
    EXPECT_EQ(result.status, 8) << result.out;
    EXPECT_NE(result.out.find("Could not complete submission of dSYM at "), std::string::npos) << result.out;
    EXPECT_TRUE(fs::is_directory(occupied));  // not the run's own: left alone
    const std::vector<std::string> left = entryNames(tmp_.path());
    if (convertOnly)
      EXPECT_EQ(left, names) << "the written cSYM is kept for the user";
    else
      EXPECT_EQ(left, std::vector<std::string>{names[0]}) << "the written cSYM is removed";
  }
}

TEST_F(TemporaryFilesTest, LinkPlantedAtTheUnpackFolderNameIsNotFollowed) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  fs::create_directories(work_.path() / "content");
  fs::copy(fixturesDir() / "FatApp.dSYM", work_.path() / "content/FatApp.dSYM", fs::copy_options::recursive);
  ASSERT_TRUE(zipFolder(work_.path() / "content", work_.path() / "Symbols.zip"));
  fs::create_directory_symlink(outside_.path(), tmp_.path() / "Symbols.zip.unzipped");
  RunResult result = run({"Symbols.zip"});
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_TRUE(fs::is_empty(outside_.path()));
  EXPECT_FALSE(fs::is_symlink(tmp_.path() / "Symbols.zip.unzipped"));
  EXPECT_EQ(permissionsOf(tmp_.path() / "Symbols.zip.unzipped"), 0700u);
  EXPECT_TRUE(fs::exists(tmp_.path() / "Symbols.zip.unzipped/FatApp.dSYM/Contents/Resources/DWARF/FatApp"));
}

TEST_F(TemporaryFilesTest, LinkPlantedAtAParentOfTheUnpackFolderStopsTheRun) {
  if (!haveProgram("zip")) GTEST_SKIP() << "zip is needed";
  work_.write("content/readme.txt", "hello");
  fs::create_directories(work_.path() / "sub");
  RunOptions zipOptions;
  zipOptions.workingDirectory = (work_.path() / "content").string();
  ASSERT_EQ(runProgram({"/usr/bin/zip", "-q", (work_.path() / "sub/Symbols.zip").string(), "readme.txt"}, zipOptions)
                .status,
            0);
  // The archive's path "sub/Symbols.zip" becomes <TMPDIR>/sub/Symbols.zip.unzipped.
  fs::create_directory_symlink(outside_.path(), tmp_.path() / "sub");
  RunResult result = run({"sub/Symbols.zip"});
  EXPECT_EQ(result.status, 9) << result.out;
  EXPECT_NE(result.out.find(kPlain.error("Could not create " + tmp_.str() + "/sub: Not a directory")),
            std::string::npos)
      << result.out;
  EXPECT_TRUE(fs::is_empty(outside_.path()));
}

// A hostile archive: its name and the Python lines that fill it.
struct HostileArchive {
  std::string name;
  std::string entries;  // Python lines adding entries to the archive z
};

TEST_F(TemporaryFilesTest, CraftedArchivesNeverWriteOutsideTheUnpackFolder) {
  if (!haveProgram("unzip") || !haveProgram("python3")) GTEST_SKIP() << "unzip and python3 are needed";
  const std::string out = outside_.str();
  const std::vector<HostileArchive> archives{
      {"dotdot.zip", "z.writestr('../../../../../../../../" + out.substr(1) + "/dotdot', 'x')\n"
                     "z.writestr('../evil', 'x')\n"},
      {"absolute.zip", "z.writestr('" + out + "/absolute', 'x')\n"},
      {"inner-dotdot.zip", "z.writestr('a/../../evil', 'x')\n"
                           "z.writestr('a/b/../../../../../../../../../" + out.substr(1) + "/inner', 'x')\n"},
      {"link-then-write.zip", "link('escape', '" + out + "')\n"
                              "z.writestr('escape/through-link', 'x')\n"},
      {"relative-link.zip", "link('up', '../../../../../../../../../" + out.substr(1) + "')\n"
                            "z.writestr('up/through-relative-link', 'x')\n"},
      {"link-then-overwrite.zip", "link('victim', '" + out + "/victim.txt')\n"
                                  "z.writestr('victim', 'overwritten')\n"},
  };
  const fs::path victim = outside_.write("victim.txt", "precious");

  for (const auto& hostile : archives) {
    SCOPED_TRACE(hostile.name);
    craftArchive(hostile.name, hostile.entries);
    RunResult result = run({hostile.name});
    EXPECT_EQ(result.signal, 0);
    EXPECT_TRUE(result.status == 0 || result.status == 11) << result.status << "\n" << result.out;
    if (result.status == 11) {
      EXPECT_NE(result.out.find("error: Failed to unzip archive at " + hostile.name), std::string::npos) << result.out;
    }

    // Nothing written outside: the outside folder holds only the victim, as it was.
    std::vector<std::string> outsideEntries;
    for (const auto& entry : fs::recursive_directory_iterator(outside_.path()))
      outsideEntries.push_back(entry.path().filename().string());
    EXPECT_EQ(outsideEntries, std::vector<std::string>{"victim.txt"});
    EXPECT_EQ(readFile(victim), "precious");
    EXPECT_FALSE(fs::exists(work_.path().parent_path() / "evil"));
    EXPECT_FALSE(fs::exists(tmp_.path().parent_path() / "evil"));
    EXPECT_FALSE(fs::exists(tmp_.path() / "evil")) << "escaped the unpack folder into TMPDIR";

    // And nothing left inside the kept folder leads out of it.
    const fs::path folder = tmp_.path() / (hostile.name + ".unzipped");
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      if (!entry.is_symlink()) continue;
      const fs::path target = fs::weakly_canonical(entry.path());
      EXPECT_TRUE(target.string().starts_with(fs::canonical(folder).string() + "/"))
          << entry.path() << " -> " << target;
    }
  }
}

TEST_F(TemporaryFilesTest, LinkInAnArchiveToADSYMOutsideIsNotFollowed) {
  if (!haveProgram("unzip") || !haveProgram("python3")) GTEST_SKIP() << "unzip and python3 are needed";
  // A dSYM outside that the archive points at; reading it would turn
  // someone else's symbols into cSYMs.
  fs::copy(fixturesDir() / "FatApp.dSYM", outside_.path() / "Other.dSYM", fs::copy_options::recursive);
  craftArchive("pointer.zip", "link('Other.dSYM', '" + outside_.str() + "/Other.dSYM')\n");
  RunResult result = run({"pointer.zip"});
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_NE(result.out.find(kPlain.warning("Removed symbolic link leading out of the archive: " + tmp_.str() +
                                            "/pointer.zip.unzipped/Other.dSYM")),
            std::string::npos)
      << result.out;
  for (const auto& entry : fs::directory_iterator(tmp_.path()))
    EXPECT_NE(entry.path().extension(), ".csym") << "converted the dSYM outside the archive";
}

TEST_F(TemporaryFilesTest, LinksThatStayInsideTheArchiveAreKept) {
  if (!haveProgram("unzip") || !haveProgram("python3")) GTEST_SKIP() << "unzip and python3 are needed";
  craftArchive("inner-link.zip", "z.writestr('data/file.txt', 'x')\nlink('alias', 'data/file.txt')\n");
  RunResult result = run({"inner-link.zip"});
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_TRUE(fs::is_symlink(tmp_.path() / "inner-link.zip.unzipped/alias")) << result.out;
  EXPECT_EQ(result.out.find("Removed symbolic link"), std::string::npos) << result.out;
}

}  // namespace
}  // namespace symlift::testing::e2e
