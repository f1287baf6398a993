// builtExecutable: the app's own executable, found through the build variables.

#include <gtest/gtest.h>

#include "buildenv/build_environment.h"
#include "macho/macho_binary.h"
#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

using symlift::testing::fixturesDir;

TEST(BuiltExecutable, JoinsProductsFolderAndExecutablePath) {
  Environment environment{{"BUILT_PRODUCTS_DIR", fixturesDir().string()}, {"EXECUTABLE_PATH", "FatApp"}};
  auto binary = builtExecutable(environment);
  ASSERT_NE(binary, nullptr);
  EXPECT_EQ(binary->path(), (fixturesDir() / "FatApp").string());
  EXPECT_EQ(binary->slices().size(), 2u);

  // Separators on either side do not double up.
  environment["BUILT_PRODUCTS_DIR"] = fixturesDir().string() + "/";
  environment["EXECUTABLE_PATH"] = "/edge/thin-arm64";
  binary = builtExecutable(environment);
  ASSERT_NE(binary, nullptr);
  EXPECT_EQ(binary->path(), (fixturesDir() / "edge/thin-arm64").string());
}

TEST(BuiltExecutable, NothingWhenAVariableIsMissingOrTheFileIsUnreadable) {
  EXPECT_EQ(builtExecutable({{"EXECUTABLE_PATH", "FatApp"}}), nullptr);
  EXPECT_EQ(builtExecutable({{"BUILT_PRODUCTS_DIR", fixturesDir().string()}}), nullptr);
  EXPECT_EQ(builtExecutable({}), nullptr);
  EXPECT_EQ(builtExecutable({{"BUILT_PRODUCTS_DIR", fixturesDir().string()}, {"EXECUTABLE_PATH", "Missing.app/Missing"}}),
            nullptr);
  // Only a folder is named: nothing to map.
  EXPECT_EQ(builtExecutable({{"BUILT_PRODUCTS_DIR", fixturesDir().string()}, {"EXECUTABLE_PATH", ""}}), nullptr);
}

}  // namespace
}  // namespace symlift::buildenv
