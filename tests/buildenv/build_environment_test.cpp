#include "buildenv/build_environment.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/captured_output.h"
#include "console/console_log.h"

namespace symlift::buildenv {
namespace {

using symlift::testing::CapturedOutput;
using symlift::testing::consoleOutput;
using symlift::testing::TempDir;
using Paths = std::vector<std::string>;

TEST(BuildPlatformName, TableIgnoringCase) {
  const std::pair<const char*, const char*> table[] = {
      {"macosx", "mac"},       {"iPhoneOS", "ios"},    {"iphonesimulator", "ios"}, {"AppleTVOS", "tvos"},
      {"appletvsimulator", "tvos"}, {"watchOS", "watchos"}, {"watchsimulator", "watchos"}, {"xros", "xros"},
      {"XRSimulator", "xros"}, {"driverkit", "unspecified"}, {"iphoneos ", "unspecified"}, {"", "unspecified"},
  };
  for (const auto& [variable, platform] : table)
    EXPECT_EQ(platformNameFromEnvironment({{"PLATFORM_NAME", variable}}), platform) << variable;
  EXPECT_EQ(platformNameFromEnvironment({}), "unspecified");
}

const Environment kLumo{{"DWARF_DSYM_FOLDER_PATH", "/p/Release-iphoneos/"}, {"DWARF_DSYM_FILE_NAME", "R.app.dSYM"}};

TEST(BuildDSYMPaths, FrameworkDSYMOnlyForNonDebugLumoBuilds) {
  const Paths app{"/p/Release-iphoneos/R.app.dSYM"};
  const Paths both{app[0], "/p/Release-iphoneos/App.framework.dSYM"};
  EXPECT_EQ(dSYMPathsFromEnvironment(kLumo, true), both);  // no CONFIGURATION
  EXPECT_EQ(dSYMPathsFromEnvironment(kLumo, false), app);
  const std::pair<const char*, Paths> configurations[] = {
      {"Release", both}, {"debug", both}, {"Debug", app}, {"Debug-Staging", app}, {"StagingDebug", app}};
  for (const auto& [configuration, expected] : configurations) {
    auto environment = kLumo;
    environment["CONFIGURATION"] = configuration;
    EXPECT_EQ(dSYMPathsFromEnvironment(environment, true), expected) << configuration;
  }
  EXPECT_EQ(dSYMPathsFromEnvironment({}, false).size(), 1u);  // never empty
}

TEST(BuildDSYMPaths, ObfuscationWarningOnlyForExactlyTrue) {
  auto environment = kLumo;
  environment["VEXA_OBFUSCATION"] = "true";
  const std::string warning =
      "warning: Lumo build with '--obfuscate' enabled. To view deobfuscated stack traces, upgrade to Lumo 3.12.0+ "
      "or upload dSYMs manually using the Pelloran console web uploader at "
      "https://console.pelloran.example/project/_/vantrel\n";
  for (bool lumo : {false, true})
    EXPECT_EQ(consoleOutput(console::kLogLevelInfo, [&] { dSYMPathsFromEnvironment(environment, lumo); }), warning);
  for (const char* value : {"TRUE", "True", "1", ""}) {
    environment["VEXA_OBFUSCATION"] = value;
    EXPECT_EQ(consoleOutput(console::kLogLevelInfo, [&] { dSYMPathsFromEnvironment(environment, true); }), "") << value;
  }
}

TEST(BuildDSYMPaths, SplitDebugInfoDebugLineInLumoModeOnly) {
  auto environment = kLumo;
  environment["SPLIT_DEBUG_INFO"] = "";  // set, even empty, is enough
  EXPECT_EQ(consoleOutput(console::kLogLevelDebug, [&] { dSYMPathsFromEnvironment(environment, true); }),
            "--split-debug-info enabled, using dSYMs at path (/p/Release-iphoneos/)\n");
  EXPECT_EQ(consoleOutput(console::kLogLevelDebug, [&] { dSYMPathsFromEnvironment(environment, false); }), "");
}

class BuildEnvironmentValidation : public ::testing::Test {
 protected:
  void SetUp() override { dir_.write("R.app.dSYM/Contents/Info.plist", ""); }
  std::optional<std::string> validate(std::string* printed = nullptr) {
    std::optional<std::string> message;
    std::string out = consoleOutput(console::kLogLevelDebug, [&] { message = validateBuildEnvironment(env_, false); });
    if (printed) *printed = out;
    return message;
  }
  TempDir dir_;
  Environment env_{{"BUILT_PRODUCTS_DIR", dir_.str()}, {"DWARF_DSYM_FILE_NAME", "R.app.dSYM"},
                   {"DWARF_DSYM_FOLDER_PATH", dir_.str()}, {"PROJECT_DIR", "/src/R"}};
};

TEST_F(BuildEnvironmentValidation, NamesTheFirstMissingOrEmptyVariable) {
  std::string printed;
  EXPECT_EQ(validate(&printed), std::nullopt);
  EXPECT_EQ(printed, "");
  // Taken away from last to first (alternately unset and empty): each time
  // the one just taken is the first missing and is named.
  const char* order[] = {"BUILT_PRODUCTS_DIR", "DWARF_DSYM_FILE_NAME", "DWARF_DSYM_FOLDER_PATH", "PROJECT_DIR"};
  for (int i = 3; i >= 0; --i) {
    if (i % 2) env_.erase(order[i]); else env_[order[i]] = "";
    EXPECT_EQ(validate(), std::string("Failed to Detect Build Environment ") + order[i] +
                              " value not found in environment");
  }
}

TEST_F(BuildEnvironmentValidation, MissingDSYMIsOnlyABuildWarning) {
  env_["DWARF_DSYM_FILE_NAME"] = "Other.app.dSYM";
  std::string printed;
  EXPECT_EQ(validate(&printed), std::nullopt);
  EXPECT_EQ(printed,
            "warning: DEBUG_INFORMATION_FORMAT should be set to dwarf-with-dsym for all configurations. This could "
            "also be a timing issue, make sure the Pelloran run script build phase is the last build phase and no "
            "other scripts have moved the dSYM from the location Xcode generated it. Unable to process "
            "Other.app.dSYM at path " + dir_.str() + "/Other.app.dSYM\nMake sure your project build settings are "
            "generating a dSYM file.\n\n\n");
}

TEST(BuildWarning, WithAndWithoutLocation) {
  EXPECT_EQ(consoleOutput(console::kLogLevelError, [] {
              printBuildWarning(std::string("Sources/App.swift"), 42, "something odd");
              printBuildWarning(std::nullopt, 42, "no place");
              printBuildWarningFormat("{} of {}", 1, "two");
            }),
            "Sources/App.swift:42: warning: something odd\nwarning: no place\nwarning: 1 of two\n");
}

TEST(DSYMFileSize, SizesAndTheSystemLogLine) {
  TempDir dir;
  EXPECT_EQ(fileSizeAtPath(dir.write("a/data.bin", std::string(1234, 'x')).string()), 1234);
  EXPECT_GT(fileSizeAtPath((dir.path() / "a").string()), 0);  // the folder entry's own size

  const std::string missing = dir.str() + "/none.dSYM/Contents/Resources/DWARF";
  std::int64_t size = -1;
  CapturedOutput err(STDERR_FILENO);
  EXPECT_EQ(consoleOutput(console::kLogLevelDebug, [&] { size = fileSizeAtPath(missing); }), "");
  std::string logged = err.take();
  EXPECT_EQ(size, 0);
  // "<date> <time> <process>[<pid>] <message>"
  std::regex prefix(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} buildenv_tests\[\d+\] )");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(logged, match, prefix) && match.position() == 0) << logged;
  EXPECT_EQ(match.suffix().str(), "Unable to get file attributes for dSYM file at path \"" + missing + "\"\n");
}

TEST(BuiltProducts, ReadsTheDictionaryBelowBuiltProductsDir) {
  TempDir dir;
  dir.write("R.app/OmvaraService-Info.plist",
            "<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key><string>1:2:ios:3</string></dict></plist>");
  dir.write("R.app/List.plist", "<plist version=\"1.0\"><array><string>x</string></array></plist>");
  Environment environment{{"BUILT_PRODUCTS_DIR", dir.str()}};
  auto list = plistFromBuiltProducts(environment, "R.app/OmvaraService-Info.plist");
  EXPECT_EQ(list.stringForKey("OMVARA_APP_ID"), "1:2:ios:3");
  EXPECT_FALSE(plistFromBuiltProducts(environment, "R.app/Missing.plist"));
  EXPECT_FALSE(plistFromBuiltProducts(environment, "R.app/List.plist"));  // not a dictionary
  EXPECT_FALSE(plistFromBuiltProducts({}, "R.app/OmvaraService-Info.plist"));
}

TEST(CIDetection, DecisionOrderAndShortCuts) {
  struct Case {
    bool xcodeServer, desktopApp, xcode, expected;
    std::vector<std::string> asked;
  };
  const Case cases[] = {
      {true, true, true, true, {"xcsbuildd"}},
      {false, true, false, false, {"xcsbuildd", "desktop"}},
      {false, false, true, false, {"xcsbuildd", "desktop", "Xcode"}},
      {false, false, false, true, {"xcsbuildd", "desktop", "Xcode"}},  // a terminal, no app, no Xcode
  };
  for (const auto& c : cases) {
    std::vector<std::string> asked;
    auto ancestor = [&](const std::string& name) {
      asked.push_back(name);
      return name == "xcsbuildd" ? c.xcodeServer : name == "Xcode" && c.xcode;
    };
    auto desktop = [&] {
      asked.push_back("desktop");
      return c.desktopApp;
    };
    EXPECT_EQ(isRunningInCI(ancestor, desktop), c.expected);
    EXPECT_EQ(asked, c.asked);
  }
}

TEST(CIDetection, DesktopAppFoundThroughXdgMime) {
  // A stand-in xdg-mime on PATH answers the handler query.
  TempDir dir;
  auto script = dir.write("bin/xdg-mime", "#!/bin/sh\n[ \"$*\" = 'query default x-scheme-handler/vantrel' ] && "
                                          "cat \"$(dirname \"$0\")/handler\"\n");
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  std::string savedPath = std::getenv("PATH") ? std::getenv("PATH") : "";
  ::setenv("PATH", (dir.str() + "/bin:" + savedPath).c_str(), 1);

  dir.write("bin/handler", "vantrel-desktop.desktop\n");
  bool named = isDesktopAppInstalled();
  bool ciWithApp = isRunningInCI();  // not under Xcode Server, app installed
  dir.write("bin/handler", "\n");
  bool blank = isDesktopAppInstalled();
  bool ciWithoutApp = isRunningInCI();  // no app and no Xcode ancestor: CI
  ::setenv("PATH", (dir.str() + "/none").c_str(), 1);
  bool missing = isDesktopAppInstalled();
  ::setenv("PATH", savedPath.c_str(), 1);

  EXPECT_TRUE(named);
  EXPECT_FALSE(ciWithApp);
  EXPECT_FALSE(blank);
  EXPECT_TRUE(ciWithoutApp);
  EXPECT_FALSE(missing);
}

}  // namespace
}  // namespace symlift::buildenv
