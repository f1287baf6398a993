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
  CleanupRegistry registry;
  const std::string from = dir.write("a.partial", "x").string();
  const std::string to = (dir.path() / "a.csym").string();
  registry.add(from);
  ASSERT_EQ(registry.renameRegistered(from, to), 0);
  EXPECT_FALSE(registry.contains(from));
  EXPECT_TRUE(registry.contains(to));
  EXPECT_EQ(readFile(to), "x");

  const std::string missing = (dir.path() / "missing").string();
  const std::string target = (dir.path() / "never").string();
  registry.add(missing);
  errno = 0;
  EXPECT_NE(registry.renameRegistered(missing, target), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(registry.contains(missing));
  EXPECT_FALSE(registry.contains(target));  // whatever is there is not ours
}

TEST(CleanupRegistryTest, RemoveAllTakesFilesFoldersAndLinksButNotLinkTargets) {
  TempDir dir;
  TempDir outside;
  CleanupRegistry registry;
  const fs::path file = dir.write("one.csym", "x");
  const fs::path folder = dir.write("Symbols.zip.unzipped/App.dSYM/Contents/Info.plist", "y").parent_path().parent_path().parent_path();
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
