#include "buildenv/build_environment.h"

#include <gtest/gtest.h>

#include <regex>

#include "captured_output.h"
#include "cli/console_log.h"
#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

using symlift::testing::CapturedOutput;
using symlift::testing::TempDir;

// Runs body with the console at the given level and colour off, restoring both.
template <typename Body>
std::string consoleOutput(std::uint64_t level, Body&& body) {
  auto& log = cli::SYLLogging::sharedInstance();
  auto savedLevel = log.logLevel();
  auto savedColors = log.colorsEnabled();
  log.setLogLevel(level);
  log.setColorsEnabled(false);
  CapturedOutput out(STDOUT_FILENO);
  body();
  std::string text = out.take();
  log.setLogLevel(savedLevel);
  log.setColorsEnabled(savedColors);
  return text;
}

TEST(BuildPlatformName, MapsEveryKnownPlatformIgnoringCase) {
  const std::pair<const char*, const char*> table[] = {
      {"macosx", "mac"},           {"MacOSX", "mac"},          {"iphoneos", "ios"},
      {"iPhoneOS", "ios"},         {"iphonesimulator", "ios"}, {"appletvos", "tvos"},
      {"AppleTVSimulator", "tvos"}, {"watchos", "watchos"},    {"watchsimulator", "watchos"},
      {"xros", "xros"},            {"XRSimulator", "xros"},
  };
  for (const auto& [variable, platform] : table)
    EXPECT_EQ(platformNameFromEnvironment({{"PLATFORM_NAME", variable}}), platform) << variable;
}

TEST(BuildPlatformName, UnknownMissingOrEmptyIsUnspecified) {
  EXPECT_EQ(platformNameFromEnvironment({{"PLATFORM_NAME", "driverkit"}}), "unspecified");
  EXPECT_EQ(platformNameFromEnvironment({{"PLATFORM_NAME", ""}}), "unspecified");
  EXPECT_EQ(platformNameFromEnvironment({}), "unspecified");
  // A near miss is not a match.
  EXPECT_EQ(platformNameFromEnvironment({{"PLATFORM_NAME", "iphoneos "}}), "unspecified");
}

Environment lumoEnvironment() {
  return {{"DWARF_DSYM_FOLDER_PATH", "/build/Products/Release-iphoneos"}, {"DWARF_DSYM_FILE_NAME", "Runner.app.dSYM"}};
}

TEST(BuildDSYMPaths, AppDSYMOnlyOutsideLumoProjects) {
  auto environment = lumoEnvironment();
  environment["CONFIGURATION"] = "Release";
  EXPECT_EQ(dSYMPathsFromEnvironment(environment, false),
            std::vector<std::string>{"/build/Products/Release-iphoneos/Runner.app.dSYM"});
}

TEST(BuildDSYMPaths, LumoReleaseAndMissingConfigurationAddTheFrameworkDSYM) {
  const std::vector<std::string> both{"/build/Products/Release-iphoneos/Runner.app.dSYM",
                                      "/build/Products/Release-iphoneos/App.framework.dSYM"};
  auto environment = lumoEnvironment();
  EXPECT_EQ(dSYMPathsFromEnvironment(environment, true), both);  // no CONFIGURATION
  environment["CONFIGURATION"] = "Release";
  EXPECT_EQ(dSYMPathsFromEnvironment(environment, true), both);
  // The test for "Debug" is case-sensitive.
  environment["CONFIGURATION"] = "debug";
  EXPECT_EQ(dSYMPathsFromEnvironment(environment, true), both);
}

TEST(BuildDSYMPaths, LumoDebugConfigurationsHaveNoFrameworkDSYM) {
  auto environment = lumoEnvironment();
  for (const char* configuration : {"Debug", "Debug-Staging", "StagingDebug"}) {
    environment["CONFIGURATION"] = configuration;
    EXPECT_EQ(dSYMPathsFromEnvironment(environment, true),
              std::vector<std::string>{"/build/Products/Release-iphoneos/Runner.app.dSYM"})
        << configuration;
  }
}

TEST(BuildDSYMPaths, NeverEmptyEvenWithNothingSet) {
  EXPECT_EQ(dSYMPathsFromEnvironment({}, false).size(), 1u);
  EXPECT_EQ(dSYMPathsFromEnvironment({{"DWARF_DSYM_FOLDER_PATH", "/dsyms/"}, {"DWARF_DSYM_FILE_NAME", "A.dSYM"}},
                                     false),
            std::vector<std::string>{"/dsyms/A.dSYM"});
}

