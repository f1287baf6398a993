// The dSYM validator's warnings about empty dSYMs and dSYMs with hidden
// symbols, on real bundles (fixtures, hand-assembled bundles, the shared
// corpus) and on a symbol reader described in code.

#include <gtest/gtest.h>


#include <filesystem>
#include <string>
#include <vector>

#include "support/captured_output.h"
#include "dsym/dsym_validator.h"
#include "support/test_support.h"
#include "symbols/fake_symbolication_provider.h"

namespace symlift::dsym {
namespace {

namespace fs = std::filesystem;
using symlift::testing::consoleOutput;
using symlift::testing::corpusDir;
using symlift::testing::fixturesDir;
using symlift::testing::TempDir;

std::string emptyWarning(const std::string& path) {
  return "warning: Vantrel found an invalid dSYM without any symbols at path: " + path +
         ". This will result in missing stack frames for that library in Vantrel. This can happen in some cases "
         "when a code obfuscator is used, or when symbols are stripped from the library / app. For more "
         "information, please visit the Vantrel docs. To silence this warning, pass the --skip-dsym-validation "
         "flag to symlift / run.\n";
}

std::string hiddenWarning(const std::string& path) {
  return "warning: Vantrel found a dSYM with hidden symbols at path: " + path +
         ". This will result in hidden stack frames for that library in Vantrel. This can occur if you have  "
         "bitcode enabled in your app. If you have chosen to upload the symbols for your app to Apple, make sure "
         "to download the symbolicated dSYMs from Apple through Xcode or iTunes Connect. If you have chosen NOT to "
         "upload symbols to Apple, you can deobfuscate your dSYMs manually with the BCSymbolMaps found within the "
         "archive of your application using the following command: dsymutil --symbol-map <BCSymbolFile> "
         "<dSYMFileWithHiddenSymbols>.This will perform an in-place deobfuscation of the provided dSYM.To silence "
         "this warning, pass the --skip-dsym-validation flag to symlift / run.\n";
}

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

TEST(DSYMValidator, HiddenSymbolsInARealAppStoreDSYM) {
  auto corpus = corpusDir();
  if (!corpus) GTEST_SKIP() << "the shared corpus is not beside the repository";
  const fs::path release = *corpus / "symbolic/py/tests/res/ext/1.4.1/release/dSYMs";
  // libswiftObjectiveC with "__hidden#NNN_" names; KSCrash with real ones.
  const fs::path hidden = release / "1E4219C0-A535-3789-B1DC-79264975EA6F.dSYM";
  const fs::path named = release / "38BD5E0B-A9B8-383D-8C2F-4D87E20F867B.dSYM";
  if (!fs::is_directory(hidden) || !fs::is_directory(named)) GTEST_SKIP() << "corpus dSYMs missing";

  TempDir dir;
  fs::create_directory_symlink(hidden, dir.path() / "Hidden.dSYM");
  fs::create_directory_symlink(named, dir.path() / "Named.dSYM");
  EXPECT_EQ(validated({dir.str()}), hiddenWarning(dir.str() + "/Hidden.dSYM"));
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
