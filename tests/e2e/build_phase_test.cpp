// The real symlift binary run as an Xcode Run Script build phase, with the
// build's variables in its environment. Output goes to a pipe: no colour.

#include <gtest/gtest.h>

#include <filesystem>

#include "e2e/output_lines.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

const Lines kPlain{false};

// A built product with its service plist and a complete dSYM.
class BuildPhaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("Build/Products/Debug-iphoneos/App.app/OmvaraService-Info.plist",
               "<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key><string>1:77:ios:beef</string>"
               "</dict></plist>");
    dir_.write("Build/Products/Debug-iphoneos/App.app.dSYM/Contents/Resources/DWARF/App", "dwarf bytes");
    std::filesystem::create_directories(dir_.path() / "Project");
    environment_ = {
        {"PATH", "/usr/bin:/bin"},
        {"BUILT_PRODUCTS_DIR", products()},
        {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "App.app"},
        {"DWARF_DSYM_FOLDER_PATH", products()},
        {"DWARF_DSYM_FILE_NAME", "App.app.dSYM"},
        {"PROJECT_DIR", (dir_.path() / "Project").string()},
        {"PLATFORM_NAME", "iPhoneOS"},
        {"CONFIGURATION", "Debug"},
    };
  }

  std::string products() const { return (dir_.path() / "Build/Products/Debug-iphoneos").string(); }
  std::string dSYM() const { return products() + "/App.app.dSYM"; }

  RunResult run(const std::vector<std::string>& arguments) const {
    RunOptions options;
    options.environment = environment_;
    options.timeoutSeconds = 60;
    return runSymlift(arguments, options);
  }

  void expectRun(const std::vector<std::string>& arguments, int status, const std::string& out) const {
    std::string line;
    for (const auto& a : arguments) line += " " + a;
    RunResult result = run(arguments);
    EXPECT_EQ(result.status, status) << "symlift" << line;
    EXPECT_EQ(result.out, out) << "symlift" << line;
    EXPECT_EQ(result.err, "") << "symlift" << line;
  }

  // The debug block of a run here: no Xcode, Xcode Server or desktop app, so CI.
  static std::string debugBlock(const Lines& lines, const std::string& appID, const std::string& platform,
                                const std::string& paths) {
    return lines.info("\nArguments:") + lines.bold("Debug mode enabled") + lines.info("Running in a CI Environment") +
           lines.info("Not running in an instance of Xcode.app") + lines.info("Vantrel is not installed") +
           lines.info("Omvara App ID: " + appID) + lines.info("Platform: " + platform) +
           lines.info("DSYM Paths: " + paths + "\n");
  }

  static std::string header(const Lines& lines) {
    return lines.info("Running symlift in Build Phase mode") + lines.info("Validating build environment for Vantrel...");
  }

  // The whole output of a successful "-d -val" run.
  static std::string validatedInDebug(const Lines& lines, const std::string& appID, const std::string& platform,
                                      const std::string& paths) {
    return lines.version() + header(lines) + debugBlock(lines, appID, platform, paths) + lines.validated();
  }

  TempDir dir_;
  std::map<std::string, std::string> environment_;
};

TEST_F(BuildPhaseTest, ValidateWithEverySpelling) {
  for (const char* spelling : {"-bp", "--bp", "-build-phase", "--build-phase"})
    expectRun({spelling, "-d", "-val"}, 0, validatedInDebug(kPlain, "1:77:ios:beef", "ios", "[\"" + dSYM() + "\"]"));
}

TEST_F(BuildPhaseTest, PlatformComesFromTheEnvironmentNotTheOption) {
  environment_["PLATFORM_NAME"] = "appletvsimulator";
  expectRun({"-bp", "-p", "mac", "-d", "-val"}, 0,
            validatedInDebug(kPlain, "1:77:ios:beef", "tvos", "[\"" + dSYM() + "\"]"));
  // An unknown or missing platform is only a warning.
  for (const char* platform : {"driverkit", ""}) {
    environment_["PLATFORM_NAME"] = platform;
    expectRun({"-bp", "-val"}, 0,
              kPlain.info("Running symlift in Build Phase mode") +
                  kPlain.warning("Could not get platform name from build environment") +
                  kPlain.info("Validating build environment for Vantrel...") + kPlain.validated());
  }
}

TEST_F(BuildPhaseTest, CommandLinePathsFollowTheDerivedOne) {
  expectRun({"-bp", "-d", "-val", "--", "extra.dSYM", "more.zip"}, 0,
            validatedInDebug(kPlain, "1:77:ios:beef", "ios", "[\"" + dSYM() + "\", \"extra.dSYM\", \"more.zip\"]"));
}