TEST(BuildDSYMPaths, ObfuscationWarningOnlyForExactlyTrue) {
  const std::string warning =
      "warning: Lumo build with '--obfuscate' enabled. To view deobfuscated stack traces, upgrade to Lumo 3.12.0+ "
      "or upload dSYMs manually using the Pelloran console web uploader at "
      "https://console.pelloran.example/project/_/vantrel\n";
  auto environment = lumoEnvironment();
  environment["VEXA_OBFUSCATION"] = "true";
  // Printed whether or not the run is in Lumo project mode.
  EXPECT_EQ(consoleOutput(cli::kLogLevelInfo, [&] { dSYMPathsFromEnvironment(environment, false); }), warning);
  EXPECT_EQ(consoleOutput(cli::kLogLevelInfo, [&] { dSYMPathsFromEnvironment(environment, true); }), warning);
  for (const char* value : {"TRUE", "True", "1", "yes", ""}) {
    environment["VEXA_OBFUSCATION"] = value;
    EXPECT_EQ(consoleOutput(cli::kLogLevelInfo, [&] { dSYMPathsFromEnvironment(environment, true); }), "") << value;
  }
}

TEST(BuildDSYMPaths, SplitDebugInfoDebugLineInLumoModeOnly) {
  auto environment = lumoEnvironment();
  environment["SPLIT_DEBUG_INFO"] = "";  // set with any value, even empty
  EXPECT_EQ(consoleOutput(cli::kLogLevelDebug, [&] { dSYMPathsFromEnvironment(environment, true); }),
            "--split-debug-info enabled, using dSYMs at path (/build/Products/Release-iphoneos)\n");
  EXPECT_EQ(consoleOutput(cli::kLogLevelDebug, [&] { dSYMPathsFromEnvironment(environment, false); }), "");
  environment.erase("SPLIT_DEBUG_INFO");
  EXPECT_EQ(consoleOutput(cli::kLogLevelDebug, [&] { dSYMPathsFromEnvironment(environment, true); }), "");
}

class BuildEnvironmentValidation : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("Runner.app.dSYM/Contents/Info.plist", "");
    environment_ = {{"BUILT_PRODUCTS_DIR", dir_.str()},
                    {"DWARF_DSYM_FILE_NAME", "Runner.app.dSYM"},
                    {"DWARF_DSYM_FOLDER_PATH", dir_.str()},
                    {"PROJECT_DIR", "/src/Runner"}};
  }
  std::optional<std::string> validate(std::string* printed = nullptr) {
    std::optional<std::string> message;
    std::string output = consoleOutput(cli::kLogLevelDebug, [&] { message = validateBuildEnvironment(environment_, false); });
    if (printed) *printed = output;
    return message;
  }
  TempDir dir_;
  Environment environment_;
};

TEST_F(BuildEnvironmentValidation, CompleteEnvironmentWithDSYMPassesSilently) {
  std::string printed;
  EXPECT_EQ(validate(&printed), std::nullopt);
  EXPECT_EQ(printed, "");
}

TEST_F(BuildEnvironmentValidation, NamesTheFirstMissingOrEmptyVariableInOrder) {
  const char* order[] = {"BUILT_PRODUCTS_DIR", "DWARF_DSYM_FILE_NAME", "DWARF_DSYM_FOLDER_PATH", "PROJECT_DIR"};
  // Remove them from last to first: each time the earliest missing one is named.
  for (int i = 3; i >= 0; --i) {
    if (i % 2)
      environment_.erase(order[i]);
    else
      environment_[order[i]] = "";
    EXPECT_EQ(validate(), std::string("Failed to Detect Build Environment ") + order[i] +
                              " value not found in environment");
  }
}

TEST_F(BuildEnvironmentValidation, OnlyProjectDirMissing) {
  environment_.erase("PROJECT_DIR");
  EXPECT_EQ(validate(), "Failed to Detect Build Environment PROJECT_DIR value not found in environment");
}

TEST_F(BuildEnvironmentValidation, MissingDSYMIsOnlyABuildWarning) {
  environment_["DWARF_DSYM_FILE_NAME"] = "Other.app.dSYM";
  std::string printed;
  EXPECT_EQ(validate(&printed), std::nullopt);
  const std::string path = dir_.str() + "/Other.app.dSYM";
  EXPECT_EQ(printed,
            "warning: DEBUG_INFORMATION_FORMAT should be set to dwarf-with-dsym for all configurations. This could "
            "also be a timing issue, make sure the Pelloran run script build phase is the last build phase and no "
            "other scripts have moved the dSYM from the location Xcode generated it. Unable to process "
            "Other.app.dSYM at path " + path + "\nMake sure your project build settings are generating a dSYM "
            "file.\n\n\n");
}

