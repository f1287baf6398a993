// The dSYM bundle model: SUPdSYM, SUPDSYMFile and the code-mapping container.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "console/console_log.h"
#include "dsym/code_mapping.h"
#include "dsym/code_mapping_info_container.h"
#include "dsym/dsym.h"
#include "support/test_support.h"

namespace symlift::dsym {
namespace {

namespace fs = std::filesystem;
using symlift::testing::fixturesDir;
using symlift::testing::TempDir;

const fs::path kFatBundle = fixturesDir() / "FatApp.dSYM";
const fs::path kFatDWARF = kFatBundle / "Contents/Resources/DWARF/FatApp";

// A bundle in dir with the given Info entries and a copy of an edge file
// as its DWARF file; returns the DWARF file's path.
fs::path makeBundle(const TempDir& dir, const std::string& infoEntries, const std::string& edgeFile) {
  dir.write("App.dSYM/Contents/Info.plist", symlift::testing::xmlPlist(infoEntries));
  fs::path dwarf = dir.path() / "App.dSYM/Contents/Resources/DWARF/App";
  fs::create_directories(dwarf.parent_path());
  fs::copy_file(fixturesDir() / "edge" / edgeFile, dwarf);
  return dwarf;
}

TEST(SUPdSYM, ReadsInfoAndStripsTheXcodePrefix) {
  auto dsym = SUPdSYM::dSYMWithDWARFURL(kFatDWARF, kFatBundle);
  ASSERT_TRUE(dsym);
  EXPECT_EQ(dsym->bundleIdentifier(), "com.example.symlift.FatApp");
  EXPECT_EQ(dsym->bundleVersion(), "7");
  EXPECT_EQ(dsym->shortBundleVersion(), "1.2");
  EXPECT_EQ(dsym->executablePath(), kFatDWARF.string());
  EXPECT_EQ(dsym->executableURL(), kFatDWARF);
  ASSERT_TRUE(dsym->binary());
  EXPECT_EQ(dsym->binary()->slices().size(), 2u);
}

TEST(SUPdSYM, IdentifierVariants) {
  struct Case {
    std::string entries;
    std::optional<std::string> identifier;
  };
  const Case cases[] = {
      {"<key>CFBundleIdentifier</key><string>com.vendor.App</string>", "com.vendor.App"},
      // Only a leading prefix is removed, and only the whole prefix.
      {"<key>CFBundleIdentifier</key><string>com.apple.xcode.dsym.</string>", ""},
      {"<key>CFBundleIdentifier</key><string>com.apple.xcode.dsymX.App</string>", "com.apple.xcode.dsymX.App"},
      {"<key>CFBundleIdentifier</key><string>x.com.apple.xcode.dsym.App</string>", "x.com.apple.xcode.dsym.App"},
      {"", std::nullopt},
  };
  for (const Case& c : cases) {
    TempDir dir;
    fs::path dwarf = makeBundle(dir, c.entries, "thin-arm64");
    auto dsym = SUPdSYM::dSYMWithDWARFURL(dwarf, dir.path() / "App.dSYM");
    ASSERT_TRUE(dsym) << c.entries;
    EXPECT_EQ(dsym->bundleIdentifier(), c.identifier) << c.entries;
    EXPECT_EQ(dsym->bundleVersion(), std::nullopt);
  }
}

TEST(SUPdSYM, BundleWithoutInfoPlistOrUnmappableDWARF) {
  TempDir dir;
  fs::create_directories(dir.path() / "Bare.dSYM/Contents/Resources/DWARF");
  // The DWARF file is missing: a dSYM without a binary, hence without slices.
  auto dsym = SUPdSYM::dSYMWithDWARFURL(dir.path() / "Bare.dSYM/Contents/Resources/DWARF/Bare",
                                        dir.path() / "Bare.dSYM");
  ASSERT_TRUE(dsym);
  EXPECT_EQ(dsym->binary(), nullptr);
  EXPECT_EQ(dsym->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(dsym->executablePath(), std::nullopt);
  int calls = 0;
  dsym->enumerateUUIDs([&calls](const auto&, const auto&) { ++calls; });
  EXPECT_EQ(calls, 0);
}

TEST(SUPdSYM, NotABundleDirectory) {
  EXPECT_EQ(SUPdSYM::dSYMWithDWARFURL(kFatDWARF, fixturesDir() / "Missing.dSYM"), nullptr);
  // A regular file is no bundle either.
  EXPECT_EQ(SUPdSYM::dSYMWithDWARFURL(kFatDWARF, kFatDWARF), nullptr);
  EXPECT_EQ(SUPDSYMFile::initWithDWARFURL(kFatDWARF, fixturesDir() / "Missing.dSYM"), nullptr);
}

TEST(SUPDSYMFile, UUIDSet) {
  auto fat = SUPDSYMFile::initWithDWARFURL(kFatDWARF, kFatBundle);
  ASSERT_TRUE(fat);
  EXPECT_EQ(fat->URL(), kFatDWARF);
  EXPECT_EQ(fat->source(), 0);
  EXPECT_EQ(fat->sourceName(), std::nullopt);
  EXPECT_EQ(fat->uuidSet(),
            (std::set<std::string>{"4c4c449155553144a1021bea2e928b85", "4c4c445a55553144a109bc8fefe46bdc"}));

  TempDir dir;
  fs::path dwarf = makeBundle(dir, "", "fat-same-uuid");
  auto same = SUPDSYMFile::mappingWithURL(dwarf, dir.path() / "App.dSYM");
  ASSERT_TRUE(same);
  EXPECT_EQ(same->uuidSet(), (std::set<std::string>{"5e1f7000000040008000000000000004"}));
}

TEST(SUPDSYMFile, SliceWithoutUUIDIsWarnedAboutAndLeftOut) {
  console::SYLLogging::sharedInstance().setColorsEnabled(false);
  TempDir dir;
  fs::path dwarf = makeBundle(dir, "", "no-uuid");
  auto file = SUPDSYMFile::initWithDWARFURL(dwarf, dir.path() / "App.dSYM");
  ASSERT_TRUE(file);
  ::testing::internal::CaptureStdout();
  auto uuids = file->uuidSet();
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(uuids.empty());
  EXPECT_EQ(out, "warning: unable to extract dSYM uuid for architecture x86_64\n");

  // An unmappable DWARF file gives nothing and says nothing.
  fs::remove(dwarf);
  auto unmapped = SUPDSYMFile::initWithDWARFURL(dwarf, dir.path() / "App.dSYM");
  ASSERT_TRUE(unmapped);
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(unmapped->uuidSet().empty());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST(SUPCodeMappingInfoContainer, SettingTheDSYMFileTakesItsValues) {
  SUPCodeMappingInfoContainer container;
  auto fat = SUPDSYMFile::initWithDWARFURL(kFatDWARF, kFatBundle);
  ASSERT_TRUE(fat);
  container.setDSYMFile(fat);
  EXPECT_EQ(container.URL(), kFatDWARF);
  EXPECT_EQ(container.buildVersion(), "7");
  EXPECT_EQ(container.displayVersion(), "1.2");
  EXPECT_EQ(container.dsymBundleID(), "com.example.symlift.FatApp");

  // A dSYM without a short version string: no display version, and the
  // values of the previous file do not linger.
  TempDir dir;
  fs::path dwarf = makeBundle(dir, "<key>CFBundleVersion</key><string>12</string>", "thin-arm64");
  container.setDSYMFile(SUPDSYMFile::initWithDWARFURL(dwarf, dir.path() / "App.dSYM"));
  EXPECT_EQ(container.URL(), dwarf);
  EXPECT_EQ(container.buildVersion(), "12");
  EXPECT_EQ(container.displayVersion(), std::nullopt);
  EXPECT_EQ(container.dsymBundleID(), std::nullopt);

  container.setDSYMFile(nullptr);
  EXPECT_EQ(container.URL(), std::nullopt);
  EXPECT_EQ(container.buildVersion(), std::nullopt);
}

TEST(SUPCodeMappingInfoContainer, CopyLeavesThePerSliceValuesEmpty) {
  SUPCodeMappingInfoContainer container;
  auto fat = SUPDSYMFile::initWithDWARFURL(kFatDWARF, kFatBundle);
  container.setDSYMFile(fat);
  container.setConvertOnly(true);
  container.setMaxCoreSymbolicationVersion(3.5f);
  container.setPlatform("ios");
  container.setOmvaraAppId("1:1234567890:ios:0123456789abcdef");
  container.setTesmerOrgID("org");
  container.setAppBundleID("com.example.app");
  container.setUUID("4c4c445a55553144a109bc8fefe46bdc");
  container.setArchitecture("arm64");
  container.setData(std::vector<std::uint8_t>{'c', 's', 'y', 'm'});

  auto copy = container.copyWithZone();
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->dSYMFile(), fat);  // shared, not copied
  EXPECT_EQ(copy->URL(), kFatDWARF);
  EXPECT_EQ(copy->displayVersion(), "1.2");
  EXPECT_EQ(copy->dsymBundleID(), "com.example.symlift.FatApp");
  EXPECT_TRUE(copy->convertOnly());
  EXPECT_EQ(copy->maxCoreSymbolicationVersion(), 3.5f);
  EXPECT_EQ(copy->platform(), "ios");
  EXPECT_EQ(copy->omvaraAppId(), "1:1234567890:ios:0123456789abcdef");
  EXPECT_EQ(copy->tesmerOrgID(), "org");
  EXPECT_EQ(copy->appBundleID(), "com.example.app");
  EXPECT_EQ(copy->UUID(), std::nullopt);
  EXPECT_EQ(copy->architecture(), std::nullopt);
  EXPECT_EQ(copy->data(), std::nullopt);

  // The copy is independent of the original.
  copy->setPlatform("tvos");
  EXPECT_EQ(container.platform(), "ios");
  EXPECT_EQ(container.UUID(), "4c4c445a55553144a109bc8fefe46bdc");
}

}  // namespace
}  // namespace symlift::dsym
