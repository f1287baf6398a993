// The dSYM validator's warnings about empty dSYMs and dSYMs with hidden
// symbols, on real bundles (fixtures and hand-assembled bundles) and on a
// symbol reader described in code. A real App Store dSYM with hidden symbols
// goes through the whole binary (BuildPhaseUploadTest).

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/captured_output.h"
#include "dsym/dsym_validator.h"
#include "e2e/output_lines.h"
#include "support/test_support.h"
#include "symbols/fake_symbolication_provider.h"

namespace symlift::dsym {
namespace {

namespace fs = std::filesystem;
using symlift::testing::consoleOutput;
using symlift::testing::fixturesDir;
using symlift::testing::TempDir;

std::string emptyWarning(const std::string& path) { return symlift::testing::e2e::Lines{}.emptyDSYM(path); }
std::string hiddenWarning(const std::string& path) { return symlift::testing::e2e::Lines{}.hiddenDSYM(path); }

// The console output of validating paths, without colours.
std::string validated(const std::vector<std::string>& paths) {
  return consoleOutput(console::SYLLogging::sharedInstance().logLevel(), [&] { DSYMValidator::validateDSYMs(paths); });
}

// A bundle named name in folder whose DWARF file is a copy of source; with no
// source, the DWARF folder is left empty.
std::string makeBundle(const fs::path& folder, const std::string& name, const fs::path& source = {}) {
  fs::path dwarf = folder / name / "Contents/Resources/DWARF";
  fs::create_directories(dwarf);
  if (!source.empty()) fs::copy_file(source, dwarf / "App");
  return (folder / name).string();
}

const fs::path kSymbolsDWARF = fixturesDir() / "Hello.dSYM/Contents/Resources/DWARF/Hello";
// A well-formed Mach-O file without a symbol table: a stripped dSYM.
const fs::path kStrippedDWARF = fixturesDir() / "edge/thin-arm64";

TEST(DSYMValidator, FoldersAreLookedIntoOneLevelAndOtherPathsKeptByTheirExtension) {
  TempDir dir;
  makeBundle(dir.path(), "A.dSYM", kSymbolsDWARF);
  const std::string b = makeBundle(dir.path(), "B.dSYM", kStrippedDWARF);
  const std::string c = makeBundle(dir.path(), "C.DSYM", kStrippedDWARF);
  makeBundle(dir.path(), "D.dSYM.zip", kStrippedDWARF);  // not a dSYM: the extension is "zip"
  dir.write("notes.txt", "x");
  const std::string missing = dir.str() + "/other/Gone.dSYM";
  const std::string plainFile = dir.write("other/Plain.dsym", "not a bundle").string();
  const struct {
    std::vector<std::string> paths, expanded;
    std::string warnings;
  } cases[] = {
      {{dir.str()}, {dir.str() + "/A.dSYM", b, c}, emptyWarning(b) + emptyWarning(c)},
      // Nothing to read in either: both are empty, and nothing is raised.
      {{missing, dir.str() + "/gone.txt", plainFile}, {missing, plainFile}, emptyWarning(missing) + emptyWarning(plainFile)},
      // A bundle passed directly is not looked into.
      {{b, (fixturesDir() / "Hello.dSYM").string()}, {}, ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DSYMValidator::expandDSYMDirectories(c.paths), c.expanded);
    EXPECT_EQ(validated(c.paths), c.warnings);
  }
}

TEST(DSYMValidator, DamagedBundleEndsValidationWithOneError) {
  TempDir dir;
  makeBundle(dir.path(), "B.dSYM", kStrippedDWARF);
  std::string damaged = makeBundle(dir.path(), "Damaged.dSYM");
  std::string out = validated({dir.str(), dir.str()});
  EXPECT_EQ(out, "error: Failed to validate dSYMs due to exception: No DWARF file in " + damaged +
                     "/Contents/Resources/DWARF\n");
}

TEST(DSYMValidator, HiddenAndEmptyAreSeparateFindings) {
  using symlift::testing::cSymbol;
  using symlift::testing::FakeSymbol;
  using symlift::testing::kArm64;
  using symlift::testing::slice;
  symlift::testing::FakeFiles files;
  auto& fake = files.provider->files;
  const FakeSymbol hiddenSymbol{"__hidden#12_", "__hidden#12_", 0x100000020, 4, {}};
  fake["/in/Hidden.dsym"] = {slice(kArm64, {cSymbol("main", 0x100000000, 8), hiddenSymbol})};
  fake["/in/Named.dsym"] = {slice(kArm64, {cSymbol("main", 0x100000000, 8)})};
  fake["/in/Empty.dsym"] = {slice(kArm64, {})};
  fake["symlift"] = fake["./symlift"] = {slice(kArm64, {hiddenSymbol})};

  EXPECT_EQ(consoleOutput(console::SYLLogging::sharedInstance().logLevel(),
                          [&] { DSYMValidator::validateDSYMs({"/in/Hidden.dsym", "/in/Named.dsym", "/in/Empty.dsym"}, files.cache); }),
            emptyWarning("/in/Empty.dsym") + hiddenWarning("/in/Hidden.dsym"));
  // The tool's own command name is never asked about, even when it would
  // have hidden symbols; the same file under another name is reported.
  EXPECT_EQ(DSYMValidator::getHiddenDSYMPathsFrom({"symlift", "./symlift", "/in/Named.dsym"}, files.cache),
            (std::vector<std::string>{"./symlift"}));
  EXPECT_EQ(DSYMValidator::removeValidDSYMPathsFrom({"/in/Empty.dsym", "/in/Hidden.dsym", "/in/Unknown.dsym"}, files.cache),
            (std::vector<std::string>{"/in/Empty.dsym", "/in/Unknown.dsym"}));
}

}  // namespace
}  // namespace symlift::dsym
