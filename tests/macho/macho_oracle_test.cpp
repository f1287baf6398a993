// Cross-check against llvm-dwarfdump: for every Mach-O file among the
// fixtures and the shared corpus of real dSYMs, the slices that have a UUID
// must be the ones llvm-dwarfdump --uuid lists, in the same order, with the
// same UUIDs and architecture names.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "macho/macho_binary.h"
#include "support/test_support.h"

namespace symlift::macho {
namespace {

namespace fs = std::filesystem;
using symlift::testing::corpusDir;
using symlift::testing::fixturesDir;
using symlift::testing::haveProgram;
using symlift::testing::machOFilesUnder;
using symlift::testing::runProgram;

constexpr const char* kDwarfdump = "llvm-dwarfdump-14";

using Slices = std::vector<std::pair<std::string, std::string>>;  // (architecture, uuid)

// llvm-dwarfdump prints "UUID: 8-4-4-4-12 upper case (arch) path" per slice.
std::string programPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "";
  std::size_t start = 0;
  while (start <= dirs.size()) {
    std::size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    fs::path candidate = fs::path(dirs.substr(start, end - start)) / name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate.string();
    start = end + 1;
  }
  return name;
}

std::optional<Slices> dwarfdumpSlices(const fs::path& file) {
  static const std::string dwarfdump = programPath(kDwarfdump);
  auto result = runProgram({dwarfdump, "--uuid", file.string()});
  if (result.status != 0) return std::nullopt;
  static const std::regex line(R"(UUID: ([0-9A-F-]{36}) \(([^)]+)\) )");
  Slices slices;
  for (auto it = std::sregex_iterator(result.out.begin(), result.out.end(), line); it != std::sregex_iterator();
       ++it) {
    std::string uuid = (*it)[1];
    uuid.erase(std::remove(uuid.begin(), uuid.end(), '-'), uuid.end());
    std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return std::tolower(c); });
    slices.emplace_back((*it)[2], uuid);
  }
  return slices;
}

Slices ourSlices(const SUPMachOBinary& binary) {
  Slices slices;
  binary.enumerateUUIDs([&slices](const std::optional<std::string>& uuid, const std::string& name) {
    if (uuid) slices.emplace_back(name, *uuid);
  });
  return slices;
}

// Returns how many files were compared.
int compareAll(const fs::path& root) {
  int compared = 0;
  for (const fs::path& file : machOFilesUnder(root)) {
    auto binary = SUPMachOBinary::MachOBinaryWithPath(file.string());
    auto expected = dwarfdumpSlices(file);
    if (!expected) {
      // llvm-dwarfdump rejects it (truncated, not an object file); we must
      // still read it without harm, and there is nothing to compare.
      continue;
    }
    EXPECT_NE(binary, nullptr) << file;
    if (!binary) continue;
    EXPECT_EQ(ourSlices(*binary), *expected) << file;
    ++compared;
  }
  return compared;
}

TEST(MachOOracle, FixturesMatchLlvmDwarfdump) {
  if (!haveProgram(kDwarfdump)) GTEST_SKIP() << kDwarfdump << " is not installed";
  int compared = 0;
  // The toolchain-built dSYMs and executable, and the example the demo uses.
  for (const char* folder : {"Hello.dSYM", "FatApp.dSYM", "Dwarf5.dSYM"})
    compared += compareAll(fixturesDir() / folder);
  compared += compareAll(fs::path(SYMLIFT_SOURCE_DIR) / "examples");
  EXPECT_EQ(compared, 4);
  // The hand-made files that llvm-dwarfdump accepts as well-formed. It
  // refuses the malformed ones (and two UUID or version commands, or arm64e
  // twice), which is why they have their own tests. Three differences are
  // intended: "fat64-magic" (64-bit fat, read here as one unknown slice),
  // "thin-swapped-magic" (big-endian, which llvm-dwarfdump reads as ppc and
  // which is read here in host order) and "fat-entry-mismatch" (llvm-dwarfdump
  // lists nothing; here the slice's own header names it). Where both read a
  // file the names agree: llvm-dwarfdump also says arm64e, armv7s, armv7k, i386.
  for (const char* name : {"fat-arm64-x86_64", "fat-x86_64-arm64", "fat-same-uuid", "thin-arm64", "no-uuid",
                           "build-version-only", "load-dylib"}) {
    fs::path file = fixturesDir() / "edge" / name;
    auto binary = SUPMachOBinary::MachOBinaryWithPath(file.string());
    auto expected = dwarfdumpSlices(file);
    ASSERT_TRUE(binary && expected) << file;
    EXPECT_EQ(ourSlices(*binary), *expected) << file;
  }
  auto fat = SUPMachOBinary::MachOBinaryWithPath((fixturesDir() / "FatApp").string());
  auto expected = dwarfdumpSlices(fixturesDir() / "FatApp");
  ASSERT_TRUE(fat && expected);
  EXPECT_EQ(ourSlices(*fat), *expected);
}

TEST(MachOOracle, CorpusMatchesLlvmDwarfdump) {
  if (!haveProgram(kDwarfdump)) GTEST_SKIP() << kDwarfdump << " is not installed";
  auto corpus = corpusDir();
  if (!corpus) GTEST_SKIP() << "the shared corpus of real dSYMs is not beside the repository";
  EXPECT_GE(compareAll(*corpus), 40);
}

}  // namespace
}  // namespace symlift::macho
