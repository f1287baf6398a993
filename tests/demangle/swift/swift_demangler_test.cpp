// The Swift demangler: Swift's published vectors through the full form
// (minimum match rates per mangling generation, mismatches listed by the
// construct that ends the name), real
// names from the shared corpus and common app frames through the simplified
// form (as crash reports show Swift frames), every Swift name of the corpus's
// Mach-O files, and names that must yield nothing and never crash.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "demangle/swift/swift_demangler.h"
#include "support/test_support.h"

namespace symlift::demangle::swift {
namespace {

struct Row {
  std::string mangled;
  std::string expected;
};

// The "<mangled> ---> <demangled>" lines of a table file.
std::vector<Row> readTable(const char* path) {
  std::vector<Row> rows;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    std::size_t arrow = line.find(" ---> ");
    if (line.empty() || line[0] == '#' || arrow == std::string::npos) continue;
    Row row{line.substr(0, arrow), line.substr(arrow + 6)};
    while (!row.mangled.empty() && row.mangled.back() == ' ') row.mangled.pop_back();
    // "{T:…}" and "{C}" belong to another of Swift's tools.
    if (row.expected.starts_with("{") && row.expected.find("} ") != std::string::npos)
      row.expected.erase(0, row.expected.find("} ") + 2);
    rows.push_back(row);
  }
  return rows;
}

bool isOldGeneration(std::string_view name) {
  if (name.starts_with("__")) name.remove_prefix(1);
  return name.starts_with("_T") && !name.starts_with("_T0");
}

TEST(SwiftDemangler, FullFormMatchesSwiftsOwnVectors) {
  const std::vector<Row> vectors = readTable(SYMLIFT_SWIFT_VECTORS);
  ASSERT_GT(vectors.size(), 400u) << "vector file missing or unreadable: " << SYMLIFT_SWIFT_VECTORS;
  unsigned total[2] = {0, 0}, matched[2] = {0, 0};
  std::map<std::string, std::vector<std::string>> mismatches;  // by the construct that ends the name
  for (const Row& v : vectors) {
    const int generation = isOldGeneration(v.mangled) ? 1 : 0;
    ++total[generation];
    const std::optional<std::string> text = demangle(v.mangled, Form::Full);
    if (text ? *text == v.expected : v.expected == v.mangled) {
      ++matched[generation];
      continue;
    }
    const std::string body = v.mangled.substr(0, v.mangled.find('.'));
    mismatches[body.substr(body.size() > 3 ? body.size() - 3 : 0)].push_back(
        v.mangled + "\n    expected " + v.expected + "\n    got      " + text.value_or("(nothing)"));
  }
  for (const auto& [kind, list] : mismatches) {
    std::printf("mismatches ending in %s: %zu\n", kind.c_str(), list.size());
    for (const std::string& line : list) std::printf("  %s\n", line.c_str());
  }
  std::printf("modern: %u of %u (%.1f %%), old: %u of %u (%.1f %%)\n", matched[0], total[0],
              100.0 * matched[0] / total[0], matched[1], total[1], 100.0 * matched[1] / total[1]);
  EXPECT_GE(matched[0] * 100.0, 97.0 * total[0]);
  EXPECT_GE(matched[1] * 100.0, 80.0 * total[1]);
}

TEST(SwiftDemangler, SimplifiedFormPrintsFramesAsCrashReportsShowThem) {
  std::vector<Row> rows = readTable(SYMLIFT_SWIFT_SIMPLIFIED_TABLE);
  ASSERT_GE(rows.size(), 40u) << "table missing or short: " << SYMLIFT_SWIFT_SIMPLIFIED_TABLE;
  rows.insert(rows.end(), {
      {"$s5MyApp14ViewControllerC11viewDidLoadyyF", "ViewController.viewDidLoad()"},
      {"$s5MyApp14ViewControllerC11viewDidLoadyyFTo", "@objc ViewController.viewDidLoad()"},
      {"$s5MyApp11AppDelegateC11application_29didFinishLaunchingWithOptionsSbSo13UIApplicationC_"
       "SDySo29UIApplicationLaunchOptionsKeyVypGSgtF",
       "AppDelegate.application(_:didFinishLaunchingWithOptions:)"},
      {"$s5MyApp11ContentViewV4bodyQrvgyycfU_", "closure #1 in ContentView.body.getter"},
      {"$s5MyApp13CrashingClassC5crashyyFZ", "static CrashingClass.crash()"},
      // The same through the extra underscore of a Mach-O symbol table.
      {"_$s5MyApp13CrashingClassC5crashyyFZ", "static CrashingClass.crash()"},
      // Top-level async code: its entry point has no prefix.
      {"_async_MainTQ0_", "async main entry point"},
  });
  for (const Row& row : rows) EXPECT_EQ(demangle(row.mangled).value_or("(nothing)"), row.expected) << row.mangled;
}

// Every Swift name llvm-nm-14 lists in the corpus: at least 99 % demangle.
TEST(SwiftDemangler, CorpusNamesNearlyAllDemangle) {
  const std::optional<std::filesystem::path> corpus = testing::corpusDir();
  if (!corpus) GTEST_SKIP() << "shared corpus not found at " << SYMLIFT_CORPUS_DIR;
  if (!testing::haveProgram("llvm-nm-14")) GTEST_SKIP() << "llvm-nm-14 not on PATH";
  std::size_t names = 0, demangled = 0;
  for (const std::filesystem::path& file : testing::machOFilesUnder(*corpus)) {
    // A file llvm-nm cannot read (a truncated Mach-O) has no names to check.
    testing::RunResult listed = testing::runProgram({"/usr/bin/llvm-nm-14", "-arch", "all", "-j", file.string()});
    std::istringstream lines(listed.status == 0 ? listed.out : "");
    for (std::string name; std::getline(lines, name);) {
      if (!isSwiftMangledName(name)) continue;
      ++names;
      if (demangle(name, Form::Simplified)) ++demangled;
      else if (names - demangled <= 8) std::printf("  kept mangled: %s\n", name.c_str());
    }
  }
  ASSERT_GT(names, 1000u) << "too few Swift names: corpus incomplete?";
  std::printf("%zu Swift names: %zu demangled (%.2f %%)\n", names, demangled, 100.0 * demangled / names);
  EXPECT_GE(demangled * 100.0, 99.0 * names);
}

// Truncated names, out-of-range substitutions, absurd lengths and nesting
// yield nothing (the sanitizer build runs these).
TEST(SwiftDemangler, BadNamesYieldNothing) {
  std::string optionals = "$sSi";  // each 'Sg' wraps an Optional, past the printing depth
  for (int i = 0; i < 2000; ++i) optionals += "Sg";
  const std::string names[] = {
      "$s",          "_$s4main",   "$s4mainC",        "$s999999999999main", "$s4ma",   "$sAZ",
      "$s4mainAZC",  "$s0Z",       "$s00999999abc",   "_T",                 "__TF",    "__TFC3foo",
      "__TTSg5",     "$sSg",       "$s3fooyyFTA_",    "$sBi99999999999_",   "$s$n",    "ObjCName",
      "_main",       "$sx_Tg5",    "$s4main3fooyySiFAa10000000A",
      // Conformance lists, macro, differentiation and Swift 3 specialization
      // operators missing their operands or their end.
      "$sSiHC",      "$sSiyHCg_",  "$s1a1PHPHX",      "$sfMf_",             "$s4mainfMp_", "$s3fooyyFTJpSpS",
      "$s3fooyyFWJrSp", "__TTSf4g_",  "__TTSf1cl99_TFoo_n___TF3foo3barFT_T_", "__TTSf1cpse9v3abc___TF3foo3barFT_T_",
      "__TTSg5Si___", "$sSD5IndexVy__GD",
      "$s" + std::string(5000, 'S') + "i", "$s" + std::string(3000, 'y') + std::string(3000, 't'), optionals + "D",
  };
  for (const std::string& name : names) {
    EXPECT_FALSE(demangle(name, Form::Full)) << name.substr(0, 80);
    EXPECT_FALSE(demangle(name, Form::Simplified)) << name.substr(0, 80);
  }
  for (const char* name : {"$s4main", "_$s4main", "$S4main", "_T04main", "__T04main", "_TF4main", "$e4main"})
    EXPECT_TRUE(isSwiftMangledName(name)) << name;
  for (const char* name : {"_main", "_ZN3foo3barEv", "-[NSObject init]", ""}) EXPECT_FALSE(isSwiftMangledName(name)) << name;
}

}  // namespace
}  // namespace symlift::demangle::swift