TEST_F(BuildPhaseTest, FirstMissingVariableIsReported) {
  auto expectMissing = [&](const std::string& name) {
    expectRun({"-bp", "-ai", "X", "-val"}, 15,
              header(kPlain) + kPlain.error("Failed to Detect Build Environment " + name + " value not found in environment"));
  };
  environment_.erase("PROJECT_DIR");
  expectMissing("PROJECT_DIR");
  environment_["DWARF_DSYM_FOLDER_PATH"] = "";
  expectMissing("DWARF_DSYM_FOLDER_PATH");
  environment_.erase("BUILT_PRODUCTS_DIR");
  expectMissing("BUILT_PRODUCTS_DIR");
}

TEST_F(BuildPhaseTest, MissingDSYMIsOnlyAWarning) {
  environment_["DWARF_DSYM_FILE_NAME"] = "Other.app.dSYM";
  const std::string missing = products() + "/Other.app.dSYM";
  expectRun({"-bp", "-val"}, 0,
            header(kPlain) +
                "warning: DEBUG_INFORMATION_FORMAT should be set to dwarf-with-dsym for all configurations. This could "
                "also be a timing issue, make sure the Pelloran run script build phase is the last build phase and no "
                "other scripts have moved the dSYM from the location Xcode generated it. Unable to process "
                "Other.app.dSYM at path " +
                missing + "\nMake sure your project build settings are generating a dSYM file.\n\n\n" +
                kPlain.validated());
}

TEST_F(BuildPhaseTest, AppIdentifierFromTheBuiltProducts) {
  environment_.erase("UNLOCALIZED_RESOURCES_FOLDER_PATH");
  expectRun({"-bp", "-val"}, 13,
            kPlain.error("Could not get OMVARA_APP_ID in Omvara Services file from build environment"));
  // -ai supersedes the build products.
  expectRun({"-bp", "-ai", "given", "-d", "-val"}, 0, validatedInDebug(kPlain, "given", "ios", "[\"" + dSYM() + "\"]"));
}

TEST_F(BuildPhaseTest, HelpAndAPIKey) {
  expectRun({"-bp", "--help"}, 5, kPlain.usage());
  expectRun({"--build-phase", "-api-key", "k"}, 18, kPlain.apiKeyBuildPhase());
  // -lp takes the build-phase route, so the build-phase message.
  expectRun({"-lp", "app.json", "-a", "k"}, 18, kPlain.apiKeyBuildPhase());
}

TEST_F(BuildPhaseTest, LumoProjectTakesTheBuildPhaseRoute) {
  auto lumo = dir_.write("Project/LumoAppIDFile.vexa", "{\"OMVARA_APP_ID\": \"  1:3:ios:aa\\n\"}").string();
  environment_["CONFIGURATION"] = "Release";
  const std::string paths = "[\"" + dSYM() + "\", \"" + products() + "/App.framework.dSYM\"]";
  for (const char* spelling : {"-lp", "--lp", "-lumo-project", "--lumo-project"})
    expectRun({spelling, lumo, "-d", "-val"}, 0, validatedInDebug(kPlain, "1:3:ios:aa", "ios", paths));
  // -ai with -lp and without -bp: still the build-phase route.
  expectRun({"-ai", "X", "-lp", lumo, "-val"}, 0, header(kPlain) + kPlain.validated());
  // The Lumo file's problems, each reported once.
  expectRun({"-lp"}, 13, kPlain.error("Could not get path for LumoAppIDFile.vexa"));
  const std::string missing = dir_.str() + "/missing.json";
  expectRun({"-lp", missing}, 13, kPlain.error("Unable to read file at path " + missing));
  auto array = dir_.write("array.json", "[{\"OMVARA_APP_ID\": \"x\"}]").string();
  expectRun({"-lp", array}, 13, kPlain.error("Unable to create json from file at path " + array));
  auto noKey = dir_.write("nokey.json", "{\"APP_ID\": \"x\"}").string();
  expectRun({"-lp", noKey}, 13, kPlain.error("Unable to read valid app ID from path " + noKey));
  // A Lumo file whose value is only white space: silent exit 13.
  auto blank = dir_.write("blank.json", "{\"OMVARA_APP_ID\": \" \\n\"}").string();
  expectRun({"-lp", blank, "-val"}, 13, "");
}

TEST_F(BuildPhaseTest, WaitsForTheDSYMThenProcessesIt) {
  // The DWARF file here is no Mach-O file: nothing to convert, nothing sent.
  expectRun({"-bp", "-c", "-sdv"}, 0,
            header(kPlain) + kPlain.info("Processing dSYMs...") +
                kPlain.warning("No architecture slices in dSYM at " + dSYM() + "/Contents/Resources/DWARF/App") +
                kPlain.success("Successfully uploaded Vantrel build event and symbols"));
}

}  // namespace
}  // namespace symlift::testing::e2e
