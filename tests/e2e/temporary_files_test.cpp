// Temporary files and archives: cSYM and gzip files private to the user,
// unpack folders mode 0700, links planted at predictable names never
// followed, a failed run's clean-up, and crafted zip archives (paths with
// "..", absolute paths, links leading out) never writing or reading outside
// their unpack folder.
//
// Writing fails: a temporary directory that cannot hold files (one below a
// regular file, one that is not there), a full disk (a file-size limit, so
// write returns EFBIG; this works as root too, where permissions would not
// stop a write) and a full disk for the gzip file alone. The run names the
// path and the reason and ends with the status of the step that failed.
//
// The registry of temporary paths that an interrupted or failed run removes.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "e2e/manual_run.h"
#include "e2e/output_lines.h"
#include "support/cleanup_registry.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;

const Lines kPlain;

mode_t permissionsOf(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

class TemporaryFilesTest : public ::testing::Test {
 protected:
  RunResult run(const std::string& input, bool convertOnly = true) {
    return runByHand({input}, tmp_.str(), work_.str(), convertOnly);
  }

  // The names of the cSYM files a convert-only run of FatApp writes.
  static std::vector<std::string> fatAppCSYMNames() {
    TempDir scratch;
    runByHand({fatAppDSYM()}, scratch.str(), scratch.str());
    std::vector<std::string> names;
    for (const auto& name : entryNames(scratch.path()))
      if (name.ends_with(".csym")) names.push_back(name);
    return names;
  }

  // A zip archive made by Python's zipfile from lines that add entries to
  // the archive object z (zip(1) cannot write names such as "../x").
  void craftArchive(const std::string& name, const std::string& entries) {
    const fs::path script = work_.write(name + ".py",
                                        "import stat, sys, zipfile\n"
                                        "z = zipfile.ZipFile(sys.argv[1], 'w')\n"
                                        "def entry(name, data, mode):\n"
                                        "    info = zipfile.ZipInfo(name)\n"
                                        "    info.create_system = 3\n"
                                        "    info.external_attr = mode << 16\n"
                                        "    z.writestr(info, data)\n"
                                        "def link(name, target):\n"
                                        "    entry(name, target, stat.S_IFLNK | 0o777)\n" +
                                            entries + "z.close()\n");
    RunResult made = runProgram({"/usr/bin/python3", script.string(), (work_.path() / name).string()});
    EXPECT_EQ(made.status, 0) << made.err;
  }

  TempDir work_;
  TempDir tmp_;
  TempDir outside_;  // where a hostile archive or a planted link would lead
};

TEST_F(TemporaryFilesTest, CSYMAndGzipFilesArePrivateAndReplaceALinkAtTheirName) {
  const auto names = fatAppCSYMNames();
  ASSERT_EQ(names.size(), 2u);
  const fs::path victim = outside_.write("victim.txt", "precious");
  const auto mode = permissionsOf(victim);
  for (const auto& name : names) fs::create_symlink(victim, tmp_.path() / name);
  RunResult result = run(fatAppDSYM());
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(readFile(victim), "precious");
  EXPECT_EQ(permissionsOf(victim), mode);
  std::size_t csyms = 0, gzips = 0;
  for (const auto& name : entryNames(tmp_.path())) {
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(tmp_.path() / name))) << name;
    EXPECT_EQ(permissionsOf(tmp_.path() / name), 0600u) << name;
    csyms += name.ends_with(".csym") && readFile(tmp_.path() / name).starts_with("code_mapping\t1\t");
    gzips += name.ends_with(".zip");
  }
  EXPECT_EQ(csyms, 2u);
  EXPECT_EQ(gzips, 2u);
}

TEST_F(TemporaryFilesTest, FailedRunRemovesTheCSYMsItWroteUnlessConvertOnly) {
  const auto names = fatAppCSYMNames();
  ASSERT_EQ(names.size(), 2u);
  // A folder at one slice's name stops that cSYM; the other one is written.
  fs::create_directories(tmp_.path() / names[0] / "occupied");
  for (bool convertOnly : {true, false}) {
    SCOPED_TRACE(convertOnly);
    RunResult result = run(fatAppDSYM(), convertOnly);
    EXPECT_EQ(result.status, 8) << result.out;
    EXPECT_NE(result.out.find("Could not complete submission of dSYM at "), std::string::npos) << result.out;
    // The planted folder is not the run's own: left alone. The cSYM that
    // was written is kept for the user only by -c.
    std::vector<std::string> left{names[0], names[0] + "/occupied"};
    if (convertOnly) left.push_back(names[1]);
    EXPECT_EQ(entriesBelow(tmp_.path()), left);
  }
}

