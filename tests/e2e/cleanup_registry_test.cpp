// The registry of temporary paths that an interrupted run removes.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "support/cleanup_registry.h"
#include "support/test_support.h"

namespace symlift::testing {
namespace {

namespace fs = std::filesystem;
using support::CleanupRegistry;

TEST(CleanupRegistryTest, RenameMovesTheRegistrationOnlyWhenItSucceeds) {
  TempDir dir;
  const std::string from = dir.write("a.partial", "x").string();
  const std::string to = (dir.path() / "a.csym").string();
  CleanupRegistry::add(from);
  ASSERT_EQ(CleanupRegistry::renameRegistered(from, to), 0);
  EXPECT_FALSE(CleanupRegistry::contains(from));
  EXPECT_TRUE(CleanupRegistry::contains(to));
  EXPECT_EQ(readFile(to), "x");

  const std::string missing = (dir.path() / "missing").string();
  const std::string target = (dir.path() / "never").string();
  CleanupRegistry::add(missing);
  errno = 0;
  EXPECT_NE(CleanupRegistry::renameRegistered(missing, target), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(CleanupRegistry::contains(missing));
  EXPECT_FALSE(CleanupRegistry::contains(target));  // whatever is there is not ours

  for (const auto& path : {to, missing}) CleanupRegistry::remove(path);
  EXPECT_FALSE(CleanupRegistry::contains(to));
}

// removeAllAndSeal locks the registry for good, so it runs in a child process.
TEST(CleanupRegistryDeathTest, RemoveAllTakesFilesFoldersAndLinksButNotLinkTargets) {
  TempDir dir;
  TempDir outside;
  const fs::path file = dir.write("one.csym", "x");
  const fs::path folder = dir.write("Symbols.zip.unzipped/App.dSYM/Contents/Info.plist", "y").parent_path().parent_path().parent_path();
  const fs::path target = outside.write("kept.txt", "kept");
  const fs::path link = dir.path() / "link.csym";
  fs::create_symlink(target, link);
  const fs::path unrelated = dir.write("not-registered", "z");
  EXPECT_EXIT(
      {
        CleanupRegistry::add(file.string());
        CleanupRegistry::add(folder.string());
        CleanupRegistry::add(link.string());
        CleanupRegistry::add((dir.path() / "never-created").string());
        CleanupRegistry::removeAllAndSeal();
        const bool gone = !fs::exists(file) && !fs::exists(folder) && !fs::exists(fs::symlink_status(link));
        const bool kept = readFile(target) == "kept" && fs::exists(unrelated);
        std::_Exit(gone && kept ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace symlift::testing
