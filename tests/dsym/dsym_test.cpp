// The dSYM bundle model: SUPdSYM and SUPDSYMFile, made alone and over a run's cache;
// and the validator's one error for a bundle it cannot read.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "dispatch/thread_pool.h"
#include "dsym/code_mapping.h"
#include "dsym/dsym.h"
#include "dsym/dsym_validator.h"
#include "support/captured_output.h"
#include "support/diagnostics.h"
#include "support/test_support.h"

namespace symlift::dsym {
namespace {

namespace fs = std::filesystem;
using symlift::testing::fixturesDir;
using symlift::testing::TempDir;

const fs::path kFatBundle = fixturesDir() / "FatApp.dSYM";
const fs::path kFatDWARF = kFatBundle / "Contents/Resources/DWARF/FatApp";

// A bundle in dir with the given Info entries and a copy of an edge file
// (none: no DWARF file) as its DWARF file; returns the DWARF file's path.
fs::path makeBundle(const TempDir& dir, const std::string& infoEntries, const std::string& edgeFile) {
  if (!infoEntries.empty()) dir.write("App.dSYM/Contents/Info.plist", symlift::testing::xmlPlist(infoEntries));
  fs::path dwarf = dir.path() / "App.dSYM/Contents/Resources/DWARF/App";
  fs::create_directories(dwarf.parent_path());
  if (!edgeFile.empty()) fs::copy_file(fixturesDir() / "edge" / edgeFile, dwarf);
  return dwarf;
}

// The model made on its own and over a run's cache must agree.
std::vector<std::shared_ptr<SUPDSYMFile>> filesFor(const fs::path& dwarf, const fs::path& bundle,
                                                   symbols::SymbolFileCache& cache) {
  return {SUPDSYMFile::initWithDWARFURL(dwarf, bundle), SUPDSYMFile::mappingWithURL(dwarf, bundle, cache)};
}

class DSYMModel : public ::testing::Test {
 protected:
  dispatch::ThreadPool pool_;
  support::DiscardingDiagnosticsSink sink_;
  symbols::SymbolFileCache cache_{pool_, sink_};
};

TEST_F(DSYMModel, InfoValuesIdentifierAndSlices) {
  struct Case {
    std::string entries, edgeFile;
    std::optional<std::string> identifier, version;
    std::set<std::string> uuids;
    std::string warned;
  };
  const std::string rest = "<key>CFBundleVersion</key><string>12</string>";
  const Case cases[] = {
      {"<key>CFBundleIdentifier</key><string>com.apple.xcode.dsym.com.vendor.App</string>" + rest, "thin-arm64",
       "com.vendor.App", "12", {"5e1f7000000040008000000000000006"}, ""},
      // Only a whole leading prefix is removed.
      {"<key>CFBundleIdentifier</key><string>com.apple.xcode.dsym.</string>", "fat-same-uuid", "", std::nullopt,
       {"5e1f7000000040008000000000000004"}, ""},
      {"<key>CFBundleIdentifier</key><string>x.com.apple.xcode.dsym.App</string>", "no-uuid",
       "x.com.apple.xcode.dsym.App", std::nullopt, {}, "warning: unable to extract dSYM uuid for architecture x86_64\n"},
      // No Info.plist and no DWARF file: a dSYM without values or slices.
      {"", "", std::nullopt, std::nullopt, {}, ""},
  };
  for (const Case& c : cases) {
    TempDir dir;
    const fs::path dwarf = makeBundle(dir, c.entries, c.edgeFile);
    for (const auto& file : filesFor(dwarf, dir.path() / "App.dSYM", cache_)) {
      ASSERT_TRUE(file && file->dsym()) << c.entries;
      EXPECT_EQ(file->dsym()->bundleIdentifier(), c.identifier) << c.entries;
      EXPECT_EQ(file->dsym()->bundleVersion(), c.version);
      EXPECT_EQ(file->dsym()->executablePath(), c.edgeFile.empty() ? std::nullopt : std::optional(dwarf.string()));
      std::set<std::string> uuids;
      EXPECT_EQ(symlift::testing::consoleOutput(console::kLogLevelInfo, [&] { uuids = file->uuidSet(); }), c.warned);
      EXPECT_EQ(uuids, c.uuids);
    }
  }
}

TEST_F(DSYMModel, FatDSYMAndBundlesThatAreNone) {
  for (const auto& file : filesFor(kFatDWARF, kFatBundle, cache_)) {
    ASSERT_TRUE(file);
    EXPECT_EQ(file->URL(), kFatDWARF);
    EXPECT_EQ(file->dsym()->executableURL(), kFatDWARF);
    EXPECT_EQ(file->dsym()->shortBundleVersion(), "1.2");
    EXPECT_EQ(file->uuidSet(),
              (std::set<std::string>{"4c4c449155553144a1021bea2e928b85", "4c4c445a55553144a109bc8fefe46bdc"}));
  }
  // A missing folder, and a regular file, are no bundles.
  for (const fs::path& bundle : {fixturesDir() / "Missing.dSYM", kFatDWARF}) {
    EXPECT_EQ(SUPdSYM::dSYMWithDWARFURL(kFatDWARF, bundle), nullptr);
    EXPECT_EQ(SUPDSYMFile::initWithDWARFURL(kFatDWARF, bundle, cache_), nullptr);
  }
}

// A bundle without a DWARF file ends the validation with one error line.
TEST(DSYMValidator, DamagedBundleEndsValidationWithOneError) {
  TempDir dir;
  makeBundle(dir, "", "thin-arm64");
  fs::create_directories(dir.path() / "Damaged.dSYM/Contents/Resources/DWARF");
  const std::string out = symlift::testing::consoleOutput(console::SYLLogging::sharedInstance().logLevel(),
                                                          [&] { DSYMValidator::validateDSYMs({dir.str(), dir.str()}); });
  EXPECT_EQ(out, "error: Failed to validate dSYMs due to exception: No DWARF file in " + dir.str() +
                     "/Damaged.dSYM/Contents/Resources/DWARF\n");
}

}  // namespace
}  // namespace symlift::dsym
