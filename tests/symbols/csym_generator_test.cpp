// The generator's files: one per slice with a UUID, named by architecture
// and UUID in the temporary directory, replaced on a rerun.

#include "symbols/csym_generator.h"

#include <gtest/gtest.h>

#include <set>

#include "support/scoped_environment.h"
#include "support/test_support.h"
#include "symbols/fake_symbolication_provider.h"

namespace symlift::testing {
namespace {

namespace fs = std::filesystem;
using symbols::CSYMGenerator;

const std::string kUuidA = "3f5061728394a5b6c7d8e9fa0b1c2d3e";  // makeUUID(0x3f)
const std::string kUuidB = "a0b1c2d3e4f5061728394a5b6c7d8e9f";  // makeUUID(0xa0)

std::set<std::string> namesIn(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder))
    if (!entry.is_directory()) names.insert(entry.path().filename().string());
  return names;
}

TEST(CSYMGenerator, OneFilePerSliceWithAUUIDNamedByArchitectureAndUUID) {
  TempDir tmp;
  ScopedEnvironment tmpdir("TMPDIR", tmp.str() + "/");
  FakeFiles files;
  files.provider->files["/in/App"] = {slice(kArm64, {cSymbol("f", 0x100000000, 4, {{"/s/a.c", 1, 0x100000000, 4}})}),
                                      slice(kX86_64, {cSymbol("g", 0x100000000, 8)}, makeUUID(0xa0)),
                                      slice(kArmV7, {cSymbol("h", 0x4000, 4)}, std::nullopt),  // no UUID: left out
                                      slice(kArm64e, {})};  // shares arm64's UUID: a file, no entry of its own
  const std::string armFile = "arm64-" + kUuidA + ".csym", intelFile = "x86_64-" + kUuidB + ".csym";
  tmp.write(armFile, "stale contents from an earlier run that were longer than the new text");

  std::vector<std::string> handed;
  auto written = CSYMGenerator::generateCSYMsFromDSYMAtPath(
      "/in/App", 0.0f, [&](const std::string& path, std::string&& text) { handed.push_back(path + "=" + text); },
      files.cache);
  EXPECT_EQ(written, (std::map<std::string, std::string>{{kUuidA, "arm64e"}, {kUuidB, "x86_64"}}));
  EXPECT_EQ(namesIn(tmp.path()), (std::set<std::string>{armFile, intelFile, "arm64e-" + kUuidA + ".csym"}));
  EXPECT_EQ(symbols::SUPCSYMGeneratorUtilities::csymPathForArchitecture("arm64", kUuidA, "/any"),
            (tmp.path() / armFile).string());
  ASSERT_EQ(handed.size(), 3u);
  EXPECT_EQ(handed[0], (tmp.path() / armFile).string() + "=" + readFile(tmp.path() / armFile));
  EXPECT_TRUE(readFile(tmp.path() / armFile).starts_with("code_mapping\t1\tdsym\t" + kUuidA + "\tarm64\t1\t1\t1\n"));

  // A rerun over changed input rewrites the same files.
  files.provider->files["/in/App"][1].owners[0].symbols.push_back(cSymbol("h", 0x100000010, 8));
  EXPECT_EQ(CSYMGenerator::generateCSYMsFromDSYMAtPath("/in/App", 0.0f, nullptr, files.cache), written);
  EXPECT_EQ(namesIn(tmp.path()).size(), 3u);
  EXPECT_NE(readFile(tmp.path() / intelFile).find("symbols\t2\ng\nh\n"), std::string::npos);
}

}  // namespace
}  // namespace symlift::testing