TEST_F(TemporaryFilesTest, LinkPlantedAtTheUnpackFolderOrAParentIsNotFollowed) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  copyFixture("FatApp.dSYM", work_.path() / "content/FatApp.dSYM");
  fs::create_directories(work_.path() / "sub");
  ASSERT_TRUE(zipFolder(work_.path() / "content", work_.path() / "sub/Symbols.zip"));
  // The archive's path "sub/Symbols.zip" becomes <TMPDIR>/sub/Symbols.zip.unzipped.
  struct Case {
    const char* link;
    int status;
  };
  for (const Case& c : {Case{"sub/Symbols.zip.unzipped", 0}, Case{"sub", 9}}) {
    SCOPED_TRACE(c.link);
    TempDir tmp;
    fs::create_directories(tmp.path() / "sub");
    fs::remove(tmp.path() / c.link);
    fs::create_directory_symlink(outside_.path(), tmp.path() / c.link);
    RunResult result = runByHand({"sub/Symbols.zip"}, tmp.str(), work_.str());
    EXPECT_EQ(result.status, c.status) << result.out;
    EXPECT_TRUE(fs::is_empty(outside_.path()));
    const fs::path unpacked = tmp.path() / "sub/Symbols.zip.unzipped";
    if (c.status == 0) {
      // The link is replaced by a folder of the run's own.
      EXPECT_FALSE(fs::is_symlink(unpacked));
      EXPECT_EQ(permissionsOf(unpacked), 0700u);
      EXPECT_TRUE(fs::exists(unpacked / "FatApp.dSYM/Contents/Resources/DWARF/FatApp"));
    } else {
      EXPECT_NE(result.out.find(kPlain.error("Could not create " + tmp.str() + "/sub: Not a directory")),
                std::string::npos)
          << result.out;
    }
  }
}

TEST_F(TemporaryFilesTest, CraftedArchivesNeverReachOutsideTheUnpackFolder) {
  if (!haveProgram("unzip") || !haveProgram("python3")) GTEST_SKIP() << "unzip and python3 are needed";
  struct Archive {
    std::string name;
    std::string entries;  // Python lines adding entries to the archive z
    bool unpacks = false;      // status 0 and an unpack folder; otherwise 0 or 11 will do
    std::string printed = "";  // a line the run must print
    std::string keptLink = "";  // a link inside the archive that must survive
  };
  const std::string out = outside_.str();
  const Archive archives[] = {
      {"dotdot.zip",
       "z.writestr('../../../../../../../../" + out.substr(1) + "/dotdot', 'x')\nz.writestr('../evil', 'x')\n"},
      {"absolute.zip", "z.writestr('" + out + "/absolute', 'x')\n"},
      {"inner-dotdot.zip",
       "z.writestr('a/../../evil', 'x')\n"
       "z.writestr('a/b/../../../../../../../../../" + out.substr(1) + "/inner', 'x')\n"},
      {"link-then-write.zip", "link('escape', '" + out + "')\nz.writestr('escape/through-link', 'x')\n"},
      {"relative-link.zip",
       "link('up', '../../../../../../../../../" + out.substr(1) + "')\nz.writestr('up/through-relative-link', 'x')\n"},
      {"link-then-overwrite.zip", "link('victim', '" + out + "/victim.txt')\nz.writestr('victim', 'overwritten')\n"},
      // Reading a dSYM outside would turn someone else's symbols into cSYMs.
      {"pointer.zip", "link('Other.dSYM', '" + out + "/Other.dSYM')\n", true,
       kPlain.warning("Removed symbolic link leading out of the archive: " + tmp_.str() +
                      "/pointer.zip.unzipped/Other.dSYM")},
      {"inner-link.zip", "z.writestr('data/file.txt', 'x')\nlink('alias', 'data/file.txt')\n", true, "", "alias"},
      // Its top folder readable by everyone.
      {"private.zip",
       "entry('App.dSYM/', '', stat.S_IFDIR | 0o777)\nz.writestr('App.dSYM/Contents/Info.plist', '<plist/>')\n", true},
  };
  const fs::path victim = outside_.write("victim.txt", "precious");
  copyFixture("FatApp.dSYM", outside_.path() / "Other.dSYM");
  const auto outsideBefore = entriesBelow(outside_.path());

  for (const auto& archive : archives) {
    SCOPED_TRACE(archive.name);
    craftArchive(archive.name, archive.entries);
    RunResult result = run(archive.name);
    EXPECT_EQ(result.signal, 0);
    EXPECT_TRUE(result.status == 0 || (!archive.unpacks && result.status == 11)) << result.status << result.out;
    if (result.status == 11) {
      EXPECT_NE(result.out.find("error: Failed to unzip archive at " + archive.name), std::string::npos) << result.out;
    }
    EXPECT_NE(result.out.find(archive.printed), std::string::npos) << result.out;

    // Nothing written outside, nothing escaped into TMPDIR or above.
    EXPECT_EQ(entriesBelow(outside_.path()), outsideBefore);
    EXPECT_EQ(readFile(victim), "precious");
    for (const fs::path& folder : {work_.path().parent_path(), tmp_.path().parent_path(), tmp_.path()})
      EXPECT_FALSE(fs::exists(folder / "evil")) << folder;
    // No archive here holds a dSYM of its own.
    for (const auto& name : entriesBelow(tmp_.path())) EXPECT_FALSE(name.ends_with(".csym")) << name;

    // The kept folder is private, and nothing left inside leads out of it.
    const fs::path folder = tmp_.path() / (archive.name + ".unzipped");
    if (!fs::is_directory(folder)) {
      EXPECT_FALSE(archive.unpacks) << result.out;
      continue;
    }
    EXPECT_EQ(permissionsOf(folder), 0700u);
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      if (!entry.is_symlink()) continue;
      const fs::path target = fs::weakly_canonical(entry.path());
      EXPECT_TRUE(target.string().starts_with(fs::canonical(folder).string() + "/"))
          << entry.path() << " -> " << target;
    }
    if (!archive.keptLink.empty()) {
      EXPECT_TRUE(fs::is_symlink(folder / archive.keptLink)) << result.out;
      EXPECT_EQ(result.out.find("Removed symbolic link"), std::string::npos) << result.out;
    }
  }
}

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

