// Every Swift symbol name of every Mach-O file in the shared corpus of real
// dSYMs, as llvm-nm-14 lists them now, through the simplified form: at least
// 99 % must demangle, and none may crash the demangler.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "demangle/swift/swift_demangler.h"
#include "support/test_support.h"

namespace symlift::demangle::swift {
namespace {

std::string findOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    std::string candidate = dir + "/" + name;
    if (!dir.empty() && access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

TEST(SwiftCorpus, SimplifiedFormDemanglesNearlyEveryName) {
  std::optional<std::filesystem::path> corpus = testing::corpusDir();
  if (!corpus) GTEST_SKIP() << "shared corpus not found at " << SYMLIFT_CORPUS_DIR;
  std::string nm = findOnPath("llvm-nm-14");
  if (nm.empty()) GTEST_SKIP() << "llvm-nm-14 not on PATH";

  std::size_t files = 0, names = 0, demangled = 0;
  std::vector<std::string> kept;
  for (const std::filesystem::path& file : testing::machOFilesUnder(*corpus)) {
    testing::RunResult listed = testing::runProgram({nm, "-arch", "all", "-j", file.string()});
    // A file llvm-nm cannot read (a truncated Mach-O) has no names to check.
    if (listed.status != 0) continue;
    ++files;
    std::istringstream lines(listed.out);
    std::string name;
    while (std::getline(lines, name)) {
      if (!isSwiftMangledName(name)) continue;
      ++names;
      if (demangle(name, Form::Simplified)) {
        ++demangled;
      } else {
        kept.push_back(name);
      }
    }
  }
  ASSERT_GT(names, 1000u) << "too few Swift names in " << files << " files: corpus incomplete?";
  std::printf("%zu Swift names in %zu Mach-O files: %zu demangled (%.2f %%), %zu kept mangled\n", names, files,
              demangled, 100.0 * demangled / names, kept.size());
  for (std::size_t i = 0; i < kept.size() && i < 8; ++i) std::printf("  kept: %s\n", kept[i].c_str());
  EXPECT_GE(demangled * 100.0, 99.0 * names);
}

}  // namespace
}  // namespace symlift::demangle::swift
