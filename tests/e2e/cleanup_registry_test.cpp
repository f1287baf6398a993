// The registry of temporary paths that an interrupted or failed run removes.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>

#include "support/cleanup_registry.h"
#include "support/test_support.h"

namespace symlift::testing {
namespace {

namespace fs = std::filesystem;

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
}  // namespace symlift::testing