// A path made or renamed under the registry's lock is registered only when
// that succeeded, and errno tells why it did not.
TEST(CleanupRegistryTest, CreatingAndRenamingRegisterOnlyWhatSucceeded) {
  TempDir dir;
  support::CleanupRegistry registry;
  const std::string from = dir.write("a.partial", "x").string(), to = (dir.path() / "a.csym").string();
  registry.add(from);
  ASSERT_EQ(registry.renameRegistered(from, to), 0);
  EXPECT_FALSE(registry.contains(from));
  EXPECT_TRUE(registry.contains(to));
  EXPECT_EQ(readFile(to), "x");

  const std::string missing = (dir.path() / "missing").string(), target = (dir.path() / "never").string();
  registry.add(missing);
  errno = 0;
  EXPECT_NE(registry.renameRegistered(missing, target), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(registry.contains(missing));
  EXPECT_FALSE(registry.contains(target));  // whatever is there is not ours

  const std::string folder = (dir.path() / "made").string();
  for (bool expected : {true, false}) {  // the second mkdir finds the folder there
    errno = 0;
    EXPECT_EQ(registry.createRegistered(folder, [&] { return ::mkdir(folder.c_str(), 0700) == 0; }), expected);
    EXPECT_EQ(errno, expected ? 0 : EEXIST);
  }
  EXPECT_TRUE(registry.contains(folder));
  registry.remove(folder);
  EXPECT_FALSE(registry.createRegistered(folder, [] { return false; }));
  EXPECT_FALSE(registry.contains(folder));
}

TEST(CleanupRegistryTest, RemoveAllTakesFilesFoldersAndLinksButNotLinkTargets) {
  TempDir dir, outside;
  support::CleanupRegistry registry;
  const fs::path file = dir.write("one.csym", "x");
  const fs::path folder = dir.path() / "Symbols.zip.unzipped";
  dir.write("Symbols.zip.unzipped/App.dSYM/Contents/Info.plist", "y");
  const fs::path target = outside.write("kept.txt", "kept");
  const fs::path link = dir.path() / "link.csym";
  fs::create_symlink(target, link);
  const fs::path unrelated = dir.write("not-registered", "z");
  for (const fs::path& path : {file, folder, link, dir.path() / "never-created"}) registry.add(path.string());
  registry.removeAll();
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(fs::exists(folder));
  EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
  EXPECT_EQ(readFile(target), "kept");
  EXPECT_TRUE(fs::exists(unrelated));
  EXPECT_FALSE(registry.contains(file.string()));
}

}  // namespace
}  // namespace symlift::testing::e2e
