// The real symlift binary run as an Xcode Run Script build phase, with the
// build's variables in its environment: every option spelling, message and
// exit status of the build-phase route. Output goes to a pipe: no colour.

#include <gtest/gtest.h>

#include "e2e/output_lines.h"
#include "e2e/manual_run.h"

namespace symlift::testing::e2e {
namespace {

TEST(BuildPhaseTest, EveryOptionMessageAndExitStatus) {
  const Lines l;
  // A built product with its service plist and a DWARF file (no Mach-O).
  TempDir dir;
  const std::string products = (dir.path() / "Build/Products/Debug-iphoneos").string();
  const std::string dSYM = products + "/App.app.dSYM";
  dir.write("Build/Products/Debug-iphoneos/App.app/OmvaraService-Info.plist",
            "<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key><string>1:77:ios:beef</string></dict></plist>");
  dir.write("Build/Products/Debug-iphoneos/App.app.dSYM/Contents/Resources/DWARF/App", "dwarf bytes");
  const std::string lumo = dir.write("Project/LumoAppIDFile.vexa", "{\"OMVARA_APP_ID\": \"  1:3:ios:aa\\n\"}").string();
  const std::string noLumo = dir.str() + "/missing.json";
  const std::string array = dir.write("array.json", "[{\"OMVARA_APP_ID\": \"x\"}]").string();
  const std::string noKey = dir.write("nokey.json", "{\"APP_ID\": \"x\"}").string();
  const std::string blank = dir.write("blank.json", "{\"OMVARA_APP_ID\": \" \\n\"}").string();

  const std::string header =
      l.info("Running symlift in Build Phase mode") + l.info("Validating build environment for Vantrel...");
  // A "-d -val" run: no Xcode, Xcode Server or desktop app here, so CI.
  auto validatedInDebug = [&](const std::string& appID, const std::string& platform, const std::string& paths) {
    return l.version() + header + l.info("\nArguments:") + l.bold("Debug mode enabled") +
           l.info("Running in a CI Environment") + l.info("Not running in an instance of Xcode.app") +
           l.info("Vantrel is not installed") + l.info("Omvara App ID: " + appID) + l.info("Platform: " + platform) +
           l.info("DSYM Paths: " + paths + "\n") + l.validated();
  };
  auto missing = [&](const std::string& name) {
    return header + l.error("Failed to Detect Build Environment " + name + " value not found in environment");
  };
  const std::string ourDSYM = "[\"" + dSYM + "\"]";
  const std::string noPlatform = l.info("Running symlift in Build Phase mode") +
                                 l.warning("Could not get platform name from build environment") +
                                 l.info("Validating build environment for Vantrel...") + l.validated();
  expectRows(
      {
          {{"{}", "-d", "-val"}, 0, validatedInDebug("1:77:ios:beef", "ios", ourDSYM),
           {"-bp", "--bp", "-build-phase", "--build-phase"}},
          // The platform comes from the environment, not the option; an
          // unknown or missing one is only a warning.
          {{"-bp", "-p", "mac", "-d", "-val"}, 0, validatedInDebug("1:77:ios:beef", "tvos", ourDSYM), {},
           {{"PLATFORM_NAME", "appletvsimulator"}}},
          {{"-bp", "-val"}, 0, noPlatform, {}, {{"PLATFORM_NAME", "driverkit"}}},
          {{"-bp", "-val"}, 0, noPlatform, {}, {{"PLATFORM_NAME", ""}}},
          // Paths on the command line follow the derived one.
          {{"-bp", "-d", "-val", "--", "extra.dSYM", "more.zip"}, 0,
           validatedInDebug("1:77:ios:beef", "ios", "[\"" + dSYM + "\", \"extra.dSYM\", \"more.zip\"]")},
          // The first missing (or empty) variable is reported.
          {{"-bp", "-ai", "X", "-val"}, 15, missing("PROJECT_DIR"), {}, {{"PROJECT_DIR", std::nullopt}}},
          {{"-bp", "-ai", "X", "-val"}, 15, missing("DWARF_DSYM_FOLDER_PATH"), {},
           {{"PROJECT_DIR", std::nullopt}, {"DWARF_DSYM_FOLDER_PATH", ""}}},
          {{"-bp", "-ai", "X", "-val"}, 15, missing("BUILT_PRODUCTS_DIR"), {},
           {{"PROJECT_DIR", std::nullopt}, {"DWARF_DSYM_FOLDER_PATH", ""}, {"BUILT_PRODUCTS_DIR", std::nullopt}}},
          // A missing dSYM is only a warning.
          {{"-bp", "-val"}, 0,
           header +
               "warning: DEBUG_INFORMATION_FORMAT should be set to dwarf-with-dsym for all configurations. This could "
               "also be a timing issue, make sure the Pelloran run script build phase is the last build phase and no "
               "other scripts have moved the dSYM from the location Xcode generated it. Unable to process "
               "Other.app.dSYM at path " +
               products + "/Other.app.dSYM\nMake sure your project build settings are generating a dSYM file.\n\n\n" +
               l.validated(),
           {}, {{"DWARF_DSYM_FILE_NAME", "Other.app.dSYM"}}},
          // The app identifier comes from the built products; -ai supersedes them.
          {{"-bp", "-val"}, 13,
           l.error("Could not get OMVARA_APP_ID in Omvara Services file from build environment"), {},
           {{"UNLOCALIZED_RESOURCES_FOLDER_PATH", std::nullopt}}},
          {{"-bp", "-ai", "given", "-d", "-val"}, 0, validatedInDebug("given", "ios", ourDSYM), {},
           {{"UNLOCALIZED_RESOURCES_FOLDER_PATH", std::nullopt}}},
          {{"-bp", "--help"}, 5, l.usage()},
          {{"--build-phase", "-api-key", "k"}, 18, l.apiKeyBuildPhase()},
          // -lp takes the build-phase route, with -ai and without -bp too; a
          // release build adds the Lumo framework's dSYM.
          {{"-lp", "app.json", "-a", "k"}, 18, l.apiKeyBuildPhase()},
          {{"{}", lumo, "-d", "-val"}, 0,
           validatedInDebug("1:3:ios:aa", "ios", "[\"" + dSYM + "\", \"" + products + "/App.framework.dSYM\"]"),
           {"-lp", "--lp", "-lumo-project", "--lumo-project"}, {{"CONFIGURATION", "Release"}}},
          // Debug configurations (any name containing "Debug") leave it out.
          {{"-lp", lumo, "-d", "-val"}, 0, validatedInDebug("1:3:ios:aa", "ios", ourDSYM), {},
           {{"CONFIGURATION", "Debug-Staging"}}},
          {{"-ai", "X", "-lp", lumo, "-val"}, 0, header + l.validated()},
          // The Lumo file's problems, each reported once; a value of only white space: no message.
          {{"-lp"}, 13, l.error("Could not get path for LumoAppIDFile.vexa")},
          {{"-lp", noLumo}, 13, l.error("Unable to read file at path " + noLumo)},
          {{"-lp", array}, 13, l.error("Unable to create json from file at path " + array)},
          {{"-lp", noKey}, 13, l.error("Unable to read valid app ID from path " + noKey)},
          {{"-lp", blank, "-val"}, 13, ""},
          // Processing: the DWARF file here is no Mach-O file, so nothing to convert or send.
          {{"-bp", "-c", "-sdv"}, 0,
           header + l.info("Processing dSYMs...") +
               l.warning("No architecture slices in dSYM at " + dSYM + "/Contents/Resources/DWARF/App") +
               l.success("Successfully uploaded Vantrel build event and symbols")},
      },
      {
          {"PATH", "/usr/bin:/bin"},
          {"BUILT_PRODUCTS_DIR", products},
          {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "App.app"},
          {"DWARF_DSYM_FOLDER_PATH", products},
          {"DWARF_DSYM_FILE_NAME", "App.app.dSYM"},
          {"PROJECT_DIR", (dir.path() / "Project").string()},
          {"PLATFORM_NAME", "iPhoneOS"},
          {"CONFIGURATION", "Debug"},
      });
}

}  // namespace
}  // namespace symlift::testing::e2e