TEST(BuildWarning, WithAndWithoutLocation) {
  std::string text = consoleOutput(cli::kLogLevelInfo, [] {
    printBuildWarning(std::string("Sources/App.swift"), 42, "something odd");
    printBuildWarning(std::nullopt, 42, "no place");
    printBuildWarningFormat("{} of {}", 1, "two");
  });
  EXPECT_EQ(text, "Sources/App.swift:42: warning: something odd\nwarning: no place\nwarning: 1 of two\n");
}

TEST(DSYMFileSize, SizesOfFilesAndFolders) {
  TempDir dir;
  auto file = dir.write("a/data.bin", std::string(1234, 'x'));
  EXPECT_EQ(fileSizeAtPath(file.string()), 1234);
  EXPECT_GT(fileSizeAtPath((dir.path() / "a").string()), 0);  // the folder entry's own size
}

TEST(DSYMFileSize, UnreadableAttributesLogToStandardError) {
  TempDir dir;
  const std::string missing = dir.str() + "/none.dSYM/Contents/Resources/DWARF";
  std::int64_t size = -1;
  std::string out;
  CapturedOutput err(STDERR_FILENO);
  out = consoleOutput(cli::kLogLevelDebug, [&] { size = fileSizeAtPath(missing); });
  std::string logged = err.take();
  EXPECT_EQ(size, 0);
  EXPECT_EQ(out, "");  // nothing through the console log
  std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^\[ ]+\[\d+\] )"
                  R"(Unable to get file attributes for dSYM file at path ")" +
                  std::regex_replace(missing, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") + "\"\n");
  EXPECT_TRUE(std::regex_match(logged, line)) << logged;
}

TEST(BuiltProducts, ReadsTheDictionaryBelowBuiltProductsDir) {
  TempDir dir;
  dir.write("Runner.app/OmvaraService-Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
            "<key>OMVARA_APP_ID</key><string>1:2:ios:3</string></dict></plist>\n");
  dir.write("Runner.app/List.plist", "<plist version=\"1.0\"><array><string>x</string></array></plist>");
  Environment environment{{"BUILT_PRODUCTS_DIR", dir.str()}};

  auto list = plistFromBuiltProducts(environment, "Runner.app/OmvaraService-Info.plist");
  ASSERT_TRUE(list.isDictionary());
  EXPECT_EQ(list.stringForKey("OMVARA_APP_ID"), "1:2:ios:3");

  EXPECT_FALSE(plistFromBuiltProducts(environment, "Runner.app/Missing.plist"));
  EXPECT_FALSE(plistFromBuiltProducts(environment, "Runner.app/List.plist"));  // not a dictionary
  EXPECT_FALSE(plistFromBuiltProducts({}, "Runner.app/OmvaraService-Info.plist"));
}

TEST(CIDetection, DecisionOrderAndShortCuts) {
  struct Case {
    bool xcodeServer, desktopApp, xcode, expected;
    std::vector<std::string> asked;
  };
  const Case cases[] = {
      {true, false, false, true, {"xcsbuildd"}},
      {true, true, true, true, {"xcsbuildd"}},
      {false, true, false, false, {"xcsbuildd", "desktop"}},
      {false, false, true, false, {"xcsbuildd", "desktop", "Xcode"}},
      // Started from a terminal, no desktop app, no Xcode: taken for CI.
      {false, false, false, true, {"xcsbuildd", "desktop", "Xcode"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> asked;
    bool result = isRunningInCI(
        [&](const std::string& name) {
          asked.push_back(name);
          return name == "xcsbuildd" ? c.xcodeServer : name == "Xcode" ? c.xcode : false;
        },
        [&] {
          asked.push_back("desktop");
          return c.desktopApp;
        });
    EXPECT_EQ(result, c.expected);
    EXPECT_EQ(asked, c.asked);
  }
}

TEST(CIDetection, NoXcodeAncestorsHere) {
  // The test runs outside Xcode, so neither build host is an ancestor.
  EXPECT_FALSE(isRunningInXcode());
  EXPECT_FALSE(isRunningInXcodeServer());
}

}  // namespace
}  // namespace symlift::buildenv
